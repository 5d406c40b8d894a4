// Drawing by way of terminfo, the only file that knows that library. Called by the live views.
#include "tools/shdtool/views/terminal.h"

#include <curses.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The header's names of two capabilities.
#undef columns
#undef lines

namespace shdtool {
namespace {

termios g_keys_before;  // of the one terminal that there is

// A string capability, or nothing where the terminal has none.
std::string Capability(const char* name) {
    if (!Terminal().drawable) return "";
    const char* text = tigetstr(name);
    return text == nullptr || text == reinterpret_cast<const char*>(-1) ? "" : text;
}

TerminalTraits FindTraits() {
    TerminalTraits traits;
    (void)std::setlocale(LC_CTYPE, "");
    traits.utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    traits.terminal = isatty(STDOUT_FILENO) == 1;
    int found = 0;
    if (!traits.terminal || setupterm(nullptr, STDOUT_FILENO, &found) != OK) return traits;
    const char* home = tigetstr("home");
    const char* erase = tigetstr("el");
    traits.drawable = home != nullptr && home != reinterpret_cast<const char*>(-1) &&
                      erase != nullptr && erase != reinterpret_cast<const char*>(-1);
    const char* no_color = std::getenv("NO_COLOR");
    const bool wanted = no_color == nullptr || *no_color == '\0';
    traits.colour = traits.drawable && wanted && tigetnum("colors") >= 8;
    return traits;
}

std::string Colour(Style style) {
    static const std::string set = Capability("setaf");
    const auto numbered = [&](long number) {
        const char* text = tparm(set.c_str(), number, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L);
        return std::string(text != nullptr ? text : "");
    };
    switch (style) {
        case Style::kPlain:
            break;
        case Style::kHeading:
            return Capability("bold");
        case Style::kGood:
            return numbered(COLOR_GREEN);
        case Style::kWarning:
            return numbered(COLOR_YELLOW);
        case Style::kFault:
            return numbered(COLOR_RED);
    }
    return "";
}

// A page is one write, so that the terminal never shows half of one.
void Write(const std::string& text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
}

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

struct KeyName {
    std::string_view typed;
    Key key;
};

// The arrows in both forms that terminals send; which one depends on a mode.
constexpr std::array<KeyName, 12> kKeys{{{"q", Key::kQuit},
                                         {"\x03", Key::kQuit},
                                         {"p", Key::kPause},
                                         {" ", Key::kPause},
                                         {"r", Key::kReset},
                                         {"?", Key::kHelp},
                                         {"\x1b[A", Key::kUp},
                                         {"\x1bOA", Key::kUp},
                                         {"k", Key::kUp},
                                         {"\x1b[B", Key::kDown},
                                         {"\x1bOB", Key::kDown},
                                         {"j", Key::kDown}}};

}  // namespace

const TerminalTraits& Terminal() {
    static const TerminalTraits traits = FindTraits();
    return traits;
}

std::string Styled(std::string_view text, Style style) {
    const std::string plain(text);
    if (!Terminal().colour || style == Style::kPlain) return plain;
    return Colour(style) + plain + Capability("sgr0");
}

std::string_view CutToColumns(std::string_view line, size_t columns) {
    size_t seen = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (ContinuesCharacter(line[i])) continue;
        if (seen++ == columns) return line.substr(0, i);
    }
    return line;
}

Screen::Size Screen::size() {
    winsize window{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0 || window.ws_col == 0 ||
        window.ws_row == 0) {
        return {80, 24};
    }
    return {window.ws_col, window.ws_row};
}

void Screen::Draw(const std::vector<Line>& lines) {
    const Size window = size();
    std::string page = taken_ ? "" : Capability("smcup") + Capability("civis");
    if (!taken_) TakeKeys();
    taken_ = true;
    page += Capability("home");
    const std::string erase_line = Capability("el");
    const size_t count = std::min(lines.size(), window.rows);
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) page += "\r\n";
        // Erased first: behind a full line the cursor still stands on its last character.
        page += erase_line;
        page += Styled(CutToColumns(lines[i].text, window.columns), lines[i].style);
    }
    if (count < window.rows) page += "\r\n" + Capability("ed");
    Write(page);
}

// Single keys without an echo; only in the foreground, for others are stopped when they try.
void Screen::TakeKeys() {
    if (isatty(STDIN_FILENO) != 1 || tcgetpgrp(STDIN_FILENO) != getpgrp()) return;
    if (tcgetattr(STDIN_FILENO, &g_keys_before) != 0) return;
    termios single = g_keys_before;
    single.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    keys_taken_ = tcsetattr(STDIN_FILENO, TCSANOW, &single) == 0;
}

Key Screen::PressedKey() {
    pollfd ready{STDIN_FILENO, POLLIN, 0};
    std::array<char, 64> typed{};
    if (keys_taken_ && poll(&ready, 1, 0) > 0) {
        const ssize_t count = read(STDIN_FILENO, typed.data(), typed.size());
        if (count > 0) typed_.append(typed.data(), static_cast<size_t>(count));
    }
    while (!typed_.empty()) {
        for (const KeyName& name : kKeys) {
            if (!typed_.starts_with(name.typed)) continue;
            typed_.erase(0, name.typed.size());
            return name.key;
        }
        typed_.erase(0, 1);
    }
    return Key::kNone;
}

void Screen::Leave() {
    if (!taken_) return;
    taken_ = false;
    if (keys_taken_) (void)tcsetattr(STDIN_FILENO, TCSANOW, &g_keys_before);
    keys_taken_ = false;
    Write(Capability("cnorm") + Capability("rmcup"));
}

}  // namespace shdtool
