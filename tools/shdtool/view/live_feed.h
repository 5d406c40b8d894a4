// Follows a running hub for the page: its events, its clients, its core dumps and the line's load,
// as items of a history that browsers read. Run by the view command.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/mutex.h"
#include "tools/shdtool/engine/live_source.h"
#include "tools/shdtool/files/dump_store.h"
#include "tools/shdtool/view/actions.h"
#include "tools/shdtool/view/live_history.h"
#include "tools/shdtool/view/presumed_state.h"

namespace shdtool {

class LiveFeed {
  public:
    LiveFeed(const std::string& root, LiveHistory& history);

    // Until a stop signal. The daemon may come and go meanwhile, and need not be there yet.
    [[nodiscard]] shdclient::Status Run();

    // Something was asked of the hub from here. Any thread.
    void TakeAsked(const AskedSampling& asked);

  private:
    void Connect(int64_t now_ns);
    [[nodiscard]] shdclient::Status TakeEvents(FeedBatch& batch);
    void TellAsked(FeedBatch& batch, int64_t now_us);
    void TellState(FeedBatch& batch, int64_t now_ns);
    void TellLoad(FeedBatch& batch, int64_t now_ns);
    void TellClients(FeedBatch& batch, int64_t now_us);
    void TellDumps(FeedBatch& batch, int64_t now_us);

    const std::string root_;
    LiveHistory& history_;
    LiveSource source_;
    bool started_ = false;  // source_ was
    Deliveries deliveries_;
    StateFromEvents state_;
    std::string told_state_;
    std::array<DumpSlot, kDumpSlots> dumps_;

    Mutex mutex_;
    std::vector<AskedSampling> asked_ GUARDED_BY(mutex_);
};

}  // namespace shdtool
