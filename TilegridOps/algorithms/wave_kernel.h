#pragma once
#include "TilegridOps/algorithms/wave.h"
#include "TilegridOps/stencils/rows.h"

#include <algorithm>

/// The exchange inside one tile, row by row in vectors.
namespace tilegrid::wave_detail {

/// A tile and one layer around it: what each position knows, and where the point lies that it knows, in voxels from the sample
/// of voxel (0,0,0).
template <class Tr> struct Neighborhood {
    static constexpr int W = Tr::width, N = W + 2;
    /// Elements from row to row; reading a vector one voxel past the end of a row stays inside.
    static constexpr int kStride = W == 4 ? 8 : 12;
    static constexpr int kCount = N * N * kStride + 8;
    /// The place of a point that is none: far enough to lose against every other.
    static constexpr float kNowhere = 1e15f;

    alignas(32) std::int32_t id[kCount];
    alignas(32) float x[kCount], y[kCount], z[kCount];
    /// Lanes of the rows of the tile that may change, -1 or 0.
    alignas(32) std::int32_t open[W * W * 8];
    /// Square of the furthest distance that is handed on.
    float furthest;

    static constexpr int at(int i, int j, int k) { return (i + 1) + kStride * ((j + 1) + N * (k + 1)); }
};

template <int W> struct IdRow;
template <> struct IdRow<4> {
    using Vector = std::int32_t __attribute__((vector_size(16)));
};
template <> struct IdRow<5> {
    using Vector = std::int32_t __attribute__((vector_size(32)));
};

/// One row of the tile while it is compared with others.
template <class Tr> struct RowState {
    static constexpr int W = Tr::width;
    using F = stencils::RowVector<W>;
    using I = typename IdRow<W>::Vector;
    F x, y, z, distance;
    I id;

    [[gnu::always_inline]] void load(Neighborhood<Tr> const& n, int at, float j, float k)
    {
        std::memcpy(&id, n.id + at, sizeof id);
        std::memcpy(&x, n.x + at, sizeof x);
        std::memcpy(&y, n.y + at, sizeof y);
        std::memcpy(&z, n.z + at, sizeof z);
        measure(distance, x, y, z, j, k);
    }
    [[gnu::always_inline]] static void measure(F& out, F const& px, F const& py, F const& pz, float j, float k)
    {
        F places;
        for (int i = 0; i < int(sizeof(F) / sizeof(float)); ++i) places[i] = float(i);
        const F dx = px - places, dy = py - j, dz = pz - k;
        out = dx * dx + dy * dy + dz * dz;
    }
    /// Takes over what the voxels at `from` know where it is nearer.
    template <bool Restricted>
    [[gnu::always_inline]] void compare(Neighborhood<Tr> const& n, int from, float j, float k, I const& open)
    {
        RowState other;
        std::memcpy(&other.id, n.id + from, sizeof id);
        std::memcpy(&other.x, n.x + from, sizeof x);
        std::memcpy(&other.y, n.y + from, sizeof y);
        std::memcpy(&other.z, n.z + from, sizeof z);
        take<Restricted>(n, other, j, k, open);
    }
    template <bool Restricted>
    [[gnu::always_inline]] void take(Neighborhood<Tr> const& n, RowState& other, float j, float k, I const& open)
    {
        measure(other.distance, other.x, other.y, other.z, j, k);
        I nearer = other.distance < distance;
        nearer &= other.distance <= n.furthest;
        if constexpr (Restricted) nearer &= open;
        x = nearer ? other.x : x;
        y = nearer ? other.y : y;
        z = nearer ? other.z : z;
        id = nearer ? other.id : id;
        distance = nearer ? other.distance : distance;
    }
    /// The same along the row itself, of which `at` is the place: each voxel looks at the next towards low x (-1) or high x (1).
    template <bool Restricted, int Side>
    [[gnu::always_inline]] void compareAlong(Neighborhood<Tr> const& n, int at, float j, float k, I const& open)
    {
        I lanes;
        for (int i = 0; i < int(sizeof(I) / sizeof(int)); ++i) lanes[i] = (i + Side) & int(sizeof(I) / sizeof(int) - 1);
        constexpr int end = Side < 0 ? 0 : W - 1;
        const int beyond = at + (Side < 0 ? -1 : W);
        RowState other;
        other.id = __builtin_shuffle(id, lanes);
        other.x = __builtin_shuffle(x, lanes);
        other.y = __builtin_shuffle(y, lanes);
        other.z = __builtin_shuffle(z, lanes);
        other.id[end] = n.id[beyond];
        other.x[end] = n.x[beyond];
        other.y[end] = n.y[beyond];
        other.z[end] = n.z[beyond];
        take<Restricted>(n, other, j, k, open);
    }
    [[gnu::always_inline]] void store(Neighborhood<Tr>& n, int at) const
    {
        std::memcpy(n.id + at, &id, W * sizeof(float));
        std::memcpy(n.x + at, &x, W * sizeof(float));
        std::memcpy(n.y + at, &y, W * sizeof(float));
        std::memcpy(n.z + at, &z, W * sizeof(float));
    }
};

/// One row against the four rows before it (`Side` -1) or after it (1) in raster order, and along itself.
template <class Tr, int Side, bool Restricted> [[gnu::always_inline]] inline void relaxRow(Neighborhood<Tr>& n, int j, int k)
{
    using S = Neighborhood<Tr>;
    constexpr int row = S::kStride, plane = S::kStride * S::N;
    const int at = S::at(0, j, k);
    RowState<Tr> state;
    typename RowState<Tr>::I open{};
    if constexpr (Restricted) std::memcpy(&open, n.open + 8 * (j + Tr::width * k), sizeof open);
    state.load(n, at, float(j), float(k));
    for (int from : {at + Side * plane - row, at + Side * plane, at + Side * plane + row, at + Side * row})
        for (int shift = -1; shift <= 1; ++shift) state.template compare<Restricted>(n, from + shift, float(j), float(k), open);
    for (int turn = 0; turn < 2; ++turn) {
        state.template compareAlong<Restricted, -1>(n, at, float(j), float(k), open);
        state.template compareAlong<Restricted, 1>(n, at, float(j), float(k), open);
    }
    state.store(n, at);
}

/// A forward and a backward sweep over the rows. \return the square of the smallest distance, in voxels
template <class Tr, bool Restricted> [[gnu::always_inline]] inline float sweep(Neighborhood<Tr>& n)
{
    constexpr int W = Tr::width;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) relaxRow<Tr, -1, Restricted>(n, j, k);
    float nearest = n.kNowhere;
    for (int k = W - 1; k >= 0; --k)
        for (int j = W - 1; j >= 0; --j) {
            relaxRow<Tr, 1, Restricted>(n, j, k);
            RowState<Tr> state;
            state.load(n, n.at(0, j, k), float(j), float(k));
            for (int i = 0; i < W; ++i) nearest = std::min(nearest, float(state.distance[i]));
        }
    return nearest;
}

template <class Tr> float sweepTile(Neighborhood<Tr>& n, bool restricted);

}  // namespace tilegrid::wave_detail
