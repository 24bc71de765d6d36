#pragma once
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/traits.h"
#include "io/image.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tilegrid::io {

/// What one pixel shows.
struct SlicePixel {
    float value = 0.0f, smooth = 0.0f;
    int depth = -1;
};

/// The window of a plane, in tile-space units.
struct SliceWindow {
    /// The axes along the picture: `across` grows to the right, `upright` upwards, or downwards if that is turned over.
    int across = 0, upright = 1, axis = 2;
    bool turnedOver = false;
    int width = 0, height = 0;
    /// Tile-space units per pixel.
    double step = 1.0;
    /// What the left upper corner of the picture shows.
    Ostara::Math::double3 corner;

    Ostara::Math::double3 position(int x, int y) const
    {
        Ostara::Math::double3 p = corner;
        p[across] += (x + 0.5) * step;
        p[upright] += (turnedOver ? y + 0.5 : -(y + 0.5)) * step;
        return p;
    }
};

using SliceColour = std::array<double, 3>;

/// Blue over white to red, lightness falling evenly on both sides. t from -1 to 1.
inline SliceColour diverging(double t)
{
    static constexpr SliceColour kBelow[4]{{247, 247, 245}, {146, 190, 222}, {62, 122, 184}, {20, 52, 110}};
    static constexpr SliceColour kAbove[4]{{247, 247, 245}, {240, 170, 138}, {206, 82, 72}, {122, 16, 38}};
    auto const& stops = t < 0.0 ? kBelow : kAbove;
    const double s = std::min(std::abs(t), 1.0) * 3.0;
    const int first = std::min(static_cast<int>(s), 2);
    SliceColour colour;
    for (int c = 0; c < 3; ++c) colour[c] = std::lerp(stops[first][c], stops[first + 1][c], s - first);
    return colour;
}

inline void blend(SliceColour& under, SliceColour const& over, double alpha)
{
    for (int c = 0; c < 3; ++c) under[c] = std::lerp(under[c], over[c], alpha);
}

/// The colour of a value: the root of its share of `full` spreads the values near zero, where level sets are read.
inline SliceColour sliceColour(double value, double full)
{
    const double share = std::sqrt(std::min(std::abs(value) / full, 1.0));
    return diverging(value < 0.0 ? -share : share);
}

inline std::array<std::uint8_t, 3> toBytes(SliceColour const& colour)
{
    std::array<std::uint8_t, 3> bytes;
    for (std::size_t c = 0; c < 3; ++c) bytes[c] = static_cast<std::uint8_t>(std::lround(std::clamp(colour[c], 0.0, 255.0)));
    return bytes;
}

/// The size of value that gets the full colour: all but the largest fiftieth of the picture lies below it.
inline double fullColourValue(std::vector<SlicePixel> const& pixels)
{
    std::vector<float> sizes;
    for (SlicePixel const& pixel : pixels)
        if (std::isfinite(pixel.value)) sizes.push_back(std::abs(pixel.value));
    if (sizes.empty()) return 1.0;
    const auto at = sizes.begin() + static_cast<std::ptrdiff_t>(0.98 * static_cast<double>(sizes.size() - 1));
    std::nth_element(sizes.begin(), at, sizes.end());
    if (*at > 0.0f) return *at;
    const float largest = *std::max_element(sizes.begin(), sizes.end());
    return largest > 0.0f ? largest : 1.0;
}

