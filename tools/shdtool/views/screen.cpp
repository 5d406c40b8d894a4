// Draws pages and reads keys. Called by the live views.
#include "tools/shdtool/views/screen.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <sstream>

#include "tools/cli/parse.h"

namespace shdtool {
namespace {

termios g_keys_before;  // of the one terminal that there is
volatile std::sig_atomic_t g_stop_asked = 0;

// Replaces what SIGTSTP does, unless whoever started this program has it ignored.
void SetStopHandler(void (*handler)(int)) {
    struct sigaction action {};
    sigaction(SIGTSTP, nullptr, &action);
    if (action.sa_handler == SIG_IGN) return;
    action.sa_handler = handler;
    action.sa_flags = 0;
    sigaction(SIGTSTP, &action, nullptr);
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

std::string_view CutToColumns(std::string_view line, size_t columns) {
    size_t seen = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        if (ContinuesCharacter(line[i])) continue;
        if (seen++ == columns) return line.substr(0, i);
    }
    return line;
}

std::vector<Line> WrappedLines(const std::vector<Line>& lines, size_t columns) {
    std::vector<Line> wrapped;
    for (const Line& line : lines) {
        std::istringstream rows(cli::Wrapped(line.text, columns, 0));
        for (std::string row; std::getline(rows, row);) wrapped.push_back({row, line.style});
    }
    return wrapped;
}

void Screen::Draw(const std::vector<Line>& lines) {
    const WindowSize window = WindowOf();
    std::string page = taken_ ? "" : Capability("smcup") + Capability("civis");
    if (!taken_) {
        TakeKeys();
        SetStopHandler([](int /*signal*/) { g_stop_asked = 1; });
    }
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

bool Screen::StopWhenAsked() {
    if (g_stop_asked == 0) return false;
    g_stop_asked = 0;
    Leave();
    (void)raise(SIGTSTP);
    return true;
}

void Screen::Leave() {
    if (!taken_) return;
    taken_ = false;
    SetStopHandler(SIG_DFL);
    if (keys_taken_) (void)tcsetattr(STDIN_FILENO, TCSANOW, &g_keys_before);
    keys_taken_ = false;
    Write(Capability("cnorm") + Capability("rmcup"));
}

}  // namespace shdtool
