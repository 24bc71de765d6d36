#pragma once
#include "TilegridOps/sampling/interpolation.h"
#include "support/site_oracle.h"

namespace tilegrid::test {

using OST::TileTree3D::CubicMode;

inline constexpr CubicMode kCubicModes[] = {CubicMode::kQuadraticC0Averaged, CubicMode::kCubicC0, CubicMode::kCubicC1,
                                            CubicMode::kCubicC1Monotonic};
/// A number without a mode.
inline constexpr auto kNoCubicMode = static_cast<CubicMode>(7);

/// The polynomial through some points, at x.
inline double polynomialThrough(std::vector<double> const& p, std::vector<double> const& f, double x)
{
    double sum = 0;
    for (std::size_t n = 0; n < p.size(); ++n) {
        double weight = 1;
        for (std::size_t m = 0; m < p.size(); ++m)
            if (m != n) weight *= (x - p[m]) / (p[n] - p[m]);
        sum += weight * f[n];
    }
    return sum;
}

/// Slope at the middle one of three points of the parabola through them.
inline double slopeOfParabola(double p0, double p1, double p2, double f0, double f1, double f2)
{
    const double curve = ((f2 - f1) / (p2 - p1) - (f1 - f0) / (p1 - p0)) / (p2 - p0);
    return (f1 - f0) / (p1 - p0) + curve * (p1 - p0);
}

/// What a mode gives at x between p[1] and p[2], from its definition.
inline double cubicOracle(CubicMode mode, std::array<double, 4> const& p, std::array<double, 4> const& f, double x)
{
    if (mode == CubicMode::kQuadraticC0Averaged)
        return 0.5 * polynomialThrough({p[0], p[1], p[2]}, {f[0], f[1], f[2]}, x)
            + 0.5 * polynomialThrough({p[1], p[2], p[3]}, {f[1], f[2], f[3]}, x);
    if (mode == CubicMode::kCubicC0) return polynomialThrough({p[0], p[1], p[2], p[3]}, {f[0], f[1], f[2], f[3]}, x);
    double m1 = slopeOfParabola(p[0], p[1], p[2], f[0], f[1], f[2]), m2 = slopeOfParabola(p[1], p[2], p[3], f[1], f[2], f[3]);
    if (mode == CubicMode::kCubicC1Monotonic) {
        const auto agrees = [rise = f[2] - f[1]](double m) { return rise * m > 0; };
        m1 = agrees(m1) ? m1 : 0;
        m2 = agrees(m2) ? m2 : 0;
    }
    const double h = p[2] - p[1], u = (x - p[1]) / h;
    // As a Bezier curve, by repeated mixing.
    std::array<double, 4> b = {f[1], f[1] + h * m1 / 3, f[2] - h * m2 / 3, f[2]};
    for (std::size_t rest = 3; rest > 0; --rest)
        for (std::size_t n = 0; n < rest; ++n) b[n] += u * (b[n + 1] - b[n]);
    return b[0];
}

/// At the fraction between the second and the third of four voxels per axis. `at(i, j, k)`, each 0 to 3.
template <class At> double cubicOracle3D(CubicMode mode, std::array<double, 3> const& fraction, At const& at)
{
    constexpr std::array<double, 4> kEven = {-1, 0, 1, 2};
    std::array<double, 4> planes, rows, row;
    for (int k = 0; k < 4; ++k) {
        for (int j = 0; j < 4; ++j) {
            for (int i = 0; i < 4; ++i) row[i] = at(i, j, k);
            rows[j] = cubicOracle(mode, kEven, row, fraction[0]);
        }
        planes[k] = cubicOracle(mode, kEven, rows, fraction[1]);
    }
    return cubicOracle(mode, kEven, planes, fraction[2]);
}

/// The cubic sampler's value with a linear mix at jumps, worked out from the set of tiles in double.
template <class Tr> class CubicSamplerOracle {
public:
    using Set = TileSet<Tr>;
    CubicSamplerOracle(Set const& set, SiteOracle<Tr>& sites) : set_(set), sites_(sites) {}

    /// Whether one of the two places per axis, from the lowest voxel of the stencil on, lacks a tile of the depth.
    bool atJump(TileKey const& tile, Place const& lijk) const
    {
        for (int n = 0; n < 8; ++n) {
            Place p;
            for (int a = 0; a < 3; ++a)
                p[a] = tile.low[a] + (lijk[a] - 1) * Set::voxelWidth(tile.depth) + (n >> a & 1) * Set::tileWidth(tile.depth);
            const auto found = set_.find(p, tile.depth);
            if (!found || found->depth != tile.depth) return true;
        }
        return false;
    }
    double at(CubicMode mode, TileKey const& tile, Place const& lijk, std::array<double, 3> const& fraction)
    {
        const std::int64_t w = Set::voxelWidth(tile.depth);
        const auto site = [&](int i, int j, int k) {
            const Place cell = {tile.low[0] + (lijk[0] + i) * w, tile.low[1] + (lijk[1] + j) * w, tile.low[2] + (lijk[2] + k) * w};
            return sites_.at(cell, tile.depth).value;
        };
        if (!atJump(tile, lijk)) return cubicOracle3D(mode, fraction, [&](int i, int j, int k) { return site(i - 1, j - 1, k - 1); });
        double sum = 0;
        for (int n = 0; n < 8; ++n) {
            double weight = 1;
            for (int a = 0; a < 3; ++a) weight *= n >> a & 1 ? fraction[a] : 1 - fraction[a];
            sum += weight * site(n & 1, n >> 1 & 1, n >> 2);
        }
        return sum;
    }

private:
    Set const& set_;
    SiteOracle<Tr>& sites_;
};

}  // namespace tilegrid::test
