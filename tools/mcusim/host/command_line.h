// The command line of mcusim as data, and what it asks for. Called by main.
#pragma once

#include <stdexcept>

#include "tools/cli/parse.h"
#include "tools/mcusim/host/simulator.h"

namespace mcusim {

// Help, manual page and completion are made from it.
[[nodiscard]] const cli::Program& CommandLine();

// A command line that is wrong in a way that its rows do not show; what() says why.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws UsageError.
[[nodiscard]] SimulatorOptions OptionsOf(const cli::Arguments& arguments);

}  // namespace mcusim
