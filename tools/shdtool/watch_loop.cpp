// Drives an EventWatcher and hands its events to a sink. Called by the watching commands.
#include "tools/shdtool/watch_loop.h"

#include <fmt/core.h>
#include <signal.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <vector>

namespace shdtool {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

volatile std::sig_atomic_t g_stop = 0;

void RequestStop(int /*signal*/) {
    g_stop = 1;
}

// Catches SIGINT and SIGTERM for its lifetime, without restarting the interrupted wait.
class StopSignals {
  public:
    StopSignals() {
        g_stop = 0;
        struct sigaction action {};
        action.sa_handler = RequestStop;
        sigaction(SIGINT, &action, &old_int_);
        sigaction(SIGTERM, &action, &old_term_);
    }
    ~StopSignals() {
        sigaction(SIGINT, &old_int_, nullptr);
        sigaction(SIGTERM, &old_term_, nullptr);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

  private:
    struct sigaction old_int_ {};
    struct sigaction old_term_ {};
};

milliseconds TimeLeft(const WatchLimits& limits, steady_clock::time_point start) {
    if (limits.duration.count() == 0) return limits.tick;
    const auto left =
        limits.duration - std::chrono::floor<milliseconds>(steady_clock::now() - start);
    return std::clamp(left, milliseconds(0), limits.tick);
}

}  // namespace

void EventSink::OnChange(shdclient::WatchChange change) {
    fmt::print(stderr, "shdtool: {}\n",
               change == shdclient::WatchChange::kLost
                   ? "the daemon has gone; waiting for it"
                   : "connected again; events between are lost");
}

shdclient::Result<WatchSummary> WatchEvents(const Context& context,
                                            const shdclient::WatchOptions& options,
                                            const WatchLimits& limits, EventSink& sink) {
    shdclient::EventWatcher watcher(context.root, options);
    const shdclient::Status opened = watcher.Open();
    if (!opened) return opened.error();

    const StopSignals signals;
    const steady_clock::time_point start = steady_clock::now();
    WatchSummary summary;
    std::vector<shdclient::WatchedEvent> events;
    while (g_stop == 0) {
        const milliseconds wait = TimeLeft(limits, start);
        if (wait.count() == 0) break;
        events.clear();
        const auto change = watcher.Poll(wait, events);
        summary.discarded_bytes = watcher.discarded_bytes();
        for (const shdclient::WatchedEvent& event : events) {
            sink.OnEvent(event);
            if (event.decoded.flush_complete) continue;
            if (++summary.samples == limits.max_samples) break;
        }
        if (!change) return change.error();
        if (*change != shdclient::WatchChange::kNone) sink.OnChange(*change);
        sink.OnTick();
        if (limits.max_samples != 0 && summary.samples >= limits.max_samples) break;
    }
    return summary;
}

}  // namespace shdtool
