#pragma once
#include "TilegridOps/substrate/accessor.h"

#include <optional>

namespace OST::TileTree3D {

/// Tiles that one worker of a pass wants added, in a container of its own, while the tree itself stays as it is. The
/// container is made with the first tile, since most workers of most passes want none.
template <class Tr> class PrivateTiles {
public:
    explicit PrivateTiles(Container<Tr> const& owner) : owner_(&owner) {}
    PrivateTiles(PrivateTiles const&) = delete;
    PrivateTiles& operator=(PrivateTiles const&) = delete;
    ~PrivateTiles()
    {
        if (container_) owner_->freeThreadLocalContainer(container_);
    }

    /// The tile of that depth at the place, with its ancestors. Outside tile space nothing happens.
    void add(int3 const& place, int depth)
    {
        make();
        accessor_->addTile(place.x, place.y, place.z, depth);
    }
    void join(PrivateTiles const& right)
    {
        if (right.empty()) return;
        make();
        container_->refine(*right.container_, nullptr, /*updateLookup*/ false);
    }
    /// A container that holds no more than its first tile counts as empty.
    bool empty() const { return !container_ || container_->tileCount(-1) <= 1; }
    /// Adds them to a tree; see `Container::refine`.
    void addTo(Container<Tr>& tree, TileList<Tr>* tilesAdded, bool updateLookup) const
    {
        if (container_) tree.refine(*container_, tilesAdded, updateLookup);
    }

private:
    void make()
    {
        if (container_) return;
        container_ = owner_->threadLocalContainer(0);
        accessor_.emplace(*container_);
    }
    Container<Tr> const* owner_;
    Container<Tr>* container_ = nullptr;
    std::optional<TileAccessor<Tr>> accessor_;
};

}  // namespace OST::TileTree3D
