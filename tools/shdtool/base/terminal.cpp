// Looks at the terminal by way of terminfo and the environment. Called by everything that prints
// for people.
#include "tools/shdtool/base/terminal.h"

#include <curses.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <term.h>

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cstdlib>

#include "tools/cli/parse.h"

// The header's names of two capabilities.
#undef columns
#undef lines

namespace shdtool {
namespace {

TerminalTraits FindTraits() {
    TerminalTraits traits;
    const char* set = std::setlocale(LC_CTYPE, "");
    const std::string_view locale = set != nullptr ? set : "C";
    traits.utf8 = std::string_view(nl_langinfo(CODESET)) == "UTF-8";
    traits.terminal = isatty(STDOUT_FILENO) == 1;
    int found = 0;
    if (!traits.terminal || setupterm(nullptr, STDOUT_FILENO, &found) != OK) return traits;
    traits.drawable = !Capability("home").empty() && !Capability("el").empty();
    const char* no_color = std::getenv("NO_COLOR");
    traits.colour = traits.drawable && (no_color == nullptr || *no_color == '\0') &&
                    locale != "C" && locale != "POSIX" && tigetnum("colors") >= 8;
    return traits;
}

std::string Colour(int number) {
    const std::string set = Capability("setaf");
    const char* text =
        tparm(set.c_str(), static_cast<long>(number), 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L);
    return text != nullptr ? text : "";
}

std::string Beginning(Style style) {
    switch (style) {
        case Style::kPlain:
            break;
        case Style::kDim:
            return Capability("dim");
        case Style::kHeading:
            return Capability("bold");
        case Style::kGood:
            return Colour(COLOR_GREEN);
        case Style::kWarning:
            return Colour(COLOR_YELLOW);
        case Style::kFault:
            return Colour(COLOR_RED);
    }
    return "";
}

}  // namespace

const TerminalTraits& Terminal() {
    static const TerminalTraits traits = FindTraits();
    return traits;
}

WindowSize WindowOf(int fd) {
    winsize window{};
    const bool known =
        ioctl(fd, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 && window.ws_row > 0;
    return known ? WindowSize{window.ws_col, window.ws_row} : WindowSize{80, 24};
}

std::string Capability(const char* name) {
    const char* text = tigetstr(name);
    // -1 (terminfo): the capability is no text.
    return text == nullptr || reinterpret_cast<intptr_t>(text) == -1 ? "" : text;
}

std::string Styled(std::string_view text, Style style) {
    std::string plain(text);
    if (!Terminal().colour || style == Style::kPlain || text.empty()) return plain;
    return Beginning(style) + plain + Capability("sgr0");
}

std::string Fit(std::string_view text, size_t indent, int fd) {
    constexpr size_t kLeast = 20;  // columns of text, below that breaking makes it worse
    const size_t width = isatty(fd) == 1 ? WindowOf(fd).columns : 0;
    if (width < indent + kLeast) return std::string(text);
    std::string wrapped = cli::Wrapped(text, width, indent);
    wrapped.erase(wrapped.find_last_not_of('\n') + 1);
    return wrapped.substr(std::min(wrapped.find_first_not_of(' '), wrapped.size()));
}

void PrintLine(std::FILE* stream, const std::string& text) {
    (void)std::fputs((text + "\n").c_str(), stream);  // fmt throws when a disk is full
}

void Say(std::FILE* stream, const std::string& text) {
    constexpr size_t kIndent = 2;  // of what does not fit into the first row
    const bool rows = text.find('\n') != std::string::npos;
    PrintLine(stream, rows ? text : Fit(text, kIndent, fileno(stream)));
}

}  // namespace shdtool
