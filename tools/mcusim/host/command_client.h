// The other end of the command socket, for --send. The program uses it to pass a command to a
// simulator that is already running.
#pragma once

#include <string>

namespace mcusim {

// Sends one command line and returns the answer line. Throws std::runtime_error when no simulator
// listens on that socket or it ends before it has answered.
[[nodiscard]] std::string SendCommand(const std::string& socket_path, const std::string& command);

}  // namespace mcusim
