#include "TilegridOps/substrate/channel_core.h"

#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <cstring>
#include <ostream>

namespace OST::TileTree3D {

namespace {

/// Fills a run of bytes with copies of one element.
void fillElements(std::byte* to, std::size_t bytes, std::byte const* element, std::size_t elementBytes)
{
    if (bytes == 0) return;
    if (std::all_of(element, element + elementBytes, [&](std::byte b) { return b == element[0]; })) {
        std::memset(to, int(element[0]), bytes);
        return;
    }
    // Doubling copies: each one is a plain move of bytes.
    std::size_t done = std::min(elementBytes, bytes);
    std::memcpy(to, element, done);
    while (done < bytes) {
        const std::size_t step = std::min(done, bytes - done);
        std::memcpy(to + done, to, step);
        done += step;
    }
}

template <class Count> TreeIndex tileOfRunningNumber(int64 flat, Count count)
{
    if (flat < 0) return {};
    for (int depth = 0; depth < kMaxLevels; ++depth) {
        if (flat < count(depth)) return {flat, depth};
        flat -= count(depth);
    }
    return {};
}

}  // namespace

ChannelBase::ChannelBase(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes,
                         DataElementInitializerType initializer, bool callElementConstructor, int minDepth, int depth)
    : Component(name), elementBytes_(elementBytes), initializer_(initializer),
      callElementConstructor_(callElementConstructor), minDepth_(minDepth), maxDepth_(depth)
{
    std::memcpy(default_.data(), defaultValue, elementBytes);
}

void ChannelBase::dump(std::ostream& out) const
{
    out << name() << " : depths " << minDepth() << " to " << depth() << ", " << tileCount(-1) << " tiles, " << elementCount(-1)
        << " elements of " << elementBytes_ << " bytes\n";
}

void ChannelBase::update(OST::Component const& source)
{
    if (auto const* tiles = dynamic_cast<Component const*>(&source)) updateTilesAdded(*tiles);
}

// Voxel channels

VoxelChannelCore::VoxelChannelCore(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes, int elementsPerTile,
                                   DataElementInitializerType initializer, bool callElementConstructor, int minDepth,
                                   int depth)
    : ChannelBase(name, defaultValue, elementBytes, initializer, callElementConstructor, minDepth, depth),
      tileStride_(elementBytes * static_cast<std::size_t>(elementsPerTile)), elementsPerTile_(elementsPerTile)
{
}

void VoxelChannelCore::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    for (DepthSlab const& slab : slab_) {
        used += slab.bytes.size();
        reserved += slab.bytes.capacity();
    }
}

int64 VoxelChannelCore::tileCount(int depth) const
{
    if (depth >= 0) return depth < kMaxLevels ? slab_[depth].tiles : 0;
    int64 sum = 0;
    for (DepthSlab const& slab : slab_) sum += slab.tiles;
    return sum;
}

TreeIndex VoxelChannelCore::tileOfFlat(int64 flat) const
{
    return tileOfRunningNumber(flat, [this](int depth) { return slab_[depth].tiles; });
}

void VoxelChannelCore::resizeDepth(int depth, int64 tiles)
{
    DepthSlab& slab = slab_[depth];
    if (tiles == slab.tiles) return;
    if (tiles == 0) {
        slab = {};
        return;
    }
    const std::size_t before = slab.bytes.size();
    slab.bytes.resize(static_cast<std::size_t>(tiles) * tileStride_);
    slab.tiles = tiles;
    if (slab.bytes.size() <= before || !callElementConstructor_) return;
    // Parts end on whole elements, so each can be filled alone.
    constexpr int64 kTilesPerPart = 256;
    std::byte* added = slab.bytes.data() + before;
    tilegrid::parallel::forRanges(0, static_cast<int64>((slab.bytes.size() - before) / tileStride_), kTilesPerPart,
                                  [&](int64 begin, int64 end) {
                                      fillElements(added + static_cast<std::size_t>(begin) * tileStride_,
                                                   static_cast<std::size_t>(end - begin) * tileStride_, default_.data(), elementBytes_);
                                  });
}

