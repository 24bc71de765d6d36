#pragma once
#include "TilegridOps/substrate/coarse_read.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace tilegrid::stencils {

using OST::TileTree3D::int3;

/// A tile of floats with one layer around it: position (i,j,k), each from -1 to W. Rows take eight floats, of which the last are
/// of no account.
template <class Tr> struct Surrounded {
    static constexpr int W = Tr::width, N = W + 2, kRow = 8;
    static constexpr int row(int j, int k) { return kRow * (j + 1 + N * (k + 1)); }
    static constexpr int index(int i, int j, int k) { return row(j, k) + i + 1; }

    alignas(32) std::array<float, std::size_t(kRow) * N * N> values;
};

/// Values of a tile's border from its parent: trilinear among the parent's samples, mixed along x, then y, then z; all that a
/// border needs lies in the parent with one layer around it. The same bits as `mixSites`. Rows are made when they are asked
/// for, and what they share is kept.
template <class Tr> class Upsampler {
    static constexpr int W = Tr::width, N = W + 2;
    /// Parent samples that the N positions of an axis lie among.
    static constexpr int kSites = 4;

public:
    using Vector = float __attribute__((vector_size(32)));

    /// \param cell    where in the parent the tile lies
    /// \param offset  where samples lie
    Upsampler(Surrounded<Tr> const& parent, int3 const& cell, OST::TileTree3D::VoxelOffsetType offset)
        : parent_(parent), y_(taps(offset, 1, cell.y)), z_(taps(offset, 2, cell.z))
    {
        const int variant = (offset & 1 ? 0 : Tr::branching) + cell.x;
        mixAlongX_ = kMixAlongX[std::size_t(variant)];
    }
    /// Positions -1 to W (lanes 0 to W + 1) of row (j,k).
    Vector const& row(int j, int k)
    {
        auto const& tap = z_[std::size_t(k + 1)];
        Vector const& low = plane(tap.base, j);
        if (tap.fraction == 0) return low;
        result_ = (plane(tap.base + 1, j) - low) * tap.fraction + low;
        return result_;
    }

private:
    using Taps = std::array<OST::TileTree3D::SiteTap, N>;
    using MixAlongX = void (*)(Vector& out, float const* row);

    static constexpr std::array<std::array<Taps, Tr::branching>, 2> allTaps()
    {
        std::array<std::array<Taps, Tr::branching>, 2> all{};
        for (int centred = 0; centred < 2; ++centred)
            for (int cell = 0; cell < Tr::branching; ++cell)
                for (int i = -1; i <= W; ++i)
                    all[std::size_t(centred)][std::size_t(cell)][std::size_t(i + 1)] =
                        OST::TileTree3D::siteTap(cell * W + i, 1, Tr::childStride, centred);
        return all;
    }
    static constexpr auto kTaps = allTaps();
    static Taps const& taps(int offset, int axis, int cell) { return kTaps[offset >> axis & 1 ? 0 : 1][std::size_t(cell)]; }

    template <int Variant> static void mixAlongX(Vector& out, float const* row)
    {
        constexpr Taps const& taps = kTaps[Variant / Tr::branching][Variant % Tr::branching];
        const auto at = [row](int n) {
            const auto tap = taps[std::size_t(std::min(n, N - 1))];
            const float low = row[tap.base + 1];
            return tap.fraction == 0 ? low : (row[tap.base + 2] - low) * tap.fraction + low;
        };
        out = Vector{at(0), at(1), at(2), at(3), at(4), at(5), at(6), 0.0f};
    }
    template <int... Variants> static constexpr std::array<MixAlongX, sizeof...(Variants)> variants(std::integer_sequence<int, Variants...>)
    {
        return {&mixAlongX<Variants>...};
    }
    static constexpr auto kMixAlongX = variants(std::make_integer_sequence<int, 2 * Tr::branching>());

    Vector const& line(int siteZ, int siteY)
    {
        const int z = siteZ - z_[0].base, y = siteY - y_[0].base;
        Vector& line = lines_[z][y];
        if (!(linesDone_ >> (kSites * z + y) & 1)) {
            linesDone_ |= 1u << (kSites * z + y);
            mixAlongX_(line, parent_.values.data() + Surrounded<Tr>::row(siteY, siteZ));
        }
        return line;
    }
    Vector const& plane(int siteZ, int j)
    {
        auto const& tap = y_[std::size_t(j + 1)];
        if (tap.fraction == 0) return line(siteZ, tap.base);
        const int z = siteZ - z_[0].base;
        Vector& mixed = planes_[z][j + 1];
        if (!(planesDone_ >> (8 * z + j + 1) & 1)) {
            planesDone_ |= 1u << (8 * z + j + 1);
            Vector const& low = line(siteZ, tap.base);
            mixed = (line(siteZ, tap.base + 1) - low) * tap.fraction + low;
        }
        return mixed;
    }

    Surrounded<Tr> const& parent_;
    Taps const &y_, &z_;
    MixAlongX mixAlongX_;
    std::uint32_t linesDone_ = 0, planesDone_ = 0;
    Vector lines_[kSites][kSites], planes_[kSites][N], result_;
};

}  // namespace tilegrid::stencils
