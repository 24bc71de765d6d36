#include "TilegridOps/substrate/tile_neighbors.h"

#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/parallel.h"

#include <chrono>
#include <iostream>
#include <limits>

namespace OST::TileTree3D {

namespace {

constexpr std::int32_t kOutside = -1;
constexpr int64 kGrain = 64;

/// The block of (B+2)^3 cells around the children of a tile: cells 1 to B per axis are its own, the others belong to its
/// neighbours. For each cell, the direction of the tile and the cell in that tile. z runs fastest, as in directions.
template <class Tr> struct CellBlock {
    static constexpr int B = Tr::branching, N = B + 2, count = N * N * N;
    std::array<std::uint8_t, count> direction{}, cell{};
    constexpr CellBlock()
    {
        for (int n = 0; n < count; ++n) {
            const int3 at(n / (N * N), n / N % N, n % N);
            const int3 side((at.x > B) - (at.x < 1), (at.y > B) - (at.y < 1), (at.z > B) - (at.z < 1));
            direction[n] = static_cast<std::uint8_t>(neighborDirection(side.x, side.y, side.z));
            cell[n] = static_cast<std::uint8_t>(
                flatIndex(B, at.x - 1 - B * side.x, at.y - 1 - B * side.y, at.z - 1 - B * side.z));
        }
    }
};
template <class Tr> inline constexpr CellBlock<Tr> kCellBlock;

}  // namespace

template <class Tr>
bool TileNeighbors<Tr>::numberTiles(Container<Tr> const& container, std::array<std::int32_t, Tr::levels>& first)
{
    if (container.tileCount(-1) > std::numeric_limits<std::int32_t>::max()) return false;
    std::int32_t next = 0;
    for (int depth = 0; depth < Tr::levels; ++depth) {
        first[depth] = next;
        next += static_cast<std::int32_t>(container.tileCount(depth));
    }
    return true;
}

/// The children of one parent. Their neighbours all lie in the block of (B+2)^3 cells around them, which the parent's own
/// neighbours and their child tables fill; where a cell has no child, the parent's neighbour itself covers it.
template <class Tr>
void TileNeighbors<Tr>::runParent(Tile<Tr, Tr::childCount> const& parent, Container<Tr> const& container,
                                  std::array<std::int32_t, Tr::levels> const& first, std::int32_t const* above,
                                  Entries& entries)
{
    constexpr auto& cells = kCellBlock<Tr>;
    constexpr int B = Tr::branching, N = cells.N;
    const int depth = parent.depth();
    const std::int32_t here = first[depth], below = first[depth + 1];
    // Per direction the number of the tile there, and its child table.
    std::int32_t number[27];
    int64 const* children[27];
    int64 const* const none = Container<Tr>::outsideTile().childIndices();
    for (int d = 0; d < 27; ++d) {
        number[d] = d == kNeighborSelf ? here + static_cast<std::int32_t>(parent.index()) : above[entryOf(d)];
        children[d] = number[d] >= here ? container.tile(number[d] - here, depth).childIndices() : none;
    }
    std::int32_t block[cells.count];
    const auto fill = [&](int n, int direction, int cell) {
        const int64 child = children[direction][cell];
        block[n] = child < 0 ? number[direction] : below + static_cast<std::int32_t>(child);
    };
    if constexpr (B == 2) {
        // Straight-line code: few enough cells.
        [&]<std::size_t... n>(std::index_sequence<n...>)
        {
            (fill(n, kCellBlock<Tr>.direction[n], kCellBlock<Tr>.cell[n]), ...);
        }
        (std::make_index_sequence<cells.count>());
    } else {
        for (int n = 0; n < cells.count; ++n) fill(n, cells.direction[n], cells.cell[n]);
    }
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int64 child = parent.childIndex(cell);
        if (child < 0) continue;
        const int3 c = cubeIndex(B, cell);
        std::int32_t const* low = block + flatIndex(N, c.z, c.y, c.x);
        std::int32_t* out = &entries[std::size_t(child) * kEntries];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    if (i != 1 || j != 1 || k != 1) *out++ = low[flatIndex(N, k, j, i)];
    }
}

