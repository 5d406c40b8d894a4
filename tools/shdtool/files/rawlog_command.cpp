// shdtool rawlog: summarises a raw-data log or turns it into columns. Called by main; it needs no
// daemon.
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <string>

#include "tools/shdtool/commands.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/rawlog.h"

namespace shdtool {
namespace {

struct Summary {
    std::array<size_t, kRawLogKinds> lines{};
    std::string first_time;
    std::string last_time;
    size_t bad_lines = 0;
    size_t first_bad_line = 0;  // counted from 1
    std::string first_bad_text;
};

void Count(const RawLogLine& line, Summary& summary) {
    ++summary.lines[static_cast<size_t>(line.kind)];
    if (line.time.empty()) return;
    if (summary.first_time.empty()) summary.first_time = line.time;
    summary.last_time = line.time;
}

void CountBad(size_t number, std::string_view text, Summary& summary) {
    constexpr size_t kShownCharacters = 40;
    if (++summary.bad_lines > 1) return;
    summary.first_bad_line = number;
    for (const char c : text.substr(0, kShownCharacters)) {
        const bool printable = c >= ' ' && c <= '~';
        summary.first_bad_text += printable ? c : '?';
    }
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

std::string SummaryText(const std::string& path, const Summary& summary) {
    std::string text = path + ":";
    for (size_t i = 0; i < kRawLogKinds; ++i) {
        text += fmt::format("{} {} {}", i > 0 ? "," : "", summary.lines[i],
                            RawLogKindName(static_cast<RawLogKind>(i)));
    }
    if (!summary.first_time.empty()) {
        text += fmt::format(" lines, from {} to {}", summary.first_time, summary.last_time);
    }
    return text;
}

void PrintSummary(const Context& context, const std::string& path, const Summary& summary) {
    if (!context.json) {
        fmt::print("{}\n", SummaryText(path, summary));
        return;
    }
    Json object{{"ok", summary.bad_lines == 0}, {"command", "rawlog"}, {"file", path}};
    for (size_t i = 0; i < kRawLogKinds; ++i) {
        object["lines"][std::string(RawLogKindName(static_cast<RawLogKind>(i)))] = summary.lines[i];
    }
    object["first_time"] = summary.first_time;
    object["last_time"] = summary.last_time;
    object["bad_lines"] = summary.bad_lines;
    if (summary.bad_lines > 0) object["first_bad_line"] = summary.first_bad_line;
    PrintJson(object);
}

void ShowLog(Context& context, const std::string& path, bool csv) {
    const auto content = ReadWholeFile(path);
    if (!content) return Fail(context, "rawlog", content.error());
    const Summary summary = ReadLog(*content, csv);
    if (!csv) PrintSummary(context, path, summary);
    if (summary.bad_lines == 0) return;
    context.exit_status = kExitRefused;
    if (!context.json) {
        (void)std::fflush(stdout);
        fmt::print(stderr,
                   "shdtool: {}: {} of its lines are no raw-data lines, first line {}: {}\n", path,
                   summary.bad_lines, summary.first_bad_line, summary.first_bad_text);
    }
}

}  // namespace

void AddRawLogCommand(CLI::App& app, Context& context) {
    CLI::App* command =
        AddCommand(app, "rawlog", "Summarise a raw-data log, or turn it into columns",
                   "  shdtool rawlog \"$SHD_ROOT/data/logdata/sensor/hrm.txt\"\n"
                   "  shdtool rawlog \"$SHD_ROOT/data/logdata/sensor/alg.txt\" --csv > alg.csv",
                   "FILE is alg.txt or hrm.txt of /data/logdata/sensor. Damaged lines are left out "
                   "and the first is\n"
                   "named; the exit status is then 1.");
    auto path = std::make_shared<std::string>();
    auto csv = std::make_shared<bool>(false);
    command->add_option("FILE", *path, "the log")->required()->type_name("");
    command->add_flag("--csv", *csv, "Print every line as comma-separated columns instead");
    command->callback([&context, path, csv] { ShowLog(context, *path, *csv); });
}

}  // namespace shdtool
