// The families of shdtool's commands. Each function adds its subcommands to the application, with
// callbacks that keep a reference to the context; main calls them all.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/shdtool/command.h"

namespace shdtool {

void AddListCommand(CLI::App& app, Context& context);
void AddSensorCommands(CLI::App& app, Context& context);
void AddFlushCommand(CLI::App& app, Context& context);
void AddServiceCommands(CLI::App& app, Context& context);
void AddMcuCommands(CLI::App& app, Context& context);
void AddRawCommand(CLI::App& app, Context& context);
void AddWatchCommand(CLI::App& app, Context& context);
void AddRecordCommands(CLI::App& app, Context& context);
void AddAuditCommand(CLI::App& app, Context& context);
void AddStatusCommand(CLI::App& app, Context& context);
void AddDumpCommands(CLI::App& app, Context& context);
void AddRawLogCommand(CLI::App& app, Context& context);
void AddImageCommands(CLI::App& app, Context& context);

// Completes all commands, also those that are added after it.
void AddCompletionCommand(CLI::App& app, Context& context);

}  // namespace shdtool
