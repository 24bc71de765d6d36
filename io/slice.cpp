#include "io/slice.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/property_reader.h"
#include "io/volume_access.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

using Colour = std::array<double, 3>;

/// Share of the content's longest side that is shown around it.
constexpr double kMargin = 0.06;
constexpr int kLargestSide = 16384;
constexpr int kMostCells = 64;

/// What one pixel shows. Places are in tile space.
struct Pixel {
    float value = 0.0f, smooth = 0.0f;
    int depth = -1;
};

/// The window of a plane: pixel (x, y) shows `corner` + x right + y down, in tile-space units.
struct Window {
    int right = 0, up = 1, axis = 2;
    int width = 0, height = 0;
    /// Tile-space units per pixel.
    double step = 1.0;
    double3 corner;

    double3 place(int x, int y) const
    {
        double3 p = corner;
        p[right] += (x + 0.5) * step;
        p[up] -= (y + 0.5) * step;
        return p;
    }
};

Window windowAround(double3 const& low, double3 const& high, SliceOptions const& options)
{
    Window window;
    window.axis = options.axis;
    window.right = options.axis == 0 ? 1 : 0;
    window.up = options.axis == 2 ? 1 : 2;
    const double wide = high[window.right] - low[window.right], tall = high[window.up] - low[window.up];
    // A content without extent (nothing there, or one layer) still gets a picture some voxels wide.
    const double margin = std::max(kMargin * std::max(wide, tall), 4.0);
    window.step = (std::max(wide, tall) + 2.0 * margin) / options.size;
    window.width = std::max(1, static_cast<int>(std::lround((wide + 2.0 * margin) / window.step)));
    window.height = std::max(1, static_cast<int>(std::lround((tall + 2.0 * margin) / window.step)));
    window.corner[window.right] = low[window.right] - margin;
    window.corner[window.up] = high[window.up] + margin;
    window.corner[window.axis] = low[window.axis] + options.at * (high[window.axis] - low[window.axis]);
    return window;
}

/// The value of the voxel whose sample is nearest in the finest tile at the place, and the value between samples for
/// the zero line.
template <class Tr, class C>
std::vector<Pixel> pixelsOf(Container<Tr> const& tree, C const& channel, VoxelOffsetType offset, Window const& window)
{
    std::vector<Pixel> pixels(static_cast<std::size_t>(window.width) * window.height);
    const float3 shift = voxelOffset(offset);
    parallel::loop(0, window.height, 8, [&](OST::int64 begin, OST::int64 end) {
        const VolumeReader<Tr, C> reader(tree, channel, offset);
        const ConstTileAccessor<Tr> accessor(tree);
        for (OST::int64 y = begin; y < end; ++y)
            for (int x = 0; x < window.width; ++x) {
                const double3 place = window.place(x, static_cast<int>(y));
                int3 cell;
                if (!cellOf<Tr>(place, cell)) continue;
                const TreeIndex found = accessor.find(cell.x, cell.y, cell.z, Tr::maxDepth);
                if (!found.valid()) continue;
                auto const& tile = tree.tile(found);
                double3 nearest;
                for (int axis = 0; axis < 3; ++axis) {
                    const double q = (place[axis] - tile.tijk()[axis]) / tile.voxelDataWidth() - shift[axis];
                    nearest[axis] = tile.tijk()[axis] + (std::round(q) + shift[axis]) * tile.voxelDataWidth();
                }
                Pixel& pixel = pixels[static_cast<std::size_t>(y) * window.width + x];
                pixel = {static_cast<float>(reader.at(nearest, found.depth)),
                         static_cast<float>(reader.at(place, found.depth)), found.depth};
            }
    });
    return pixels;
}

/// The place whose value a pixel shows: the middle of its part of the voxel, if voxels are shown in parts.
template <class Tile> double3 placeShown(Tile const& tile, double3 const& place, int cells, int axisOfPlane)
{
    if (cells == 0) return place;
    const double part = double(tile.voxelDataWidth()) / cells;
    double3 shown = place;
    for (int axis = 0; axis < 3; ++axis) {
        // In the direction of sight the plane stays where it is.
        if (axis == axisOfPlane) continue;
        shown[axis] = tile.tijk()[axis] + (std::floor((place[axis] - tile.tijk()[axis]) / part) + 0.5) * part;
    }
    return shown;
}

