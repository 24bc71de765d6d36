#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/substrate/slab.h"
#include "TilegridOps/substrate/tile.h"

#include <array>
#include <atomic>

/// The neighbours of every tile as tables, so that a query is a load. A table describes one state of the tree and carries
/// its version: after a change of tiles it no longer counts, and queries search again until it is made anew.
namespace OST::TileTree3D {

template <class Tr> class TILEGRID_API Container;
template <class Tr> class TILEGRID_API HighNeighbors;

/// The seven neighbours on the high sides, in the order in which a compressed halo takes them: bit 0, 1, 2 of n + 1 is set if
/// the n-th lies one tile further along x, y, z.
inline constexpr int kHighNeighbors = 7;
constexpr int3 highNeighborOffset(int n) { return {(n + 1) & 1, (n + 1) >> 1 & 1, (n + 1) >> 2 & 1}; }

/// All 26 neighbours of each tile: 104 bytes per tile. An entry is the running number over all depths of the finest tile, not
/// deeper than the tile itself, that covers the neighbouring place; -1 outside every tile. Its depth follows from the number.
template <class Tr> class TILEGRID_API TileNeighbors {
public:
    bool describes(uint64 version) const { return version_.load(std::memory_order_acquire) == version; }
    void clear();
    /// Parallel over parents, depth by depth. Stays without a table if the tree has more tiles than an entry can name.
    void build(Container<Tr> const& container);
    /// Of a tile of the tree that the table describes.
    TreeIndex find(TreeIndex const& tile, NeighborDirection direction) const
    {
        if (direction == kNeighborSelf) return tile;
        const std::int32_t number = entries_[tile.depth][std::size_t(tile.index) * kEntries + entryOf(direction)];
        if (number < 0) return {};
        int depth = tile.depth;
        while (number < first_[depth]) --depth;
        return {number - first_[depth], depth};
    }
    void memUse(std::size_t& used, std::size_t& reserved) const;

private:
    friend class HighNeighbors<Tr>;
    static constexpr int kEntries = 26;
    static constexpr int entryOf(int direction) { return direction - (direction > kNeighborSelf); }
    using Entries = tilegrid::Slab<std::int32_t>;
    static bool numberTiles(Container<Tr> const& container, std::array<std::int32_t, Tr::levels>& first);
    /// The entries of a depth from those of the depth above.
    static void buildDepth(Container<Tr> const& container, std::array<std::int32_t, Tr::levels> const& first, int depth,
                           Entries const& above, Entries& entries);
    static void runParent(Tile<Tr, Tr::childCount> const& parent, Container<Tr> const& container,
                          std::array<std::int32_t, Tr::levels> const& first, std::int32_t const* above,
                          Entries& entries);

    /// Running number of the first tile of a depth.
    std::array<std::int32_t, Tr::levels> first_{};
    std::array<Entries, Tr::levels> entries_;
    std::atomic<uint64> version_{~uint64(0)};
};

/// The neighbours of the same depth on the high sides: 28 bytes per tile, index or -1.
template <class Tr> class TILEGRID_API HighNeighbors {
public:
    bool describes(uint64 version) const { return version_.load(std::memory_order_acquire) == version; }
    void clear();
    void build(Container<Tr> const& container);
    /// Seven indices, in the order of `highNeighborOffset`.
    std::int32_t const* of(TreeIndex const& tile) const
    {
        return &entries_[tile.depth][std::size_t(tile.index) * kHighNeighbors];
    }
    void memUse(std::size_t& used, std::size_t& reserved) const;

private:
    std::array<tilegrid::Slab<std::int32_t>, Tr::levels> entries_;
    std::atomic<uint64> version_{~uint64(0)};
};

extern template class TileNeighbors<BinaryTraits>;
extern template class TileNeighbors<QuinaryTraits>;
extern template class HighNeighbors<BinaryTraits>;
extern template class HighNeighbors<QuinaryTraits>;

}  // namespace OST::TileTree3D
