#pragma once
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/neighbor_walk.h"

#include <memory>

namespace OST::TileTree3D {

/// Tiles of a channel with the voxels around them, made when a sampler first needs them and kept while there is room: a number
/// of places (ways) per depth. A copy starts empty. One thread at a time.
///
/// With samples at low corners an entry is the compressed halo of its tile, (W+1)^3 elements; with any other offset it has one
/// layer on every side, (W+2)^3 elements. Where only coarser tiles lie, both are mixed from the parent's array, which the cache
/// makes in the same way first; at the lowest depth of the channel no parent is used.
template <class Tr, class T> class TILEGRID_API HaloCache {
public:
    explicit HaloCache(int ways) : ways_(ways) { forget(); }
    HaloCache(HaloCache const& other) : HaloCache(other.ways_) {}
    HaloCache& operator=(HaloCache const& other)
    {
        ways_ = other.ways_;
        entries_.reset();
        walk_.reset();
        forget();
        return *this;
    }

    /// What entries are made from.
    struct Source {
        Channel<Tr, T, Tr::width, 0> const& channel;
        Container<Tr> const& tree;
        VoxelOffsetType offset;
    };
    /// The array of a tile if it is the one that was asked for last at its depth, else null.
    T const* last(TreeIndex const& tile) const { return last_[tile.depth].treeIndex == tile.index ? last_[tile.depth].data : nullptr; }
    /// The array of a tile of the tree, made if it is not there: in a free place of its depth, else in that of the entry whose
    /// stamp is the smallest. The array lives until the next call.
    /// \param query  a number that rises from call to call: the entry's stamp, unless it was the last one asked for
    T const* fetch(TreeIndex const& tile, uint64 query, Source const& source);
    /// Whether the array of a tile is there.
    bool holds(TreeIndex const& tile) const;

private:
    struct Entry {
        int64 treeIndex = -1;
        std::unique_ptr<T[]> data;
        uint64 stamp = 0;
    };
    struct Last {
        int64 treeIndex = -1;
        T const* data = nullptr;
    };
    void forget() { last_.fill(Last()); }
    /// The entry of a tile, or the one to be given to it.
    Entry& place(TreeIndex const& tile);
    void fill(Entry& entry, TreeIndex const& tile, uint64 query, Source const& source);

    int ways_;
    std::array<Last, Tr::levels> last_;
    /// `ways_` for each depth, depth after depth; none before the first use.
    std::unique_ptr<Entry[]> entries_;
    /// Finds the tiles around a tile and its ancestors; comes with the entries.
    std::unique_ptr<NeighborWalk<Tr>> walk_;
};

}  // namespace OST::TileTree3D
