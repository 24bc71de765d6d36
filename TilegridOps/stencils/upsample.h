#pragma once
#include "TilegridOps/stencils/rows.h"
#include "TilegridOps/stencils/tile_block.h"
#include "TilegridOps/substrate/coarse_read.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace tilegrid::stencils {

/// Where the halo positions of a tile, -1 to W along an axis, lie among the samples of its parent.
template <class Tr> struct ParentTaps {
    static constexpr int W = Tr::width, N = W + 2;
    /// Parent samples that the N positions of an axis lie among.
    static constexpr int kSites = Tr::branching == 2 ? 4 : 3;

    /// Of each position: the lower sample, counted from `low`, and the fraction of the way to the next.
    std::array<OST::TileTree3D::SiteTap, N> tap{};
    /// The first sample, in voxels of the parent.
    int low = 0;
    /// A bit for each sample that a position needs.
    std::array<std::uint8_t, N> sites{};

    constexpr ParentTaps() = default;
    constexpr ParentTaps(int cell, bool centred)
    {
        using OST::TileTree3D::siteTap;
        low = siteTap(cell * W - 1, 1, Tr::childStride, centred).base;
        for (int n = 0; n < N; ++n) {
            auto& at = tap[std::size_t(n)];
            at = siteTap(cell * W + n - 1, 1, Tr::childStride, centred);
            at.base -= low;
            sites[std::size_t(n)] = std::uint8_t((at.fraction == 0 ? 1 : 3) << at.base);
        }
    }
    /// Whether samples of the tile before (-1) or after (1) the parent are among them.
    constexpr bool leaves(int side) const
    {
        int last = 0;
        for (int bits : sites)
            for (int site = 0; site < kSites; ++site)
                if (bits >> site & 1) last = std::max(last, site);
        return side < 0 ? low < 0 : low + last >= W;
    }

    static constexpr int kVariants = 2 * Tr::branching;
    static constexpr int variant(int cell, int offset, int axis) { return (offset >> axis & 1 ? 0 : Tr::branching) + cell; }
};

template <class Tr> inline constexpr auto kParentTaps = [] {
    std::array<ParentTaps<Tr>, ParentTaps<Tr>::kVariants> all;
    for (int n = 0; n < ParentTaps<Tr>::kVariants; ++n)
        all[std::size_t(n)] = ParentTaps<Tr>(n % Tr::branching, n >= Tr::branching);
    return all;
}();

/// The rows (j,k) around a tile that pass through the same tiles, and which of those are wanted: bits 1, 2 and 4 for the tile
/// at low x, the middle and high x.
struct RowClass {
    int dy, dz, wanted;
};

