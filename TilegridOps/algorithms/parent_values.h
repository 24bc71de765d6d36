#pragma once
#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/parallel.h"

#include <bitset>

/// Values that follow from the depth above, of a property whose other voxels were just computed.
namespace tilegrid {

/// What lies around a tile, a bit for each of the 27 directions.
struct AroundTile {
    /// Only coarser tiles, at depths that the property has.
    std::uint32_t coarser = 0;
    /// No tile, or none at a depth that the property has.
    std::uint32_t outside = 0;
};

/// Tells it for one tile after the other; one per thread.
template <class Tr> class AroundTiles {
public:
    using Tree = OST::TileTree3D::Container<Tr>;

    AroundTiles(Tree const& tree, int minDepth) : tree_(tree), walk_(tree), minDepth_(minDepth) {}
    AroundTile of(typename Tree::Tile const& tile)
    {
        using namespace OST::TileTree3D;
        AroundTile found;
        auto const* table = tree_.tileNeighbors();
        auto const* around = table ? nullptr : &walk_.around(tile);
        for (int n = 0; n < 27; ++n) {
            if (n == kNeighborSelf) continue;
            const TreeIndex at = table ? table->find(tile.treeIndex(), NeighborDirection(n)) : (*around)[std::size_t(n)];
            if (at.depth == tile.depth()) continue;
            (at.valid() && at.depth >= minDepth_ ? found.coarser : found.outside) |= 1u << n;
        }
        return found;
    }

private:
    Tree const& tree_;
    OST::TileTree3D::NeighborWalk<Tr> walk_;
    int minDepth_;
};

template <class Tr> using VoxelSet = std::bitset<Tr::voxelCount>;

/// Sets of directions.
inline constexpr std::uint32_t kAllAround = (1u << 27) - 1 - (1u << OST::TileTree3D::kNeighborSelf);
inline constexpr std::uint32_t kFacesAround = 1u << 4 | 1u << 10 | 1u << 12 | 1u << 14 | 1u << 16 | 1u << 22;
/// Without a step to the high side: where a coarser tile makes voxels hang.
inline constexpr std::uint32_t kLowAround = 1u << 0 | 1u << 1 | 1u << 3 | 1u << 4 | 1u << 9 | 1u << 10 | 1u << 12;

/// The voxels of a tile from which a step of one voxel leads to one of the directions.
template <class Tr> VoxelSet<Tr> voxelsBeside(std::uint32_t directions)
{
    using namespace OST::TileTree3D;
    static const auto beside = [] {
        std::array<VoxelSet<Tr>, 27> all;
        for (int n = 0; n < 27; ++n) {
            const int3 step = neighborOffset(NeighborDirection(n));
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(Tr::width, v);
                bool reaches = true;
                for (int axis = 0; axis < 3; ++axis) reaches &= step[axis] == 0 || at[axis] == (step[axis] < 0 ? 0 : Tr::width - 1);
                all[std::size_t(n)][std::size_t(v)] = reaches;
            }
        }
        return all;
    }();
    VoxelSet<Tr> set;
    for (; directions; directions &= directions - 1) set |= beside[std::size_t(std::countr_zero(directions))];
    return set;
}

/// Writes voxels of tiles as the trilinear mix of the values one depth above; one per thread.
template <class Tr, class T> class ParentValues {
public:
    using Tree = OST::TileTree3D::Container<Tr>;
    using Values = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;

    ParentValues(Tree const& tree, Values const& channel, OST::TileTree3D::VoxelOffsetType offset)
        : tree_(tree), accessor_(tree.tileAccessor()),
          reader_(OST::TileTree3D::VoxelView<T>(channel), accessor_, offset, channel.defaultValue())
    {
    }
    /// The tile has a parent, at a depth that the channel has.
    void write(typename Tree::Tile const& tile, VoxelSet<Tr> const& which, T* values) const
    {
        using namespace OST::TileTree3D;
        const TreeIndex above = tile.parentTreeIndex();
        const int3 from = tile.tijk() - tree_.tile(above).tijk();
        const int width = tile.voxelDataWidth(), siteWidth = tile.parentVoxelDataWidth();
        const SiteTaps x(Tr::width, from.x, width, siteWidth, reader_.centred(0)), y(Tr::width, from.y, width, siteWidth, reader_.centred(1)),
            z(Tr::width, from.z, width, siteWidth, reader_.centred(2));
        T sites[SiteReader<Tr, T>::kBlock];
        reader_.gather(above, {x.low, y.low, z.low}, {x.count, y.count, z.count}, sites);
        for (int v = 0; v < Tr::voxelCount; ++v) {
            if (!which[std::size_t(v)]) continue;
            const int3 at = cubeIndex(Tr::width, v);
            values[v] = mixSites<T>(x[at.x], y[at.y], z[at.z],
                                    [&](int i, int j, int k) -> T const& { return sites[i + x.count * (j + y.count * k)]; });
        }
    }

private:
    Tree const& tree_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    OST::TileTree3D::SiteReader<Tr, T> reader_;
};

/// Tiles that a task takes at once.
inline constexpr OST::int64 kTilesAtOnce = 64;

/// Makes the voxels with children those of their children, and then the hanging voxels interpolated ones (corner samples only:
/// others do not hang).
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
template <class Tr, class T>
void restoreDependents(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::Channel<Tr, T, Tr::width, 0>& channel,
                       OST::TileTree3D::VoxelOffsetType offset)
{
    using namespace OST::TileTree3D;
    setNonLeafValueToChildValue(channel, tree, offset, channel.minDepth(), channel.depth());
    if (offset != kCorner) return;
    for (int depth = channel.minDepth() + 1; depth <= channel.depth(); ++depth) {
        if (tree.tileCount(depth) == 0) continue;
        parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](OST::int64 begin, OST::int64 end) {
            AroundTiles<Tr> around(tree, channel.minDepth());
            const ParentValues<Tr, T> parents(tree, channel, offset);
            for (OST::int64 n = begin; n < end; ++n) {
                const std::uint32_t coarser = around.of(tree.tile(n, depth)).coarser & kLowAround;
                if (coarser) parents.write(tree.tile(n, depth), voxelsBeside<Tr>(coarser), channel.tileData(n, depth).data());
            }
        });
        parallel::endStage();
    }
}

}  // namespace tilegrid
