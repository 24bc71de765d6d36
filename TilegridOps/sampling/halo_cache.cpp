#include "TilegridOps/sampling/halo_cache.h"

#include "TilegridOps/sampling/one_layer_halo.h"
#include "TilegridOps/substrate/halo.h"

namespace OST::TileTree3D {

template <class Tr, class T> auto HaloCache<Tr, T>::place(TreeIndex const& tile) -> Entry&
{
    Entry* const first = &entries_[std::size_t(tile.depth) * std::size_t(ways_)];
    Entry* const end = first + ways_;
    if (Entry* const own = std::find_if(first, end, [&](Entry const& e) { return e.treeIndex == tile.index; }); own != end) return *own;
    if (Entry* const free = std::find_if(first, end, [](Entry const& e) { return e.treeIndex == -1; }); free != end) return *free;
    return *std::min_element(first, end, [](Entry const& a, Entry const& b) { return a.stamp < b.stamp; });
}

template <class Tr, class T> T const* HaloCache<Tr, T>::fetch(TreeIndex const& tile, uint64 query, Source const& source)
{
    if (T const* data = last(tile)) return data;
    if (!entries_) entries_ = std::make_unique<Entry[]>(std::size_t(Tr::levels) * std::size_t(ways_));
    Entry& entry = place(tile);
    if (entry.treeIndex != tile.index) {
        // Should the fill throw, the entry is free and nobody's last.
        if (last_[tile.depth].data == entry.data.get()) last_[tile.depth] = {};
        entry.treeIndex = -1;
        fill(entry, tile, query, source);
        entry.treeIndex = tile.index;
    }
    entry.stamp = query;
    last_[tile.depth] = {tile.index, entry.data.get()};
    return entry.data.get();
}

template <class Tr, class T>
void HaloCache<Tr, T>::fill(Entry& entry, TreeIndex const& index, uint64 query, Source const& source)
{
    constexpr int W = Tr::width;
    const bool compressed = source.offset == kCorner;
    const int width = compressed ? W + 1 : W + 2;
    if (!entry.data) entry.data = std::make_unique<T[]>(std::size_t(width * width * width));
    auto const& tile = source.tree.tile(index);
    const TreeIndex above = tile.parentTreeIndex();
    const int3 cell = above.valid() ? source.tree.tile(above).childIJK(tile) : int3(0);
    T const* parentHalo = above.valid() && index.depth > source.channel.minDepth() ? fetch(above, query, source) : nullptr;
    if (!walk_) walk_ = std::make_unique<NeighborWalk<Tr>>(source.tree, compressed ? NeighborWalk<Tr>::Sides::kHigh : NeighborWalk<Tr>::Sides::kAll);
    Surroundings const& around = walk_->around(tile);
    if (compressed)
        detail::gatherCompressedHalo<Tr, T>(index, cell, around, source.channel, parentHalo, entry.data.get());
    else
        fillOneLayerHalo<Tr, T>(index, cell, around, parentHalo, source.channel, source.offset, entry.data.get());
}

template <class Tr, class T> bool HaloCache<Tr, T>::holds(TreeIndex const& tile) const
{
    if (!entries_ || !tile.valid() || tile.depth >= Tr::levels) return false;
    Entry const* const first = &entries_[std::size_t(tile.depth) * std::size_t(ways_)];
    return std::any_of(first, first + ways_, [&](Entry const& e) { return e.treeIndex == tile.index; });
}

#define TILEGRID_INSTANTIATE(T)                  \
    template class HaloCache<BinaryTraits, T>;   \
    template class HaloCache<QuinaryTraits, T>;
TILEGRID_INSTANTIATE(float)
TILEGRID_INSTANTIATE(Ostara::Math::float2)
TILEGRID_INSTANTIATE(Ostara::Math::float3)
TILEGRID_INSTANTIATE(Ostara::Math::float4)
TILEGRID_INSTANTIATE(Ostara::Math::float3x3)
TILEGRID_INSTANTIATE(Ostara::Math::float4x2)
TILEGRID_INSTANTIATE(Ostara::Math::float4x4)
TILEGRID_INSTANTIATE(double)
TILEGRID_INSTANTIATE(Ostara::Math::double3)

}  // namespace OST::TileTree3D
