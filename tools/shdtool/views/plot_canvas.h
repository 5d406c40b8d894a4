// A drawing surface of Braille characters, each two dots wide and four high. Used by the plot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace shdtool {

class PlotCanvas {
  public:
    static constexpr size_t kDotsPerColumn = 2;
    static constexpr size_t kDotsPerRow = 4;

    PlotCanvas(size_t columns, size_t rows)
        : columns_(columns), rows_(rows), cells_(columns * rows, 0) {}

    [[nodiscard]] size_t width() const { return columns_ * kDotsPerColumn; }  // dots
    [[nodiscard]] size_t height() const { return rows_ * kDotsPerRow; }       // dots

    // A place among the dots; 0, 0 is the upper left corner.
    struct Dot {
        double x;
        double y;
    };

    // Sets the dots between the two, both included; from.x is not above to.x. What lies outside is
    // left out.
    void Line(Dot from, Dot to);

    // One line per row, without blanks at its end: Braille in UTF-8, or in plain ASCII points where
    // any dot of the upper or the lower half is set.
    [[nodiscard]] std::vector<std::string> Lines(bool utf8) const;

  private:
    const size_t columns_;
    const size_t rows_;
    std::vector<uint8_t> cells_;  // row by row, the dots as the character's low byte has them
};

}  // namespace shdtool
