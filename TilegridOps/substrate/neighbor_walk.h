#pragma once
#include "TilegridOps/substrate/container.h"

#include <array>

namespace OST::TileTree3D {

/// The tiles around a tile, by direction: of its own depth, else the finest that covers the place, else (-1,-1).
struct Surroundings {
    int64 index = -1;
    /// Bit n is set if `tiles[n]` has the tile's own depth.
    std::uint32_t sameDepth = 0;
    std::array<TreeIndex, 27> tiles;
};

namespace detail {

/// For each cell of a tile and each direction: the tile around the tile in which the child's neighbour lies, and its cell there.
template <class Tr> struct ChildSteps {
    struct Step {
        std::uint8_t holder = kNeighborSelf, cell = 0;
    };
    struct OfCell {
        std::array<Step, 27> to{};
        /// Each holder once.
        std::array<std::uint8_t, 8> holders{};
        int holderCount = 0;
        std::uint32_t holderMask = 0;
    };
    std::array<OfCell, Tr::childCount> of{};

    constexpr ChildSteps()
    {
        constexpr int B = Tr::branching;
        for (int cell = 0; cell < Tr::childCount; ++cell)
            for (int n = 0; n < 27; ++n) {
                int3 at = cubeIndex(B, cell), step;
                const int3 offset = neighborOffset(NeighborDirection(n));
                for (int axis = 0; axis < 3; ++axis) {
                    at[axis] += offset[axis];
                    step[axis] = at[axis] < 0 ? -1 : at[axis] >= B ? 1 : 0;
                    at[axis] -= step[axis] * B;
                }
                const int holder = neighborDirection(step.x, step.y, step.z);
                of[cell].to[n] = {std::uint8_t(holder), std::uint8_t(flatIndex(B, at.x, at.y, at.z))};
                if (of[cell].holderMask >> holder & 1) continue;
                of[cell].holderMask |= 1u << holder;
                of[cell].holders[of[cell].holderCount++] = std::uint8_t(holder);
            }
    }
};
template <class Tr> inline constexpr ChildSteps<Tr> kChildSteps;

}  // namespace detail

/// Finds the neighbours of tiles by their links alone: a neighbour is a child of the parent's neighbour. For passes over many
/// tiles of a tree that changes between the passes, where a lookup structure would be rebuilt each time. It remembers the
/// surroundings of the last tile of each depth, so that tiles in Morton order share nearly all steps.
///
/// One per thread (13 kB), for as long as the tree does not change.
template <class Tr> class NeighborWalk {
public:
    using Tile = typename Container<Tr>::Tile;

    enum class Sides { kAll, kLow };
    /// With `kLow` only the directions without a step to the high side are filled in; the others mean nothing.
    explicit NeighborWalk(Container<Tr> const& tree, Sides sides = Sides::kAll) : tree_(&tree)
    {
        for (int n = 0; n < 27; ++n) {
            const int3 offset = neighborOffset(NeighborDirection(n));
            if (sides == Sides::kAll || (offset.x <= 0 && offset.y <= 0 && offset.z <= 0)) directions_[count_++] = std::uint8_t(n);
        }
    }

    Surroundings const& around(Tile const& tile)
    {
        Surroundings& around = around_[tile.depth()];
        if (around.index != tile.index()) fill(around, tile);
        return around;
    }
    /// What `ConstTileAccessor::treeIndexNeighbor` gives.
    TreeIndex treeIndexNeighbor(Tile const& tile, NeighborDirection direction) { return around(tile).tiles[direction]; }

    /// The child cell of `parent` that `child` fills.
    static int childCell(Tile const& parent, Tile const& child)
    {
        if constexpr (Tr::branching == 2)
            return int(child.tijk().x > parent.tijk().x) | int(child.tijk().y > parent.tijk().y) << 1 | int(child.tijk().z > parent.tijk().z) << 2;
        else
            return flatCell(parent.childIJK(child));
    }

private:
    static int flatCell(int3 const& cell) { return flatIndex(Tr::branching, cell.x, cell.y, cell.z); }

    void fill(Surroundings& around, Tile const& tile)
    {
        around.index = tile.index();
        around.sameDepth = 1u << kNeighborSelf;
        const TreeIndex parentIndex = tile.parentTreeIndex();
        if (!parentIndex.valid()) {  // one tile is all of tile space
            around.tiles.fill({});
            around.tiles[kNeighborSelf] = tile.treeIndex();
            return;
        }
        Tile const& parent = tree_->tile(parentIndex);
        Surroundings const& above = this->around(parent);
        auto const& steps = detail::kChildSteps<Tr>.of[childCell(parent, tile)];
        std::array<Tile const*, 27> holders;
        for (int n = 0; n < steps.holderCount; ++n) {
            const int holder = steps.holders[n];
            holders[holder] = above.sameDepth >> holder & 1 ? &tree_->tile(above.tiles[holder]) : nullptr;
        }
        for (int n = 0; n < count_; ++n) {
            const int direction = directions_[n];
            const auto step = steps.to[direction];
            const int64 child = holders[step.holder] ? holders[step.holder]->childIndex(step.cell) : -1;
            around.tiles[direction] = child < 0 ? above.tiles[step.holder] : TreeIndex{child, tile.depth()};
            around.sameDepth |= std::uint32_t(child >= 0) << direction;
        }
    }

    Container<Tr> const* tree_;
    std::array<std::uint8_t, 27> directions_{};
    int count_ = 0;
    std::array<Surroundings, Tr::levels> around_;
};

}  // namespace OST::TileTree3D
