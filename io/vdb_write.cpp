#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/flat_cover.h"
#include "io/text.h"
#include "io/vdb_lattice.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelFogDensity, Ostara::Geometry::sVoxelSignedDistance;

namespace {

/// The largest 16-bit float, and the smallest with all of its 11 bits (IEEE 754 binary16).
constexpr double kLargestHalf = 65504.0, kSmallestNormalHalf = 0x1p-14;
/// Programs expect a narrow band to be three voxels wide at the least (openvdb::LEVEL_SET_HALF_WIDTH).
constexpr double kLeastBackground = 3.0;

bool fitsHalf(double farthest) { return farthest >= kSmallestNormalHalf && farthest <= kLargestHalf; }

/// The band of a level set.
struct Band {
    /// Half width in world units, and the background, which is not below it, nor below 3 voxels.
    double width = 0.0;
    float background = 0.0f;
    bool half = false;

    Band(double voxels, double voxelSize, bool wantsHalf) : width(voxels * voxelSize)
    {
        const double least = std::max(voxels, kLeastBackground) * voxelSize;
        half = wantsHalf && fitsHalf(roundedUpToHalf(least));
        background = half ? static_cast<float>(roundedUpToHalf(least)) : static_cast<float>(least);
        while (double(background) < least || double(background) / voxelSize < kLeastBackground)
            background = half ? static_cast<float>(roundedUpToHalf(std::nextafter(background, INFINITY)))
                              : std::nextafter(background, INFINITY);
    }

private:
    /// Of a normal number.
    static double roundedUpToHalf(double value)
    {
        const double step = std::ldexp(1.0, std::ilogb(value) - 10);
        return std::ceil(value / step) * step;
    }
};

/// What all grids of a volume share.
template <class Tr> struct FlatVolume {
    Container<Tr> const& tree;
    VoxelOffsetType offset;
    LevelLattice<Tr> lattice;
    VdbWriteOptions const& options;
    Corvid::RuntimeServices const& services;
    /// Of the level set; null without one.
    PlainChannel<Tr, float> const* distance = nullptr;
    double band = 0.0;

    double voxelSize() const { return lattice.width * double(tree.voxelSize()); }
    LatticeBox wholeSpace() const
    {
        // Blocks reach beyond by less than their width, which fits.
        return {int3(static_cast<int>(lattice.lowIndex())), int3(static_cast<int>(lattice.endIndex()))};
    }
    /// The bounds of the tiles of the two finest depths in use.
    LatticeBox fineBounds() const
    {
        LatticeBox box{int3(std::numeric_limits<int>::max()), int3(std::numeric_limits<int>::min())};
        for (int depth = std::max(lattice.depth - 1, 0); depth <= lattice.depth; ++depth) {
            const int width = Tr::tileVoxelWidth(depth) / lattice.width;
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
                const int3 low = lattice.indexOf(tree.tile(n, depth).tijk());
                for (int axis = 0; axis < 3; ++axis) {
                    box.low[axis] = std::min(box.low[axis], low[axis]);
                    box.high[axis] = std::max(box.high[axis], low[axis] + width);
                }
            }
        }
        return box;
    }
    template <class T> auto readerOf(PlainChannel<Tr, T> const& channel) const
    {
        return std::make_unique<FlatReader<Tr, T>>(tree, channel, offset, lattice);
    }
};

/// The channel itself if it has the plain layout, else a copy that has.
template <class Tr, class C, class Op> auto withPlain(Container<Tr> const& tree, C const& channel, Op const& op)
{
    if constexpr (std::is_same_v<C, PlainChannel<Tr, typename C::Element>>)
        return op(channel);
    else
        return op(plainCopy<Tr>(tree, channel));
}

template <class Tr>
openvdb::GridBase::Ptr levelSetGrid(FlatVolume<Tr> const& volume, Band const& band, std::string const& name)
{
    auto const& distance = *volume.distance;
    const FlatCover cover = coverFlatGrid<Tr>({.tree = volume.tree,
                                               .offset = volume.offset,
                                               .lattice = volume.lattice,
                                               .distance = &distance,
                                               .above = -band.width,
                                               .below = band.width,
                                               .clip = volume.wholeSpace(),
                                               .maxBytes = volume.options.maxBytes,
                                               .name = name});
    const auto sink = makeGridSink<float>(band.background);
    parallel::PerThread<FlatReader<Tr, float>> readers;
    sink->setBlocks(cover.blocks, [&](OST::int64 n, float* values, bool* active) {
        readers.local([&] { return volume.readerOf(distance); }).read(cover.blocks[n], values);
        for (int at = 0; at < kBlockVoxels; ++at) {
            active[at] = std::abs(double(values[at])) < band.width;
            if (!active[at]) values[at] = values[at] < 0.0f ? -band.background : band.background;
        }
    });
    sink->finishLevelSet();
    sink->grid()->setSaveFloatAsHalf(band.half);
    return sink->grid();
}

