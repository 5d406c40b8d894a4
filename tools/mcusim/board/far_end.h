// What stands at the MCU's end of the line: the simulated machine, or the player of a recorded
// session. The simulator moves bytes and pins between it and the device files.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "tools/mcusim/board/observer.h"
#include "tools/mcusim/line/serial_line.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

// Times passed in must not go back. Nothing blocks.
class FarEnd {
  public:
    virtual ~FarEnd() = default;

    // The host has written these bytes; has put a pin to this level.
    virtual void HostWrote(TimePoint at, std::span<const uint8_t> bytes) = 0;
    virtual void SetPin(TimePoint at, Pin pin, bool high) = 0;
    // A host that writes faster than the line gets no further ahead of it.
    [[nodiscard]] virtual bool HasRoom() const = 0;

    // Lets everything happen that is due by now.
    virtual void Advance(TimePoint now) = 0;
    // The next bytes that have reached the host by now; call until there are none.
    [[nodiscard]] virtual std::optional<Burst> TakeOutput(TimePoint now) = 0;
    [[nodiscard]] virtual std::optional<TimePoint> NextDue() const = 0;
    // Bytes that have left the line but that the host's driver has no room for.
    virtual void SetStalled(size_t bytes) = 0;
};

}  // namespace mcusim
