// The terminal as a page that is drawn over and over: its size, and drawing in place. Used by the
// live table and the plot.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

// True when standard output is a terminal that a page can be drawn on.
[[nodiscard]] bool IsTerminal();

// The first columns characters of a line of UTF-8; each character counts as one column.
[[nodiscard]] std::string_view CutToColumns(std::string_view line, size_t columns);

// Draws on the terminal's alternate screen, so that what stood there comes back afterwards. The
// first Draw takes the screen, the destructor or Leave gives it back.
class Screen {
  public:
    struct Size {
        size_t columns;
        size_t rows;
    };

    Screen() = default;
    ~Screen() { Leave(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Of the window as it is now; 80 by 24 when nobody knows.
    [[nodiscard]] static Size size();

    // Replaces what the screen shows. Lines and columns beyond the window are cut off.
    void Draw(const std::vector<std::string>& lines);

    void Leave();

  private:
    bool taken_ = false;
};

}  // namespace shdtool
