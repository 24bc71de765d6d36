#pragma once
#include "TilegridOps/substrate/topology.h"
#include "support/site_oracle.h"

namespace tilegrid::test {

/// A function of a position in tile space.
using Field = std::function<double(double x, double y, double z)>;

/// The field at the samples of voxels.
template <class Tr> VoxelFunction sampled(Field field, int offset = 7)
{
    return [field, offset](TileKey const& key, int i, int j, int k) {
        const double w = double(TileSet<Tr>::voxelWidth(key.depth));
        const double half[3] = {offset & 1 ? 0 : 0.5, offset & 2 ? 0 : 0.5, offset & 4 ? 0 : 0.5};
        return field(double(key.low[0]) + w * (i + half[0]), double(key.low[1]) + w * (j + half[1]), double(key.low[2]) + w * (k + half[2]));
    };
}

/// A tree, a topology and one channel: what a sampler is made over.
template <class Tr, class T = float> struct CubicVolume {
    using ChannelT = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;
    TileSet<Tr> set;
    Tree<Tr> tree{"tree"};
    OST::TileTree3D::VoxelTopology<Tr> topology;
    ChannelT channel;

    CubicVolume(TileSet<Tr> const& tiles, VoxelFunction const& voxel, int offset = 7, T const& defaultValue = T(), int minDepth = 0,
                  int depth = Tr::maxDepth)
        : set(tiles), topology("topology", static_cast<OST::TileTree3D::VoxelOffsetType>(offset)),
          channel((addAll(tiles, tree), channelOf<ChannelT>(tree, voxel, defaultValue, minDepth, depth)))
    {
        topology.update(tree);
    }
};

/// Tiles of one depth over a box around the origin: `tiles` on either side of it.
template <class Tr> TileSet<Tr> uniformBox(int depth, int tiles)
{
    TileSet<Tr> set;
    const std::int64_t reach = tiles * TileSet<Tr>::tileWidth(depth);
    // The corner of tiles next to the origin; it is the origin itself in the binary structure only.
    const std::int64_t origin = TileSet<Tr>::keyAt({0, 0, 0}, depth).low[0];
    set.addBox({origin - reach, origin - reach, origin - reach}, {origin + reach - 1, origin + reach - 1, origin + reach - 1}, depth);
    return set;
}

/// Three depths in a graded box around the origin: 6 coarse tiles per axis, of which some of the inner ones are refined, some
/// of those once more.
template <class Tr> TileSet<Tr> threeDepths(std::uint64_t seed)
{
    using Set = TileSet<Tr>;
    Random random(seed);
    Set set = uniformBox<Tr>(Tr::maxDepth - 2, 3);
    const std::int64_t coarse = Set::tileWidth(Tr::maxDepth - 2), origin = Set::keyAt({0, 0, 0}, Tr::maxDepth - 2).low[0];
    for (int n = 0; n < 8; ++n) {
        if (n == 2 || n == 5 || n == 7) continue;
        Place low;
        for (int a = 0; a < 3; ++a) low[a] = origin + ((n >> a & 1) - 1) * coarse;
        set.addBox(low, {low[0] + coarse - 1, low[1] + coarse - 1, low[2] + coarse - 1}, Tr::maxDepth - 1);
    }
    for (TileKey const& key : set.list())
        if (key.depth == Tr::maxDepth - 1 && random.oneIn(Tr::branching == 2 ? 3 : 60)) {
            const std::int64_t w = Set::tileWidth(key.depth) - 1;
            set.addBox(key.low, {key.low[0] + w, key.low[1] + w, key.low[2] + w}, Tr::maxDepth);
        }
    gradeSet(set);
    return set;
}

/// A position of tile space within `reach` of the origin on every axis, with fractions of 1/64; some on faces of voxels.
inline Ostara::Math::float3 randomPosition(Random& random, double reach)
{
    Ostara::Math::float3 p;
    for (int a = 0; a < 3; ++a) {
        const double v = double(random.between(-(1 << 24), 1 << 24)) / (1 << 24) * reach;
        p[a] = static_cast<float>(random.oneIn(4) ? std::floor(v) : std::floor(v * 64) / 64);
    }
    return p;
}

}  // namespace tilegrid::test
