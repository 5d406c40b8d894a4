// The lines of the raw-data logs alg.txt and hrm.txt. Used by the rawlog command.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace shdtool {

// steps has the count; heart-rate bpm and status; acc x, y and z in the MCU's own unit; ppg five
// channels; begin and end are those of a heart-rate recording, without values.
inline constexpr std::array<std::string_view, 6> kRawLogKinds{"steps", "heart-rate", "acc",
                                                              "ppg",   "begin",      "end"};
inline constexpr size_t kMaxRawLogValues = 5;

struct RawLogLine {
    size_t kind;            // place in kRawLogKinds
    std::string_view time;  // "11-16 10:05:09", empty when the line has none; into the parsed text
    std::array<int32_t, kMaxRawLogValues> values{};
    size_t value_count = 0;
};

// Parses one line without its line end; empty when the daemon cannot have written it.
[[nodiscard]] std::optional<RawLogLine> ParseRawLogLine(std::string_view line);

// The columns of the table and one line of it, without a line end: the kind, the time where the
// line has one, and each value in the column of its own.
[[nodiscard]] std::string RawLogCsvHeader();
[[nodiscard]] std::string RawLogCsvRow(size_t line_number, const RawLogLine& line);

}  // namespace shdtool