void VoxelChannelCore::updateTilesAdded(Component const& source)
{
    for (int depth = std::max(minDepth_, 0); depth <= maxDepth_; ++depth) resizeDepth(depth, source.tileCount(depth));
}

void VoxelChannelCore::setMinDepth(int minDepth, OST::Component const& source)
{
    minDepth_ = std::max(minDepth, 0);
    for (int depth = 0; depth < std::min(minDepth_, kMaxLevels); ++depth) resizeDepth(depth, 0);
    update(source);
}

void VoxelChannelCore::setDepth(int depth, OST::Component const& source)
{
    maxDepth_ = std::min(depth, kMaxLevels - 1);
    for (int d = std::max(maxDepth_ + 1, 0); d < kMaxLevels; ++d) resizeDepth(d, 0);
    update(source);
}

void VoxelChannelCore::updateTilesRemoved(TileMoves const& moves, Component const& source)
{
    for (int depth = std::max(minDepth_, 0); depth <= maxDepth_; ++depth) {
        DepthSlab& slab = slab_[depth];
        if (depth < int(moves.size()))
            for (auto const& [from, to] : moves[depth])  // ascending, and never upward: nothing is overwritten before it moved
                if (from < slab.tiles)
                    std::memmove(slab.bytes.data() + static_cast<std::size_t>(to) * tileStride_,
                                 slab.bytes.data() + static_cast<std::size_t>(from) * tileStride_, tileStride_);
        resizeDepth(depth, source.tileCount(depth));
    }
}

void VoxelChannelCore::updateTilesPermuted(TilePermutation const& permutation)
{
    for (int depth = 0; depth < std::min(kMaxLevels, int(permutation.size())); ++depth) {
        DepthSlab& slab = slab_[depth];
        auto const& order = permutation[depth];
        if (order.empty() || slab.tiles == 0) continue;
        tilegrid::RawSlab sorted;
        sorted.resize(slab.bytes.size());
        tilegrid::parallel::forRanges(0, slab.tiles, 64, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n)
                std::memcpy(sorted.data() + static_cast<std::size_t>(n) * tileStride_,
                            slab.bytes.data() + static_cast<std::size_t>(order[n]) * tileStride_, tileStride_);
        });
        slab.bytes = std::move(sorted);
    }
}

// Point channels

PointChannelCore::PointChannelCore(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes,
                                   DataElementInitializerType initializer, bool callElementConstructor, int minDepth,
                                   int depth)
    : ChannelBase(name, defaultValue, elementBytes, initializer, callElementConstructor, minDepth, depth)
{
}

void PointChannelCore::memUse(std::size_t& used, std::size_t& reserved, bool) const
{
    for (auto const& level : lists_) {
        used += level.size() * sizeof(List);
        reserved += level.capacity() * sizeof(List);
        for (List const& list : level) {
            used += list.size();
            reserved += list.capacity();
        }
    }
}

int64 PointChannelCore::elementCount(int depth) const
{
    int64 sum = 0;
    for (int d = 0; d < kMaxLevels; ++d)
        if (depth < 0 || d == depth)
            for (List const& list : lists_[d]) sum += static_cast<int64>(list.size() / elementBytes_);
    return sum;
}

std::int32_t PointChannelCore::elementCount(TreeIndex const& tile) const
{
    const bool here = tile.valid() && tile.depth < kMaxLevels && tile.index < tileCount(tile.depth);
    return here ? static_cast<std::int32_t>(lists_[tile.depth][tile.index].size() / elementBytes_) : 0;
}

int64 PointChannelCore::tileCount(int depth) const
{
    if (depth >= 0) return depth < kMaxLevels ? static_cast<int64>(lists_[depth].size()) : 0;
    int64 sum = 0;
    for (auto const& level : lists_) sum += static_cast<int64>(level.size());
    return sum;
}

TreeIndex PointChannelCore::tileOfFlat(int64 flat) const
{
    return tileOfRunningNumber(flat, [this](int depth) { return static_cast<int64>(lists_[depth].size()); });
}

std::byte const* PointChannelCore::tileBytes(int64 index, int depth) const
{
    if (depth < 0 || depth >= kMaxLevels || index < 0 || index >= tileCount(depth)) return nullptr;
    return lists_[depth][index].data();
}

