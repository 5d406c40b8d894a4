// The commands around the firmware image mcu.bin. They work on files alone and need no daemon;
// main adds them to the application.
#pragma once

#include <CLI/CLI.hpp>

namespace shdtool {

// Adds "image build" and "image show". Their callbacks print to standard output and throw
// CLI::RuntimeError after one line on standard error: 1 when the daemon would refuse the image,
// 2 on wrong usage and on a file that cannot be read or written. The application's --json flag is
// honoured when it has one.
void AddImageCommands(CLI::App& app);

}  // namespace shdtool
