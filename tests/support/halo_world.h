#pragma once
#include "TilegridOps/substrate/halo.h"
#include "support/site_oracle.h"

namespace tilegrid::test {

/// Half the distance from 1 to the next float.
inline constexpr double kUnit = 1.0 / (1 << 24);
/// Mixing along one axis rounds the difference, the fraction, the product and the sum of values up to 1 (differences up to 2):
/// 2 + 2 + 2 + 1 units; three axes, and a little for higher orders.
inline constexpr double kMixError = 22 * kUnit;

inline constexpr float kUntouched = 12345.0f;
inline constexpr float kFill = -3.0f;

/// A tree, the set of its tiles and a plain channel.
template <class Tr, class T> struct World {
    using C = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;
    TileSet<Tr> set;
    Tree<Tr> tree{"tree"};
    std::optional<C> channel;
    int minDepth, maxDepth;

    World(TileSet<Tr> const& tiles, VoxelFunction const& voxel, int low = 0, int high = Tr::maxDepth)
        : set(tiles), minDepth(low), maxDepth(high)
    {
        addAll(set, tree);
        channel.emplace(channelOf<C>(tree, voxel, elementOf<T>(kFill), low, high));
    }
    SiteOracle<Tr> oracle(VoxelFunction const& voxel, int offset, bool stepwise) const
    {
        SiteOracle<Tr> o(set);
        o.voxel = voxel;
        o.minDepth = minDepth;
        o.maxDepth = maxDepth;
        o.offset = offset;
        o.outside = kFill;
        o.stepwise = stepwise;
        return o;
    }
};

/// Up to `count` tiles of the tree, spread over all depths and both ends of the index ranges.
template <class Tr> std::vector<TreeIndex> someTiles(Tree<Tr> const& tree, int count)
{
    std::vector<TreeIndex> tiles;
    const OST::int64 step = std::max<OST::int64>(1, tree.tileCount(-1) / count);
    for (OST::int64 n = tree.tileCount(-1) - 1; n >= 0; n -= step) tiles.push_back(tree.tile(n).treeIndex());
    tiles.push_back({0, 0});
    return tiles;
}

}  // namespace tilegrid::test
