// The families of shdtool's commands. Each function adds its subcommands to the application, with
// callbacks that keep a reference to the context; main calls them all.
#pragma once

#include <CLI/CLI.hpp>

#include "tools/shdtool/command.h"

namespace shdtool {

void AddListCommand(CLI::App& app, Context& context);
void AddSensorCommands(CLI::App& app, Context& context);
void AddWatchCommand(CLI::App& app, Context& context);

}  // namespace shdtool
