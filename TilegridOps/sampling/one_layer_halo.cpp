#include "TilegridOps/sampling/one_layer_halo.h"

#include "TilegridOps/substrate/instances.h"
#include "TilegridOps/substrate/coarse_read.h"

namespace OST::TileTree3D {

namespace {

/// Taps of the positions -1 to W of a child tile among the sites of its parent, by the child's cell on that axis.
template <class Tr> struct ParentTaps {
    std::array<std::array<SiteTap, Tr::width + 2>, Tr::branching> of{};

    constexpr explicit ParentTaps(bool centred)
    {
        for (int cell = 0; cell < Tr::branching; ++cell)
            for (int i = -1; i <= Tr::width; ++i)
                of[std::size_t(cell)][std::size_t(i + 1)] = siteTap(cell * Tr::width + i, 1, Tr::childStride, centred);
    }
};
template <class Tr> inline constexpr std::array<ParentTaps<Tr>, 2> kParentTaps{ParentTaps<Tr>(true), ParentTaps<Tr>(false)};

/// Positions -1 to W on each axis.
template <class Tr, class T> struct OneLayer {
    static constexpr int W = Tr::width, N = W + 2;
    T* out;

    static int index(int i, int j, int k) { return flatIndex(N, i + 1, j + 1, k + 1); }

    /// The part of the array on one side of the tile: -1, 0 or 1 per axis.
    template <class F> static void forPart(int3 const& side, F f)
    {
        const auto begin = [](int s) { return s < 0 ? -1 : s > 0 ? W : 0; };
        const auto end = [](int s) { return s < 0 ? 0 : s > 0 ? W + 1 : W; };
        for (int k = begin(side.z); k < end(side.z); ++k)
            for (int j = begin(side.y); j < end(side.y); ++j)
                for (int i = begin(side.x); i < end(side.x); ++i) f(i, j, k);
    }
    void copyPart(int3 const& side, T const* voxels) const
    {
        forPart(side, [&](int i, int j, int k) {
            out[index(i, j, k)] = voxels[flatIndex(W, i - W * side.x, j - W * side.y, k - W * side.z)];
        });
    }
    /// From the array of the parent, in which the tile lies at `cell`: all sites that a part needs lie in it.
    void mixPart(int3 const& side, int3 const& cell, T const* parent, VoxelOffsetType offset) const
    {
        const auto at = [parent](int i, int j, int k) -> T const& { return parent[index(i, j, k)]; };
        const auto taps = [&](int axis) { return kParentTaps<Tr>[offset >> axis & 1].of[std::size_t(cell[axis])].data() + 1; };
        SiteTap const *x = taps(0), *y = taps(1), *z = taps(2);
        forPart(side, [&](int i, int j, int k) { out[index(i, j, k)] = mixSites<T>(x[i], y[j], z[k], at); });
    }
    /// Parts nearer to the tile must be there already.
    void mirrorPart(int3 const& side, T const& fill, VoxelOffsetType offset) const
    {
        const auto onCorner = [&](int axis) { return side[axis] != 0 && (offset >> axis & 1); };
        const bool plain = onCorner(0) || onCorner(1) || onCorner(2);
        const int first = side.x ? 0 : side.y ? 1 : 2;
        forPart(side, [&](int i, int j, int k) {
            int3 inner(i, j, k);
            inner[first] -= side[first];
            out[index(i, j, k)] = plain ? fill : fill + fill - out[index(inner.x, inner.y, inner.z)];
        });
    }
};

/// The 26 sides of a tile: faces, then edges, then corners.
constexpr std::array<int3, 26> sidesOutward()
{
    std::array<int3, 26> sides{};
    int count = 0;
    for (int outside = 1; outside <= 3; ++outside)
        for (int d = 0; d < 27; ++d) {
            const int3 side = neighborOffset(static_cast<NeighborDirection>(d));
            if ((side.x != 0) + (side.y != 0) + (side.z != 0) == outside) sides[count++] = side;
        }
    return sides;
}
constexpr std::array<int3, 26> kSides = sidesOutward();

}  // namespace

template <class Tr, class T>
void fillOneLayerHalo(TreeIndex const& tile, int3 const& cell, Surroundings const& around, T const* parentHalo,
                      Channel<Tr, T, Tr::width, 0> const& channel, VoxelOffsetType offset, T* out)
{
    const OneLayer<Tr, T> layer{out};
    const T fill = channel.defaultValue();
    T const* own = channel.tileData(tile).data();
    if (!own) {
        std::fill_n(out, OneLayer<Tr, T>::N * OneLayer<Tr, T>::N * OneLayer<Tr, T>::N, fill);
        return;
    }
    layer.copyPart(int3(0), own);
    for (int3 const& side : kSides) {
        TreeIndex const& neighbor = around[std::size_t(neighborDirection(side.x, side.y, side.z))];
        T const* voxels = neighbor.valid() && neighbor.depth == tile.depth ? channel.tileData(neighbor).data() : nullptr;
        if (voxels)
            layer.copyPart(side, voxels);
        else if (parentHalo)
            layer.mixPart(side, cell, parentHalo, offset);
        else
            layer.mirrorPart(side, fill, offset);
    }
}

#define TILEGRID_INSTANTIATE_FOR(Tr, T)                                                                                     \
    template void fillOneLayerHalo<Tr, T>(TreeIndex const&, int3 const&, Surroundings const&, T const*,                     \
                                          Channel<Tr, T, Tr::width, 0> const&, VoxelOffsetType, T*);
TILEGRID_FOR_REAL_TYPES(TILEGRID_INSTANTIATE_FOR)

}  // namespace OST::TileTree3D