void PointChannelCore::fillDefault(List& list, std::size_t fromByte) const
{
    fillElements(list.data() + fromByte, list.size() - fromByte, default_.data(), elementBytes_);
}

void PointChannelCore::resizeTile(TreeIndex const& tile, std::size_t elements)
{
    List& list = lists_[tile.depth][tile.index];
    const std::size_t before = std::min(list.size(), elements * elementBytes_);
    list.resize(elements * elementBytes_);
    fillDefault(list, before);
}

void PointChannelCore::updateTilesAdded(Component const& source)
{
    for (int depth = std::max(minDepth_, 0); depth <= maxDepth_; ++depth)
        lists_[depth].resize(static_cast<std::size_t>(source.tileCount(depth)));
    updateElementResize(source);
}

void PointChannelCore::setMinDepth(int minDepth, OST::Component const& source)
{
    minDepth_ = std::max(minDepth, 0);
    for (int depth = 0; depth < std::min(minDepth_, kMaxLevels); ++depth) lists_[depth].clear();
    update(source);
}

void PointChannelCore::setDepth(int depth, OST::Component const& source)
{
    maxDepth_ = std::min(depth, kMaxLevels - 1);
    for (int d = std::max(maxDepth_ + 1, 0); d < kMaxLevels; ++d) lists_[d].clear();
    update(source);
}

void PointChannelCore::updateTilesRemoved(TileMoves const& moves, Component const& source)
{
    for (int depth = std::max(minDepth_, 0); depth <= maxDepth_; ++depth) {
        if (depth < int(moves.size()))
            for (auto const& [from, to] : moves[depth])
                if (to != from) lists_[depth][to] = std::move(lists_[depth][from]);  // a list moved to itself would end empty
        lists_[depth].resize(static_cast<std::size_t>(source.tileCount(depth)));
    }
}

void PointChannelCore::updateTilesPermuted(TilePermutation const& permutation)
{
    for (int depth = 0; depth < std::min(kMaxLevels, int(permutation.size())); ++depth) {
        auto const& order = permutation[depth];
        if (order.empty() || lists_[depth].empty()) continue;
        std::vector<List> sorted(lists_[depth].size());
        for (std::size_t n = 0; n < sorted.size(); ++n) sorted[n] = std::move(lists_[depth][order[n]]);
        lists_[depth] = std::move(sorted);
    }
}

void PointChannelCore::updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                                      std::vector<std::vector<std::size_t>> const& counts)
{
    // Elements may come from any tile, so all lists are built before any is replaced.
    std::array<std::vector<List>, kMaxLevels> rebuilt;
    const auto channelDepths = [&](auto const& perDepth, auto&& each) {
        for (int depth = 0; depth < std::min(kMaxLevels, int(perDepth.size())); ++depth)
            if (depth >= minDepth_ && depth <= maxDepth_ && !perDepth[depth].empty()) each(depth);
    };
    channelDepths(counts, [&](int depth) {
        rebuilt[depth].resize(counts[depth].size());
        for (std::size_t n = 0; n < counts[depth].size(); ++n) {
            rebuilt[depth][n].resize(counts[depth][n] * elementBytes_);
            fillDefault(rebuilt[depth][n], 0);
        }
    });
    channelDepths(moves, [&](int depth) {
        for (ElementToFrom const& move : moves[depth]) {
            std::byte const* from = tileBytes(move.from.tile.index, move.from.tile.depth);
            if (!from || move.from.element < 0 || move.from.element >= elementCount(move.from.tile)) continue;
            std::memcpy(rebuilt[depth][move.to.tile.index].data() + move.to.element * elementBytes_,
                        from + move.from.element * elementBytes_, elementBytes_);
        }
    });
    channelDepths(counts, [&](int depth) { lists_[depth] = std::move(rebuilt[depth]); });
}

void PointChannelCore::updateElementResize(Component const& source)
{
    for (int depth = std::max(minDepth_, 0); depth <= maxDepth_; ++depth)
        for (int64 n = 0; n < tileCount(depth); ++n)
            resizeTile({n, depth}, static_cast<std::size_t>(source.elementCount(TreeIndex{n, depth})));
}

}  // namespace OST::TileTree3D