/// What the layer around a tile takes from its parent, trilinear among the parent's samples, mixed along x, then y, then z: the
/// same bits as `mixSites`.
template <class Tr> class Upsampler {
    static constexpr int W = Tr::width, N = W + 2, kSites = ParentTaps<Tr>::kSites;
    using Taps = ParentTaps<Tr>;
    using Sites = float __attribute__((vector_size(16)));
    /// A row from its middle on: positions 0 to W, then -1; the last lanes are of no account.
    using Positions = float __attribute__((vector_size(32)));
    static constexpr int kHigh = W, kLow = W + 1;

public:
    /// Values from one direction's scratch to the next: a tile, and what rows of vectors may touch around it.
    static constexpr int kMargin = 8;
    static constexpr int kScratchTile = Tr::voxelCount + 2 * kMargin;

    struct Task {
        StencilBlock<Tr> const* parent;
        Taps const *y, *z;
        RowClass const* classes;
        int classCount;
        /// Where the values go: `kScratchTile` floats for each of the 27 directions, of which only the layer next to the tile
        /// is written.
        float* scratch;
    };
    using Fill = void (*)(Task const&);
    /// For a tile whose place in its parent along x is `variantX`.
    static Fill fill(int variantX) { return kFill[std::size_t(variantX)]; }

private:
    /// The samples that the positions of a row lie among.
    template <int Variant> [[gnu::always_inline]] static void load(Sites& sites, StencilBlock<Tr> const& parent, int y, int z)
    {
        constexpr Taps const& taps = kParentTaps<Tr>[Variant];
        std::memcpy(&sites, parent.row(0, y, z) + taps.low, sizeof sites);
        if constexpr (taps.low < 0) sites[0] = parent.row(-1, y, z)[W - 1];
        if constexpr (taps.leaves(1)) sites[W - taps.low] = parent.row(1, y, z)[0];
    }
    template <int Variant, int... Lane>
    [[gnu::always_inline]] static void mixAlongX(Positions& out, Sites const& sites, std::integer_sequence<int, Lane...>)
    {
        constexpr auto tap = [](int lane) { return kParentTaps<Tr>[Variant].tap[std::size_t(lane <= W ? lane + 1 : 0)]; };
        const Positions low = __builtin_shufflevector(sites, sites, (tap(Lane).base)...);
        const Positions high = __builtin_shufflevector(sites, sites, (tap(Lane).base + (tap(Lane).fraction != 0))...);
        const Positions mixed = (high - low) * Positions{tap(Lane).fraction...} + low;
        // A position on a sample takes it as it is, whatever the next one holds.
        out = __builtin_shufflevector(low, mixed, (tap(Lane).fraction == 0 ? Lane : 8 + Lane)...);
    }
    [[gnu::always_inline]] static void mix(Positions& out, Positions const* at, std::ptrdiff_t step, float fraction)
    {
        if (fraction == 0)
            out = *at;
        else
            out = (at[step] - *at) * fraction + *at;
    }
    /// First position of a class along an axis, and how many.
    static constexpr int first(int d) { return d < 0 ? -1 : d == 0 ? 0 : W; }
    static constexpr int count(int d) { return d == 0 ? W : 1; }

    /// Samples of the parent, and positions -1 to W, that the rows of the classes need along an axis.
    struct Needed {
        unsigned sites = 0, positions = 0;
        [[gnu::always_inline]] void add(Taps const& taps, int d)
        {
            for (int n = first(d); n < first(d) + count(d); ++n) sites |= taps.sites[std::size_t(n + 1)], positions |= 1u << (n + 1);
        }
    };

    template <int Variant> TILEGRID_CLONES static void fillFrom(Task const& task)
    {
        Taps const &ty = *task.y, &tz = *task.z;
        Needed y, z;
        for (int n = 0; n < task.classCount; ++n) y.add(ty, task.classes[n].dy), z.add(tz, task.classes[n].dz);

        Positions planes[kSites][N];
        for (int sz = 0; sz < kSites; ++sz) {
            if (!(z.sites >> sz & 1)) continue;
            Positions lines[kSites];
            for (int sy = 0; sy < kSites; ++sy) {
                if (!(y.sites >> sy & 1)) continue;
                Sites sites;
                load<Variant>(sites, *task.parent, ty.low + sy, tz.low + sz);
                mixAlongX<Variant>(lines[sy], sites, std::make_integer_sequence<int, 8>());
            }
            for (unsigned left = y.positions; left; left &= left - 1) {
                const int n = __builtin_ctz(left);
                mix(planes[sz][n], lines + ty.tap[std::size_t(n)].base, 1, ty.tap[std::size_t(n)].fraction);
            }
        }
        for (int n = 0; n < task.classCount; ++n) fillClass(task, task.classes[n], planes);
    }
    [[gnu::always_inline]] static void fillClass(Task const& task, RowClass const& rows, Positions const (*planes)[N])
    {
        float* low = task.scratch + (3 * (rows.dy + 1) + rows.dz + 1) * kScratchTile;
        float *middle = low + 9 * kScratchTile, *high = low + 18 * kScratchTile;
        const int j = first(rows.dy), k = first(rows.dz), rowCount = count(rows.dy);
        for (int n = 0; n < count(rows.dz); ++n) {
            auto const& tap = task.z->tap[std::size_t(k + n + 1)];
            Positions const* plane = &planes[tap.base][j + 1];
            int at = W * ((j - W * rows.dy) + W * (k + n - W * rows.dz));
            for (int m = 0; m < rowCount; ++m, at += W) {
                Positions row;
                mix(row, plane + m, N, tap.fraction);
                if (rows.wanted & 1) low[at + W - 1] = row[kLow];
                if (rows.wanted & 2) std::memcpy(middle + at, &row, W * sizeof(float));
                if (rows.wanted & 4) high[at] = row[kHigh];
            }
        }
    }

    template <int... Variants> static constexpr std::array<Fill, sizeof...(Variants)> fills(std::integer_sequence<int, Variants...>)
    {
        return {&fillFrom<Variants>...};
    }
    static constexpr auto kFill = fills(std::make_integer_sequence<int, Taps::kVariants>());
};

}  // namespace tilegrid::stencils
