// Dots to Braille characters. Called by the plot.
#include "tools/shdtool/views/plot_canvas.h"

#include <algorithm>
#include <cmath>

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

void PlotCanvas::Line(Dot from, Dot to) {
    const double columns = static_cast<double>(width());
    const double rows = static_cast<double>(height());
    if (to.x < 0 || from.x >= columns) return;
    const double slope = to.x > from.x ? (to.y - from.y) / (to.x - from.x) : 0;
    if (from.x < 0) from = {0, from.y - from.x * slope};
    if (to.x > columns) to = {columns, to.y - (to.x - columns) * slope};
    const auto steps = std::lround(std::ceil(std::max(to.x - from.x, std::abs(to.y - from.y))));
    for (long step = 0; step <= steps; ++step) {
        const double part = steps > 0 ? static_cast<double>(step) / static_cast<double>(steps) : 0;
        const double x = std::floor(from.x + (to.x - from.x) * part);
        const double y = std::round(from.y + (to.y - from.y) * part);
        if (x >= columns || y < 0 || y >= rows) continue;
        const auto column = static_cast<size_t>(x);
        const auto row = static_cast<size_t>(y);
        cells_[row / kDotsPerRow * columns_ + column / kDotsPerColumn] |=
            kDotBits[row % kDotsPerRow][column % kDotsPerColumn];
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
