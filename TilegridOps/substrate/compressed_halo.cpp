#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/instances.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/traversal.h"

#include <algorithm>

namespace OST::TileTree3D {

namespace {

/// A tap per position 0 to W of a child tile, among the sites of its parent, by the child's cell on that axis. Corner samples.
template <class Tr> constexpr auto parentTaps()
{
    std::array<std::array<SiteTap, Tr::width + 1>, Tr::branching> taps{};
    for (int cell = 0; cell < Tr::branching; ++cell)
        for (int i = 0; i <= Tr::width; ++i) taps[cell][i] = siteTap(cell * Tr::width + i, 1, Tr::childStride, false);
    return taps;
}
template <class Tr> inline constexpr auto kParentTaps = parentTaps<Tr>();

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
    /// From the compressed halo of the parent, in which the tile lies at `cell`: all sites that a part needs lie in it.
    void mixPart(int3 const& side, int3 const& cell, T const* parent) const
    {
        auto const& taps = kParentTaps<Tr>;
        const auto at = [parent](int i, int j, int k) -> T const& { return parent[flatIndex(N, i, j, k)]; };
        forHighPart<W>(side, [&](int i, int j, int k) {
            SiteTap const &x = taps[cell.x][i], &y = taps[cell.y][j], &z = taps[cell.z][k];
            if constexpr (tilegrid::canInterpolate<T>)
                out[flatIndex(N, i, j, k)] = mixSites<T>(x, y, z, at);
            else
                out[flatIndex(N, i, j, k)] = at(x.base, y.base, z.base);
        });
    }
};

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
    const CompressedHalo<Tr, T> halo{out};
    halo.copyInterior(own);
    std::int32_t const* table = nullptr;
    if (auto const* high = accessor.container().highNeighbors(); high && accessor.container().holds(tile))
        table = high->of(index);
    const int3 ownCell = parent ? parent->childIJK(tile) : int3(0);
    for (int n = 0; n < kHighNeighbors; ++n) {
        const int3 side = highNeighborOffset(n);
        TreeIndex neighbor;
        if (table)
            neighbor = {table[n], index.depth};
        else if (const int3 cell = ownCell + side; parent && std::max({cell.x, cell.y, cell.z}) < Tr::branching)
            neighbor = parent->childTreeIndex(cell);  // where there is none, only coarser tiles can be
        else
            neighbor = accessor.treeIndexNeighbor(tile, neighborDirection(side.x, side.y, side.z));
        const bool sameDepth = neighbor.index >= 0 && neighbor.depth == index.depth;
        if (T const* voxels = sameDepth ? channel.tileData(neighbor).data() : nullptr)
            halo.copyPart(side, voxels);
        else if (parentHalo && index.depth > channel.minDepth())
            halo.mixPart(side, ownCell, parentHalo);
        else
            halo.fillPart(side, fill);
    }
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
    container.traverse(
        detail::Nothing(), detail::Nothing(),
        [&in, &out, &container, first, accessor = container.tileAccessor()](Tile const& tile) {
            T* target = out.tileData(tile.treeIndex()).data();
            if (!target || !in.tileData(tile.treeIndex())) return;
            const TreeIndex above = tile.parentTreeIndex();
            Tile const* parent = tile.depth() > first && above.valid() ? &container.tile(above) : nullptr;
            T const* parentHalo = parent ? std::as_const(out).tileData(parent->treeIndex()).data() : nullptr;
            detail::gatherCompressedHalo<Tr, T>(tile, parentHalo ? parent : nullptr, in, parentHalo, kHaloFromParent,
                                                accessor, target);
        },
        detail::Nothing(), detail::Nothing(), kByLevel, TreeIndex(), first, last);
}

#define TILEGRID_INSTANTIATE_FOR(Tr, T)                                                                                \
    template TILEGRID_API void detail::gatherCompressedHalo<Tr, T>(                                                    \
        Tile<Tr, Tr::childCount> const&, Tile<Tr, Tr::childCount> const*, Channel<Tr, T, Tr::width, 0> const&,         \
        T const*, HaloMode, ConstTileAccessor<Tr> const&, T*);                                                         \
    template TILEGRID_API void computeHalo<Tr, T, 0, 0, 1, 0>(                                                         \
        Channel<Tr, T, Tr::width, 0> const&, Container<Tr> const&, Channel<Tr, T, Tr::width + 1, 0>&, int, int);
TILEGRID_FOR_ALL_TYPES(TILEGRID_INSTANTIATE_FOR)

}  // namespace OST::TileTree3D
