// Parsing of raw-data log lines and their form as columns. Called by the rawlog command.
#include "tools/shdtool/files/rawlog.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace shdtool {
namespace {

// What a line of each kind looks like: its words with a number behind each, then perhaps a time.
struct LineForm {
    std::string_view pattern;  // '#' stands for a number
    bool has_time;
    size_t first_column;  // of its values, behind line, kind and time
};

// In the order of kRawLogKinds.
constexpr std::array<LineForm, kRawLogKinds.size()> kForms{{
    {"steps #", true, 0},
    {"bpm # status #", true, 1},
    {"1 # # #", false, 3},
    {"5 # # # # #", false, 6},
    {"heartrate begin", true, 0},
    {"heartrate end", true, 0},
}};

constexpr std::array<std::string_view, 11> kValueColumns{
    "steps", "bpm", "status", "x", "y", "z", "ppg1", "ppg2", "ppg3", "ppg4", "ppg5"};

constexpr std::string_view kTimeMark = " time:";

// Matches the pattern and takes the numbers; what is left of the line must be empty.
bool Match(std::string_view pattern, std::string_view text, RawLogLine& line) {
    for (const char c : pattern) {
        if (c != '#') {
            if (text.empty() || text.front() != c) return false;
            text.remove_prefix(1);
            continue;
        }
        int32_t& value = line.values[line.value_count];
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error != std::errc()) return false;
        text.remove_prefix(static_cast<size_t>(end - text.data()));
        ++line.value_count;
    }
    return text.empty();
}

// "11-16 10:05:09"
bool IsTime(std::string_view text) {
    constexpr std::string_view kPattern = "##-## ##:##:##";
    return std::equal(
        text.begin(), text.end(), kPattern.begin(), kPattern.end(),
        [](char c, char form) { return form == '#' ? c >= '0' && c <= '9' : c == form; });
}

}  // namespace

std::optional<RawLogLine> ParseRawLogLine(std::string_view text) {
    const size_t mark = text.find(kTimeMark);
    const bool has_time = mark != std::string_view::npos;
    std::string_view time = has_time ? text.substr(mark + kTimeMark.size()) : "";
    time = time.substr(0, time.find_last_not_of(' ') + 1);
    if (!time.empty() && !IsTime(time)) return std::nullopt;
    for (size_t kind = 0; kind < kForms.size(); ++kind) {
        RawLogLine line{kind, time, {}, 0};
        const LineForm& form = kForms[kind];
        if (form.has_time == has_time && Match(form.pattern, text.substr(0, mark), line)) {
            return line;
        }
    }
    return std::nullopt;
}

std::string RawLogCsvHeader() {
    return fmt::format("line,kind,time,{}", fmt::join(kValueColumns, ","));
}

std::string RawLogCsvRow(size_t line_number, const RawLogLine& line) {
    std::array<std::string, kValueColumns.size()> cells;
    const size_t first = kForms[line.kind].first_column;
    for (size_t i = 0; i < line.value_count; ++i) cells[first + i] = std::to_string(line.values[i]);
    return fmt::format("{},{},{},{}", line_number, kRawLogKinds[line.kind], line.time,
                       fmt::join(cells, ","));
}

}  // namespace shdtool
