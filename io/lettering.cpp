#include "io/lettering.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

namespace {

using Place = std::array<double, 2>;

/// A letter as strokes. A stroke is its kind and its places, parted by ';': 'l' is a line through all places, 's' a smooth curve
/// (quadratic spline) that begins and ends at the first and the last, 'o' a closed one that none of them lies on. A place is x and y,
/// digits of base 36: the baseline is y = 6, small letters end at 16 (g), capitals at 20 (k), tails at 0.
struct Glyph {
    char letter;
    int width;
    char const* strokes;
};

constexpr Glyph kGlyphs[] = {
    {' ', 4, ""},
    {'!', 2, "l 1k 1b;l 16 16"},
    {'"', 5, "l 1k 1g;l 4k 4g"},
    {'#', 10, "l 26 4k;l 66 8k;l 0b 9b;l 1g ag"},
    {'$', 9, "s 8h 8k 0k 0d 9d 96 06 09;l 44 4m"},
    {'%', 11, "o 0e 4e 4k 0k;o 66 b6 bc 7c;l 26 9k"},
    {'&', 10, "s a6 0g 2k 6k 6g 0d 06 86 9c"},
    {'\'', 2, "l 1k 1g"},
    {'(', 4, "s 4m 0h 07 42"},
    {')', 4, "s 0m 4h 47 02"},
    {'*', 6, "l 3k 3e;l 0i 6g;l 6i 0g"},
    {'+', 8, "l 0b 8b;l 47 4f"},
    {',', 2, "l 16 03"},
    {'-', 6, "l 0b 6b"},
    {'.', 2, "l 16 16"},
    {'/', 7, "l 04 7k"},
    {'0', 9, "o 06 96 9d 9k 0k 0d"},
    {'1', 9, "l 2h 6k 66"},
    {'2', 9, "s 0h 0k 9k 9d 06;l 06 96"},
    {'3', 9, "s 0i 0k 8k 8d 4d;s 4d 9d 96 06 09"},
    {'4', 9, "l 76 7k 0a 9a"},
    {'5', 9, "l 8k 1k 0d;s 0d 3f 9f 96 16 08"},
    {'6', 9, "s 8k 0k 0a;o 06 96 9e 0e"},
    {'7', 9, "l 0k 9k 36"},
    {'8', 9, "o 1d 8d 8k 1k;o 06 96 9d 0d"},
    {'9', 9, "s 16 96 9g;o 0c 9c 9k 0k"},
    {':', 2, "l 17 17;l 1f 1f"},
    {';', 2, "l 16 03;l 1f 1f"},
    {'<', 8, "l 8g 0b 86"},
    {'=', 8, "l 09 89;l 0d 8d"},
    {'>', 8, "l 0g 8b 06"},
    {'?', 8, "s 0i 0k 8k 8e 4e 4a;l 46 46"},
    {'@', 13, "s b6 06 0k dk d7 87 8g;o 4a 8a 8g 4g"},
    {'A', 10, "l 06 5k a6;l 2b 8b"},
    {'B', 9, "l 4d 0d 0k 4k;s 4k 8k 8d 4d;s 4d 9d 96 46;l 46 06 0d"},
    {'C', 9, "s 9h 9k 0k 0d 06 96 99"},
    {'D', 10, "l 46 06 0k 4k;s 4k ak ad a6 46"},
    {'E', 8, "l 8k 0k 06 86;l 0d 7d"},
    {'F', 8, "l 8k 0k 06;l 0d 7d"},
    {'G', 9, "s 9h 9k 0k 0d 06 96 9c;l 9c 5c"},
    {'H', 9, "l 0k 06;l 9k 96;l 0d 9d"},
    {'I', 2, "l 1k 16"},
    {'J', 6, "l 6k 6a;s 6a 66 06 09"},
    {'K', 9, "l 0k 06;l 9k 0b;l 3e 96"},
    {'L', 8, "l 0k 06 86"},
    {'M', 11, "l 06 0k 5b ak a6"},
    {'N', 9, "l 06 0k 96 9k"},
    {'O', 11, "o 06 a6 ad ak 0k 0d"},
    {'P', 9, "l 06 0k 4k;s 4k 9k 9c 4c;l 4c 0c"},
    {'Q', 11, "o 06 a6 ad ak 0k 0d;l 69 b5"},
    {'R', 9, "l 06 0k 4k;s 4k 9k 9c 4c;l 0c 4c 96"},
    {'S', 9, "s 8h 8k 0k 0d 9d 96 06 09"},
    {'T', 10, "l 0k ak;l 5k 56"},
    {'U', 9, "l 0k 0b;s 0b 06 96 9b;l 9b 9k"},
    {'V', 10, "l 0k 56 ak"},
    {'W', 14, "l 0k 46 7k a6 ek"},
    {'X', 9, "l 0k 96;l 06 9k"},
    {'Y', 10, "l 0k 5d ak;l 5d 56"},
    {'Z', 9, "l 0k 9k 06 96"},
    {'[', 3, "l 3l 0l 03 33"},
    {'\\', 7, "l 0k 74"},
    {']', 3, "l 0l 3l 33 03"},
    {'^', 8, "l 0e 4k 8e"},
    {'_', 9, "l 04 94"},
    {'`', 3, "l 0k 3h"},
    {'a', 8, "o 06 86 8g 0g;l 8g 86"},
    {'b', 8, "l 0k 06;o 06 86 8g 0g"},
    {'c', 7, "s 7e 7g 0g 06 76 78"},
    {'d', 8, "o 06 86 8g 0g;l 8k 86"},
    {'e', 8, "l 0b 8b;s 8b 8g 0g 06 76 88"},
    {'f', 5, "s 6k 2k 2f;l 2f 26;l 0g 5g"},
    {'g', 8, "o 06 86 8g 0g;l 8g 84;s 84 80 00 02"},
    {'h', 7, "l 0k 06;s 0b 0g 7g 7b;l 7b 76"},
    {'i', 2, "l 1g 16;l 1k 1k"},
    {'j', 3, "l 2g 24;s 24 20 00;l 2k 2k"},
    {'k', 7, "l 0k 06;l 7g 0a;l 3c 76"},
    {'l', 4, "l 1k 1a;s 1a 16 46"},
    {'m', 12, "l 0g 06;s 0b 0g 6g 6b;l 6b 66;s 6b 6g cg cb;l cb c6"},
    {'n', 7, "l 0g 06;s 0b 0g 7g 7b;l 7b 76"},
    {'o', 8, "o 06 86 8g 0g"},
    {'p', 8, "l 0g 00;o 06 86 8g 0g"},
    {'q', 8, "o 06 86 8g 0g;l 8g 80"},
    {'r', 5, "l 0g 06;s 0b 0g 5g"},
    {'s', 7, "s 7e 7g 0g 0b 7b 76 06 08"},
    {'t', 6, "l 2j 2a;s 2a 26 66;l 0g 6g"},
    {'u', 7, "l 0g 0b;s 0b 06 76 7b;l 7g 76"},
    {'v', 8, "l 0g 46 8g"},
    {'w', 12, "l 0g 36 6g 96 cg"},
    {'x', 7, "l 0g 76;l 06 7g"},
    {'y', 8, "l 0g 46;l 8g 20"},
    {'z', 7, "l 0g 7g 06 76"},
    {'{', 4, "s 4l 2l 2h 2c 0c;s 0c 2c 27 23 43"},
    {'|', 2, "l 1l 13"},
    {'}', 4, "s 0l 2l 2h 2c 4c;s 4c 2c 27 23 03"},
    {'~', 8, "s 0a 0f 4b 87 8c"},
};
constexpr Glyph kUnknown{0, 8, "l 06 86 8k 0k 06"};

/// In the units of the strokes.
constexpr double kBaseline = 6.0, kCapital = 14.0, kBetweenLetters = 3.6, kStroke = 1.9;

Glyph const& glyphOf(char letter)
{
    const auto found = std::ranges::find(kGlyphs, letter, &Glyph::letter);
    return found == std::end(kGlyphs) ? kUnknown : *found;
}

int digit(char c) { return c <= '9' ? c - '0' : c - 'a' + 10; }

/// Calls `line(from, to)` along the quadratic curve from `a` to `c`, which leaves and arrives in the direction of `b`.
template <class Line> void alongCurve(Place const& a, Place const& b, Place const& c, Line const& line)
{
    constexpr int kPieces = 8;
    Place before = a;
    for (int n = 1; n <= kPieces; ++n) {
        const double t = double(n) / kPieces;
        Place next;
        for (int i = 0; i < 2; ++i) next[i] = std::lerp(std::lerp(a[i], b[i], t), std::lerp(b[i], c[i], t), t);
        line(before, next);
        before = next;
    }
}

Place between(Place const& a, Place const& b) { return {0.5 * (a[0] + b[0]), 0.5 * (a[1] + b[1])}; }

template <class Line> void alongStroke(char kind, std::vector<Place> const& places, Line const& line)
{
    const std::size_t count = places.size();
    if (kind == 'l')
        for (std::size_t n = 1; n < count; ++n) line(places[n - 1], places[n]);
    if (kind == 's')
        for (std::size_t n = 1; n + 1 < count; ++n)
            alongCurve(n == 1 ? places[0] : between(places[n - 1], places[n]), places[n],
                       n + 2 == count ? places[n + 1] : between(places[n], places[n + 1]), line);
    if (kind == 'o')
        for (std::size_t n = 0; n < count; ++n)
            alongCurve(between(places[n], places[(n + 1) % count]), places[(n + 1) % count],
                       between(places[(n + 1) % count], places[(n + 2) % count]), line);
}

/// Calls `line(from, to)` for all straight pieces of a letter.
template <class Line> void alongGlyph(Glyph const& glyph, Line const& line)
{
    for (std::string_view rest = glyph.strokes; !rest.empty();) {
        const std::string_view stroke = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(rest.size(), stroke.size() + 1));
        std::vector<Place> places;
        for (std::size_t at = 2; at + 1 < stroke.size(); at += 3)
            places.push_back({double(digit(stroke[at])), double(digit(stroke[at + 1]))});
        alongStroke(stroke[0], places, line);
    }
}

