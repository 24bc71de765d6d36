#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/instances.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/parallel.h"

#include <algorithm>

namespace OST::TileTree3D {

namespace {

/// A tap per position 0 to W of a child tile, among the sites of its parent from the child's first one on. Corner samples.
template <class Tr> constexpr auto childTaps()
{
    std::array<SiteTap, Tr::width + 1> taps{};
    for (int i = 0; i <= Tr::width; ++i) taps[std::size_t(i)] = siteTap(i, 1, Tr::childStride, false);
    return taps;
}

/// The positions of a high part along an axis, and the parent's sites that they lie among.
template <class Tr, bool High> struct PartAxis {
    static constexpr auto kTaps = childTaps<Tr>();
    static constexpr int kFirst = High ? Tr::width : 0, kPositions = High ? 1 : Tr::width;
    static constexpr int kLow = kTaps[kFirst].base;
    static constexpr int kSites = kTaps[kFirst + kPositions - 1].base - kLow + (kTaps[kFirst + kPositions - 1].fraction == 0 ? 1 : 2);

    /// Position n of the part, from what `at(site)` gives.
    template <class T, class At> [[gnu::always_inline]] static T mix(int n, At at)
    {
        const SiteTap tap = kTaps[std::size_t(kFirst + n)];
        const int site = tap.base - kLow;
        return tap.fraction == 0 ? at(site) : tilegrid::mixed<T>(at(site), at(site + 1), tap.fraction);
    }
};

/// One high part of the array: from W on along the axes of `side`, 0 to W-1 along the others.
template <int W, class F> void forHighPart(int3 const& side, F f)
{
    const int3 begin = W * side;
    for (int k = begin.z; k < (side.z ? W + 1 : W); ++k)
        for (int j = begin.y; j < (side.y ? W + 1 : W); ++j)
            for (int i = begin.x; i < (side.x ? W + 1 : W); ++i) f(i, j, k);
}

template <class Tr, class T> struct CompressedHalo {
    static constexpr int W = Tr::width, N = W + 1;
    T* out;

    void copyInterior(T const* voxels) const
    {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                std::memcpy(out + flatIndex(N, 0, j, k), voxels + flatIndex(W, 0, j, k), W * sizeof(T));
    }
    void copyPart(int3 const& side, T const* voxels) const
    {
        if (side.x) {
            forHighPart<W>(side, [&](int i, int j, int k) {
                out[flatIndex(N, i, j, k)] = voxels[flatIndex(W, 0, j - W * side.y, k - W * side.z)];
            });
        } else {
            for (int k = W * side.z; k < (side.z ? N : W); ++k)
                for (int j = W * side.y; j < (side.y ? N : W); ++j)
                    std::memcpy(out + flatIndex(N, 0, j, k), voxels + flatIndex(W, 0, j - W * side.y, k - W * side.z),
                                W * sizeof(T));
        }
    }
    void fillPart(int3 const& side, T const& value) const
    {
        forHighPart<W>(side, [&](int i, int j, int k) { out[flatIndex(N, i, j, k)] = value; });
    }
    /// From the compressed halo of the parent, given from the site at the tile's low corner on: all sites that a part needs lie in
    /// it. Axis by axis, so that positions share what lies between the same sites; the same bits as `mixSites`.
    template <bool HighX, bool HighY, bool HighZ> void mixPart(T const* parent) const
    {
        using X = PartAxis<Tr, HighX>;
        using Y = PartAxis<Tr, HighY>;
        using Z = PartAxis<Tr, HighZ>;
        T alongX[Z::kSites][Y::kSites][X::kPositions], alongY[Z::kSites][Y::kPositions][X::kPositions];
        for (int k = 0; k < Z::kSites; ++k) {
            for (int j = 0; j < Y::kSites; ++j) {
                T const* row = parent + flatIndex(N, X::kLow, Y::kLow + j, Z::kLow + k);
#pragma GCC unroll 8
                for (int i = 0; i < X::kPositions; ++i) alongX[k][j][i] = X::template mix<T>(i, [row](int site) { return row[site]; });
            }
#pragma GCC unroll 8
            for (int j = 0; j < Y::kPositions; ++j)
                for (int i = 0; i < X::kPositions; ++i)
                    alongY[k][j][i] = Y::template mix<T>(j, [&](int site) { return alongX[k][site][i]; });
        }
#pragma GCC unroll 8
        for (int k = 0; k < Z::kPositions; ++k)
            for (int j = 0; j < Y::kPositions; ++j)
                for (int i = 0; i < X::kPositions; ++i)
                    out[flatIndex(N, X::kFirst + i, Y::kFirst + j, Z::kFirst + k)] =
                        Z::template mix<T>(k, [&](int site) { return alongY[site][j][i]; });
    }
    /// Types without a fraction take the parent's voxel.
    void injectPart(int3 const& side, T const* parent) const
    {
        forHighPart<W>(side, [&](int i, int j, int k) {
            out[flatIndex(N, i, j, k)] = parent[flatIndex(N, i / Tr::childStride, j / Tr::childStride, k / Tr::childStride)];
        });
    }
    /// \param cell  of the tile in its parent
    void takePart(int n, int3 const& cell, T const* parentHalo) const
    {
        constexpr int kSitesPerChild = W / Tr::childStride;
        T const* parent = parentHalo + kSitesPerChild * flatIndex(N, cell.x, cell.y, cell.z);
        if constexpr (!tilegrid::canInterpolate<T>) {
            injectPart(highNeighborOffset(n), parent);
        } else {
            switch (n) {
            case 0: return mixPart<true, false, false>(parent);
            case 1: return mixPart<false, true, false>(parent);
            case 2: return mixPart<true, true, false>(parent);
            case 3: return mixPart<false, false, true>(parent);
            case 4: return mixPart<true, false, true>(parent);
            case 5: return mixPart<false, true, true>(parent);
            default: return mixPart<true, true, true>(parent);
            }
        }
    }

    /// \param tiles  of the tile's depth on its high sides, in the order of `highNeighborOffset`; -1 where none is
    void gather(TreeIndex const& tile, T const* own, std::array<int64, kHighNeighbors> const& tiles, int3 const& cell,
                Channel<Tr, T, Tr::width, 0> const& channel, T const* parentHalo) const
    {
        copyInterior(own);
        for (int n = 0; n < kHighNeighbors; ++n) {
            const int64 neighbor = tiles[std::size_t(n)];
            if (T const* voxels = neighbor >= 0 ? channel.tileData({neighbor, tile.depth}).data() : nullptr)
                copyPart(highNeighborOffset(n), voxels);
            else if (parentHalo && tile.depth > channel.minDepth())
                takePart(n, cell, parentHalo);
            else
                fillPart(highNeighborOffset(n), channel.defaultValue());
        }
    }
};

/// The tiles of its own depth on the high sides of a tile.
template <class Tr> std::array<int64, kHighNeighbors> highTiles(Tile<Tr, Tr::childCount> const& tile, ConstTileAccessor<Tr> const& accessor)
{
    std::array<int64, kHighNeighbors> tiles;
    auto const* table = accessor.container().highNeighbors();
    if (table && accessor.container().holds(tile)) {
        std::copy_n(table->of(tile.treeIndex()), kHighNeighbors, tiles.begin());
        return tiles;
    }
    for (int n = 0; n < kHighNeighbors; ++n) {
        const int3 side = highNeighborOffset(n);
        const TreeIndex at = accessor.treeIndexNeighbor(tile, neighborDirection(side.x, side.y, side.z));
        tiles[std::size_t(n)] = at.depth == tile.depth() ? at.index : -1;
    }
    return tiles;
}
std::array<int64, kHighNeighbors> highTiles(int depth, Surroundings const& around)
{
    std::array<int64, kHighNeighbors> tiles;
    for (int n = 0; n < kHighNeighbors; ++n) {
        const int3 side = highNeighborOffset(n);
        TreeIndex const& at = around[std::size_t(neighborDirection(side.x, side.y, side.z))];
        tiles[std::size_t(n)] = at.depth == depth ? at.index : -1;
    }
    return tiles;
}

}  // namespace

namespace detail {

template <class Tr, class T>
void gatherCompressedHalo(Tile<Tr, Tr::childCount> const& tile, Tile<Tr, Tr::childCount> const* parent,
                          Channel<Tr, T, Tr::width, 0> const& channel, T const* parentHalo, HaloMode mode,
                          ConstTileAccessor<Tr> const& accessor, T* out)
{
    if (!out) return;
    const TreeIndex index = tile.treeIndex();
    if (parent && parent->treeIndex() != tile.parentTreeIndex()) parent = nullptr, parentHalo = nullptr;
    const T fill = channel.defaultValue();
    T const* own = channel.tileData(index).data();
    if (mode != kHaloFromParent || !own) {
        std::fill_n(out, (Tr::width + 1) * (Tr::width + 1) * (Tr::width + 1), fill);
        gatherHalo<Tr, T>(index, channel, mode, kHaloAll, accessor, {out, 0, Tr::width + 1}, fill, 1.0f, kCorner);
        return;
    }
    CompressedHalo<Tr, T>{out}.gather(index, own, highTiles(tile, accessor), parent ? parent->childIJK(tile) : int3(0), channel,
                                      parentHalo);
}

template <class Tr, class T>
void gatherCompressedHalo(TreeIndex const& tile, int3 const& cell, Surroundings const& around,
                          Channel<Tr, T, Tr::width, 0> const& channel, T const* parentHalo, T* out)
{
    if (T const* own = channel.tileData(tile).data())
        CompressedHalo<Tr, T>{out}.gather(tile, own, highTiles(tile.depth, around), cell, channel, parentHalo);
    else
        std::fill_n(out, (Tr::width + 1) * (Tr::width + 1) * (Tr::width + 1), channel.defaultValue());
}

}  // namespace detail

template <class Tr, class T, int S, int H, int E, int Up>
void computeHalo(Channel<Tr, T, Tr::width, S> const& in, Container<Tr> const& container,
                 Channel<Tr, T, Tr::width + E, H>& out, int minDepth, int maxDepth)
{
    using Tile = typename Container<Tr>::Tile;
    const bool all = minDepth == -1 && maxDepth == -1;
    const int first = std::max({all ? 0 : minDepth, in.minDepth(), out.minDepth()});
    const int last = std::min({all ? Tr::maxDepth : maxDepth, in.depth(), out.depth()});
    if (first > last) return;
    tilegrid::parallel::PerThread<NeighborWalk<Tr>> walks;
    // Parents first: depth by depth.
    for (int depth = first; depth <= last; ++depth)
        tilegrid::parallel::forRanges(0, container.tileCount(depth), 256, [&](int64 begin, int64 end) {
            NeighborWalk<Tr>& walk = walks.local(
                [&container] { return std::make_unique<NeighborWalk<Tr>>(container, NeighborWalk<Tr>::Sides::kHigh); });
            for (int64 n = begin; n < end; ++n) {
                Tile const& tile = container.tile(n, depth);
                const TreeIndex index = tile.treeIndex(), above = tile.parentTreeIndex();
                T* target = out.tileData(index).data();
                if (!target || !in.tileData(index)) continue;
                Tile const* parent = depth > first && above.valid() ? &container.tile(above) : nullptr;
                T const* parentHalo = parent ? std::as_const(out).tileData(above).data() : nullptr;
                const int3 cell = parent ? parent->childIJK(tile) : int3(0);
                detail::gatherCompressedHalo<Tr, T>(index, cell, walk.around(tile), in, parentHalo, target);
            }
        });
    tilegrid::parallel::endStage();
}

#define TILEGRID_INSTANTIATE_FOR(Tr, T)                                                                                \
    template TILEGRID_API void detail::gatherCompressedHalo<Tr, T>(                                                    \
        Tile<Tr, Tr::childCount> const&, Tile<Tr, Tr::childCount> const*, Channel<Tr, T, Tr::width, 0> const&,         \
        T const*, HaloMode, ConstTileAccessor<Tr> const&, T*);                                                         \
    template TILEGRID_API void detail::gatherCompressedHalo<Tr, T>(TreeIndex const&, int3 const&, Surroundings const&, \
                                                                   Channel<Tr, T, Tr::width, 0> const&, T const*, T*); \
    template TILEGRID_API void computeHalo<Tr, T, 0, 0, 1, 0>(                                                         \
        Channel<Tr, T, Tr::width, 0> const&, Container<Tr> const&, Channel<Tr, T, Tr::width + 1, 0>&, int, int);
TILEGRID_FOR_ALL_TYPES(TILEGRID_INSTANTIATE_FOR)

}  // namespace OST::TileTree3D
