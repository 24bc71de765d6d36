#pragma once
#include "io/lettering.h"

#include <functional>
#include <string>
#include <vector>

/// What explains a picture: ticks, colour bars and rows of colours with a text. Lengths and positions are in pixels, y down.
namespace tilegrid::io {

/// Round numbers in a range, and their texts.
struct Ticks {
    std::vector<double> values;
    std::vector<std::string> labels;
    double widest(double height) const;
};
/// The multiples of 1, 2 or 5 times a power of ten in a range: as many as there are, but no more than `most` (at least 2 to have any).
/// None for a range that is empty or not finite, or whose multiples no double tells apart.
Ticks ticksOver(double low, double high, int most);

/// Sizes and colours that all parts share. They follow from the size of the picture.
struct LegendStyle {
    static constexpr Rgb kInk{44, 48, 58}, kPaper{250, 250, 248};
    /// Pictures below this size have no legend: there its letters would be larger than what it explains.
    static constexpr int kSmallestPicture = 240;

    explicit LegendStyle(int pictureSize);
    Lettering lettering() const { return {letter, kInk}; }
    /// Height of a capital letter, the space between parts, and the width of a line.
    double letter, gap, line;
};

/// A number with four digits, enough to be found again in a picture.
std::string shortNumber(double value);
/// The text, or its beginning and three dots where it is wider than `width`.
std::string shortened(std::string const& text, double height, double width);

/// Values and their colours, the largest value on top.
struct ColourBar {
    double low = 0.0, high = 1.0;
    std::function<Rgb(double value)> colour;
    /// Whether values beyond an end are in the picture, with that end's colour.
    bool below = false, above = false;
    /// Stands over it.
    std::string title = {};
};
/// The width of a bar of that height with its labels and its title.
double widthOf(ColourBar const& bar, double height, LegendStyle const& style);
/// \param x, top, bottom  left end of the bar, and between what it and its title lie
void drawColourBar(Image& image, double x, double top, double bottom, ColourBar const& bar, LegendStyle const& style);

/// A row for each colour, below a title.
struct ColourList {
    struct Row {
        Rgb colour;
        std::string label;
    };
    std::string title;
    std::vector<Row> rows;
};
double widthOf(ColourList const& list, LegendStyle const& style);
double heightOf(ColourList const& list, LegendStyle const& style);
void drawColourList(Image& image, double x, double top, ColourList const& list, LegendStyle const& style);

/// A picture of `image` with room around it.
/// \param background  the colour of a pixel of that room, in the row `y` of the result
Image withMargins(Image const& image, int left, int top, int right, int bottom, std::function<Rgb(int y)> const& background);

}  // namespace tilegrid::io
