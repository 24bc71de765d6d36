#include "io/level_set_build.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/level_set_tiles.h"
#include "io/text.h"
#include "io/volume_builder.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

double longestSide(SurfaceExtent const& extent)
{
    return std::max({extent.high.x - extent.low.x, extent.high.y - extent.low.y, extent.high.z - extent.low.z});
}

double farthestCoordinate(SurfaceExtent const& extent)
{
    double farthest = 0.0;
    for (int axis = 0; axis < 3; ++axis)
        farthest = std::max({farthest, std::abs(extent.low[axis]), std::abs(extent.high[axis])});
    return farthest;
}

void checkFiner(FinerBox const& finer, SurfaceExtent const& extent, double band, int deepest)
{
    if (finer.levels < 1 || finer.levels > deepest - 2)
        throw InputError("the box is to be " + std::to_string(finer.levels) + " levels finer: give 1 to "
                         + std::to_string(deepest - 2));
    for (int axis = 0; axis < 3; ++axis) {
        const std::string sides = std::string("the box reaches from ") + number(finer.low[axis]) + " to "
            + number(finer.high[axis]) + " along " + "xyz"[axis];
        if (!(finer.low[axis] < finer.high[axis]) || !std::isfinite(finer.low[axis])
            || !std::isfinite(finer.high[axis]))
            throw InputError(sides + ": give its low corner first, then its high one");
        if (finer.low[axis] > extent.high[axis] + band || finer.high[axis] < extent.low[axis] - band)
            throw InputError(sides + ", and the " + extent.name + " from " + number(extent.low[axis]) + " to "
                             + number(extent.high[axis]) + ": nothing of it would be finer");
    }
}

[[noreturn]] void refuseSize(double bytes, LevelSetOptions const& options)
{
    throw InputError(
        "the level set would take about " + byteText(bytes) + " at voxel size " + number(options.voxelSize)
        + (options.finer ? " and " + std::to_string(options.finer->levels) + " levels finer in the box" : "")
        + ", and the limit is " + byteText(double(options.maxBytes)) + ": use a larger voxel size or raise the limit");
}

/// The tiles of the band: all of one depth, and with a finer box those of the finest depth that meet it.
template <class Tr> std::vector<VoxelCoord> tilesOf(DistanceSource const& surface, LevelSetOptions const& options)
{
    std::vector<VoxelCoord> tiles;
    const double band = options.bandVoxels;
    const int levels = options.finer ? options.finer->levels : 0, depth = Tr::maxDepth - levels;
    for (int3 const& corner : tilesNearSurface<Tr>(surface, band * Tr::voxelDataWidth(depth), depth))
        tiles.emplace_back(corner, depth);
    if (!options.finer) return tiles;
    const double unit = 1.0 / finestVoxel<Tr>(options);
    const TileSpaceBox box{unit * options.finer->low, unit * options.finer->high};
    for (int3 const& corner : tilesNearSurface<Tr>(surface, band, Tr::maxDepth, &box))
        tiles.emplace_back(corner, Tr::maxDepth);
    return tiles;
}

/// Grades the tree, whose channels are not there yet.
template <class Tr> void grade(OST::Object& native, LevelSetOptions const& options)
{
    using Ostara::Geometry::sVoxelComp, Ostara::Geometry::sVoxelTileTree;
    auto tree = native.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = native.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    CoreGL::TileTree3D::gradeTileTree<Tr>(*tree, nullptr, nullptr, 0, Tr::maxDepth);
    tree->sortIntoMortonOrder();
    topology->update(*tree);
    // What grading adds, no estimate knows.
    std::size_t used = 0, reserved = 0;
    tree->memUse(used, reserved, /*withLookup*/ false);
    const double bytes = double(used) + double(sizeof(float)) * double(tree->voxelDataCount(-1));
    native.putComponent(std::move(tree));
    native.putComponent(std::move(topology));
    if (options.maxBytes > 0 && bytes > double(options.maxBytes)) refuseSize(bytes, options);
}

}  // namespace

template <class Tr> float finestVoxel(LevelSetOptions const& options)
{
    const int levels = options.finer ? options.finer->levels : 0;
    return static_cast<float>(options.voxelSize / std::pow(double(Tr::branching), levels));
}

template <class Tr> void checkLevelSetOptions(SurfaceExtent const& extent, LevelSetOptions const& options)
{
    const double h = options.voxelSize, band = options.bandVoxels;
    const std::string size = number(options.voxelSize);
    if (!(h > 0.0) || !std::isfinite(h)) throw InputError("the voxel size is " + size + ": give a positive number");
    if (!(band >= 1.0) || !(band <= 1e6))
        throw InputError("the band is " + number(band) + " voxels wide on each side: give 1 to 1e6");
    if (h > longestSide(extent))
        throw InputError("the voxel size " + size + " is larger than the " + extent.name + ", whose longest side is "
                         + number(longestSide(extent)) + ": nothing of it would be left");
    if (options.finer) checkFiner(*options.finer, extent, band * h, Tr::maxDepth);
    const double finest = finestVoxel<Tr>(options), ratio = h / finest;
    // One tile beyond the band stays inside tile space, on the side where that is the narrower.
    const double limit = double(Tr::rangeMax) - (band + Tr::width) * ratio;
    if (!(finest > 0.0) || !(farthestCoordinate(extent) / finest <= limit))
        throw InputError("the " + extent.name + " reaches " + number(farthestCoordinate(extent)) + " from the origin, "
                         + number(farthestCoordinate(extent) / finest) + " voxels of size " + number(finest)
                         + "; the tree reaches " + number(limit) + ": use a larger voxel size, or move the "
                         + extent.name + " to the origin");
    double bytes = estimatedLevelSetBytes<Tr>(extent.area / (h * h), longestSide(extent) / h, band);
    if (options.finer) {
        double longest = 0.0;
        for (int axis = 0; axis < 3; ++axis)
            longest = std::max(longest,
                               std::min(extent.high[axis], options.finer->high[axis])
                                   - std::max(extent.low[axis], options.finer->low[axis]));
        bytes += estimatedLevelSetBytes<Tr>(extent.areaIn(*options.finer) / (finest * finest), longest / finest, band);
    }
    if (options.maxBytes > 0 && bytes > double(options.maxBytes)) refuseSize(bytes, options);
}

template <class Tr>
Corvid::Ptr<Ostara::Object> buildLevelSet(DistanceSource const& surface, LevelSetOptions const& options)
{
    const double h = finestVoxel<Tr>(options);
    auto native = makeVolume<Tr>(tilesOf<Tr>(surface, options), static_cast<float>(h), kCorner);
    if (options.finer || options.graded) grade<Tr>(*native, options);
    const float band = static_cast<float>(double(options.bandVoxels) * options.voxelSize);
    addChannel<Tr>(*native, Ostara::Geometry::sVoxelSignedDistance, band,
                   [&](Container<Tr> const& tree, auto& channel) {
                       for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                           parallel::loop(0, tree.tileCount(depth), 8, [&](OST::int64 begin, OST::int64 end) {
                               for (OST::int64 n = begin; n < end; ++n)
                                   surface.fill(double3(tree.tile(n, depth).tijk()), Tr::voxelDataWidth(depth),
                                                Tr::width, h, channel.tileData(n, depth).data());
                           });
                   });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

TILEGRID_LEVEL_SETS_FOR(, BinaryTraits)
TILEGRID_LEVEL_SETS_FOR(, QuinaryTraits)

}  // namespace tilegrid::io
