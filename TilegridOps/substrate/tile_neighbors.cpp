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

/// Range of cells 1 to B of the block around a parent's children, 0 and B + 1 being those beside it.
struct CellRange {
    int begin, end;
};
template <int B> constexpr CellRange cellsOf(int side)
{
    return side < 0 ? CellRange{0, 1} : side > 0 ? CellRange{B + 1, B + 2} : CellRange{1, B + 1};
}

}  // namespace

template <class Tr> bool TileNeighbors<Tr>::numberTiles(Container<Tr> const& container, std::array<std::int32_t, Tr::levels>& first)
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
                                  std::array<std::int32_t, Tr::levels> const& first, std::int32_t const* above, Entries& entries)
{
    constexpr int B = Tr::branching, N = B + 2;
    std::int32_t block[N * N * N];
    const int depth = parent.depth();
    for (int d = 0; d < 27; ++d) {
        const int3 side = neighborOffset(static_cast<NeighborDirection>(d));
        const std::int32_t number =
            d == kNeighborSelf ? first[depth] + static_cast<std::int32_t>(parent.index()) : above[entryOf(d)];
        const bool sameDepth = number >= first[depth];
        auto const& tile = sameDepth ? container.tile(number - first[depth], depth) : Container<Tr>::outsideTile();
        const CellRange x = cellsOf<B>(side.x), y = cellsOf<B>(side.y), z = cellsOf<B>(side.z);
        for (int k = z.begin; k < z.end; ++k)
            for (int j = y.begin; j < y.end; ++j)
                for (int i = x.begin; i < x.end; ++i) {
                    const int cell = flatIndex(B, i - 1 - B * side.x, j - 1 - B * side.y, k - 1 - B * side.z);
                    const int64 child = tile.childIndex(cell);
                    block[flatIndex(N, i, j, k)] = child < 0 ? number : first[depth + 1] + static_cast<std::int32_t>(child);
                }
    }
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int64 child = parent.childIndex(cell);
        if (child < 0) continue;
        const int3 c = cubeIndex(B, cell);
        std::int32_t const* low = block + flatIndex(N, c.x, c.y, c.z);
        std::int32_t* out = &entries[std::size_t(child) * kEntries];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    if (i != 1 || j != 1 || k != 1) *out++ = low[flatIndex(N, i, j, k)];
    }
}

template <class Tr>
void TileNeighbors<Tr>::buildDepth(Container<Tr> const& container, std::array<std::int32_t, Tr::levels> const& first, int depth,
                                   Entries const& above, Entries& entries)
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
    for (Entries& entries : entries_) entries = {};
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
    for (auto& entries : entries_) entries = {};
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
                    entries[std::size_t(n) * kHighNeighbors + high] = number >= first[depth] ? number - first[depth] : -1;
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

template <class Tr> void Container<Tr>::precomputeTileNeighbors()
{
    neighbors_.build(*this);
}

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
