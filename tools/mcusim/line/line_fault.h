// One fault at one byte of the line, so that a tester can break any byte of an exchange. A tester
// orders it, and the machine passes every byte of both directions through it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "tools/mcusim/line/sim_time.h"
#include "tools/wire/recording.h"

namespace mcusim {

class LineFault {
  public:
    enum class Kind {
        kDrop,     // the byte is lost
        kFlip,     // a bit of it is inverted
        kDouble,   // it comes twice
        kInsert,   // another byte comes before it
        kPause,    // it and all behind it come later
        kSilence,  // it and all behind it are lost, both ways, until the MCU is reset
        kPower,    // the MCU loses its power as it passes
    };

    struct Order {
        wire::Direction direction;
        uint64_t byte;  // from 0: the next one of that direction
        Kind kind;
        uint8_t value = 0;      // kFlip: the mask of the bit; kInsert: the byte
        TimePoint duration{0};  // kPause, kPower
    };

    // What the caller has to do about the byte beside handing on what was passed.
    enum class Effect {
        kNone,
        kPause,  // nothing was passed: bring this byte again, later by duration()
        kPower,  // cut the power for duration(); what follows in the same burst is lost
    };

    // Takes the place of an earlier order.
    void Set(const Order& order);
    // Takes an order back and ends a silence.
    void Clear();
    // The MCU has been reset or has lost its power.
    void EndSilence() { silent_ = false; }

    // Counts the byte and appends what becomes of it.
    [[nodiscard]] Effect Pass(wire::Direction direction, uint8_t byte,
                              std::vector<uint8_t>& passed);
    [[nodiscard]] TimePoint duration() const { return duration_; }

    [[nodiscard]] uint64_t happened() const { return happened_; }

  private:
    std::optional<Order> order_;  // with the bytes that are still to pass before
    bool silent_ = false;
    TimePoint duration_{0};
    uint64_t happened_ = 0;
};

}  // namespace mcusim
