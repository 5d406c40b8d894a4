// Reads a command line as the rows of a program describe it, and makes the help, the manual page
// and the completion scripts of the same rows. Called by the mains of the tools.
#pragma once

#include <string>
#include <string_view>

#include "tools/cli/arguments.h"
#include "tools/cli/command_line.h"

namespace cli {

struct Parsed {
    // Of the named command in Program::commands; -1 where there is none.
    int command = -1;
    Arguments arguments;
    std::string text;   // not empty: print this and end with success (--help, --version, --manual)
    std::string error;  // not empty: wrong usage, in one line that names the help to look at
};

// Never throws for what the user wrote.
[[nodiscard]] Parsed Parse(const Program& program, int argc, const char* const* argv);

// The help of the program, or of one of its commands, in lines of at most 80 columns.
[[nodiscard]] std::string HelpText(const Program& program, const Command* command);

// The manual page in the man macros of roff.
[[nodiscard]] std::string ManualPage(const Program& program);

// The completion script for "bash" or "zsh": commands, options, choices, sensors and files.
[[nodiscard]] std::string CompletionScript(const Program& program, const std::string& shell);

// The name under which Arguments has the values of an option: of "-o,--output" the long one.
[[nodiscard]] std::string KeyOf(const Option& option);
[[nodiscard]] bool IsArgument(const Option& option);

// Writes out what the program has printed. False when standard output did not take all of it, which
// has been said on standard error.
[[nodiscard]] bool EndOutput(const Program& program);

// Breaks a text at its blanks into lines of at most width columns (UTF-8), the indentation
// included. Line ends stay, and lines that begin with a blank stay whole.
[[nodiscard]] std::string Wrapped(std::string_view text, size_t width, size_t indent);

}  // namespace cli
