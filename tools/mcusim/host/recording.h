// A recorded session of the line as a text file, one step a line. --record writes it and --replay
// reads it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mcusim/board/observer.h"
#include "tools/mcusim/line/packet.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

// "0.308911 > 01000f00ad637e": bytes that the host wrote (>) or that were handed over to it (<).
// "0.308911 ! reset 0": the host has put one of the MCU's pins to this level.
struct RecordedStep {
    enum class Kind { kHostBytes, kMcuBytes, kPin };

    int line = 0;  // of the file, from 1
    TimePoint at{0};
    Kind kind = Kind::kPin;
    Bytes bytes = {};       // of the first two kinds, at least one
    Pin pin = Pin::kBoot0;  // of kPin
    bool high = false;
};

// With the line's end.
[[nodiscard]] std::string FormatStep(TimePoint at, Direction direction,
                                     std::span<const uint8_t> bytes);
[[nodiscard]] std::string FormatStep(TimePoint at, Pin pin, bool high);

// A step that is older than the one before it counts as being of the same time; blank lines and
// lines that begin with # are skipped. Throws std::runtime_error naming the file and the line.
[[nodiscard]] std::vector<RecordedStep> LoadRecording(const std::string& path);

}  // namespace mcusim
