#include "io/legend.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tilegrid::io {

namespace {

/// Width of a colour bar and side of a row's colour, in heights of a letter.
constexpr double kBar = 1.6;
/// Distance of two labels along a bar, and of two rows of a list, in heights of a letter.
constexpr double kBetweenLabels = 3.2, kBetweenRows = 2.1;

/// A multiple of `step`, with the digits that tell it from its neighbours.
std::string tickLabel(double value, double step)
{
    std::array<char, 48> text{};
    if (std::abs(value) < 0.5 * step) return "0";
    const double largest = std::abs(value);
    const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(step) - 1e-9)));
    if (largest < 1e6 && decimals <= 5) {
        std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
    } else {
        const int digits = std::max(0, static_cast<int>(std::floor(std::log10(largest)) - std::floor(std::log10(step) + 1e-9)));
        std::snprintf(text.data(), text.size(), "%.*e", std::min(digits, 15), value);
    }
    return text.data();
}

Ticks ticksOf(ColourBar const& bar, double height, LegendStyle const& style)
{
    return ticksOver(bar.low, bar.high, std::max(2, static_cast<int>(height / (kBetweenLabels * style.letter))));
}

double titleHeight(std::string const& title, LegendStyle const& style) { return title.empty() ? 0.0 : kBetweenRows * style.letter; }

void fillRow(Image& image, double left, double right, int y, Rgb colour)
{
    if (y < 0 || y >= image.height) return;
    for (int x = std::max(0, int(std::lround(left))); x < std::min<long>(image.width, std::lround(right)); ++x) image.set(x, y, colour);
}

}  // namespace

double Ticks::widest(double height) const
{
    double width = 0.0;
    for (std::string const& label : labels) width = std::max(width, textWidth(label, height));
    return width;
}

Ticks ticksOver(double low, double high, int most)
{
    Ticks ticks;
    const double range = high - low;
    if (!(range > 0.0) || !std::isfinite(range) || most < 2 || range < 1e-12 * std::max(std::abs(low), std::abs(high))) return ticks;
    const double power = std::pow(10.0, std::floor(std::log10(range / most)));
    double step = power;
    for (const double factor : {1.0, 2.0, 5.0, 10.0, 20.0}) {
        step = factor * power;
        // A little more on both sides, so that rounding takes no end away.
        if (std::floor((high + 1e-9 * range) / step) - std::ceil((low - 1e-9 * range) / step) + 1.0 <= most) break;
    }
    const double first = std::ceil((low - 1e-9 * range) / step), last = std::floor((high + 1e-9 * range) / step);
    for (double n = first; n <= last && ticks.values.size() < std::size_t(most); n += 1.0) {
        ticks.values.push_back(n * step);
        ticks.labels.push_back(tickLabel(n * step, step));
    }
    return ticks;
}

LegendStyle::LegendStyle(int pictureSize)
    : letter(std::max(6.8, 0.0102 * pictureSize)), gap(0.9 * letter), line(std::max(1.0, 0.11 * letter))
{}

std::string shortNumber(double value)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.4g", value);
    return text.data();
}

std::string shortened(std::string const& text, double height, double width)
{
    if (textWidth(text, height) <= width) return text;
    std::string part = text;
    while (!part.empty() && textWidth(part + "...", height) > width) part.pop_back();
    return part.empty() ? part : part + "...";
}

double widthOf(ColourBar const& bar, double height, LegendStyle const& style)
{
    const double labels = ticksOf(bar, height - titleHeight(bar.title, style), style).widest(style.letter);
    return std::max(kBar * style.letter + 1.2 * style.gap + labels, textWidth(bar.title, style.letter));
}

