// A recorded session of the line as a text file, one step a line. mcusim writes and plays it, and
// shdtool's tap writes it where a real MCU is at the other end.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/wire/packet.h"

namespace wire {

enum class Direction { kHostToMcu, kMcuToHost };

// The pins of the MCU that choose what it starts (boot0 high: its bootloader), and when.
enum class Pin { kBoot0, kReset };
[[nodiscard]] std::string_view NameOf(Pin pin);

// What a step says, behind its time in seconds on the recorder's clock.
enum class StepKind {
    kHostBytes,  // "0.308911 > 01000f00ad637e": the host wrote these bytes
    kMcuBytes,   // "0.311555 < 01010f00...": these were handed over to it
    kPin,        // "4.811030 ! reset 0": the host has put one of the MCU's pins to this level
    kClocks,     // "0.000000 @ 1763892030.123456 12345.678901": wall clock and boot clock just now
    kGate,       // "0.311555 ? go": none recorded by itself; a player waits here for its tester
    kSettings,   // "4.911102 % 115200 8e1": speed, and even parity with the eighth bit stripped
};

struct LineSettings {
    uint32_t baud = 115'200;
    bool even_parity = false;  // 8e1 with the eighth bit stripped; otherwise 8n1

    bool operator==(const LineSettings&) const = default;
};

struct Clocks {
    std::chrono::nanoseconds wall{0};  // since 1970
    std::chrono::nanoseconds boot{0};  // since the host's start, asleep or awake
};

[[nodiscard]] Clocks ReadClocks();

// "---- clocks 1763892030.123456 12345.678901", without a line's end: as texts of other kinds say
// both clocks. A trace has its own time in front.
[[nodiscard]] std::string FormatClocks(const Clocks& clocks);
// Nothing when the line says something else.
[[nodiscard]] std::optional<Clocks> ParseClocks(std::string_view line);

// Tells a recorder when to say both clocks: first of all, and again every minute.
class ClockTimer {
  public:
    [[nodiscard]] bool Due(std::chrono::nanoseconds at) {
        if (at < next_) return false;
        next_ = at + std::chrono::minutes(1);
        return true;
    }

  private:
    std::chrono::nanoseconds next_{0};
};

struct RecordedStep {
    using Time = std::chrono::nanoseconds;

    int line = 0;  // of the file, from 1
    Time at{0};
    StepKind kind = StepKind::kPin;
    Bytes bytes = {};       // of kHostBytes and kMcuBytes, at least one
    Pin pin = Pin::kBoot0;  // of kPin
    bool high = false;
    Clocks clocks = {};          // of kClocks
    LineSettings settings = {};  // of kSettings
};

// With the line's end.
[[nodiscard]] std::string FormatStep(RecordedStep::Time at, Direction direction,
                                     std::span<const uint8_t> bytes);
[[nodiscard]] std::string FormatStep(RecordedStep::Time at, Pin pin, bool high);
[[nodiscard]] std::string FormatStep(RecordedStep::Time at, const LineSettings& settings);
[[nodiscard]] std::string FormatStep(RecordedStep::Time at, const Clocks& clocks);

// Reads a recording line by line, also one that is still being written. A step that is older than
// the one before it counts as being of the same time; blank lines and lines that begin with # are
// skipped.
class StepParser {
  public:
    // The step of the next line, without its end; nothing when it is skipped. Throws
    // std::runtime_error that names no line when it is no step; the next one may be.
    [[nodiscard]] std::optional<RecordedStep> Parse(const std::string& text);

    [[nodiscard]] int line() const { return line_; }  // of the last one, from 1

  private:
    int line_ = 0;
    RecordedStep::Time at_{0};
};

// A whole recording. Throws std::runtime_error naming the file and the line, or when there is no
// step.
[[nodiscard]] std::vector<RecordedStep> ParseRecording(std::span<const std::string> lines,
                                                       const std::string& path);

}  // namespace wire
