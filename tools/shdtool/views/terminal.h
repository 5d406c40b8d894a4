// The terminal: what it can do, a page that is drawn on it over and over, and its keys. Used by the
// live views, and by whatever wants colour.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace shdtool {

enum class Style : uint8_t {
    kPlain,
    kHeading,  // bold
    kGood,     // green
    kWarning,  // yellow
    kFault,    // red
};

struct Line {
    std::string text;  // without control characters
    Style style = Style::kPlain;
};

enum class Key : uint8_t { kNone, kQuit, kPause, kReset, kHelp, kUp, kDown };

// What standard output can do, found out once from terminfo and the environment.
struct TerminalTraits {
    bool terminal = false;  // it is one
    bool drawable = false;  // and a page can be drawn on it: not with TERM=dumb or without TERM
    bool colour = false;    // and NO_COLOR is not set
    bool utf8 = false;      // the locale's characters
};
[[nodiscard]] const TerminalTraits& Terminal();

// The text in its style, where standard output shows colours; else the text.
[[nodiscard]] std::string Styled(std::string_view text, Style style);

// The first columns characters of a line of UTF-8; each character counts as one column.
[[nodiscard]] std::string_view CutToColumns(std::string_view line, size_t columns);

// Draws on the terminal's alternate screen, so that what stood there comes back afterwards, and
// reads its keys. The first Draw takes the screen, the destructor or Leave gives it back.
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
    void Draw(const std::vector<Line>& lines);

    // A key that was pressed since the last call. Never waits.
    [[nodiscard]] Key PressedKey();

    void Leave();

  private:
    void TakeKeys();

    bool taken_ = false;
    bool keys_taken_ = false;
    std::string typed_;
};

}  // namespace shdtool