/// How much of each pixel of a rectangle strokes cover. Strokes that meet do not add up.
class Coverage {
public:
    /// \param low, high  of what is drawn; the rectangle is its part in the picture, and a rim
    Coverage(Image const& image, Place const& low, Place const& high, double width)
        : half_(0.5 * width), left_(bound(low[0] - half_ - 1.0, image.width)), top_(bound(low[1] - half_ - 1.0, image.height)),
          right_(bound(high[0] + half_ + 2.0, image.width)), bottom_(bound(high[1] + half_ + 2.0, image.height)),
          share_(std::size_t(right_ - left_) * std::size_t(bottom_ - top_))
    {}

    void add(Place const& from, Place const& to)
    {
        const double alongX = to[0] - from[0], alongY = to[1] - from[1], squared = alongX * alongX + alongY * alongY;
        const int firstX = std::max(left_, int(std::floor(std::min(from[0], to[0]) - half_ - 1.0)));
        const int lastX = std::min(right_, int(std::ceil(std::max(from[0], to[0]) + half_ + 1.0)));
        const int firstY = std::max(top_, int(std::floor(std::min(from[1], to[1]) - half_ - 1.0)));
        const int lastY = std::min(bottom_, int(std::ceil(std::max(from[1], to[1]) + half_ + 1.0)));
        for (int y = firstY; y < lastY; ++y)
            for (int x = firstX; x < lastX; ++x) {
                const double wayX = x + 0.5 - from[0], wayY = y + 0.5 - from[1];
                const double t = squared > 0.0 ? std::clamp((wayX * alongX + wayY * alongY) / squared, 0.0, 1.0) : 0.0;
                const double away = std::hypot(wayX - t * alongX, wayY - t * alongY);
                auto& share = share_[std::size_t(y - top_) * std::size_t(right_ - left_) + std::size_t(x - left_)];
                share = std::max(share, float(std::clamp(half_ + 0.5 - away, 0.0, 1.0)));
            }
    }

