#include "TilegridOps/merge/estimate.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/channel.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace tilegrid {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;
using OST::int64;

namespace {

/// Tiles of the finest depth across the band that an adaptive tree resolves around a surface.
constexpr double kTilesAcrossBand = 4.0;
/// All depths of a binary tree together against its finest one, where it is refined along a surface: a fourth each.
constexpr double kWithAncestors = 4.0 / 3.0;

bool hasBothSigns(float const* values, int count)
{
    const auto inside = [](float value) { return value <= 0.0f; };
    float const* end = values + count;
    return values && std::any_of(values, end, inside) && !std::all_of(values, end, inside);
}

/// World area of the faces, one each, of the finest tiles in which the level set changes its sign.
template <class Tr> double surfaceArea(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& levelSet)
{
    double area = 0;
    for (int depth = std::max(0, levelSet.minDepth()); depth <= std::min(levelSet.depth(), Tr::maxDepth); ++depth) {
        const double side = double(Tr::width) * Tr::voxelDataWidth(depth) * tree.voxelSize();
        int64 tiles = 0;
        for (int64 n = 0; n < tree.tileCount(depth); ++n)
            tiles += tree.tile(n, depth).isLeaf() && hasBothSigns(levelSet.tileData(n, depth).data(), Tr::voxelCount);
        area += side * side * double(tiles);
    }
    return area;
}

/// Voxels that a volume brings to the result.
template <class Tr> double voxelsOf(OST::Object const& volume, MergeDecisions const& decisions)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    if (!tree) return 0;
    const auto levelSet = volume.component<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    if (decisions.adaptive && levelSet) {
        const double width = decisions.outputTraits24 ? BinaryTraits::width : QuinaryTraits::width;
        const double faces = surfaceArea(*tree, *levelSet) / std::pow(width * decisions.outputVoxelSize, 2);
        return faces * kTilesAcrossBand * std::pow(width, 3) * kWithAncestors;
    }
    // Each tile comes again with voxels less than one division finer.
    const double finer = std::fmod(std::log(tree->voxelSize() / decisions.outputVoxelSize), std::log(decisions.outputTraits24 ? 2.0 : 5.0));
    return double(tree->tileCount(-1)) * Tr::voxelCount * std::exp(3.0 * std::max(0.0, finer));
}

}  // namespace

double estimateMergeBytes(NativeVolumes const& volumes, MergeDecisions const& decisions)
{
    double voxels = 0, bytesPerVoxel = 0;
    std::set<Corvid::String> names;
    for (auto const& volume : volumes) {
        voxels += voxelsOf<BinaryTraits>(*volume, decisions) + voxelsOf<QuinaryTraits>(*volume, decisions);
        for (Corvid::String const& name : volume->componentRange())
            if (auto const channel = volume->component<VoxelChannelCore>(name); channel && names.insert(name).second)
                bytesPerVoxel += double(channel->elementBytes());
    }
    return voxels * bytesPerVoxel;
}

}  // namespace tilegrid
