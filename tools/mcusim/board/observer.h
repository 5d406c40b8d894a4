// What can be watched of a machine at work: bytes on the line, packets, changes of the board. The
// trace and the recorder implement it; the machine calls it.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "tools/mcusim/line/packet.h"
#include "tools/mcusim/line/sim_time.h"
#include "tools/wire/recording.h"

namespace mcusim {

class Observer {
  public:
    virtual ~Observer() = default;

    // Bytes as they were written by the host or handed over to it. bootloader tells whether they
    // are the bootloader's or the application's.
    virtual void OnBytes(TimePoint at, Direction direction, std::span<const uint8_t> bytes,
                         bool bootloader) = 0;
    // A packet that arrived or that the application has to say. note tells what became of it when
    // it went no further; a damaged frame that arrived comes as an empty packet with a note.
    virtual void OnPacket(TimePoint at, Direction direction, std::span<const uint8_t> packet,
                          std::string_view note) = 0;
    // The host has put a pin to this level.
    virtual void OnPin(TimePoint at, Pin pin, bool high) = 0;
    // The board's mode has changed.
    virtual void OnMode(TimePoint at, std::string_view mode) = 0;
};

}  // namespace mcusim
