// shdtool rawlog: summarises a raw-data log or turns it into columns. A row of the table of
// commands; it needs no daemon.
#include <fmt/format.h>

#include <string>
#include <vector>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/rawlog.h"

namespace shdtool {
namespace {

struct Summary {
    std::array<size_t, kRawLogKinds.size()> lines{};
    std::string first_time;
    std::string last_time;
    size_t bad_lines = 0;
    size_t first_bad_line = 0;  // counted from 1
    std::string first_bad_text;
};

void Count(const RawLogLine& line, Summary& summary) {
    ++summary.lines[line.kind];
    if (line.time.empty()) return;
    if (summary.first_time.empty()) summary.first_time = line.time;
    summary.last_time = line.time;
}

void CountBad(size_t number, std::string_view text, Summary& summary) {
    constexpr size_t kShownCharacters = 40;
    if (++summary.bad_lines > 1) return;
    summary.first_bad_line = number;
    summary.first_bad_text = text.substr(0, kShownCharacters);
    std::ranges::replace_if(
        summary.first_bad_text, [](char c) { return c < ' ' || c > '~'; }, '?');
}

Summary ReadLog(std::string_view content, bool csv) {
    Summary summary;
    if (csv) fmt::print("{}\n", RawLogCsvHeader());
    for (size_t number = 1; !content.empty(); ++number) {
        const size_t end = content.find('\n');
        const std::string_view text = content.substr(0, end);
        // A line without its end was cut off: its last number may be only the beginning of one.
        const auto line = end == std::string_view::npos ? std::nullopt : ParseRawLogLine(text);
        content.remove_prefix(end == std::string_view::npos ? content.size() : end + 1);
        if (!line) {
            CountBad(number, text, summary);
            continue;
        }
        Count(*line, summary);
        if (csv) fmt::print("{}\n", RawLogCsvRow(number, *line));
    }
    return summary;
}

Report ReportOf(const std::string& path, const Summary& summary) {
    std::vector<std::string> counts;
    Json lines;
    for (size_t i = 0; i < kRawLogKinds.size(); ++i) {
        counts.push_back(fmt::format("{} {}", summary.lines[i], kRawLogKinds[i]));
        lines.Set(kRawLogKinds[i], summary.lines[i]);
    }
    Report report{fmt::format("{}: {}", path, fmt::join(counts, ", ")),
                  {{"file", path},
                   {"lines", lines},
                   {"first_time", summary.first_time},
                   {"last_time", summary.last_time},
                   {"bad_lines", summary.bad_lines}}};
    if (!summary.first_time.empty()) {
        report.text += fmt::format(" lines, from {} to {}", summary.first_time, summary.last_time);
    }
    if (summary.bad_lines == 0) return report;
    report.fields.Set("first_bad_line", summary.first_bad_line);
    report.exit_status = kExitRefused;
    report.complaint =
        fmt::format("{}: {} of its lines are no raw-data lines, first line {}: {}", path,
                    summary.bad_lines, summary.first_bad_line, summary.first_bad_text);
    return report;
}

Outcome ShowRawLog(Context& context) {
    const std::string path = context.arguments.Text("FILE");
    const bool csv = context.arguments.Has("--csv");
    const auto content = ReadWholeFile(path);
    if (!content) return content.error();
    Report report = ReportOf(path, ReadLog(*content, csv));
    report.streamed = csv;
    if (csv) report.text.clear();
    return report;
}

}  // namespace

CommandRows RawLogCommands() {
    return {{{"Files",
              "rawlog",
              "Summarise a raw-data log, or turn it into columns",
              {cli::File("FILE", "", "The log").Required(),
               cli::Flag("--csv", "Print every line as comma-separated columns instead")},
              "FILE is alg.txt or hrm.txt of /data/logdata/sensor. Damaged lines are left out and "
              "the first is named; the exit status is then 1.",
              "shdtool rawlog \"$SHD_ROOT/data/logdata/sensor/hrm.txt\"\n"
              "shdtool rawlog \"$SHD_ROOT/data/logdata/sensor/alg.txt\" --csv > alg.csv"},
             ShowRawLog}};
}

}  // namespace shdtool
