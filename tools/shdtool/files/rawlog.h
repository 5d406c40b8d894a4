// The lines of the raw-data logs alg.txt and hrm.txt. Used by the rawlog command.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace shdtool {

enum class RawLogKind : uint8_t {
    kSteps,      // values: steps
    kHeartRate,  // values: bpm, status
    kAcc,        // values: x, y, z, in the MCU's own unit
    kPpg,        // values: five channels
    kBegin,      // a heart-rate recording begins
    kEnd,        // and ends
};

inline constexpr size_t kRawLogKinds = 6;
inline constexpr size_t kMaxRawLogValues = 5;

struct RawLogLine {
    RawLogKind kind;
    std::string_view time;  // "11-16 10:05:09", empty when the line has none; into the parsed text
    std::array<int32_t, kMaxRawLogValues> values{};
    size_t value_count = 0;
};

// Parses one line without its line end; empty when the daemon cannot have written it.
[[nodiscard]] std::optional<RawLogLine> ParseRawLogLine(std::string_view line);

// "steps", "heart-rate", "acc", "ppg", "begin" or "end".
[[nodiscard]] std::string_view RawLogKindName(RawLogKind kind);

// The columns of the table and one line of it, without a line end: the kind, the time where the
// line has one, and each value in the column of its own.
[[nodiscard]] std::string RawLogCsvHeader();
[[nodiscard]] std::string RawLogCsvRow(size_t line_number, const RawLogLine& line);

}  // namespace shdtool
