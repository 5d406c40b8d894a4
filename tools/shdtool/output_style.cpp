// Finds out what standard output can show. Called by the commands that print more than a line.
#include "tools/shdtool/output_style.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "tools/cli/parse.h"

namespace shdtool {

std::string OutputStyle::Paint(std::string_view text, std::string_view code) const {
    if (!colour || code.empty() || text.empty()) return std::string(text);
    return fmt::format("\x1B[{}m{}\x1B[0m", code, text);
}

std::string OutputStyle::Fit(std::string_view text, size_t indent) const {
    constexpr size_t kLeast = 20;  // columns of text, below that breaking makes it worse
    if (width < indent + kLeast) return std::string(text);
    std::string wrapped = cli::Wrapped(text, width, indent);
    wrapped.erase(wrapped.find_last_not_of('\n') + 1);
    return wrapped.substr(std::min(wrapped.find_first_not_of(' '), wrapped.size()));
}

OutputStyle StyleOf(int fd) {
    OutputStyle style;
    winsize size{};
    if (isatty(fd) != 1) return style;
    constexpr size_t kUsualWidth = 80;
    const bool known = ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    style.width = known ? size.ws_col : kUsualWidth;
    const auto variable = [](const char* name) {
        const char* value = std::getenv(name);
        return std::string_view(value != nullptr ? value : "");
    };
    const std::string_view term = variable("TERM");
    std::string_view locale;
    for (const char* name : {"LANG", "LC_CTYPE", "LC_ALL"}) {
        if (!variable(name).empty()) locale = variable(name);
    }
    style.colour = variable("NO_COLOR").empty() && !term.empty() && term != "dumb" &&
                   locale != "C" && locale != "POSIX";
    return style;
}

OutputStyle StandardOutputStyle() {
    return StyleOf(STDOUT_FILENO);
}

}  // namespace shdtool
