#pragma once
#include "TilegridOps/substrate/container.h"

#include <array>

namespace OST::TileTree3D {

/// The tiles around a tile, by direction: of its own depth, else the finest that covers the place, else (-1,-1).
using Surroundings = std::array<TreeIndex, 27>;

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

    enum class Sides { kAll, kLow, kHigh };
    /// With `kLow` only the directions without a step to the high side are filled in, with `kHigh` those without one to the low
    /// side; the others mean nothing.
    explicit NeighborWalk(Container<Tr> const& tree, Sides sides = Sides::kAll) : tree_(&tree)
    {
        for (int n = 0; n < 27; ++n) {
            const int3 offset = neighborOffset(NeighborDirection(n));
            const bool low = offset.x <= 0 && offset.y <= 0 && offset.z <= 0, high = offset.x >= 0 && offset.y >= 0 && offset.z >= 0;
            if (sides == Sides::kAll || (sides == Sides::kLow ? low : high)) directions_[count_++] = std::uint8_t(n);
        }
    }

    Surroundings const& around(Tile const& tile)
    {
        Place& place = places_[tile.depth()];
        if (place.tilesOf != tile.index()) fill(place, tile);
        return place.tiles;
    }
    /// A bit for each direction in which a tile of the tile's own depth lies. Costs less than to know which.
    std::uint32_t sameDepth(Tile const& tile)
    {
        Place& place = places_[tile.depth()];
        if (place.maskOf != tile.index()) {
            place.maskOf = tile.index();
            place.mask = 1u << kNeighborSelf;
            forNeighbors(tile, [&place](int direction, int64 child, TreeIndex const&) {
                place.mask |= std::uint32_t(child >= 0) << direction;
            });
        }
        return place.mask;
    }
    /// What `ConstTileAccessor::treeIndexNeighbor` gives.
    TreeIndex treeIndexNeighbor(Tile const& tile, NeighborDirection direction) { return around(tile)[direction]; }

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

    struct Place {
        int64 tilesOf = -1, maskOf = -1;
        std::uint32_t mask = 0;
        Surroundings tiles;
    };

    void fill(Place& place, Tile const& tile)
    {
        place.tilesOf = tile.index();
        // Depth 0: one tile is all of tile space.
        if (tile.depth() == 0) place.tiles.fill({});
        place.tiles[kNeighborSelf] = tile.treeIndex();
        forNeighbors(tile, [&](int direction, int64 child, TreeIndex const& holder) {
            place.tiles[direction] = child < 0 ? holder : TreeIndex{child, tile.depth()};
        });
    }
    /// Calls `visit(direction, index or -1, what lies there at the parent's depth or above)`; never for a tile without parent.
    template <class Visit> void forNeighbors(Tile const& tile, Visit visit)
    {
        if (!tile.parentTreeIndex().valid()) return;
        Tile const& parent = tree_->tile(tile.parentTreeIndex());
        Surroundings const& above = around(parent);
        auto const& steps = detail::kChildSteps<Tr>.of[childCell(parent, tile)];
        std::array<Tile const*, 27> holders;
        for (int n = 0; n < steps.holderCount; ++n) {
            const int holder = steps.holders[n];
            // A tile without children stands for what is not there, so that the loop below has nothing to test.
            holders[holder] = above[holder].depth == parent.depth() ? &tree_->tile(above[holder]) : &Container<Tr>::outsideTile();
        }
        for (int n = 0; n < count_; ++n) {
            const int direction = directions_[n];
            const auto step = steps.to[direction];
            visit(direction, holders[step.holder]->childIndex(step.cell), above[step.holder]);
        }
    }

    Container<Tr> const* tree_;
    std::array<std::uint8_t, 27> directions_{};
    int count_ = 0;
    std::array<Place, Tr::levels> places_;
};

}  // namespace OST::TileTree3D
