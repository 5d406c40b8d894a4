// Where each item of a timeline stands in a trace: tracks, slices and arrows. Used by the timeline
// command.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/shdtool/timeline/recordings.h"
#include "tools/shdtool/timeline/state_fold.h"
#include "tools/shdtool/timeline/trace_events.h"

namespace shdtool::timeline {

// Takes the items of one file after another: logs first, since what the main thread waits for can
// only be told when recoveries are known, and events last, since they answer flushes of the line.
// Keeps what needs an order in memory: exchanges, states, episodes and flushes; of these a session
// has hundreds where it has millions of others.
class TraceTracks {
  public:
    explicit TraceTracks(TraceEvents& out) : out_(out) {}

    // What comes next is of this file. mark: tells it from others of its kind; empty when there are
    // none.
    void BeginFile(RecordingKind kind, const std::string& mark);
    void Take(const Item& item);
    void EndFile();

    // Writes what was kept. No file may follow.
    void End();

  private:
    struct Wait {
        Time begin = 0;
        Time end = 0;
        std::string words;
        bool exchange = false;
    };
    struct Flush {
        Time at = 0;  // the beginning of the request's frame
        TraceEvents::Track track;
        int32_t handle = 0;
        bool answered = false;  // by an event of this file
    };
    // Samples that came together.
    struct Batch {
        Time first_stamp = 0;
        Time arrival = 0;
        int samples = 0;
        Time busy = INT64_MIN;  // the sensor's track, until then
    };
    enum class Process : uint8_t;

    [[nodiscard]] TraceEvents::Track Track(Process process, const std::string& thread);

    void On(const Sample& item);
    void On(const FlushComplete& item);
    void On(const Frame& item);
    void On(const LineChange& item);
    void On(const Exchange& item);
    void On(const McuState& item);
    void On(const EpisodeSpan& item);
    void On(const LogText& item);
    void On(const Work& item);
    void On(const Connection& item);
    void On(const Missed& item);
    void On(const Asked& item);
    void On(const Clients& /*item*/) {}  // of a running hub only

    void Arrived(Time at);
    void WriteBatch(int32_t handle, Batch& batch);
    void WriteExchanges();
    void WriteConnection(Time end);
    void WriteStates(Process process, std::vector<McuState> states);
    void WriteEpisodes();
    void WriteMainThread();

    TraceEvents& out_;
    std::string mark_;
    bool log_ = false;  // there was one

    // Of this file.
    std::map<uint64_t, Exchange> exchanges_;  // by number, as told last
    std::map<int32_t, Batch> batches_;        // by handle
    std::optional<Time> connected_;           // the client that recorded, since then

    // Of all.
    Time end_ = INT64_MIN;
    std::vector<McuState> states_;
    std::vector<McuState> simulator_states_;
    std::map<std::pair<EpisodeSpan::Kind, Time>, EpisodeSpan> episodes_;
    std::vector<Wait> waits_;  // and other work of the main thread
    std::vector<Flush> flushes_;
};

}  // namespace shdtool::timeline
