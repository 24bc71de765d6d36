#include "io/slice.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/legend.h"
#include "io/property_reader.h"
#include "io/slice_painter.h"
#include "io/volume_access.h"

#include <limits>
#include <utility>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// Share of the content's longest side that is shown around it.
constexpr double kMargin = 0.06;
constexpr int kLargestSide = 16384;
constexpr int kMostCells = 64;
constexpr char kAxes[] = "xyz";

/// Room around a plane for what explains it, in pixels.
struct Margins {
    int left = 0, top = 0, right = 0, bottom = 0;
};

SliceWindow windowAround(double3 const& low, double3 const& high, SliceOptions const& options, Margins const& margins)
{
    SliceWindow window;
    window.axis = options.axis;
    if (options.up == UpAxis::kY) {
        // As seen from the left, from above, from the front.
        window.across = options.axis == 0 ? 2 : 0;
        window.upright = options.axis == 1 ? 2 : 1;
        window.turnedOver = options.axis == 1;
    } else {
        // As seen from the right, from the front, from above.
        window.across = options.axis == 0 ? 1 : 0;
        window.upright = options.axis == 2 ? 1 : 2;
    }
    const double wide = high[window.across] - low[window.across], tall = high[window.upright] - low[window.upright];
    // A content without extent (nothing there, or one layer) still gets a picture some voxels wide.
    const double margin = std::max(kMargin * std::max(wide, tall), 4.0);
    window.step = std::max((wide + 2.0 * margin) / (options.size - margins.left - margins.right),
                           (tall + 2.0 * margin) / (options.size - margins.top - margins.bottom));
    window.width = std::max(1, static_cast<int>(std::lround((wide + 2.0 * margin) / window.step)));
    window.height = std::max(1, static_cast<int>(std::lround((tall + 2.0 * margin) / window.step)));
    window.corner[window.across] = low[window.across] - margin;
    window.corner[window.upright] = window.turnedOver ? low[window.upright] - margin : high[window.upright] + margin;
    window.corner[window.axis] = low[window.axis] + options.at * (high[window.axis] - low[window.axis]);
    return window;
}