/// Leaves what 16-bit floats cannot hold as it is.
void setHalf(openvdb::GridBase& grid, ValueRange const& range, double background, std::string const& property,
             Corvid::RuntimeServices const& services)
{
    const double farthest = std::max(range.farthest(), std::abs(background));
    if (farthest == 0.0 || fitsHalf(farthest)) return grid.setSaveFloatAsHalf(true);
    services.message(Severity::kWarning,
                     "property '" + property + "' keeps its 32 bits: its values reach " + number(farthest)
                         + ", and 16-bit floats go from " + number(kSmallestNormalHalf) + " to "
                         + number(kLargestHalf));
}

template <class Tr, class T>
openvdb::GridBase::Ptr propertyGrid(FlatVolume<Tr> const& volume, PlainChannel<Tr, T> const& channel,
                                    std::string const& name)
{
    const T background = channel.defaultValue();
    const LatticeBox clip = volume.distance ? volume.wholeSpace() : volume.fineBounds();
    const FlatCover cover = coverFlatGrid<Tr>({.tree = volume.tree,
                                               .offset = volume.offset,
                                               .lattice = volume.lattice,
                                               .distance = volume.distance,
                                               .below = volume.band,
                                               .clip = clip,
                                               .property = [&] { return volume.readerOf(channel); },
                                               .bytesPerValue = sizeof(T),
                                               .maxBytes = volume.options.maxBytes,
                                               .name = name});
    const auto sink = makeGridSink<T>(background);
    for (ConstantBox const& constant : cover.boxes) {
        const int3 low = constant.box.low, high = constant.box.high - int3(1);
        sink->fillBox({{low.x, low.y, low.z}, {high.x, high.y, high.z}},
                      channel.tileData(constant.tile)(constant.voxel));
    }
    parallel::PerThread<FlatReader<Tr, T>> readers;
    parallel::PerThread<FlatReader<Tr, float>> distances;
    sink->setBlocks(cover.blocks, [&](OST::int64 n, T* values, bool* active) {
        readers.local([&] { return volume.readerOf(channel); }).read(cover.blocks[n], values);
        std::array<float, kBlockVoxels> distance;
        if (volume.distance)
            distances.local([&] { return volume.readerOf(*volume.distance); }).read(cover.blocks[n], distance.data());
        for (int at = 0; at < kBlockVoxels; ++at) {
            const int3 voxel = cover.blocks[n] + cubeIndex(kBlockWidth, at);
            active[at] = volume.distance ? double(distance[at]) < volume.band
                                         : std::memcmp(&values[at], &background, sizeof(T)) != 0;
            for (int axis = 0; axis < 3; ++axis)
                active[at] = active[at] && voxel[axis] >= clip.low[axis] && voxel[axis] < clip.high[axis];
            if (!active[at]) values[at] = background;
        }
    });
    sink->prune();
    const ValueRange range = sink->range();
    const auto grid = sink->grid();
    if constexpr (std::is_floating_point_v<T>)
        if (background == T(0) && range.finite && range.least >= 0.0 && range.largest <= 1.0)
            grid->setGridClass(openvdb::GRID_FOG_VOLUME);
    if constexpr (canInterpolate<T>)
        if (volume.options.half) setHalf(*grid, range, magnitude(background), name, volume.services);
    return grid;
}

/// The names of the grids of a volume's properties.
class GridNames {
public:
    /// \param properties  those that have a grid
    GridNames(std::vector<std::string> const& properties, bool hasLevelSet, std::string const& wanted)
        : properties_(properties), wanted_(wanted)
    {
        if (hasLevelSet)
            main_ = sVoxelSignedDistance.str();
        else if (has(sVoxelFogDensity.str()))
            main_ = sVoxelFogDensity.str();
        else if (properties.size() == 1)
            main_ = properties.front();
        if (!wanted.empty() && main_.empty())
            throw InputError("the name '" + wanted
                             + "' is for the grid of a level set, of fog or of the only property, and the volume has "
                             + std::to_string(properties.size()) + " others: leave the name out");
        if (!wanted.empty() && wanted != main_ && (has(wanted) || of(sVoxelFogDensity.str()) == wanted)
            && main_ != sVoxelFogDensity.str())
            throw InputError("the name '" + wanted + "' is that of another grid of the file: give another name");
    }
    std::string of(std::string const& property) const
    {
        if (property == main_ && !wanted_.empty()) return wanted_;
        if (property == sVoxelSignedDistance.str() && property == main_) return unless("surface", property);
        if (property == sVoxelFogDensity.str()) return unless("density", property);
        return property;
    }

private:
    bool has(std::string const& name) const { return std::ranges::find(properties_, name) != properties_.end(); }
    std::string unless(std::string const& usual, std::string const& own) const { return has(usual) ? own : usual; }

