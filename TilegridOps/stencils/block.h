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
    /// What is known of the surroundings of one tile; of each depth the last tile is kept, since its children come in a row.
    struct Around {
        OST::int64 tile = -1;
        StencilBlock<Tr> block;
        /// A bit for each direction in which no tile of its own depth lies: `block` leads to scratch there, which is filled only
        /// when it is asked for.
        std::uint32_t missing = 0;
        bool filled = false;
        /// Whether tiles of the parent's depth lie in all of those.
        bool oneAbove = true;
        std::vector<float> scratch;

        float* scratchTile(int direction) { return scratch.data() + direction * Upsampler<Tr>::kScratchTile + Upsampler<Tr>::kMargin; }
    };
    template <class Directions> void find(Tile const& tile, Directions const& directions, Around& out);
    void fillMissing(Tile const& tile, Around& around, bool facesOnly);
    void fillFromParent(Tile const& tile, Tile const& parent, Around& around);
    void fillSlowly(Tile const& tile, Around& around, bool facesOnly);
    /// A tile with all that lies in the directions `needed`. Kept until another tile of its depth is asked for.
    StencilBlock<Tr> const& blockOf(Tile const& tile, std::uint32_t needed);

    Container<Tr> const* tree_;
    Channel<Tr, float, Tr::width, 0> const* channel_;
    ConstTileAccessor<Tr> accessor_;
    NeighborWalk<Tr> walk_;
    Reach reach_;
    VoxelOffsetType offset_;
    /// First value of each depth.
    std::array<float const*, Tr::levels> values_{};
    std::array<std::unique_ptr<Around>, Tr::levels> kept_;
    Around read_;
    OST::TileTree3D::TileData<float, Tr::width, 1> halo_;
};

extern template class BlockReader<OST::TileTree3D::BinaryTraits>;
extern template class BlockReader<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::stencils
