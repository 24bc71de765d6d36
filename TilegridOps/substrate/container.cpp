#include "TilegridOps/substrate/container.h"

#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/traversal.h"

#include <algorithm>
#include <cassert>
#include <ostream>
#include <stdexcept>

namespace OST::TileTree3D {

namespace {

// Tile numbers are kept below 2^30 so that lookup structures may pack them into 32 bits.
constexpr int64 kMostTilesPerDepth = int64(1) << 30;

// Child tables come in chunks that double up to this many, so that small trees stay small and addresses never move.
constexpr std::size_t kLargestChunk = 4096;

template <class Tr> bool insideRange(int i, int j, int k)
{
    return i >= Tr::rangeMin && i <= Tr::rangeMax && j >= Tr::rangeMin && j <= Tr::rangeMax && k >= Tr::rangeMin && k <= Tr::rangeMax;
}

/// Low corner of the tile of that depth which contains the place.
template <class Tr> int3 tileCorner(int i, int j, int k, int depth)
{
    const std::uint32_t width = std::uint32_t(Tr::tileVoxelWidth(depth));
    const auto corner = [width](int v) {
        const std::uint32_t fromLow = std::uint32_t(v) - std::uint32_t(Tr::rangeMin);
        return std::int32_t(fromLow / width * width + std::uint32_t(Tr::rangeMin));
    };
    return {corner(i), corner(j), corner(k)};
}

}  // namespace

template <int C> int64* ChildTableArena<C>::add()
{
    if (tables_ == reserved_) {
        const std::size_t chunk = std::min(kLargestChunk, std::max<std::size_t>(8, reserved_));
        chunks_.emplace_back(new int64[chunk * C]);
        lastChunk_ = chunk;
        reserved_ += chunk;
    }
    int64* table = chunks_.back().get() + (lastChunk_ - (reserved_ - tables_)) * C;
    ++tables_;
    std::fill_n(table, C, int64(-1));
    return table;
}

template <class Tr>
Container<Tr>::Container(Corvid::String const& name, float voxelSize) : Component(name), voxelSize_(voxelSize)
{
}

template <class Tr>
Container<Tr>::Container(Container const& other)
    : Component(other), roots_(other.roots_), voxelSize_(other.voxelSize_),
      maxRelativeRefinementError_(other.maxRelativeRefinementError_), version_(other.version_)
{
    for (int depth = 0; depth < Tr::levels; ++depth) {
        level_[depth].tiles = other.level_[depth].tiles;
        // The copied tiles still point at the other's tables.
        for (Tile& tile : level_[depth].tiles)
            if (!tile.isLeaf()) {
                int64* table = level_[depth].tables.add();
                std::copy_n(tile.children_.entries, Tr::childCount, table);
                tile.children_.entries = table;
            }
    }
}

template <class Tr> Container<Tr>::~Container() = default;

template <class Tr> void Container<Tr>::dump(std::ostream& out) const
{
    out << name() << " : " << (Tr::branching == 2 ? "binary" : "quinary") << " tree, voxel size " << voxelSize_ << ", tiles";
    for (int depth = 0; depth < Tr::levels; ++depth)
        if (tileCount(depth)) out << ' ' << depth << ':' << tileCount(depth);
    out << '\n';
}

template <class Tr> void Container<Tr>::memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const
{
    if (withLookup) {
        lookup_.memUse(used, reserved);
        neighbors_.memUse(used, reserved);
        highNeighbors_.memUse(used, reserved);
    }
    for (Level const& level : level_) {
        used += level.tiles.usedBytes() + level.tables.usedBytes();
        reserved += level.tiles.reservedBytes() + level.tables.reservedBytes();
    }
}

template <class Tr> void Container<Tr>::copyTo(Corvid::Ptr<OST::Component>& copy) const
{
    copy = Corvid::makeMutable<Container>(*this);
}

template <class Tr> void Container<Tr>::update(OST::Component const& source)
{
    if (auto const* other = dynamic_cast<Container const*>(&source)) refine(*other, nullptr, true);
}

template <class Tr> std::int32_t Container<Tr>::elementCount(TreeIndex const& tile) const
{
    const bool here = tile.valid() && tile.depth < Tr::levels && tile.index < tileCount(tile.depth);
    return here ? Tr::voxelCount : 0;
}

template <class Tr> int64 Container<Tr>::tileCount(int depth) const
{
    if (depth >= 0) return depth < Tr::levels ? static_cast<int64>(level_[depth].tiles.size()) : 0;
    int64 sum = 0;
    for (Level const& level : level_) sum += static_cast<int64>(level.tiles.size());
    return sum;
}

template <class Tr> auto Container<Tr>::tile(int64 flat) const -> Tile const&
{
    int depth = 0;
    while (flat >= tileCount(depth)) flat -= tileCount(depth++);
    return tile(flat, depth);
}

template <class Tr> auto Container<Tr>::outsideTile() -> Tile const&
{
    static const Tile outside;
    return outside;
}

template <class Tr> int Container<Tr>::deepestDepth() const
{
    int depth = Tr::maxDepth;
    while (depth >= 0 && tileCount(depth) == 0) --depth;
    return depth;
}

template <class Tr> int64 Container<Tr>::voxelCount(int depth) const
{
    if (depth < 0) {
        int64 sum = 0;
        for (int d = 0; d < Tr::levels; ++d) sum += voxelCount(d);
        return sum;
    }
    // Every tile of the next depth covers one child cell of this one.
    constexpr int cellVoxels = Tr::cellVoxels * Tr::cellVoxels * Tr::cellVoxels;
    return voxelDataCount(depth) - tileCount(depth + 1) * cellVoxels;
}

template <class Tr> void Container<Tr>::tileSpaceBounds(Ostara::Math::bbox<int3, int>& box) const
{
    box = {};
    const int depth = deepestDepth();
    if (depth < 0) return;
    for (Tile const& tile : level_[depth].tiles) {
        Ostara::Math::bbox<int3, int> one;
        tile.tileSpaceBounds(one);
        box.add(one);
    }
}

template <class Tr> void Container<Tr>::worldSpaceBounds(Ostara::Math::bbox<double3, double>& box) const
{
    box = {};
    Ostara::Math::bbox<int3, int> tiles;
    tileSpaceBounds(tiles);
    if (tiles.empty()) return;
    for (int axis = 0; axis < 3; ++axis) {
        box.min[axis] = double(tiles.min[axis]) * voxelSize_;
        box.max[axis] = (double(tiles.max[axis]) + 1.0) * voxelSize_;
    }
}

template <class Tr> float3 Container<Tr>::toTileSpace(float3 const& world) const
{
    return {world.x / voxelSize_, world.y / voxelSize_, world.z / voxelSize_};
}

template <class Tr> TreeIndex Container<Tr>::find(int i, int j, int k, int depth, TreeIndex hint) const
{
    depth = std::min(depth, Tr::maxDepth);
    Tile const* at = nullptr;
    if (hint.valid() && hint.depth < Tr::levels && hint.index < tileCount(hint.depth)) {
        at = &tile(hint);
        while (at->depth() > depth || !at->contains(i, j, k)) {
            if (!at->parentTreeIndex().valid()) {
                at = nullptr;
                break;
            }
            at = &tile(at->parentTreeIndex());
        }
    }
    if (!at && insideRange<Tr>(i, j, k) && depth >= 0)
        for (auto const& [coord, index] : roots_)
            if (coord.depth <= depth && tile(index).contains(i, j, k)) at = &tile(index);
    if (!at) return {};
    while (at->depth() < depth) {
        const int64 child = at->childIndex(at->childIJK(i, j, k));
        if (child < 0) break;
        at = &tile(child, at->depth() + 1);
    }
    return at->treeIndex();
}

template <class Tr> TileLookup<Tr> const* Container<Tr>::lookup() const
{
    if (isPrivate_) return nullptr;
    if (!lookupCurrent_.load(std::memory_order_acquire)) {
        const std::lock_guard lock(lookupMutex_);
        if (!lookupCurrent_.load(std::memory_order_relaxed)) {
            lookup_.build(*this);
            lookupCurrent_.store(true, std::memory_order_release);
        }
    }
    return lookup_.built() ? &lookup_ : nullptr;
}

template <class Tr> void Container<Tr>::tilesChanged(bool updateLookup)
{
    ++version_;
    lookupCurrent_.store(false, std::memory_order_relaxed);
    neighbors_.clear();
    highNeighbors_.clear();
    if (updateLookup) lookup();
}

template <class Tr> void Container<Tr>::limitTiles(int64 most, double bytesPerTile)
{
    mostTiles_ = most;
    bytesPerTile_ = bytesPerTile;
    tilesLeft_ = most == kNoLimit ? most : most - tileCount(-1);
}

template <class Tr> void Container<Tr>::refuseTiles() const
{
    throw tilegrid::MemoryExceeded((double(mostTiles_) + 1) * bytesPerTile_);
}

template <class Tr> void Container<Tr>::checkCapacity(int64 tiles) const
{
    if (tiles >= kMostTilesPerDepth) throw std::length_error("A depth of a tile tree can hold 1073741824 tiles at the most.");
}

template <class Tr> int64& Container<Tr>::childEntry(TreeIndex const& parent, int cell)
{
    Level& level = level_[parent.depth];
    Tile& tile = level.tiles[parent.index];
    if (tile.isLeaf()) tile.children_.entries = level.tables.add();
    return const_cast<int64&>(tile.children_.entries[cell]);
}

template <class Tr> TreeIndex Container<Tr>::addRoot(int3 const& corner, int depth)
{
    checkCapacity(tileCount(depth));
    countTile();
    Tile tile;
    tile.tijk_ = corner;
    tile.depth_ = depth;
    tile.index_ = tileCount(depth);
    tile.valid_ = true;
    level_[depth].tiles.push_back(tile);
    roots_[tile.voxelCoord()] = tile.treeIndex();
    return tile.treeIndex();
}

template <class Tr> TreeIndex Container<Tr>::addChild(TreeIndex const& parent, int cell)
{
    const int depth = parent.depth + 1;
    checkCapacity(tileCount(depth));
    countTile();
    Tile child;
    child.tijk_ = tile(parent).childTIJK(cubeIndex(Tr::branching, cell));
    child.depth_ = depth;
    child.index_ = tileCount(depth);
    child.parentIndex_ = parent.index;
    child.valid_ = true;
    level_[depth].tiles.push_back(child);
    childEntry(parent, cell) = child.index_;
    return child.treeIndex();
}

template <class Tr> TreeIndex Container<Tr>::addTile(VoxelCoord const& place, TreeIndex hint)
{
    if (!insideRange<Tr>(place.i, place.j, place.k) || place.depth < 0 || place.depth > Tr::maxDepth) return {};
    TreeIndex at = find(place.i, place.j, place.k, place.depth, hint);
    if (at.depth == place.depth) return at;
    const bool follow = lookupCurrent_.load(std::memory_order_relaxed);
    if (!at.valid()) {
        at = addRoot(tileCorner<Tr>(place.i, place.j, place.k, 0), 0);
        if (follow) lookup_.tileAdded(*this, at);
    }
    while (at.depth < place.depth) {
        const int3 cell = tile(at).childIJK(place.i, place.j, place.k);
        at = addChild(at, flatIndex(Tr::branching, cell.x, cell.y, cell.z));
        if (follow) lookup_.tileAdded(*this, at);
    }
    ++version_;
    lookupCurrent_.store(follow && lookup_.built(), std::memory_order_relaxed);
    return at;
}

template <class Tr> void Container<Tr>::refine(Container const& other, TilesAdded* tilesAdded, bool updateLookup)
{
    if (&other == this) return;
    if (empty() && !tilesAdded) {
        checkLimit(other.tileCount(-1));
        Container copy(other);
        level_.swap(copy.level_);
        roots_.swap(copy.roots_);
        limitTiles(mostTiles_, bytesPerTile_);
        return tilesChanged(updateLookup);
    }
    // Level by level: `here[n]` is the index in this tree of the other's tile n one depth above.
    std::vector<int64> above, here;
    for (int depth = 0; depth < Tr::levels && other.tileCount(depth) > 0; ++depth) {
        here.resize(static_cast<std::size_t>(other.tileCount(depth)));
        const int64 before = tileCount(depth);
        for (Tile const& theirs : other.level_[depth].tiles) {
            int64 mine = -1;
            if (theirs.parentIndex_ < 0) {
                auto root = roots_.find(theirs.voxelCoord());
                mine = root != roots_.end() ? root->second.index : addRoot(theirs.tijk_, depth).index;
            } else {
                const int64 parent = above[theirs.parentIndex_];
                const int3 cell = tile(parent, depth - 1).childIJK(theirs);
                const int flat = flatIndex(Tr::branching, cell.x, cell.y, cell.z);
                mine = tile(parent, depth - 1).childIndex(flat);
                if (mine < 0) mine = addChild({parent, depth - 1}, flat).index;
            }
            here[theirs.index_] = mine;
        }
        if (tilesAdded)
            for (int64 added = before; added < tileCount(depth); ++added) (*tilesAdded)[depth].push_back(tile(added, depth).tijk());
        above.swap(here);
    }
    tilesChanged(updateLookup);
}

template <class Tr> void Container<Tr>::removeTiles(std::vector<std::vector<int64>>& tiles, TileMoves& moves, bool updateLookup)
{
    tiles.resize(Tr::levels);
    moves.assign(Tr::levels, {});
    // newIndex[n] is the place of tile n after the removal, -1 if it goes; filled top-down, since a tile goes with its parent.
    std::vector<std::vector<int64>> newIndex(Tr::levels);
    for (int depth = 0; depth < Tr::levels; ++depth) {
        auto& renumbered = newIndex[depth];
        renumbered.assign(static_cast<std::size_t>(tileCount(depth)), 0);
        for (int64 n : tiles[depth])
            if (n >= 0 && n < tileCount(depth)) renumbered[n] = -1;
        tiles[depth].clear();
        int64 next = 0;
        for (int64 n = 0; n < tileCount(depth); ++n) {
            const int64 parent = tile(n, depth).parentIndex_;
            const bool goes = renumbered[n] < 0 || (parent >= 0 && newIndex[depth - 1][parent] < 0);
            if (goes) tiles[depth].push_back(n);
            renumbered[n] = goes ? -1 : next++;
            if (!goes && renumbered[n] != n) moves[depth].emplace_back(n, renumbered[n]);
        }
    }
    for (auto root = roots_.begin(); root != roots_.end();) {
        root->second.index = newIndex[root->second.depth][root->second.index];
        root = root->second.index < 0 ? roots_.erase(root) : std::next(root);
    }
    for (int depth = 0; depth < Tr::levels; ++depth) {
        Level kept;
        kept.tiles.reserve(static_cast<std::size_t>(tileCount(depth)) - tiles[depth].size());
        for (Tile const& old : level_[depth].tiles) {
            if (newIndex[depth][old.index_] < 0) continue;
            Tile tile = old;
            tile.index_ = newIndex[depth][old.index_];
            if (tile.parentIndex_ >= 0) tile.parentIndex_ = newIndex[depth - 1][tile.parentIndex_];
            tile.children_ = {};
            for (int cell = 0; cell < Tr::childCount; ++cell) {
                const int64 child = old.childIndex(cell) < 0 ? -1 : newIndex[depth + 1][old.childIndex(cell)];
                if (child < 0) continue;
                if (tile.isLeaf()) tile.children_.entries = kept.tables.add();
                const_cast<int64&>(tile.children_.entries[cell]) = child;
            }
            kept.tiles.push_back(tile);
        }
        level_[depth] = std::move(kept);
    }
    limitTiles(mostTiles_, bytesPerTile_);
    tilesChanged(updateLookup);
}

template <class Tr> void Container<Tr>::sortIntoMortonOrder(TilePermutation* permutation)
{
    // Parents in Morton order list their children in Morton order, so walking down level by level sorts without a compare.
    std::vector<std::vector<int64>> order(Tr::levels), newIndex(Tr::levels);
    for (auto const& [coord, index] : roots_) order[index.depth].push_back(index.index);
    for (int depth = 0; depth < Tr::levels; ++depth) {
        newIndex[depth].resize(static_cast<std::size_t>(tileCount(depth)));
        for (std::size_t n = 0; n < order[depth].size(); ++n) newIndex[depth][order[depth][n]] = static_cast<int64>(n);
        if (depth == Tr::maxDepth) break;
        order[depth + 1].reserve(static_cast<std::size_t>(tileCount(depth + 1)));
        for (int64 parent : order[depth]) {
            Tile const& tile = this->tile(parent, depth);
            if (tile.isLeaf()) continue;
            for (int cell = 0; cell < Tr::childCount; ++cell)
                if (tile.childIndex(cell) >= 0) order[depth + 1].push_back(tile.childIndex(cell));
        }
    }
    for (auto& [coord, index] : roots_) index.index = newIndex[index.depth][index.index];
    for (int depth = 0; depth < Tr::levels; ++depth) {
        if (std::is_sorted(order[depth].begin(), order[depth].end())) order[depth].clear();  // nothing moves here
        tilegrid::Slab<Tile> sorted;
        sorted.resize(static_cast<std::size_t>(tileCount(depth)));
        for (Tile& old : level_[depth].tiles) {
            if (!old.isLeaf())
                for (int cell = 0; cell < Tr::childCount; ++cell)
                    if (int64& entry = const_cast<int64&>(old.children_.entries[cell]); entry >= 0) entry = newIndex[depth + 1][entry];
            if (old.parentIndex_ >= 0) old.parentIndex_ = newIndex[depth - 1][old.parentIndex_];
            old.index_ = newIndex[depth][old.index_];
            sorted[old.index_] = old;
        }
        level_[depth].tiles = std::move(sorted);
    }
    if (permutation) *permutation = std::move(order);
    tilesChanged(/*updateLookup*/ false);
}

template <class Tr> Container<Tr>* Container<Tr>::threadLocalContainer(int) const
{
    auto container = std::make_unique<Container>(name(), voxelSize_);
    container->isPrivate_ = true;
    container->limitTiles(mostTiles_, bytesPerTile_);
    return container.release();
}

template <class Tr> void Container<Tr>::freeThreadLocalContainer(Container* container) const
{
    delete container;
}

template <class Tr> void TileAccessor<Tr>::addTiles(int3 const& low, int3 const& high, int depth)
{
    if (depth < 0 || depth > Tr::maxDepth) return;
    int3 first, last;
    for (int axis = 0; axis < 3; ++axis) {
        first[axis] = std::max(low[axis], Tr::rangeMin);
        last[axis] = std::min(high[axis], Tr::rangeMax);
        if (first[axis] > last[axis]) return;
    }
    const int3 corner = tileCorner<Tr>(first.x, first.y, first.z, depth);
    const int64 width = Tr::tileVoxelWidth(depth);
    for (int64 k = corner.z; k <= last.z; k += width)
        for (int64 j = corner.y; j <= last.y; j += width)
            for (int64 i = corner.x; i <= last.x; i += width) addTile(int(i), int(j), int(k), depth);
}

template class ChildTableArena<8>;
template class ChildTableArena<125>;
template class Container<BinaryTraits>;
template class Container<QuinaryTraits>;
template class TileAccessor<BinaryTraits>;
template class TileAccessor<QuinaryTraits>;

}  // namespace OST::TileTree3D