/// The value of the voxel whose sample is nearest in the finest tile at the place, and the value between samples for
/// the zero line.
template <class Tr, class C>
std::vector<SlicePixel> pixelsOf(Container<Tr> const& tree, C const& channel, VoxelOffsetType offset, SliceWindow const& window)
{
    std::vector<SlicePixel> pixels(static_cast<std::size_t>(window.width) * window.height);
    const float3 shift = voxelOffset(offset);
    parallel::loop(0, window.height, 8, [&](OST::int64 begin, OST::int64 end) {
        const VolumeReader<Tr, C> reader(tree, channel, offset);
        const ConstTileAccessor<Tr> accessor(tree);
        for (OST::int64 y = begin; y < end; ++y)
            for (int x = 0; x < window.width; ++x) {
                const double3 place = window.position(x, static_cast<int>(y));
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
                SlicePixel& pixel = pixels[static_cast<std::size_t>(y) * window.width + x];
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
std::vector<SlicePixel> sampledPixels(Container<Tr> const& tree, PropertyReaders const& readers, int cells, SliceWindow const& window)
{
    std::vector<SlicePixel> pixels(static_cast<std::size_t>(window.width) * window.height);
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
                const double3 place = window.position(x, static_cast<int>(y));
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

/// What stands around a plane: a line that says what it is, two axes in world units, and a bar of its colours.
class SliceLegend {
public:
    SliceLegend(SliceOptions const& options, std::string const& property, double voxelSize, double3 const& low, double3 const& high)
        : style_(options.size), voxelSize_(voxelSize), isDistance_(property == Ostara::Geometry::sVoxelSignedDistance.str()), property_(property)
    {
        margins_.left = int(std::ceil(3.4 * style_.gap + style_.letter));
        margins_.top = int(std::ceil(2.1 * style_.gap + style_.letter));
        margins_.bottom = int(std::ceil(3.2 * style_.gap + 2.0 * style_.letter));
        margins_.right = int(std::ceil(2.8 * style_.gap + style_.letter + textWidth("-0.00000", style_.letter)));
        // Labels of the upright axis take room, which makes the plane smaller, which may change labels once.
        double widest = 0.0;
        for (int pass = 0; pass < 2; ++pass) {
            setAxes(windowAround(low, high, options, margins_));
            const double before = widest;
            widest = std::max(widest, upright_.widest(style_.letter));
            margins_.left += int(std::ceil(widest - before));
        }
    }

    Margins const& margins() const { return margins_; }

    Image around(Image const& plane, SliceWindow const& window, double lowValue, double highValue, double full)
    {
        setAxes(window);
        Image image = withMargins(plane, margins_.left, margins_.top, margins_.right, margins_.bottom, [](int) { return LegendStyle::kPaper; });
        drawAxes(image, window);
        // What rounding leaves of zero is no position to print.
        constexpr double kRounding = 1e-3;
        const double corner = window.corner[window.axis], at = std::abs(corner) < kRounding ? 0.0 : corner * voxelSize_;
        const std::string text = (isDistance_ ? "signed distance" : property_) + " at " + kAxes[window.axis] + " = " + shortNumber(at)
            + (isDistance_ ? ", in world units" : " (world units)");
        drawText(image, margins_.left, style_.gap + style_.letter, shortened(text, style_.letter, image.width - margins_.left - style_.gap),
                 style_.lettering());
        ColourBar bar;
        bar.low = std::max(-full, std::min(lowValue, 0.0));
        bar.high = lowValue == highValue && !(highValue > 0.0) && bar.low == 0.0 ? full : std::min(full, std::max(highValue, 0.0));
        bar.colour = [full](double value) { return toBytes(sliceColour(value, full)); };
        bar.below = lowValue < bar.low;
        bar.above = highValue > bar.high;
        drawColourBar(image, image.width - margins_.right + 1.2 * style_.gap, margins_.top, margins_.top + window.height, bar, style_);
        return image;
    }

private:
    /// World position of an edge of the plane.
    double world(SliceWindow const& window, int axis, double pixels, double sign) const
    {
        return voxelSize_ * (window.corner[axis] + sign * pixels * window.step);
    }

    void setAxes(SliceWindow const& window)
    {
        left_ = world(window, window.across, 0, 1), right_ = world(window, window.across, window.width, 1);
        const double sign = window.turnedOver ? 1 : -1;
        top_ = world(window, window.upright, 0, sign), bottom_ = world(window, window.upright, window.height, sign);
        across_ = ticksOver(left_, right_, std::max(3, int(window.width / (6.0 * style_.letter))));
        upright_ = ticksOver(std::min(top_, bottom_), std::max(top_, bottom_), std::max(3, int(window.height / (4.0 * style_.letter))));
    }

    void drawAxes(Image& image, SliceWindow const& window) const
    {
        const double x0 = margins_.left, y0 = margins_.top, x1 = x0 + window.width, y1 = y0 + window.height, tick = 0.5 * style_.gap;
        const auto line = [&](double ax, double ay, double bx, double by) { drawLine(image, {ax, ay}, {bx, by}, style_.line, LegendStyle::kInk); };
        line(x0, y0, x1, y0), line(x1, y0, x1, y1), line(x1, y1, x0, y1), line(x0, y1, x0, y0);
        const double labels = y1 + 1.0 * style_.gap + style_.letter;
        for (std::size_t n = 0; n < across_.values.size(); ++n) {
            const double x = std::lerp(x0, x1, (across_.values[n] - left_) / (right_ - left_));
            line(x, y1, x, y1 + tick);
            drawText(image, x - 0.5 * textWidth(across_.labels[n], style_.letter), labels, across_.labels[n], style_.lettering());
        }
        for (std::size_t n = 0; n < upright_.values.size(); ++n) {
            const double y = std::lerp(y0, y1, (upright_.values[n] - top_) / (bottom_ - top_));
            line(x0 - tick, y, x0, y);
            drawText(image, x0 - 1.0 * style_.gap - textWidth(upright_.labels[n], style_.letter), y + 0.5 * style_.letter, upright_.labels[n],
                     style_.lettering());
        }
        const std::string across(1, kAxes[window.across]), upright(1, kAxes[window.upright]);
        drawText(image, 0.5 * (x0 + x1) - 0.5 * textWidth(across, style_.letter), labels + 1.1 * style_.gap + style_.letter, across,
                 style_.lettering());
        drawText(image, style_.gap, 0.5 * (y0 + y1) + 0.5 * style_.letter, upright, style_.lettering());
    }

    LegendStyle style_;
    double voxelSize_;
    bool isDistance_;
    std::string property_;
    Margins margins_;
    Ticks across_, upright_;
    /// World positions of the edges of the plane.
    double left_ = 0, right_ = 0, top_ = 0, bottom_ = 0;
};

/// The range of the values of a picture; 0 twice if none is finite.
std::pair<double, double> rangeOf(std::vector<SlicePixel> const& pixels)
{
    double low = std::numeric_limits<double>::infinity(), high = -low;
    for (SlicePixel const& pixel : pixels)
        if (pixel.depth >= 0 && std::isfinite(pixel.value)) low = std::min<double>(low, pixel.value), high = std::max<double>(high, pixel.value);
    return low <= high ? std::pair(low, high) : std::pair(0.0, 0.0);
}

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
            const double3 low = double3(box.min) * unit, high = double3(box.max) * unit;
            std::optional<SliceLegend> legend;
            if (options.legend && options.size >= LegendStyle::kSmallestPicture)
                legend.emplace(options, name.str(), tree.voxelSize(), low, high);
            const SliceWindow window = windowAround(low, high, options, legend ? legend->margins() : Margins());
            std::vector<SlicePixel> pixels;
            const PropertyReaders readers = options.mode ? readersOf(volume, name.str(), *options.mode) : PropertyReaders();
            if (readers.components > 0)
                pixels = sampledPixels(tree, readers, options.cells, window);
            else
                tryElements<Tr>(native, name, [&]<class C>() {
                    pixels = pixelsOf<Tr, C>(tree, *native.component<C>(name), topology.offsetType(), window);
                });
            const SlicePainter<Tr> painter(window, pixels);
            if (!legend) return painter.paint();
            const auto [least, largest] = rangeOf(pixels);
            return legend->around(painter.paint(), window, least, largest, painter.full());
        });
}

}  // namespace tilegrid::io
