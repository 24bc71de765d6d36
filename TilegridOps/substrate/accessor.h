#pragma once
#include "TilegridOps/substrate/container.h"

namespace OST::TileTree3D {

/// Finds tiles by place. Cheap to copy; remembers the last tile found, so each thread has its own. Stays right when the tree
/// changes.
template <class Tr> class ConstTileAccessor {
public:
    using Tile = typename Container<Tr>::Tile;

    explicit ConstTileAccessor(Container<Tr> const& container) : container_(&container) {}
    virtual ~ConstTileAccessor() = default;
    ConstTileAccessor(ConstTileAccessor const&) = default;
    ConstTileAccessor& operator=(ConstTileAccessor const&) = default;

    Container<Tr> const& container() const { return *container_; }

    /// The finest tile not deeper than `depth` that contains the tile-space place; a tile with `valid()` false if none
    /// does. The reference lives until the tree changes.
    template <int = 0> Tile const& tileImpl(int i, int j, int k, int depth) const
    {
        const TreeIndex index = find(i, j, k, depth);
        return index.valid() ? container_->tile(index) : Container<Tr>::outsideTile();
    }
    /// The same as an index, (-1,-1) outside every tile.
    TreeIndex find(int i, int j, int k, int depth) const
    {
        if (version_ != container_->version()) refresh();
        const TreeIndex found = lookup_->find(i, j, k, cursor_);
        return found.depth <= depth && found.index >= 0 ? found : walk(i, j, k, depth, found);
    }
    /// The tile one tile width away in that direction; if no tile of the same depth is there, the finest one that covers
    /// the place; `valid()` false outside every tile. Right at any time, for tiles of other trees too, and a load from a table
    /// between `precomputeTileNeighbors` and the next change of the tree.
    Tile const& tileNeighbor(Tile const& tile, NeighborDirection direction) const
    {
        const TreeIndex index = treeIndexNeighbor(tile, direction);
        return index.valid() ? container_->tile(index) : Container<Tr>::outsideTile();
    }
    TreeIndex treeIndexNeighbor(Tile const& tile, NeighborDirection direction) const
    {
        if (auto const* table = container_->tileNeighbors(); table && container_->holds(tile))
            return table->find(tile.treeIndex(), direction);
        if (!tile.valid()) return {};
        const int3 offset = neighborOffset(direction);
        const int64 width = tile.tileVoxelWidth();
        int3 place;
        for (int axis = 0; axis < 3; ++axis) {
            const int64 p = tile.tijk()[axis] + offset[axis] * width;
            if (p < Tr::rangeMin || p > Tr::rangeMax) return {};
            place[axis] = static_cast<std::int32_t>(p);
        }
        return find(place.x, place.y, place.z, tile.depth());
    }

private:
    /// For a depth above that of the tile found, and where the lookup knows of no tile.
    [[gnu::noinline]] TreeIndex walk(int i, int j, int k, int depth, TreeIndex found) const
    {
        if (found.valid()) return container_->find(i, j, k, depth, found);
        const TreeIndex tile = container_->find(i, j, k, depth, last_);
        if (tile.valid()) last_ = tile;
        return tile;
    }
    [[gnu::noinline]] void refresh() const
    {
        lookup_ = container_->lookup();
        if (!lookup_) lookup_ = &TileLookup<Tr>::none();
        version_ = container_->version();
        cursor_ = {};
    }
    Container<Tr> const* container_;
    mutable TileLookup<Tr> const* lookup_ = nullptr;
    mutable uint64 version_ = ~uint64(0);
    mutable typename TileLookup<Tr>::Cursor cursor_;
    mutable TreeIndex last_;
};

/// Adds tiles. One at a time per container.
template <class Tr> class TILEGRID_API TileAccessor : public ConstTileAccessor<Tr> {
public:
    explicit TileAccessor(Container<Tr>& container) : ConstTileAccessor<Tr>(container), mutableContainer_(&container) {}

    /// The tile of that depth which contains the place, added with its missing ancestors if it is not there. Outside tile
    /// space nothing is added and the result is (-1,-1).
    TreeIndex addTile(int i, int j, int k, int depth)
    {
        const TreeIndex added = mutableContainer_->addTile(VoxelCoord(i, j, k, depth), lastAdded_);
        if (added.valid()) lastAdded_ = added;
        return added;
    }
    /// Adds every tile of the depth that meets the box; both corners belong to it. The part outside tile space is ignored.
    void addTiles(int3 const& low, int3 const& high, int depth);

private:
    Container<Tr>* mutableContainer_;
    TreeIndex lastAdded_;
};

extern template class TileAccessor<BinaryTraits>;
extern template class TileAccessor<QuinaryTraits>;

template <class Tr> ConstTileAccessor<Tr> Container<Tr>::tileAccessor() const
{
    return ConstTileAccessor(*this);
}
template <class Tr> TileAccessor<Tr> Container<Tr>::tileAccessor()
{
    return TileAccessor(*this);
}

}  // namespace OST::TileTree3D