    std::vector<std::string> properties_;
    std::string wanted_, main_;
};

void describe(openvdb::GridBase& grid, std::string const& property, std::string const& name)
{
    grid.setName(name);
    if (name == property || grid.getGridClass() == openvdb::GRID_LEVEL_SET) return;
    grid.insertMeta(kFlatPropertyKey, openvdb::StringMetadata(property));
    grid.insertMeta(kFlatNameKey, openvdb::StringMetadata(name));
}

/// Names of the properties that have a grid; a message for each other one.
template <class Tr>
std::vector<std::string> gridProperties(OST::Object const& native, Corvid::RuntimeServices const& services)
{
    std::vector<std::string> names;
    for (std::string const& name : propertyNames<Tr>(native)) {
        bool has = false;
        tryElements<Tr>(native, Corvid::String(name), [&]<class C>() { has = hasGridType<typename C::Element>; });
        if (has)
            names.push_back(name);
        else
            services.message(Severity::kWarning, "property '" + name + "' is left out: its type has no grid");
    }
    return names;
}

/// The grids of all properties, `volume` having the level set if there is one.
template <class Tr> std::vector<openvdb::GridBase::Ptr> gridsOf(OST::Object const& native, FlatVolume<Tr>& volume)
{
    const auto properties = gridProperties<Tr>(native, volume.services);
    const GridNames names(properties, volume.distance != nullptr, volume.options.name);
    std::vector<openvdb::GridBase::Ptr> grids;
    const auto add = [&](openvdb::GridBase::Ptr const& grid, std::string const& property) {
        describe(*grid, property, names.of(property));
        grid->setTransform(volume.lattice.transform(volume.tree.voxelSize(), volume.offset));
        grids.push_back(grid);
    };
    if (volume.distance) {
        const Band band(volume.options.bandVoxels, volume.voxelSize(), volume.options.half);
        if (volume.options.half && !band.half)
            volume.services.message(Severity::kWarning,
                                    "the level set keeps its 32 bits: its band is " + number(band.background)
                                        + " wide, which 16-bit floats do not hold");
        volume.band = band.width;
        add(levelSetGrid(volume, band, names.of(sVoxelSignedDistance.str())), sVoxelSignedDistance.str());
    }
    for (std::string const& property : properties) {
        if (volume.distance && property == sVoxelSignedDistance.str()) continue;
        tryElements<Tr>(native, Corvid::String(property), [&]<class C>() {
            if constexpr (hasGridType<typename C::Element>)
                withPlain(volume.tree, *native.component<C>(Corvid::String(property)),
                          [&](auto const& channel) { add(propertyGrid(volume, channel, property), property); });
        });
    }
    return grids;
}

}  // namespace

std::vector<openvdb::GridBase::Ptr> gridsFromVolume(Ostara::Object const& volume, VdbWriteOptions const& options,
                                                    Corvid::RuntimeServices const& services)
{
    if (!(options.bandVoxels >= 1.0) || !(options.bandVoxels <= 1e6))
        throw InputError("the band is " + number(options.bandVoxels) + " voxels wide on each side: give 1 to 1e6");
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            std::vector<openvdb::GridBase::Ptr> grids;
            if (tree.deepestDepth() < 0) return grids;
            FlatVolume<Tr> flat{tree, topology.offsetType(), LevelLattice<Tr>(tree.deepestDepth()), options, services};
            const auto withLevelSet = [&]<class C>() {
                withPlain(tree, *native.component<C>(sVoxelSignedDistance),
                          [&](PlainChannel<Tr, float> const& distance) {
                              flat.distance = &distance;
                              grids = gridsOf(native, flat);
                          });
            };
            if (!tryLayouts<Tr, float>(native, sVoxelSignedDistance, withLevelSet)) grids = gridsOf(native, flat);
            return grids;
        });
}

}  // namespace tilegrid::io
