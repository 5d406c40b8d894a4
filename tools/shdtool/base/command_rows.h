// The table of all commands: each family gives its rows, and from all of them come the command
// line, the help, the completion and the manual page. Used by main and by the completion command.
#pragma once

#include <vector>

#include "tools/cli/command_line.h"
#include "tools/shdtool/base/command.h"

namespace shdtool {

using CommandRows = std::vector<Command>;

// Each in the file of that name; all rows of one family have one heading.
[[nodiscard]] CommandRows StatusCommands();
[[nodiscard]] CommandRows ClientsCommands();
[[nodiscard]] CommandRows ListCommands();
[[nodiscard]] CommandRows WatchCommands();
[[nodiscard]] CommandRows RecordCommands();
[[nodiscard]] CommandRows ReplayCommands();  // beside watch
[[nodiscard]] CommandRows AuditCommands();
[[nodiscard]] CommandRows ViewCommands();
[[nodiscard]] CommandRows SensorCommands();
[[nodiscard]] CommandRows FlushCommands();
[[nodiscard]] CommandRows McuCommands();
[[nodiscard]] CommandRows RawCommands();
[[nodiscard]] CommandRows LogCommands();
[[nodiscard]] CommandRows TimelineCommands();
[[nodiscard]] CommandRows TapCommands();
[[nodiscard]] CommandRows DumpCommands();
[[nodiscard]] CommandRows RawLogCommands();
[[nodiscard]] CommandRows ImageCommands();
[[nodiscard]] CommandRows CompletionCommands();

// All rows in the order of the help.
[[nodiscard]] const CommandRows& AllCommands();

// shdtool as its command line: the global options and the lines of all rows, in their order.
[[nodiscard]] const cli::Program& ThisProgram();

}  // namespace shdtool
