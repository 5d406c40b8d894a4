// shdtool tap: what is said on the line, live or from a recording of it, in words and as files. A
// row of the table of commands.
#include <fmt/core.h>

#include <cstdio>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/shdtool/base/command_rows.h"
#include "tools/shdtool/engine/stop_signals.h"
#include "tools/shdtool/files/file_io.h"
#include "tools/shdtool/files/growing_file.h"
#include "tools/tap/line_tap.h"
#include "tools/tap/pcapng.h"
#include "tools/wire/message_reader.h"

namespace shdtool {
namespace {

using std::chrono::nanoseconds;

double Seconds(nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

// Everything that is made of the steps of a line.
class Ear {
  public:
    explicit Ear(bool quiet) : quiet_(quiet) {}

    void Hear(const wire::RecordedStep& step) {
        if (!begin_) begin_ = step.at;
        end_ = step.at;
        if (step.kind == wire::StepKind::kClocks) wall_ahead_ = step.clocks.wall - step.at;
        if (step.kind == wire::StepKind::kHostBytes) host_bytes_ += step.bytes.size();
        if (step.kind == wire::StepKind::kMcuBytes) mcu_bytes_ += step.bytes.size();
        for (const wire::Message& message : reader_.Push(step)) Take(message);
    }

    [[nodiscard]] Report End() {
        for (const wire::Message& message : reader_.End()) Take(message);
        const double seconds = Seconds(end_ - begin_.value_or(end_));
        std::string text = fmt::format("{:.1f} s: {} bytes of the host, {} of the MCU, {} frames",
                                       seconds, host_bytes_, mcu_bytes_, frames_);
        if (damaged_ > 0) text += fmt::format(", {} damaged or cut off", damaged_);
        return Report{text,
                      {{"seconds", seconds},
                       {"host_bytes", host_bytes_},
                       {"mcu_bytes", mcu_bytes_},
                       {"frames", frames_},
                       {"damaged_frames", damaged_}}};
    }

    GrowingFile recording;
    GrowingFile capture;

  private:
    void Take(const wire::Message& message) {
        using Kind = wire::Message::Kind;
        if (message.kind == Kind::kFrame) ++frames_;
        if (message.kind == Kind::kBadFrame || message.kind == Kind::kFragment) ++damaged_;
        capture.Write(tap::CapturePacket(message, message.at + wall_ahead_));
        if (quiet_) return;
        fmt::print("{:12.6f} {}\n", Seconds(message.at), Describe(message));
        (void)std::fflush(stdout);
    }

    const bool quiet_;
    wire::MessageReader reader_;
    nanoseconds wall_ahead_{0};  // of the recorder's clock; 0 without a step that tells
    std::optional<nanoseconds> begin_;
    nanoseconds end_{0};
    size_t host_bytes_ = 0, mcu_bytes_ = 0, frames_ = 0, damaged_ = 0;
};

std::string StepText(const wire::RecordedStep& step) {
    switch (step.kind) {
        case wire::StepKind::kHostBytes:
            return FormatStep(step.at, wire::Direction::kHostToMcu, step.bytes);
        case wire::StepKind::kMcuBytes:
            return FormatStep(step.at, wire::Direction::kMcuToHost, step.bytes);
        case wire::StepKind::kPin:
            return FormatStep(step.at, step.pin, step.high);
        case wire::StepKind::kClocks:
            return FormatStep(step.at, step.clocks);
        case wire::StepKind::kSettings:
            return FormatStep(step.at, step.settings);
        case wire::StepKind::kGate:
            break;  // the tap makes none
    }
    return {};
}

shdclient::Status HearRecording(const std::string& path, Ear& ear) {
    const auto text = ReadWholeFile(path);
    if (!text) return text.error();
    std::vector<std::string> lines;
    std::istringstream stream(*text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    try {
        for (const auto& step : wire::ParseRecording(lines, path)) ear.Hear(step);
    } catch (const std::runtime_error& error) {
        return shdclient::Error{shdclient::ErrorCode::kInvalidArgument, error.what()};
    }
    return shdclient::Success();
}

shdclient::Status HearLine(const Context& context, Ear& ear) {
    auto line = tap::LineTap::Open(context.root);
    if (!line) return line.error();
    if (!context.json) {
        fmt::print(stderr, "shdtool: the tap is in the line; start shd now, Ctrl-C ends the tap\n");
    }
    CatchStopSignals();
    wire::ClockTimer clocks;
    const auto hear = [&](const wire::RecordedStep& step) {
        if (clocks.Due(step.at)) {
            const wire::RecordedStep anchor{
                .at = step.at, .kind = wire::StepKind::kClocks, .clocks = wire::ReadClocks()};
            ear.recording.Write(StepText(anchor));
            ear.Hear(anchor);
        }
        ear.recording.Write(StepText(step));
        ear.Hear(step);
    };
    const auto begin = std::chrono::steady_clock::now();
    const std::chrono::duration<double> limit(
        context.arguments.Has("--seconds") ? context.arguments.Number("--seconds") : 1e9);
    return (*line)->Run(hear, [&] {
        return StopRequested() || std::chrono::steady_clock::now() - begin >= limit ||
               !ear.recording.status() || !ear.capture.status();
    });
}

Outcome Tap(Context& context) {
    const cli::Arguments& arguments = context.arguments;
    const bool force = arguments.Has("--force");
    Ear ear(context.json || arguments.Has("--quiet"));
    if (arguments.Has("--output")) {
        const auto made = ear.recording.Create(arguments.Text("--output"), force);
        if (!made) return made.error();
    }
    if (arguments.Has("--pcapng")) {
        const auto made = ear.capture.Create(arguments.Text("--pcapng"), force);
        if (!made) return made.error();
        ear.capture.Write(tap::CaptureBegin());
    }
    const auto heard = arguments.Has("--from") ? HearRecording(arguments.Text("--from"), ear)
                                               : HearLine(context, ear);
    Report report = ear.End();
    for (const GrowingFile* file : {&ear.recording, &ear.capture}) {
        if (const auto written = file->status(); !written) return written.error();
    }
    if (!heard) return heard.error();
    return report;
}

const cli::Options kTapOptions{
    cli::NewFile("-o,--output", "FILE",
                 "Write the bytes, as mcusim --record does; mcusim --replay plays the file")
        .Excludes("--from"),
    cli::NewFile("--pcapng", "FILE",
                 "Write a capture for a protocol analyser; the dissector is shd_line.lua"),
    cli::File("--from", "FILE", "Take a recording of the line instead of the line"),
    cli::Number("--seconds", "N", "End after so many seconds", 0.001, 1e9).Excludes("--from"),
    cli::Flag("--quiet", "Print the summary alone"),
    cli::Flag("--force", "Replace files that exist"),
};

constexpr const char* kTapDetails =
    "Stands between shd and the MCU: a pseudo terminal and two pipes take the places of the tty "
    "and of the control files for boot pin and reset, and everything is passed on, the line's "
    "settings too. Start it before shd. Times are those of the boot clock.\n"
    "When the tap ends, however it does, the files go back to their places and shd finds its "
    "line hung up; it opens the real one with its next recovery, or when it is started again.\n"
    "On a device it takes root, since files are bound over others.";

}  // namespace

CommandRows TapCommands() {
    return {
        {{"The line", "tap", "Listen on the line between shd and the MCU, or to a recording of it",
          kTapOptions, kTapDetails,
          "shdtool tap -o walk.line --pcapng walk.pcapng\n"
          "shdtool tap --from session.line --pcapng session.pcapng --quiet"},
         Tap}};
}

}  // namespace shdtool
