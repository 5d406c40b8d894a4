// shdtool log: the daemon's log with sensor names, filters, and recoveries and updates as one line
// each, or a recording of it. A row of the table of commands; it needs no daemon.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/base/hub_clocks.h"
#include "tools/shdtool/base/terminal.h"
#include "tools/shdtool/files/growing_file.h"
#include "tools/shdtool/log/log_input.h"
#include "tools/shdtool/log/log_view.h"
#include "tools/wire/recording.h"

namespace shdtool {
namespace {

using shdclient::Error;
using shdclient::ErrorCode;
using shdclient::Result;

LogFilter FilterOf(const cli::Arguments& arguments) {
    LogFilter filter;
    filter.tags = arguments.All("--tag");
    filter.level = arguments.Text("--level").front();
    for (const auto* sensor : arguments.Sensors("--sensor")) {
        filter.sensors.push_back(sensor->handle);
    }
    filter.at = arguments.Text("--at");
    filter.episodes_only = arguments.Has("--summary");
    return filter;
}

// Prints what a log says, line by line.
class LogPrinter {
  public:
    explicit LogPrinter(const Context& context)
        : json_(context.json),
          fold_(!context.arguments.Has("--all")),
          filter_(FilterOf(context.arguments)),
          folder_(!context.arguments.Has("--follow")) {}

    void Add(std::string_view text) {
        if (std::optional<LogLine> line = ParseLogLine(text)) {
            if (!IsDaemonTag(line->tag)) return;
            of_daemon_ = true;
            fold_ ? folder_.Add(*line) : Print(*line);
        } else if (!IsLogNoise(text)) {
            LogLine other;
            other.text = text;
            folder_.Pass(other);
        }
        PrintAll();
    }
    void End() {
        folder_.End();
        PrintAll();
    }
    // Whether there was any line of the daemon.
    [[nodiscard]] bool of_daemon() const { return of_daemon_; }

  private:
    void PrintAll() {
        for (const LogItem& item : folder_.Take()) Print(item);
    }
    void Print(const LogItem& item) const {
        if (!filter_.Wants(item)) return;
        PrintLine(stdout, json_ ? JsonOf(item).Text() : TextOf(item));
    }

    const bool json_;
    const bool fold_;
    const LogFilter filter_;
    LogFolder folder_;
    bool of_daemon_ = false;
};

Error NoLog(const std::string& path) {
    return {ErrorCode::kInvalidArgument,
            fmt::format("{} holds no line of shd's log, as logcat -v threadtime and shd's "
                        "standard error have them",
                        path == "-" ? "standard input" : path)};
}

// Keeps the lines as they are, and says both clocks first of all and each minute.
Outcome RecordLog(const Context& context, const std::string& path, LogInput& input) {
    const std::string output = context.arguments.Text("--output");
    GrowingFile file;
    const auto made = file.Create(output, context.arguments.Has("--force"));
    if (!made) return made.error();
    wire::ClockTimer timer;
    std::string pending;
    uint64_t lines = 0;
    bool of_daemon = false;
    const auto say_clocks = [&] {
        const wire::Clocks now = HubClocks();
        if (timer.Due(now.boot)) pending += FormatClocks(now) + "\n";
    };
    const auto write = [&] {
        say_clocks();
        file.Write(pending);
        pending.clear();
        return file.status().ok();
    };
    constexpr size_t kPieceBytes = 65'536;
    say_clocks();
    const auto read = input.Read(
        [&](std::string_view line) {
            const auto parsed = of_daemon ? std::nullopt : ParseLogLine(line);
            if (parsed && IsDaemonTag(parsed->tag)) of_daemon = true;
            ++lines;
            pending.append(line) += '\n';
            if (pending.size() >= kPieceBytes) (void)write();
        },
        write);
    (void)write();
    if (const auto written = file.status(); !written) return written.error();
    if (!read) return read.error();
    if (!of_daemon) return NoLog(path);
    return Report{fmt::format("{}: {} lines", output, lines), {{"file", output}, {"lines", lines}}};
}

Outcome ShowLog(Context& context) {
    const std::string path = context.arguments.Text("FILE");
    if (path == "-" && isatty(STDIN_FILENO) == 1) {
        return WrongUsage(
            "log: name the file that the daemon's standard error goes to, or pipe it "
            "in: logcat -v threadtime | shdtool log");
    }
    Result<LogInput> input = LogInput::Open(path, context.arguments.Has("--follow"));
    if (!input) return input.error();
    if (context.arguments.Has("--output")) return RecordLog(context, path, *input);
    LogPrinter printer(context);
    const auto read = input->Read([&printer](std::string_view line) { printer.Add(line); },
                                  [] { return std::fflush(stdout) == 0; });
    printer.End();
    if (!read) return read.error();
    if (!printer.of_daemon()) return NoLog(path);
    return Report{.text = "", .streamed = true};
}

}  // namespace

CommandRows LogCommands() {
    return {
        {{"Files",
          "log",
          "Show the daemon's log, each recovery and each firmware update as one line",
          {cli::File("FILE", "", "The daemon's standard error in a file, or -: standard input")
               .Standard("-"),
           cli::Flag("-f,--follow", "Go on as the file grows, is cut short or is replaced"),
           cli::NewFile("-o,--output", "FILE",
                        "Keep the lines there, with the wall and the boot clock each minute, and "
                        "print none; see timeline")
               .Excludes("--summary --all --at --level --tag --sensor"),
           cli::Flag("--force", "Replace the file when it exists").Needs("--output"),
           cli::Flag("--summary", "Only recoveries, updates and restarts of the daemon")
               .Excludes("--all"),
           cli::Flag("--all", "Every line of recoveries and updates"),
           cli::Text("--at", "TIME",
                     "Only what begins with this time or was going on then: 04:31 or "
                     "\"11-23 04\""),
           cli::Choice("--level", "LEVEL", "Only this level and above: V, D, I, W or E",
                       "V D I W E")
               .Standard("V"),
           cli::Choice(
               "--tag", "TAG",
               "Only this tag (shd, shd_hdlc, shd_serial, update_mcu, mcu); may be repeated",
               kDaemonTags)
               .Repeated(),
           cli::Sensor("--sensor", "SENSOR", "Only lines that name this sensor; may be repeated")
               .Repeated()},
          "A recovery is told with its cause, its length, and the sensors that are on again or "
          "not; an update with its cause, its length and the block at which it failed. The log "
          "counts no blocks: \"about\" means that the time tells. With --json each line is an "
          "object of its own.",
          "shdtool log shd.log --summary\n"
          "shdtool log shd.log --at 04:31\n"
          "shdtool log shd.log -f -o walk.log\n"
          "adb logcat -v threadtime | shdtool log --follow --level W"},
         ShowLog}};
}

}  // namespace shdtool
