// The commands of the command channel and of scripts. Parsing a line gives an action that can be
// carried out later and again, so that a script is checked completely before it starts.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/mcusim/board/machine.h"
#include "tools/mcusim/line/sim_time.h"

namespace mcusim {

struct CommandContext {
    Machine& machine;
    TimePoint now;
    bool& quit;  // set to end the simulator
    const std::string& state_directory;
};

// A command that is wrong or that cannot be carried out now; what() says why.
class CommandError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Returns what follows "ok" in the answer, possibly nothing; throws CommandError.
using CommandAction = std::function<std::string(CommandContext& context)>;

// Throws CommandError naming what is wrong with the line.
[[nodiscard]] CommandAction ParseCommand(std::string_view line);

// Parses and executes; the answer is "ok", "ok ..." or "error: ...".
[[nodiscard]] std::string RunCommand(std::string_view line, CommandContext& context);

// Usage and meaning of each command, for the help and the manual.
[[nodiscard]] std::string CommandHelp();
// Their names, with blanks between, for the completion.
[[nodiscard]] std::string CommandWords();

}  // namespace mcusim
