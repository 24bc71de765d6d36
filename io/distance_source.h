#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>

namespace tilegrid::io {

/// A closed surface, as makers of level sets ask for it. Immutable and safe to ask from many threads. Places and lengths
/// are in tile space, all arithmetic is in double.
class DistanceSource {
public:
    using double3 = Ostara::Math::double3;

    virtual ~DistanceSource() = default;

    struct Nearest {
        double squaredDistance;
        /// What to hand in as the guess for a place near by. What it means is the source's own business.
        std::int32_t guess;
    };
    /// The smallest distance to the surface, or less where finding it would take too long. `guess`, 0 or that of a result for a place near by, only saves time.
    virtual Nearest nearest(double3 const& place, std::int32_t guess) const = 0;

    /// Whether one of n^3 samples, the first at `first` and the next ones `spacing` apart along each axis, is at most
    /// `reach` from the surface.
    virtual bool anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const = 0;

    /// Writes n^3 signed distances times `unit`, negative inside, i fastest, for samples as above. n is at most 5.
    virtual void fill(double3 const& first, double spacing, int n, double unit, float* values) const = 0;
};

}  // namespace tilegrid::io
