// Follows a running hub for the page: its events, its clients, its core dumps and, as far as they
// are there, the bytes of its line and its log, as items of a history that browsers read. Run by
// the view command.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/files/dump_store.h"
#include "tools/shdtool/timeline/event_items.h"
#include "tools/shdtool/timeline/follow.h"
#include "tools/shdtool/timeline/state_fold.h"
#include "tools/shdtool/view/actions.h"
#include "tools/shdtool/view/line_meter.h"
#include "tools/shdtool/view/live_history.h"
#include "tools/shdtool/view/presumed_state.h"

namespace shdtool {

class LiveFeed {
  public:
    struct Files {
        std::string line = {};  // a recording of the line that grows; empty: none
        std::string log = {};   // the daemon's, likewise
    };

    LiveFeed(const std::string& root, const Files& files, LiveHistory& history);

    // Until a stop signal. Daemon and files may come and go meanwhile, and need not be there yet.
    [[nodiscard]] shdclient::Status Run();

    // Something was asked of the hub from here. Any thread.
    void TakeAsked(const AskedSampling& asked);

  private:
    void HandOver(int64_t now_ns);
    void Connect(int64_t now_ns);
    [[nodiscard]] shdclient::Status TakeEvents();
    void Take(const timeline::Item& item);
    void TakeState(const timeline::McuState& state);
    void TellAsked(int64_t now_ns);
    void TellPresumedState(int64_t now_ns);
    void TellLoad(int64_t now_ns);
    void TellClients(int64_t now_ns);
    void TellDumps(int64_t now_us);

    const std::string root_;
    LiveHistory& history_;
    FeedBatch batch_;        // of this tick, or the rest of it
    int64_t oldest_ns_ = 0;  // what was before is not kept

    LiveSource source_;
    bool started_ = false;  // source_ was
    Deliveries deliveries_;
    timeline::EventItems events_;
    std::optional<timeline::LineFollower> line_;
    std::optional<timeline::LogFollower> log_;
    LineMeter meter_;
    timeline::StateFold state_;
    bool state_known_ = false;  // from line or log; else it is presumed
    StateFromEvents presumed_;
    std::string told_presumed_;
    std::array<DumpSlot, kDumpSlots> dumps_;
    bool looked_for_dumps_ = false;

    Mutex mutex_;
    std::vector<AskedSampling> asked_ GUARDED_BY(mutex_);
};

}  // namespace shdtool
