// What standard output can show: colours, and how many columns. Used by the commands that print
// more than a line.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace shdtool {

struct OutputStyle {
    bool colour = false;
    size_t width = 0;  // columns, 0: no terminal, lines are not broken

    // The text in a colour of ECMA-48 ("31" red, "32" green, "33" yellow, "2" dim, "1" bold), where
    // there are colours.
    [[nodiscard]] std::string Paint(std::string_view text, std::string_view code) const;

    // Broken at blanks where there is a width, the lines behind the first indented.
    [[nodiscard]] std::string Fit(std::string_view text, size_t indent) const;
};

// Of what is behind a descriptor. Colours need a terminal whose TERM is set and not dumb, a locale
// other than C, and no NO_COLOR.
[[nodiscard]] OutputStyle StyleOf(int fd);
[[nodiscard]] OutputStyle StandardOutputStyle();

}  // namespace shdtool