    void paint(Image& image, Rgb colour) const
    {
        std::size_t n = 0;
        for (int y = top_; y < bottom_; ++y)
            for (int x = left_; x < right_; ++x, ++n) {
                if (share_[n] <= 0.0f) continue;
                std::uint8_t* pixel = image.rgb.data() + 3 * (std::size_t(y) * image.width + x);
                for (std::size_t c = 0; c < 3; ++c)
                    pixel[c] = std::uint8_t(std::lround(std::lerp(float(pixel[c]), float(colour[c]), share_[n])));
            }
    }

private:
    static int bound(double place, int size) { return int(std::clamp(std::floor(place), 0.0, double(size))); }

    double half_;
    int left_, top_, right_, bottom_;
    std::vector<float> share_;
};

}  // namespace

double textWidth(std::string_view text, double height)
{
    double width = 0.0;
    for (const char letter : text) width += glyphOf(letter).width + kBetweenLetters;
    return text.empty() ? 0.0 : (width - kBetweenLetters) * height / kCapital;
}

void drawText(Image& image, double x, double baseline, std::string_view text, Lettering const& lettering)
{
    const double unit = lettering.height / kCapital;
    // Thinner strokes would be grey.
    const double stroke = std::max(1.15, kStroke * unit);
    Coverage coverage(image, {x, baseline - 1.2 * lettering.height},
                      {x + textWidth(text, lettering.height), baseline + kBaseline * unit}, stroke);
    for (const char letter : text) {
        Glyph const& glyph = glyphOf(letter);
        const auto placed = [&](Place const& p) { return Place{x + p[0] * unit, baseline - (p[1] - kBaseline) * unit}; };
        alongGlyph(glyph, [&](Place const& from, Place const& to) { coverage.add(placed(from), placed(to)); });
        x += (glyph.width + kBetweenLetters) * unit;
    }
    coverage.paint(image, lettering.colour);
}

void drawLine(Image& image, std::array<double, 2> from, std::array<double, 2> to, double width, Rgb colour)
{
    Coverage coverage(image, {std::min(from[0], to[0]), std::min(from[1], to[1])}, {std::max(from[0], to[0]), std::max(from[1], to[1])},
                      width);
    coverage.add(from, to);
    coverage.paint(image, colour);
}

}  // namespace tilegrid::io
