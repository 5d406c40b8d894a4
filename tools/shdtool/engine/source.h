// Where events come from: the running hub or a recording of one. Driven by the loop, which does not
// know the difference.
#pragma once

#include <chrono>
#include <cstdint>

#include "tools/client/result.h"
#include "tools/shdtool/engine/delivery.h"

namespace shdtool {

// One thread at a time.
class EventSource {
  public:
    virtual ~EventSource() = default;

    // To be called once, first. Fails when there is no hub.
    [[nodiscard]] virtual shdclient::Status Start() = 0;

    // Waits at most timeout for deliveries and replaces the content of deliveries by all that are
    // there; returns early, with none, when a signal was caught. False when there will be no more.
    [[nodiscard]] virtual shdclient::Result<bool> Take(std::chrono::milliseconds timeout,
                                                       Deliveries& deliveries) = 0;

    // The time on the clock of the arrival times: of the hub now, of a recording how far it is.
    [[nodiscard]] virtual int64_t now_ns() const = 0;

    // A recording stands still meanwhile; the hub goes on.
    virtual void Pause(bool paused) = 0;

    // True for the running hub.
    [[nodiscard]] virtual bool live() const = 0;
};

}  // namespace shdtool