double magnitudeOf(std::vector<double> const& components)
{
    if (components.size() == 1) return components.front();
    double sum = 0.0;
    for (const double c : components) sum += c * c;
    return std::sqrt(sum);
}

/// What a sampler gives.
template <class Tr>
std::vector<Pixel> sampledPixels(Container<Tr> const& tree, PropertyReaders const& readers, int cells, Window const& window)
{
    std::vector<Pixel> pixels(static_cast<std::size_t>(window.width) * window.height);
    parallel::loop(0, window.height, 8, [&](OST::int64 begin, OST::int64 end) {
        const auto reader = readers.make();
        const ConstTileAccessor<Tr> accessor(tree);
        std::vector<double> components(static_cast<std::size_t>(readers.components));
        const auto valueAt = [&](double3 const& place) {
            reader->read(float3(place), components.data());
            return static_cast<float>(magnitudeOf(components));
        };
        for (OST::int64 y = begin; y < end; ++y)
            for (int x = 0; x < window.width; ++x) {
                const double3 place = window.place(x, static_cast<int>(y));
                int3 cell;
                if (!cellOf<Tr>(place, cell)) continue;
                const TreeIndex found = accessor.find(cell.x, cell.y, cell.z, Tr::maxDepth);
                if (!found.valid()) continue;
                const float smooth = valueAt(place);
                const float value = cells == 0 ? smooth : valueAt(placeShown(tree.tile(found), place, cells, window.axis));
                pixels[static_cast<std::size_t>(y) * window.width + x] = {value, smooth, found.depth};
            }
    });
    return pixels;
}

/// Blue over white to red, lightness falling evenly on both sides. t from -1 to 1.
Colour diverging(double t)
{
    static constexpr Colour kBelow[4]{{247, 247, 245}, {146, 190, 222}, {62, 122, 184}, {20, 52, 110}};
    static constexpr Colour kAbove[4]{{247, 247, 245}, {240, 170, 138}, {206, 82, 72}, {122, 16, 38}};
    auto const& stops = t < 0.0 ? kBelow : kAbove;
    const double s = std::min(std::abs(t), 1.0) * 3.0;
    const int first = std::min(static_cast<int>(s), 2);
    Colour colour;
    for (int c = 0; c < 3; ++c) colour[c] = std::lerp(stops[first][c], stops[first + 1][c], s - first);
    return colour;
}

void blend(Colour& under, Colour const& over, double alpha)
{
    for (int c = 0; c < 3; ++c) under[c] = std::lerp(under[c], over[c], alpha);
}

