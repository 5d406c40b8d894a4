// The loop under every command that follows events: connect, wait, deliver, reconnect, and stop on
// Ctrl-C or at a limit. What is done with the events is the sink's business.
#pragma once

#include <chrono>
#include <cstdint>

#include "tools/client/event_watcher.h"
#include "tools/shdtool/command.h"
#include "tools/shdtool/watch/sampling.h"

namespace shdtool {

// Where the loop stands.
struct WatchState {
    int64_t now_ns = 0;    // on the clock of the arrival times; in a replay the recording's time
    uint64_t samples = 0;  // flush-complete events do not count
    bool connected = true;
    uint64_t discarded_bytes = 0;  // see EventWatcher
    uint64_t overrun_events = 0;   // see EventReader
};

class EventSink {
  public:
    virtual ~EventSink() = default;

    // A sample or a flush-complete event of the chosen sensors.
    virtual void OnEvent(const shdclient::WatchedEvent& event) = 0;

    // Never with kNone. The default says it on standard error.
    virtual void OnChange(shdclient::WatchChange change, int64_t at_ns);

    // The sampling that was asked for has taken effect, at the beginning or after a reconnection.
    virtual void OnEnabled() {}

    // The first seconds have brought no sample. The default says it on standard error.
    virtual void OnSilence();

    // Called after each round of events and otherwise about every tick, for redrawing and flushing.
    // An error ends the loop.
    [[nodiscard]] virtual shdclient::Status OnTick(const WatchState& state);

    // The last call, unless the loop ended with an error.
    [[nodiscard]] virtual shdclient::Status OnEnd(const WatchState& state);
};

// "connection to the daemon lost; waiting for it" and "connected to the daemon again; ...".
[[nodiscard]] const char* ChangeText(shdclient::WatchChange change);

struct WatchLimits {
    uint64_t max_samples = 0;               // 0: no limit; flush-complete events do not count
    std::chrono::milliseconds duration{0};  // 0: no limit
    std::chrono::milliseconds tick{200};
};

// Blocks until a limit is reached or SIGINT or SIGTERM comes, which both count as success. Fails
// when there is no daemon at the beginning, when the sink or the sampling does, and when the
// daemon goes and the options forbid to reconnect. Events lost for want of speed are told on
// standard error at the end.
[[nodiscard]] shdclient::Result<WatchState> WatchEvents(const Context& context,
                                                        const shdclient::WatchOptions& options,
                                                        const SamplingRequest& sampling,
                                                        const WatchLimits& limits, EventSink& sink);

}  // namespace shdtool
