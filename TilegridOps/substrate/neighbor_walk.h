#pragma once
#include "TilegridOps/substrate/container.h"

#include <array>

namespace OST::TileTree3D {

/// Finds the neighbours of tiles by their links alone: a neighbour is a child of the parent's neighbour. For passes over many
/// tiles of a tree that changes between the passes, where a lookup structure would be rebuilt each time. It remembers the
/// surroundings of the last tile of each depth, so that tiles in Morton order share nearly all steps.
///
/// One per thread (13 kB), for as long as the tree does not change.
template <class Tr> class NeighborWalk {
public:
    using Tile = typename Container<Tr>::Tile;

    explicit NeighborWalk(Container<Tr> const& tree) : tree_(&tree) {}

    /// What `ConstTileAccessor::treeIndexNeighbor` gives: the tile of the same depth one tile width away, else the finest one
    /// that covers its place; (-1,-1) outside every tile.
    TreeIndex treeIndexNeighbor(Tile const& tile, NeighborDirection direction)
    {
        Surroundings& around = around_[tile.depth()];
        if (around.index != tile.index()) {
            around.index = tile.index();
            around.known = 0;
            if (tile.depth() > 0) around.cell = childCell(tree_->tile(tile.parentTreeIndex()), tile);
        }
        if (!(around.known >> direction & 1)) {
            around.tiles[direction] = locate(tile, around.cell, neighborOffset(direction));
            around.known |= 1u << direction;
        }
        return around.tiles[direction];
    }

    /// The child cell of `parent` that `child` fills.
    static int3 childCell(Tile const& parent, Tile const& child)
    {
        if constexpr (Tr::branching == 2)
            return {child.tijk().x > parent.tijk().x, child.tijk().y > parent.tijk().y, child.tijk().z > parent.tijk().z};
        else
            return parent.childIJK(child);
    }

private:
    struct Surroundings {
        int64 index = -1;
        /// Place of the tile among its parent's children.
        int3 cell;
        std::uint32_t known = 0;
        std::array<TreeIndex, 27> tiles;
    };

    TreeIndex locate(Tile const& tile, int3 cell, int3 const& offset)
    {
        const TreeIndex parent = tile.parentTreeIndex();
        if (!parent.valid()) return {};  // depth 0: one tile is all of tile space
        int3 step;
        for (int axis = 0; axis < 3; ++axis) {
            cell[axis] += offset[axis];
            step[axis] = cell[axis] < 0 ? -1 : cell[axis] >= Tr::branching ? 1 : 0;
            cell[axis] -= step[axis] * Tr::branching;
        }
        const NeighborDirection direction = neighborDirection(step.x, step.y, step.z);
        const TreeIndex holder = direction == kNeighborSelf ? parent : treeIndexNeighbor(tree_->tile(parent), direction);
        if (holder.depth != parent.depth) return holder;
        const int64 child = tree_->tile(holder).childIndex(cell);
        return child < 0 ? holder : TreeIndex{child, tile.depth()};
    }

    Container<Tr> const* tree_;
    std::array<Surroundings, Tr::levels> around_;
};

}  // namespace OST::TileTree3D
