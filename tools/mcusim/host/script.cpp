// Commands at given times. Loaded and run by the simulator.
#include "tools/mcusim/host/script.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

#include "tools/mcusim/host/command_args.h"
#include "tools/mcusim/host/text_file.h"

namespace mcusim {
namespace {

constexpr double kMaxTimeSec = 7 * 24 * 3600;
constexpr std::string_view kBlanks = " \t\r";

struct TimeUnit {
    std::string_view name;
    double seconds;
};
constexpr TimeUnit kTimeUnits[] = {{"ms", 0.001}, {"s", 1}, {"m", 60}};

// Without the comment and the blanks at the end.
std::string_view Content(std::string_view line) {
    size_t end = line.find('#');
    while (end != std::string_view::npos && end > 0 &&
           kBlanks.find(line[end - 1]) == std::string_view::npos) {
        end = line.find('#', end + 1);
    }
    line = line.substr(0, end);
    return line.substr(0, line.find_last_not_of(kBlanks) + 1);
}

TimePoint ParseTime(std::string_view text) {
    double value = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    const std::string_view unit(parsed.ptr, static_cast<size_t>(end - parsed.ptr));
    const auto* found = std::ranges::find(kTimeUnits, unit, &TimeUnit::name);
    if (parsed.ec != std::errc() || found == std::end(kTimeUnits) ||
        !(value >= 0 && value * found->seconds <= kMaxTimeSec)) {
        throw CommandError(fmt::format("\"{}\" is no time; write it as 500ms, 2.5s or 3m", text));
    }
    return FromSeconds(value * found->seconds);
}

}  // namespace

Script::Step Script::ParseStep(std::string_view line, std::string where) {
    CommandArgs args(line);
    const std::string_view when = args.Word();
    if (when != "at" && when != "every") {
        throw CommandError(fmt::format("a step begins with at or every, not \"{}\"", when));
    }
    const TimePoint time = ParseTime(args.Word());
    const bool repeats = when == "every";
    if (repeats && time < std::chrono::milliseconds(1)) {
        throw CommandError("every needs 1ms or more");
    }
    return {std::move(where), time, repeats ? time : TimePoint(0), ParseCommand(args.Rest())};
}

Script::Script(const std::string& path) {
    int number = 0;
    for (const std::string& line : ReadLines(path)) {
        ++number;
        const std::string_view text = Content(line);
        if (text.empty()) continue;
        std::string where = fmt::format("{}:{}", path, number);
        try {
            steps_.push_back(ParseStep(text, where));
        } catch (const CommandError& error) {
            throw std::runtime_error(fmt::format("{}: {}", where, error.what()));
        }
    }
}

std::optional<TimePoint> Script::NextDue() const {
    std::optional<TimePoint> next;
    for (const Step& step : steps_) next = Earlier(next, step.due);
    return next;
}

void Script::RunNext(CommandContext& context, const Reporter& report) {
    const std::optional<TimePoint> due = NextDue();
    const auto step = std::ranges::find(steps_, due, &Step::due);
    step->due.reset();
    if (step->interval > TimePoint(0)) step->due = *due + step->interval;
    try {
        const std::string answer = step->action(context);
        if (!answer.empty()) report(step->where, answer, true);
    } catch (const std::exception& error) {
        report(step->where, error.what(), false);
    }
}

}  // namespace mcusim
