// The loop under every command that follows events: connect, wait, deliver, reconnect, and stop on
// Ctrl-C or at a limit. What is done with the events is the sink's business.
#pragma once

#include <chrono>
#include <cstdint>

#include "tools/client/event_watcher.h"
#include "tools/shdtool/command.h"

namespace shdtool {

class EventSink {
  public:
    virtual ~EventSink() = default;

    // A sample or a flush-complete event of the chosen sensors.
    virtual void OnEvent(const shdclient::WatchedEvent& event) = 0;

    // Never with kNone. The default says it on standard error.
    virtual void OnChange(shdclient::WatchChange change);

    // Called after each round of events and otherwise about every tick, for redrawing and flushing.
    virtual void OnTick() {}
};

struct WatchLimits {
    uint64_t max_samples = 0;               // 0: no limit; flush-complete events do not count
    std::chrono::milliseconds duration{0};  // 0: no limit
    std::chrono::milliseconds tick{200};
};

struct WatchSummary {
    uint64_t samples = 0;
    uint64_t discarded_bytes = 0;  // see EventWatcher
};

// Blocks until a limit is reached or SIGINT or SIGTERM comes, which both count as success. Fails
// when there is no daemon at the beginning, or when it goes and the options forbid to reconnect.
[[nodiscard]] shdclient::Result<WatchSummary> WatchEvents(const Context& context,
                                                          const shdclient::WatchOptions& options,
                                                          const WatchLimits& limits,
                                                          EventSink& sink);

}  // namespace shdtool
