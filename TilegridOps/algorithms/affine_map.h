#pragma once
#include "TilegridOps/host/math.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace tilegrid {

/// p -> p M + t for row vectors, in double.
struct AffineMap {
    double m[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    double t[3] = {0, 0, 0};

    AffineMap() = default;
    /// The one place that knows how the host lays out its matrices: translation in the last row.
    explicit AffineMap(Ostara::Math::float4x4 const& matrix)
    {
        for (int column = 0; column < 3; ++column) {
            for (int row = 0; row < 3; ++row) m[row][column] = matrix(row, column);
            t[column] = matrix(3, column);
        }
    }
    Ostara::Math::double3 operator()(Ostara::Math::double3 const& p) const
    {
        Ostara::Math::double3 result;
        for (int column = 0; column < 3; ++column)
            result[column] = ((p.x * m[0][column] + p.y * m[1][column]) + p.z * m[2][column]) + t[column];
        return result;
    }
    /// What a step along an axis becomes.
    Ostara::Math::double3 step(int axis) const { return {m[axis][0], m[axis][1], m[axis][2]}; }

    double determinant() const { return m[0][0] * minorOf(0, 0) - m[0][1] * minorOf(0, 1) + m[0][2] * minorOf(0, 2); }
    /// Nothing for a map that is not finite, or so near to singular that its inverse would have no right digit.
    std::optional<AffineMap> inverse() const;
    /// The same map between spaces whose units are `from` and `to` units of the spaces of this map.
    AffineMap inUnits(double from, double to) const
    {
        AffineMap scaled = *this;
        for (int column = 0; column < 3; ++column) {
            for (auto& row : scaled.m) row[column] *= from / to;
            scaled.t[column] /= to;
        }
        return scaled;
    }
    /// Whether all lengths change by the same factor, to a thousandth: M M^T is a multiple of the identity.
    bool isSimilarity() const;

private:
    double minorOf(int row, int column) const
    {
        const int r0 = row == 0 ? 1 : 0, r1 = row == 2 ? 1 : 2, c0 = column == 0 ? 1 : 0, c1 = column == 2 ? 1 : 2;
        return m[r0][c0] * m[r1][c1] - m[r0][c1] * m[r1][c0];
    }
};

inline std::optional<AffineMap> AffineMap::inverse() const
{
    // Digits of a double that the inverse may lose.
    constexpr double kNearestToSingular = 1e-12;
    double norm = 0;
    for (int row = 0; row < 3; ++row) {
        for (int column = 0; column < 3; ++column) norm = std::max(norm, std::abs(m[row][column]));
        if (!std::isfinite(m[row][0] + m[row][1] + m[row][2]) || !std::isfinite(t[row])) return {};
    }
    const double det = determinant();
    if (!std::isfinite(det) || !(std::abs(det) > kNearestToSingular * norm * norm * norm)) return {};
    AffineMap result;
    for (int row = 0; row < 3; ++row)
        for (int column = 0; column < 3; ++column) result.m[row][column] = ((row + column) % 2 ? -1 : 1) * minorOf(column, row) / det;
    for (int column = 0; column < 3; ++column)
        result.t[column] = 0 - ((t[0] * result.m[0][column] + t[1] * result.m[1][column]) + t[2] * result.m[2][column]);
    return result;
}

inline bool AffineMap::isSimilarity() const
{
    // Singular values within a thousandth: their squares within two.
    constexpr double kTolerance = 2e-3;
    const double square = std::pow(std::abs(determinant()), 2.0 / 3.0);
    for (int a = 0; a < 3; ++a)
        for (int b = 0; b < 3; ++b) {
            double product = 0;
            for (int column = 0; column < 3; ++column) product += m[a][column] * m[b][column];
            if (!(std::abs(product - (a == b ? square : 0)) <= kTolerance * square)) return false;
        }
    return true;
}

}  // namespace tilegrid