template <class Tr>
void TileNeighbors<Tr>::buildDepth(Container<Tr> const& container, std::array<std::int32_t, Tr::levels> const& first,
                                   int depth, Entries const& above, Entries& entries)
{
    entries.resize(static_cast<std::size_t>(container.tileCount(depth)) * kEntries);
    if (depth == 0) {
        // A tile of depth 0 spans all of tile space.
        std::fill(entries.begin(), entries.end(), kOutside);
        return;
    }
    tilegrid::parallel::loop(0, container.tileCount(depth - 1), kGrain, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            auto const& parent = container.tile(n, depth - 1);
            if (!parent.isLeaf()) runParent(parent, container, first, &above[std::size_t(n) * kEntries], entries);
        }
    });
}

template <class Tr> void TileNeighbors<Tr>::clear()
{
    version_.store(~uint64(0), std::memory_order_relaxed);
    for (Entries& entries : entries_) entries = Entries();
}

template <class Tr> void TileNeighbors<Tr>::build(Container<Tr> const& container)
{
    if (describes(container.version())) return;
    version_.store(~uint64(0), std::memory_order_relaxed);
    if (!numberTiles(container, first_)) return clear();
    for (int depth = 0; depth < Tr::levels; ++depth)
        buildDepth(container, first_, depth, entries_[depth > 0 ? depth - 1 : 0], entries_[depth]);
    version_.store(container.version(), std::memory_order_release);
}

template <class Tr> void TileNeighbors<Tr>::memUse(std::size_t& used, std::size_t& reserved) const
{
    for (Entries const& entries : entries_) {
        used += entries.usedBytes();
        reserved += entries.reservedBytes();
    }
}

template <class Tr> void HighNeighbors<Tr>::clear()
{
    version_.store(~uint64(0), std::memory_order_relaxed);
    for (auto& entries : entries_) entries = tilegrid::Slab<std::int32_t>();
}

template <class Tr> void HighNeighbors<Tr>::build(Container<Tr> const& container)
{
    using All = TileNeighbors<Tr>;
    if (describes(container.version())) return;
    version_.store(~uint64(0), std::memory_order_relaxed);
    std::array<std::int32_t, Tr::levels> first;
    if (!All::numberTiles(container, first)) return clear();
    // Two depths of the full table at a time are enough.
    typename All::Entries above, here;
    for (int depth = 0; depth < Tr::levels; ++depth, std::swap(above, here)) {
        All::buildDepth(container, first, depth, above, here);
        auto& entries = entries_[depth];
        entries.resize(static_cast<std::size_t>(container.tileCount(depth)) * kHighNeighbors);
        tilegrid::parallel::forRanges(0, container.tileCount(depth), kGrain, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n)
                for (int high = 0; high < kHighNeighbors; ++high) {
                    const int3 side = highNeighborOffset(high);
                    const int entry = All::entryOf(neighborDirection(side.x, side.y, side.z));
                    const std::int32_t number = here[std::size_t(n) * All::kEntries + entry];
                    entries[std::size_t(n) * kHighNeighbors + high] =
                        number >= first[depth] ? number - first[depth] : -1;
                }
        });
    }
    version_.store(container.version(), std::memory_order_release);
}

template <class Tr> void HighNeighbors<Tr>::memUse(std::size_t& used, std::size_t& reserved) const
{
    for (auto const& entries : entries_) {
        used += entries.usedBytes();
        reserved += entries.reservedBytes();
    }
}

template <class Tr> void Container<Tr>::precomputeTileNeighbors() { neighbors_.build(*this); }

template <class Tr> void Container<Tr>::precomputeCompressedTileHalos()
{
    const bool talkative = CoreGL::Logger::verboseLevel() > 1;
    const auto start = std::chrono::high_resolution_clock::now();
    if (talkative) std::cout << "Precomputing compressed tile halos.begin" << std::endl;
    highNeighbors_.build(*this);
    const std::chrono::duration<double> elapsed = std::chrono::high_resolution_clock::now() - start;
    if (talkative) std::cout << "Precomputing compressed tile halos.end (" << elapsed.count() << ")" << std::endl;
}

template class TileNeighbors<BinaryTraits>;
template class TileNeighbors<QuinaryTraits>;
template class HighNeighbors<BinaryTraits>;
template class HighNeighbors<QuinaryTraits>;
template void Container<BinaryTraits>::precomputeTileNeighbors();
template void Container<QuinaryTraits>::precomputeTileNeighbors();
template void Container<BinaryTraits>::precomputeCompressedTileHalos();
template void Container<QuinaryTraits>::precomputeCompressedTileHalos();

}  // namespace OST::TileTree3D
