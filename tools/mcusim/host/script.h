// Commands at given times, for --script. The program loads a script before the machine starts and
// the event loop runs what is due.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/mcusim/host/tester_commands.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

// Lines "at TIME COMMAND" and "every TIME COMMAND", TIME since the start as a number with ms, s or
// m. A # at the beginning of a line or behind a blank begins a comment. Commands that fall due
// together run in the order of their lines.
class Script {
  public:
    // where is "FILE:LINE"; ok is false for a command that could not be carried out.
    using Reporter =
        std::function<void(const std::string& where, const std::string& answer, bool ok)>;

    // Checks every line; throws std::runtime_error naming the file and the line.
    explicit Script(const std::string& path);

    [[nodiscard]] std::optional<TimePoint> NextDue() const;
    // Carries out the next step, which must be due by context.now; reports answers and failures.
    void RunNext(CommandContext& context, const Reporter& report);

  private:
    struct Step {
        std::string where;
        std::optional<TimePoint> due;
        TimePoint interval;  // 0: once
        CommandAction action;
    };

    [[nodiscard]] static Step ParseStep(std::string_view line, std::string where);

    std::vector<Step> steps_;
};

}  // namespace mcusim