/// Draws a plane of pixels.
template <class Tr> class SlicePainter {
public:
    SlicePainter(SliceWindow const& window, std::vector<SlicePixel> const& pixels)
        : window_(window), pixels_(pixels), full_(fullColourValue(pixels))
    {
        for (SlicePixel const& pixel : pixels) deepest_ = std::max(deepest_, pixel.depth);
    }

    /// The size of values from which on the colour is full.
    double full() const { return full_; }

    Image paint() const
    {
        Image image{window_.width, window_.height, std::vector<std::uint8_t>(3 * pixels_.size())};
        parallel::forRanges(0, window_.height, 8, [&](OST::int64 begin, OST::int64 end) {
            for (int y = static_cast<int>(begin); y < end; ++y)
                for (int x = 0; x < window_.width; ++x) image.set(x, y, toBytes(colourAt(x, y)));
        });
        return image;
    }

private:
    SlicePixel const& pixel(int x, int y) const
    {
        return pixels_[static_cast<std::size_t>(std::clamp(y, 0, window_.height - 1)) * window_.width
                       + std::clamp(x, 0, window_.width - 1)];
    }

    SliceColour colourAt(int x, int y) const
    {
        static constexpr SliceColour kNothing{200, 200, 200}, kNotANumber{255, 0, 255}, kZero{16, 16, 20};
        SlicePixel const& here = pixel(x, y);
        if (here.depth < 0) return kNothing;
        if (std::isnan(here.value)) return kNotANumber;
        SliceColour colour = sliceColour(here.value, full_);
        paintBorder(colour, x, y);
        blend(colour, kZero, zeroLine(x, y));
        return colour;
    }

    /// How much of the pixel the line value = 0 covers: from the distance to it that the value and its slope tell.
    double zeroLine(int x, int y) const
    {
        constexpr double kHalfWidth = 1.1;  // pixels
        double low = 0.0, high = 0.0;
        for (int dy = -2; dy <= 2; ++dy)
            for (int dx = -2; dx <= 2; ++dx) {
                low = std::min<double>(low, pixel(x + dx, y + dy).smooth);
                high = std::max<double>(high, pixel(x + dx, y + dy).smooth);
            }
        if (!(low < 0.0 && high > 0.0)) return 0.0;
        const double slopeX = 0.5 * (pixel(x + 1, y).smooth - pixel(x - 1, y).smooth);
        const double slopeY = 0.5 * (pixel(x, y + 1).smooth - pixel(x, y - 1).smooth);
        const double slope = std::hypot(slopeX, slopeY);
        const double away = slope > 0.0 ? std::abs(pixel(x, y).smooth) / slope : kHalfWidth + 1.0;
        return std::clamp(kHalfWidth + 0.5 - away, 0.0, 1.0);
    }

    /// Borders of tiles, one tone for each depth: finest ones light and thin, coarser ones darker, then thicker. A
    /// depth whose tiles are only some pixels wide fades out.
    void paintBorder(SliceColour& colour, int x, int y) const
    {
        static constexpr SliceColour kInk{28, 30, 44};
        double alpha = 0.0;
        for (int reach = 0; reach < 2; ++reach)
            for (const auto& [dx, dy] : {std::pair{1, 0}, std::pair{0, 1}}) {
                const int depth = borderDepth(x - reach * dx, y - reach * dy, dx, dy);
                const int coarser = deepest_ - depth;
                if (depth < 0 || (reach > 0 && coarser < 3)) continue;
                const double widthPixels = Tr::tileVoxelWidth(depth) / window_.step;
                const double visible = std::clamp((widthPixels - 4.0) / 10.0, 0.0, 1.0);
                alpha = std::max(alpha, visible * std::min(0.24 + 0.12 * coarser, 0.72));
            }
        blend(colour, kInk, alpha);
    }

    /// Depth of the coarsest tiles that the step from the pixel to its neighbour leads across; -1 if it stays in one
    /// tile.
    int borderDepth(int x, int y, int dx, int dy) const
    {
        if (x < 0 || y < 0 || x + dx >= window_.width || y + dy >= window_.height) return -1;
        const int axis = dx ? window_.across : window_.upright;
        const double from = window_.position(x, y)[axis], to = window_.position(x + dx, y + dy)[axis];
        // A border belongs to a depth only where a tile of that depth lies on one side.
        const int finest = std::max(pixel(x, y).depth, pixel(x + dx, y + dy).depth);
        for (int depth = 0; depth <= finest; ++depth) {
            const double width = Tr::tileVoxelWidth(depth);
            if (std::floor((from - Tr::rangeMin) / width) != std::floor((to - Tr::rangeMin) / width)) return depth;
        }
        return -1;
    }

    SliceWindow const& window_;
    std::vector<SlicePixel> const& pixels_;
    double full_;
    int deepest_ = -1;
};

}  // namespace tilegrid::io
