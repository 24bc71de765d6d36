#pragma once
#include "redistance_world.h"
#include "support/field_volumes.h"

namespace tilegrid::test {

/// `error(world position, value)` of the leaf voxels for which `where(world position, depth)` holds.
template <class Tr, class T, class Where, class Error>
Errors fieldErrors(Native const& volume, Corvid::String const& name, Where const& where, Error const& error)
{
    Errors errors;
    forLeafVoxels<Tr, T>(volume, name, [&](double3 const& p, T const& value, int depth, auto const&, int) {
        if (where(p, depth)) errors.add(error(p, value));
    });
    return errors;
}

/// The voxels of a cube around the origin.
inline auto inBox(double half)
{
    return [half](double3 const& p, int) { return within(p, half); };
}

/// Whether `least` or more were compared, and all of them, which a NaN is not, are within the bound.
inline ::testing::AssertionResult areWithin(Errors const& errors, double bound, std::int64_t least = 1)
{
    if (errors.count < least) return ::testing::AssertionFailure() << errors.count << " compared, not " << least;
    if (errors.largest <= bound) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "error " << errors.largest << " above " << bound << ", mean " << errors.mean << " of " << errors.count;
}

}  // namespace tilegrid::test
