// Drawing with the control sequences of ECMA-48, and xterm's alternate screen. Called by the live
// table and the plot.
#include "tools/shdtool/watch/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace shdtool {
namespace {

constexpr std::string_view kTakeScreen = "\x1b[?1049h";
constexpr std::string_view kGiveBack = "\x1b[?1049l";
constexpr std::string_view kHome = "\x1b[H";
constexpr std::string_view kEraseLine = "\x1b[2K";
constexpr std::string_view kEraseBelow = "\x1b[J";

// A page is one write, so that the terminal never shows half of one.
void Write(const std::string& text) {
    (void)std::fwrite(text.data(), 1, text.size(), stdout);
    (void)std::fflush(stdout);
}

bool ContinuesCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

bool IsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
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

void Screen::Draw(const std::vector<std::string>& lines) {
    const Size window = size();
    std::string page(taken_ ? "" : kTakeScreen);
    taken_ = true;
    page += kHome;
    const size_t count = std::min(lines.size(), window.rows);
    for (size_t i = 0; i < count; ++i) {
        if (i > 0) page += "\r\n";
        // Erased first: behind a full line the cursor still stands on its last character.
        page += kEraseLine;
        page += CutToColumns(lines[i], window.columns);
    }
    if (count < window.rows) page += std::string("\r\n") += kEraseBelow;
    Write(page);
}

void Screen::Leave() {
    if (!taken_) return;
    taken_ = false;
    Write(std::string(kGiveBack));
}

}  // namespace shdtool
