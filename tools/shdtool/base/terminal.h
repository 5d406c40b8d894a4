// What the terminal can do: its size, colours, and text that fits it. Used by everything that
// prints for people.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace shdtool {

enum class Style : uint8_t {
    kPlain,
    kDim,
    kHeading,  // bold
    kGood,     // green
    kWarning,  // yellow
    kFault,    // red
};

// What standard output can do, found out once from terminfo and the environment.
struct TerminalTraits {
    bool terminal = false;  // it is one
    bool drawable = false;  // and a page can be drawn on it: not with TERM=dumb or without TERM
    bool colour = false;    // and NO_COLOR is not set, nor the locale C
    bool utf8 = false;      // the locale's characters
};
[[nodiscard]] const TerminalTraits& Terminal();

// Of a terminal as it is now; 80 by 24 when nobody knows.
struct WindowSize {
    size_t columns;
    size_t rows;

    [[nodiscard]] bool operator==(const WindowSize&) const = default;
};
[[nodiscard]] WindowSize WindowOf(int fd = STDOUT_FILENO);

// A capability of standard output's terminal by its name in terminfo; empty where it has none.
[[nodiscard]] std::string Capability(const char* name);

// The text in its style, where standard output shows colours; else the text.
[[nodiscard]] std::string Styled(std::string_view text, Style style);

// A sentence broken at blanks where the descriptor is a terminal, the lines behind the first
// indented; else the text.
[[nodiscard]] std::string Fit(std::string_view text, size_t indent, int fd = STDOUT_FILENO);

// Prints a line as it is. A stream that does not take it says so when it is closed.
void PrintLine(std::FILE* stream, const std::string& text);

// Prints one line, on a terminal broken at blanks; of more, the caller has made rows that fit.
void Say(std::FILE* stream, const std::string& text);

}  // namespace shdtool
