#pragma once
#include "TilegridOps/host/math.h"

#include <array>
#include <cmath>

/// The formulas of `analyze`, for single numbers and for rows of them alike: V is a scalar or a `RowVector`, passed by reference
/// so that nothing depends on how vectors travel in calls.
namespace tilegrid::analysis {

/// The squared gradient, in values per voxel, at or below which there is no curvature.
inline constexpr double kFlatSquare = 1.1920929e-7;
/// The shortest gradient that leads to a surface.
inline constexpr double kShortestGradient = 1e-6;
/// The longest vector that has no direction: the smallest normal float.
inline constexpr double kNoLength = 1.18e-38;

/// The 18 neighbours of a voxel that share a face or an edge with it. x0: low along x, z1y0: high along z and low along y.
template <class V> struct Eighteen {
    V centre, x0, x1, y0, y1, z0, z1;
    V y0x0, y0x1, y1x0, y1x1, z0x0, z0x1, z1x0, z1x1, z0y0, z0y1, z1y0, z1y1;
};

/// Central differences of a function in index units.
template <class V> struct Derivatives {
    V x, y, z, xx, yy, zz, xy, xz, yz;

    [[gnu::always_inline]] explicit Derivatives(Eighteen<V> const& f)
    {
        x = (f.x1 - f.x0) * 0.5f;
        y = (f.y1 - f.y0) * 0.5f;
        z = (f.z1 - f.z0) * 0.5f;
        const V twice = f.centre + f.centre;
        xx = (f.x0 + f.x1) - twice;
        yy = (f.y0 + f.y1) - twice;
        zz = (f.z0 + f.z1) - twice;
        xy = ((f.y1x1 - f.y1x0) - (f.y0x1 - f.y0x0)) * 0.25f;
        xz = ((f.z1x1 - f.z1x0) - (f.z0x1 - f.z0x0)) * 0.25f;
        yz = ((f.z1y1 - f.z1y0) - (f.z0y1 - f.z0y0)) * 0.25f;
    }
    [[gnu::always_inline]] void gradientSquare(V& square) const { square = x * x + y * y + z * z; }
    /// The curvature, given the length of the gradient. Unit normals first: cubes of long gradients would overflow.
    [[gnu::always_inline]] void curvature(V const& length, V& result) const
    {
        const V nx = x / length, ny = y / length, nz = z / length;
        const V term = ((yy + zz) * (nx * nx) + (xx + zz) * (ny * ny)) + (xx + yy) * (nz * nz)
            - 2.0f * ((nx * ny) * xy + (nx * nz) * xz + (ny * nz) * yz);
        result = term / (2.0f * length);
    }
};

/// The 18 neighbours in an array of N per row.
template <int N, class S> Eighteen<S> eighteenAt(S const* at)
{
    constexpr int Y = N, Z = N * N;
    return {at[0],      at[-1],     at[1],      at[-Y],     at[Y],      at[-Z],     at[Z],     at[-Y - 1], at[-Y + 1], at[Y - 1],
            at[Y + 1],  at[-Z - 1], at[-Z + 1], at[Z - 1],  at[Z + 1],  at[-Z - Y], at[-Z + Y], at[Z - Y], at[Z + Y]};
}

/// Three components of one type as a vector of the host.
template <class S> using Vector3 = Ostara::Math::Vector<S, 3>;

/// Derivatives along x, y and z of the value at `at`, in an array of N per row.
template <int N, class T, class S> std::array<T, 3> differencesAt(T const* at, S halfInverse)
{
    return {halfInverse * (at[1] - at[-1]), halfInverse * (at[N] - at[-N]), halfInverse * (at[N * N] - at[-N * N])};
}

}  // namespace tilegrid::analysis
