#pragma once
#include "TilegridOps/algorithms/surface_points.h"

/// The arithmetic behind surface points: on values alone.
namespace tilegrid {

/// The cubic between two neighbouring values, from them and the next on either side. Its end curvatures are the second
/// differences, limited to each other so that they never change sign between: so it crosses zero at most once where the ends
/// differ in sign. An outer value that is not finite gives the straight line.
struct LimitedCubic {
    double f0, f1, d0 = 0, d1 = 0;
    LimitedCubic(double before, double at0, double at1, double after);
    double operator()(double t) const { return f0 + t * (f1 - f0) - t * (1 - t) / 6 * ((2 - t) * d0 + (1 + t) * d1); }
    double slope(double t) const
    {
        // (t - t^2)(a + b t) with a = 2 d0 + d1, b = d1 - d0
        const double a = 2 * d0 + d1, b = d1 - d0;
        return f1 - f0 - (a + 2 * (b - a) * t - 3 * b * t * t) / 6;
    }
    /// Where it is zero, for ends of different sign: exactly 0 or 1 where an end is 0.
    double root() const;
};

/// First and second derivatives at a voxel, in voxels: the six second ones are xx, yy, zz, xy, xz, yz.
struct Derivatives {
    double g[3], h[6];
};

/// From a cube of values around `at`, `stride` elements apart per axis. Where a neighbour is not finite, one-sided or zero.
Derivatives derivativesAt(float const* at, std::array<int, 3> const& stride);

/// The shape of the surface that passes between two voxels at fraction t of the edge along `axis`.
/// \param rising  whether the values rise along the edge
SurfaceShape shapeAt(Derivatives const& low, Derivatives const& high, double t, int axis, bool rising, double width);

}  // namespace tilegrid
