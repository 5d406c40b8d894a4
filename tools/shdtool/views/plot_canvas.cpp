// Dots to Braille characters. Called by the plot.
#include "tools/shdtool/views/plot_canvas.h"

#include <algorithm>

namespace shdtool {
namespace {

// Unicode numbers the dots of a Braille pattern down the columns, with the fourth row added later.
constexpr uint8_t kDotBits[PlotCanvas::kDotsPerRow][PlotCanvas::kDotsPerColumn] = {
    {0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};

// U+2800 with the dots in its low byte, as UTF-8.
void AppendBraille(std::string& out, uint8_t dots) {
    out += '\xE2';
    out += static_cast<char>(0xA0 | (dots >> 6));
    out += static_cast<char>(0x80 | (dots & 0x3F));
}

char AsciiDots(uint8_t dots) {
    constexpr uint8_t kUpper = 0x01 | 0x08 | 0x02 | 0x10;
    const bool upper = (dots & kUpper) != 0;
    const bool lower = (dots & static_cast<uint8_t>(~kUpper)) != 0;
    if (upper && lower) return ':';
    return upper ? '\'' : '.';
}

}  // namespace

void PlotCanvas::VerticalLine(size_t x, size_t y1, size_t y2) {
    if (x >= width() || height() == 0) return;
    const auto [top, bottom] = std::minmax(y1, y2);
    for (size_t y = top; y <= std::min(bottom, height() - 1); ++y) {
        const size_t cell = y / kDotsPerRow * columns_ + x / kDotsPerColumn;
        cells_[cell] |= kDotBits[y % kDotsPerRow][x % kDotsPerColumn];
    }
}

std::vector<std::string> PlotCanvas::Lines(bool utf8) const {
    std::vector<std::string> lines(rows_);
    for (size_t row = 0; row < rows_; ++row) {
        const uint8_t* cells = cells_.data() + row * columns_;
        size_t used = columns_;
        while (used > 0 && cells[used - 1] == 0) --used;
        for (size_t i = 0; i < used; ++i) {
            if (cells[i] == 0) {
                lines[row] += ' ';
            } else if (utf8) {
                AppendBraille(lines[row], cells[i]);
            } else {
                lines[row] += AsciiDots(cells[i]);
            }
        }
    }
    return lines;
}

}  // namespace shdtool
