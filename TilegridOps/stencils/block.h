#pragma once
#include "TilegridOps/stencils/upsample.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/neighbor_walk.h"

#include <array>

namespace tilegrid::stencils {

using OST::TileTree3D::Channel;
using OST::TileTree3D::ConstTileAccessor;
using OST::TileTree3D::Container;
using OST::TileTree3D::NeighborWalk;
using OST::TileTree3D::VoxelOffsetType;

/// What a stencil of one voxel's reach touches around a tile.
enum class Reach { kFaces, kFacesEdgesCorners };

/// A tile of a float channel with its 26 neighbours, for kernels that read rows straight from where they are stored. Each
/// pointer leads to W^3 values, x fastest, of the tile in that direction (`neighborDirection`). Beside a coarser tile or none
/// it leads to scratch in which the layer next to the tile holds the linear halo of the tile, and nothing else counts.
template <class Tr> struct StencilBlock {
    static constexpr int W = Tr::width;
    std::array<float const*, 27> tiles;

    /// Row (j,k), each from -1 to W, of the tiles `dx` (-1, 0, 1) along x.
    [[gnu::always_inline]] float const* row(int dx, int j, int k) const
    {
        const int dy = j < 0 ? -1 : j < W ? 0 : 1, dz = k < 0 ? -1 : k < W ? 0 : 1;
        return tiles[std::size_t((dx + 1) * 9 + (dy + 1) * 3 + (dz + 1))] + W * ((j - dy * W) + W * (k - dz * W));
    }
};

/// Makes the blocks of one channel; one reader per thread. Neighbours come from the table of the tree if it is current, else by
/// links.
template <class Tr> class TILEGRID_API BlockReader {
public:
    using Tile = typename Container<Tr>::Tile;

    /// \param channel  outlives the reader; its default stands where no tile is
    /// \param offset   where its samples lie
    BlockReader(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& channel, Reach reach, VoxelOffsetType offset);

    /// Of a tile that the channel has; valid until the next call.
    StencilBlock<Tr> const& read(Tile const& tile);

private:
    static constexpr int kMargin = 8;
    static constexpr int kScratchTile = Tr::voxelCount + 2 * kMargin;

    /// Tiles around a tile, with a bit for each direction in which none of its own depth lies; and its parent, if tiles of the
    /// parent's depth lie in all of those.
    struct Found {
        std::array<float const*, 27> tiles;
        std::uint32_t missing = 0;
        bool oneAbove = true;
        Tile const* parent = nullptr;
    };
    template <class Directions> void find(Tile const& tile, Directions const& directions, Found& found);
    void fillMissing(Tile const& tile, Found const& found);
    void fillMissingSlowly(Tile const& tile, std::uint32_t missing);
    /// A tile of the channel with one layer around it. Kept until another tile of its depth is asked for.
    Surrounded<Tr> const& surrounded(Tile const& tile);
    void surround(Tile const& tile, Surrounded<Tr>& out);
    float* missingTile(int direction) { return scratch_.data() + direction * kScratchTile + kMargin; }

    Container<Tr> const* tree_;
    Channel<Tr, float, Tr::width, 0> const* channel_;
    ConstTileAccessor<Tr> accessor_;
    NeighborWalk<Tr> walk_;
    Reach reach_;
    VoxelOffsetType offset_;
    StencilBlock<Tr> block_;
    std::vector<float> scratch_;
    OST::TileTree3D::TileData<float, Tr::width, 1> halo_;
    struct Kept {
        OST::int64 tile = -1;
        Surrounded<Tr> surrounded;
    };
    std::array<std::unique_ptr<Kept>, Tr::levels> kept_;
};

extern template class BlockReader<OST::TileTree3D::BinaryTraits>;
extern template class BlockReader<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::stencils
