#include "TilegridOps/merge/estimate.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/merge/refine_predicate.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/traversal.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace tilegrid {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;
using OST::int64;
using OST::uint64;

namespace {

/// Tiles of a depth that grow on in a sample. The numbers of a depth's children then scatter by some per cent.
constexpr int64 kSample = 512;

double bytesPerVoxel(NativeVolumes const& volumes)
{
    double bytes = 0;
    std::set<Corvid::String> names;
    for (auto const& volume : volumes)
        for (Corvid::String const& name : volume->componentRange())
            if (auto const channel = volume->component<VoxelChannelCore>(name); channel && names.insert(name).second)
                bytes += double(channel->elementBytes());
    return bytes;
}

template <class Tr> double valueBytes(double tiles, NativeVolumes const& volumes)
{
    return tiles * Tr::voxelCount * bytesPerVoxel(volumes);
}

/// Voxels that a volume brings to a plain result: each tile comes again with voxels less than one division finer.
template <class Tr> double voxelsOf(OST::Object const& volume, MergeDecisions const& decisions)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    if (!tree) return 0;
    const double finer = std::fmod(std::log(tree->voxelSize() / decisions.outputVoxelSize), std::log(decisions.outputTraits24 ? 2.0 : 5.0));
    return double(tree->tileCount(-1)) * Tr::voxelCount * std::exp(3.0 * std::max(0.0, finer));
}

template <class Tr>
double plainBytes(NativeVolumes const& volumes, MergeDecisions const& decisions, Corvid::RuntimeServices const& services)
{
    const auto result = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, decisions.outputVoxelSize, kCorner);
    const auto tree = result->template extractComponent<Container<Tr>>(sVoxelTileTree);
    refineTopologyUniformly(volumes, *tree, services);
    std::size_t used = 0, reserved = 0;
    tree->memUse(used, reserved, /*withLookup*/ false);
    return double(used) + valueBytes<Tr>(double(tree->tileCount(-1)), volumes);
}

/// A number without order for a tile: the finishing steps of splitmix64 (Steele, Lea and Flood, 2014), once for each axis.
uint64 lotOf(int3 const& corner)
{
    uint64 lot = 0;
    for (int axis = 0; axis < 3; ++axis) {
        lot += uint64(std::uint32_t(corner[axis])) + 0x9e3779b97f4a7c15u;
        lot = (lot ^ (lot >> 30)) * 0xbf58476d1ce4e5b9u;
        lot = (lot ^ (lot >> 27)) * 0x94d049bb133111ebu;
        lot ^= lot >> 31;
    }
    return lot;
}

/// The rule of growth for tiles of one depth up to a lot, no child for all others.
template <class Tr> struct SampledRule {
    LevelSetRefinePredicate<Tr> rule;
    int depth;
    uint64 largestLot;
    bool operator()(typename Container<Tr>::Tile const& tile, int3 const& child)
    {
        return tile.depth() == depth && lotOf(tile.tijk()) <= largestLot && rule(tile, child);
    }
};

/// The largest lot of the tiles of a depth that grow on.
template <class Tr> uint64 largestLotOf(Container<Tr> const& tree, int depth)
{
    std::vector<uint64> lots;
    for (int64 n = 0; n < tree.tileCount(depth); ++n) lots.push_back(lotOf(tree.tile(n, depth).tijk()));
    const auto last = lots.begin() + (std::min(kSample, int64(lots.size())) - 1);
    std::nth_element(lots.begin(), last, lots.end());
    return *last;
}

template <class Tr> double adaptiveBytes(NativeVolumes const& volumes, CombinedLevelSets const& levelSets, MergeDecisions const& decisions)
{
    const auto result = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, decisions.outputVoxelSize, kCorner);
    const auto tree = result->template extractComponent<Container<Tr>>(sVoxelTileTree);
    const auto topology = result->template component<VoxelTopology<Tr>>(sVoxelComp);
    tree->tileAccessor().addTile(0, 0, 0, 0);
    SampledRule<Tr> rule{{levelSets, *tree, *topology, decisions.maxError}, 0, 0};
    double tiles = double(tree->tileCount(0)), parents = 0, weight = 1;
    for (int depth = 0; depth < Tr::maxDepth && tree->tileCount(depth) > 0; ++depth) {
        rule.depth = depth;
        rule.largestLot = largestLotOf(*tree, depth);
        tree->template refine<SampledRule<Tr>, 0>(rule, TreeIndex(), depth, depth + 1, nullptr);
        weight *= double(tree->tileCount(depth)) / double(std::min(kSample, tree->tileCount(depth)));
        tiles += weight * double(tree->tileCount(depth + 1));
        for (int64 n = 0; n < tree->tileCount(depth); ++n) parents += tree->tile(n, depth).isLeaf() ? 0 : weight;
    }
    return tiles * sizeof(typename Container<Tr>::Tile) + parents * Tr::childCount * sizeof(int64) + valueBytes<Tr>(tiles, volumes);
}

}  // namespace

double roughBytesOfPlainMerge(NativeVolumes const& volumes, MergeDecisions const& decisions)
{
    double voxels = 0;
    for (auto const& volume : volumes) voxels += voxelsOf<BinaryTraits>(*volume, decisions) + voxelsOf<QuinaryTraits>(*volume, decisions);
    return voxels * bytesPerVoxel(volumes);
}

double bytesOfPlainMerge(NativeVolumes const& volumes, MergeDecisions const& decisions, Corvid::RuntimeServices const& services)
{
    return decisions.outputTraits24 ? plainBytes<BinaryTraits>(volumes, decisions, services) : plainBytes<QuinaryTraits>(volumes, decisions, services);
}

double bytesOfAdaptiveMerge(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode, MergeDecisions const& decisions)
{
    const CombinedLevelSets levelSets = combinedLevelSets(volumes, mode);
    if (levelSets.count() == 0) return 0;
    return decisions.outputTraits24 ? adaptiveBytes<BinaryTraits>(volumes, levelSets, decisions)
                                    : adaptiveBytes<QuinaryTraits>(volumes, levelSets, decisions);
}

}  // namespace tilegrid
