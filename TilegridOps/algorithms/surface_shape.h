#pragma once
#include "TilegridOps/algorithms/surface_points.h"

#include <algorithm>
#include <cmath>

/// The arithmetic behind surface points: on values alone.
namespace tilegrid {

/// The function between two neighbouring values, from them and the next on either side. On smooth fields a cubic whose end curvatures
/// are the second differences, limited to each other so that they never change sign between: so it crosses zero at most once where the
/// ends differ in sign. An outer value that is not finite gives the straight line.
///
/// Where the slope changes by more than half the steepness within these values, as at a crease of a distance, the cubic would cut the
/// crease off. There it gives way to the lines that lead in from either side and meet between; they bend to the same side as the cubic
/// does, so that there is still one root.
class EdgeCurve {
public:
    /// \param steepness  the length of the gradient, in voxels; infinite takes the cubic in any case
    EdgeCurve(double before, double at0, double at1, double after, double steepness = HUGE_VAL);
    double operator()(double t) const
    {
        const double smooth = f0_ + t * (f1_ - f0_) - t * (1 - t) / 6 * ((2 - t) * d0_ + (1 + t) * d1_);
        return kink_ > 0 ? smooth + kink_ * (bent(t) - smooth) : smooth;
    }
    /// Where it is zero, for ends of different sign: exactly 0 or 1 where an end is 0.
    double root() const;

private:
    double slope(double t) const;
    double lineFromLow(double t) const { return f0_ + t * (f1_ - f0_ - low_); }
    double lineFromHigh(double t) const { return f1_ - (1 - t) * (f1_ - f0_ + high_); }
    double bent(double t) const
    {
        return low_ > 0 ? std::max(lineFromLow(t), lineFromHigh(t)) : std::min(lineFromLow(t), lineFromHigh(t));
    }

    double f0_, f1_;
    /// Second differences at the ends, and what the cubic takes of them.
    double low_ = 0, high_ = 0, d0_ = 0, d1_ = 0;
    /// The weight of the lines, from 0 to 1.
    double kink_ = 0;
};

/// First and second derivatives at a voxel, in voxels: the six second ones are xx, yy, zz, xy, xz, yz.
struct Derivatives {
    double g[3], h[6];
    double steepness() const { return std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]); }
};

/// From a cube of values around `at`, `stride` elements apart per axis. Where a neighbour is not finite, one-sided or zero.
Derivatives derivativesAt(float const* at, std::array<int, 3> const& stride);

/// The shape of the surface that passes between two voxels at fraction t of the edge along `axis`.
/// \param rising  whether the values rise along the edge
SurfaceShape shapeAt(Derivatives const& low, Derivatives const& high, double t, int axis, bool rising, double width);

}  // namespace tilegrid
