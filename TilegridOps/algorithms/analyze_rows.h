#pragma once
#include "TilegridOps/algorithms/parent_values.h"
#include "TilegridOps/stencils/tile_block.h"
#include "TilegridOps/substrate/channel.h"

#include <span>

namespace tilegrid::analysis {

/// Tiles of a float channel with what of their own depth lies around them, and what else does; one per thread.
///
/// Unlike `stencils::BlockReader` it mixes nothing from coarser tiles: what an operator gives beside those is replaced by its result
/// one depth above, so that only the memory has to be there.
template <class Tr> class RowReader {
public:
    using Tree = OST::TileTree3D::Container<Tr>;

    /// \param facesOnly  look for faces, and for what makes voxels hang, alone
    RowReader(Tree const& tree, OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const& channel, bool facesOnly)
        : tree_(tree), walk_(tree), minDepth_(channel.minDepth()), directions_(facesOnly ? std::span<int const>(kFacesAndLow) : kAll)
    {
        for (int depth = channel.minDepth(); depth <= channel.depth(); ++depth)
            if (channel.tileCount(depth) > 0) values_[std::size_t(depth)] = channel.tileData(0, depth).data();
        block_.tiles.fill(nowhere_.data() + kMargin);
    }
    RowReader(RowReader const&) = delete;
    RowReader& operator=(RowReader const&) = delete;

    /// \return what lies in the directions looked for
    AroundTile read(typename Tree::Tile const& tile)
    {
        using namespace OST::TileTree3D;
        const TreeIndex own = tile.treeIndex();
        float const* values = values_[std::size_t(own.depth)];
        auto const* table = tree_.tileNeighbors();
        auto const* around = table ? nullptr : &walk_.around(tile);
        AroundTile found;
        block_.tiles[kNeighborSelf] = values + own.index * Tr::voxelCount;
        for (int direction : directions_) {
            const TreeIndex at = table ? table->find(own, NeighborDirection(direction)) : (*around)[std::size_t(direction)];
            const bool same = at.depth == own.depth;
            block_.tiles[std::size_t(direction)] = same ? values + at.index * Tr::voxelCount : nowhere_.data() + kMargin;
            if (!same) (at.depth >= minDepth_ ? found.coarser : found.outside) |= 1u << direction;
        }
        return found;
    }
    /// Of the last tile. Beside coarser tiles or none the values are of no account.
    stencils::StencilBlock<Tr> const& block() const { return block_; }

private:
    static constexpr std::array<int, 10> kFacesAndLow = {0, 1, 3, 4, 9, 10, 12, 14, 16, 22};
    static constexpr std::array<int, 26> kAll = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                                 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};
    /// What rows of vectors may touch around a tile.
    static constexpr int kMargin = 8;

    Tree const& tree_;
    OST::TileTree3D::NeighborWalk<Tr> walk_;
    int minDepth_;
    std::span<int const> directions_;
    std::array<float const*, Tr::levels> values_{};
    stencils::StencilBlock<Tr> block_;
    std::array<float, Tr::voxelCount + 2 * kMargin> nowhere_{};
};

}  // namespace tilegrid::analysis
