#pragma once
#include "io/image.h"

#include <string_view>

namespace tilegrid::io {

using Rgb = std::array<std::uint8_t, 3>;

/// Text in pictures. Letters are strokes, so they are smooth at any size. Sizes and positions are in pixels, y down.
struct Lettering {
    /// Height of a capital letter.
    double height = 10.0;
    Rgb colour{0, 0, 0};
};

/// The width of a line of text. Printable ASCII; any other byte is drawn as an empty box.
double textWidth(std::string_view text, double height);

/// Draws a line of text. Parts outside the picture are left out.
/// \param x, baseline  where the text begins, and the lower side of letters without a tail
void drawText(Image& image, double x, double baseline, std::string_view text, Lettering const& lettering);

/// Draws a straight line with round ends. Parts outside the picture are left out.
void drawLine(Image& image, std::array<double, 2> from, std::array<double, 2> to, double width, Rgb colour);

}  // namespace tilegrid::io
