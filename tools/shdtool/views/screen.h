// A page that is drawn on the terminal over and over, and the terminal's keys. Used by the live
// views.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tools/shdtool/base/terminal.h"

namespace shdtool {

struct Line {
    std::string text;  // without control characters
    Style style = Style::kPlain;
};

enum class Key : uint8_t { kNone, kQuit, kPause, kReset, kHelp, kUp, kDown };

// The first columns characters of a line of UTF-8; each character counts as one column.
[[nodiscard]] std::string_view CutToColumns(std::string_view line, size_t columns);

// The lines broken at blanks where they are longer than that.
[[nodiscard]] std::vector<Line> WrappedLines(const std::vector<Line>& lines, size_t columns);

// Draws on the terminal's alternate screen, so that what stood there comes back afterwards, and
// reads its keys. The first Draw takes the screen, the destructor or Leave gives it back.
class Screen {
  public:
    Screen() = default;
    ~Screen() { Leave(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Replaces what the screen shows. Lines and columns beyond the window are cut off.
    void Draw(const std::vector<Line>& lines);

    // A key that was pressed since the last call. Never waits.
    [[nodiscard]] Key PressedKey();

    // Gives the screen back and stops the process when that was asked for (Ctrl-Z). True when the
    // process goes on after that: the page must be drawn again.
    [[nodiscard]] bool StopWhenAsked();

    void Leave();

  private:
    void TakeKeys();

    bool taken_ = false;
    bool keys_taken_ = false;
    std::string typed_;
};

}  // namespace shdtool
