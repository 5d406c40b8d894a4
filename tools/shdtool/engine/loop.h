// The loop under every command that follows events: take them from their source, hand them to a
// sink, and stop on a signal, at a limit or at the end. What is done with them is the sink's
// business.
#pragma once

#include <cstdint>

#include "tools/shdtool/base/command.h"
#include "tools/shdtool/engine/sampling.h"
#include "tools/shdtool/engine/source.h"

namespace shdtool {

// Where the loop stands; times on the clock of the arrival times.
struct WatchState {
    int64_t start_ns = 0;
    int64_t now_ns = 0;
    uint64_t samples = 0;  // flush-complete events do not count
    bool connected = true;
    int64_t missed_ns = 0;       // time in which events may have been lost on the way here
    bool surely_missed = false;  // some were
};

class EventSink {
  public:
    virtual ~EventSink() = default;

    // The first call. The source may be paused through it.
    virtual void OnStart(EventSource& source) { (void)source; }

    // A sample or a flush-complete event of the chosen sensors.
    virtual void OnEvent(const shdclient::WatchedEvent& event) = 0;

    // Never with kEvent. The default says it on standard error.
    virtual void OnChange(const Delivery& change);

    // The sampling that was asked for has taken effect, at the beginning or after a reconnection.
    virtual void OnEnabled(int64_t at_ns) { (void)at_ns; }

    // The first seconds have brought no sample. The default says it on standard error.
    virtual void OnSilence();

    // Called after each round of events and otherwise about every tick, for redrawing and flushing.
    // False ends the loop as a limit does; so does an error, which is the loop's then.
    [[nodiscard]] virtual shdclient::Result<bool> OnTick(const WatchState& state);

    // The last call, unless the loop ended with an error.
    [[nodiscard]] virtual shdclient::Status OnEnd(const WatchState& state);
};

// "connection to the daemon lost; waiting for it" and the like.
[[nodiscard]] std::string ChangeText(const Delivery& change);

// Blocks until a limit or the source's end is reached or SIGINT, SIGTERM or SIGHUP comes, which all
// count as success. Fails when there is no daemon at the beginning, when the sink or the sampling
// does, and when the daemon goes and the source's options forbid to reconnect.
[[nodiscard]] shdclient::Result<WatchState> WatchEvents(const Context& context, EventSource& source,
                                                        const WatchRequest& request,
                                                        EventSink& sink);

}  // namespace shdtool