void drawColourBar(Image& image, double x, double top, double bottom, ColourBar const& bar, LegendStyle const& style)
{
    const double width = kBar * style.letter, tip = 0.8 * width;
    if (!bar.title.empty()) drawText(image, x, top + style.letter, bar.title, style.lettering());
    top = std::round(top + titleHeight(bar.title, style));
    bottom = std::round(bottom);
    // Ends that stand for more have a point.
    const double upper = bar.above ? top + tip : top, lower = bar.below ? bottom - tip : bottom;
    if (!(lower > upper)) return;
    for (int y = int(top); y < int(bottom); ++y) {
        const double middle = y + 0.5;
        const double value = std::lerp(bar.high, bar.low, std::clamp((middle - upper) / (lower - upper), 0.0, 1.0));
        const double beyond = std::max({0.0, upper - middle, middle - lower}) / tip;
        fillRow(image, x + 0.5 * width * beyond, x + width - 0.5 * width * beyond, y, bar.colour(value));
    }
    const std::array<double, 2> ends[] = {{x, upper}, {x + 0.5 * width, top}, {x + width, upper}, {x + width, lower},
                                          {x + 0.5 * width, bottom}, {x, lower}};
    for (std::size_t n = 0; n < 6; ++n) {
        if ((n < 2 && !bar.above) || (n > 2 && n < 5 && !bar.below)) continue;
        drawLine(image, ends[n], ends[(n + 1) % 6], style.line, LegendStyle::kInk);
    }
    if (!bar.above) drawLine(image, {x, upper}, {x + width, upper}, style.line, LegendStyle::kInk);
    if (!bar.below) drawLine(image, {x, lower}, {x + width, lower}, style.line, LegendStyle::kInk);
    const Ticks ticks = ticksOf(bar, lower - upper, style);
    for (std::size_t n = 0; n < ticks.values.size(); ++n) {
        const double y = std::lerp(lower, upper, (ticks.values[n] - bar.low) / (bar.high - bar.low));
        drawLine(image, {x + width, y}, {x + width + 0.5 * style.gap, y}, style.line, LegendStyle::kInk);
        drawText(image, x + width + 1.2 * style.gap, y + 0.5 * style.letter, ticks.labels[n], style.lettering());
    }
}

double widthOf(ColourList const& list, LegendStyle const& style)
{
    double width = textWidth(list.title, style.letter);
    for (auto const& row : list.rows)
        width = std::max(width, kBar * style.letter + style.gap + textWidth(row.label, style.letter));
    return width;
}

double heightOf(ColourList const& list, LegendStyle const& style)
{
    return titleHeight(list.title, style) + kBetweenRows * style.letter * double(list.rows.size());
}

void drawColourList(Image& image, double x, double top, ColourList const& list, LegendStyle const& style)
{
    const double side = kBar * style.letter;
    if (!list.title.empty()) drawText(image, x, top + style.letter, list.title, style.lettering());
    top += titleHeight(list.title, style);
    for (auto const& row : list.rows) {
        const double left = std::round(x), upper = std::round(top), right = left + std::round(side), lower = upper + std::round(side);
        for (int y = int(upper); y < int(lower); ++y) fillRow(image, left, right, y, row.colour);
        drawText(image, right + style.gap, upper + 0.5 * (lower - upper) + 0.5 * style.letter, row.label, style.lettering());
        top += kBetweenRows * style.letter;
    }
}

Image withMargins(Image const& image, int left, int top, int right, int bottom, std::function<Rgb(int y)> const& background)
{
    Image result{image.width + left + right, image.height + top + bottom, {}};
    result.rgb.resize(std::size_t(3) * result.width * result.height);
    for (int y = 0; y < result.height; ++y) {
        const Rgb colour = background(y);
        for (int x = 0; x < result.width; ++x) result.set(x, y, colour);
        if (y < top || y >= top + image.height) continue;
        std::copy_n(image.rgb.begin() + std::ptrdiff_t(3) * (y - top) * image.width, 3 * image.width,
                    result.rgb.begin() + 3 * (std::ptrdiff_t(y) * result.width + left));
    }
    return result;
}

}  // namespace tilegrid::io