/// The size of value that gets the full colour: all but the largest fiftieth of the picture lies below it.
double fullColourValue(std::vector<Pixel> const& pixels)
{
    std::vector<float> sizes;
    for (Pixel const& pixel : pixels)
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
    SlicePainter(Window const& window, std::vector<Pixel> const& pixels)
        : window_(window), pixels_(pixels), full_(fullColourValue(pixels))
    {
        for (Pixel const& pixel : pixels) deepest_ = std::max(deepest_, pixel.depth);
    }

    Image paint() const
    {
        Image image{window_.width, window_.height, std::vector<std::uint8_t>(3 * pixels_.size())};
        parallel::forRanges(0, window_.height, 8, [&](OST::int64 begin, OST::int64 end) {
            for (int y = static_cast<int>(begin); y < end; ++y)
                for (int x = 0; x < window_.width; ++x) {
                    const Colour colour = colourAt(x, y);
                    std::array<std::uint8_t, 3> bytes;
                    for (std::size_t c = 0; c < 3; ++c)
                        bytes[c] = static_cast<std::uint8_t>(std::lround(std::clamp(colour[c], 0.0, 255.0)));
                    image.set(x, y, bytes);
                }
        });
        return image;
    }

private:
    Pixel const& pixel(int x, int y) const
    {
        return pixels_[static_cast<std::size_t>(std::clamp(y, 0, window_.height - 1)) * window_.width
                       + std::clamp(x, 0, window_.width - 1)];
    }

    Colour colourAt(int x, int y) const
    {
        static constexpr Colour kNothing{200, 200, 200}, kNotANumber{255, 0, 255}, kZero{16, 16, 20};
        Pixel const& here = pixel(x, y);
        if (here.depth < 0) return kNothing;
        if (std::isnan(here.value)) return kNotANumber;
        // The root of the share spreads the values near zero, where level sets are read.
        const double share = std::sqrt(std::min(std::abs(here.value) / full_, 1.0));
        Colour colour = diverging(here.value < 0.0f ? -share : share);
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
    void paintBorder(Colour& colour, int x, int y) const
    {
        static constexpr Colour kInk{28, 30, 44};
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
        const int axis = dx ? window_.right : window_.up;
        const double from = window_.place(x, y)[axis], to = window_.place(x + dx, y + dy)[axis];
        // A border belongs to a depth only where a tile of that depth lies on one side.
        const int finest = std::max(pixel(x, y).depth, pixel(x + dx, y + dy).depth);
        for (int depth = 0; depth <= finest; ++depth) {
            const double width = Tr::tileVoxelWidth(depth);
            if (std::floor((from - Tr::rangeMin) / width) != std::floor((to - Tr::rangeMin) / width)) return depth;
        }
        return -1;
    }

    Window const& window_;
    std::vector<Pixel> const& pixels_;
    double full_;
    int deepest_ = -1;
};

template <class Tr> std::string propertyToShow(OST::Object const& native, std::string const& asked)
{
    const std::vector<std::string> names = propertyNames<Tr>(native);
    const auto has = [&names](std::string const& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    if (asked.empty()) {
        for (auto const& name : {Ostara::Geometry::sVoxelSignedDistance, Ostara::Geometry::sVoxelFogDensity})
            if (has(name.str())) return name.str();
        if (!names.empty()) return names.front();
        throw InputError("the volume has no property to show");
    }
    if (has(asked)) return asked;
    std::string list;
    for (std::string const& name : names) list += (list.empty() ? "" : ", ") + name;
    throw InputError("the volume has no property '" + asked + "'; it has: " + (list.empty() ? "none" : list));
}

void checkOptions(SliceOptions const& options)
{
    if (options.axis < 0 || options.axis > 2) throw InputError("the axis of a slice is 0, 1 or 2");
    if (!(options.at >= 0.0 && options.at <= 1.0)) throw InputError("the place of a slice lies between 0 and 1");
    if (options.cells < 0 || options.cells > kMostCells)
        throw InputError("a voxel shows 1 to " + std::to_string(kMostCells) + " values along an axis, or 0 for one per pixel");
    if (options.size < 16 || options.size > kLargestSide)
        throw InputError("the size of a picture lies between 16 and " + std::to_string(kLargestSide) + " pixels");
}

}  // namespace

Image sliceImage(Ostara::Object const& volume, SliceOptions const& options)
{
    checkOptions(options);
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            const Corvid::String name(propertyToShow<Tr>(native, options.property));
            Ostara::Math::bbox<float3, float> box;
            Ostara::GeometryAlgorithms::getVolumeBounds(volume, box);
            const double unit = 1.0 / tree.voxelSize();
            const Window window = windowAround(double3(box.min) * unit, double3(box.max) * unit, options);
            std::vector<Pixel> pixels;
            const PropertyReaders readers = options.mode ? readersOf(volume, name.str(), *options.mode) : PropertyReaders();
            if (readers.components > 0) return SlicePainter<Tr>(window, sampledPixels(tree, readers, options.cells, window)).paint();
            tryElements<Tr>(native, name, [&]<class C>() {
                pixels = pixelsOf<Tr, C>(tree, *native.component<C>(name), topology.offsetType(), window);
            });
            return SlicePainter<Tr>(window, pixels).paint();
        });
}

}  // namespace tilegrid::io
