#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/merge/modes.h"

#include <cstddef>

/// The arithmetic of merging, on rows of plain numbers. A vector or matrix is the row of its components. The mode is looked at
/// once a row. Rows do not overlap.
namespace tilegrid {

/// Combines `count` numbers: `values` holds those of earlier volumes and receives the result, `samples` those of the next.
/// `kAutomatic` and numbers without a name leave the values as they are.
/// \param alpha  weight of `samples` in `kBlend`
template <class Scalar>
TILEGRID_API void foldProperty(Geometry::Volume::Properties::Mode mode, float alpha, Scalar* values, Scalar const* samples, int count);
extern template TILEGRID_API void foldProperty(Geometry::Volume::Properties::Mode, float, float*, float const*, int);
extern template TILEGRID_API void foldProperty(Geometry::Volume::Properties::Mode, float, double*, double const*, int);

/// Copies the elements whose winner is not 0.
void foldWinners(std::byte* values, std::byte const* samples, signed char const* winners, std::size_t elementBytes, int count);

/// Signed distances, negative inside: the smaller one for a union, the larger one for an intersection, and for a difference
/// the larger one of the value so far and the negated sample. Of equal values the one so far stays. A NaN never replaces a
/// value, and nothing replaces a NaN. Modes without a name leave the values as they are.
TILEGRID_API void foldLevelSet(Geometry::Volume::LevelSetMode mode, float* values, float const* samples, int count);
/// The same, and says who won: 1 where the sample is now the value, 0 elsewhere. A tie goes to the sample. Modes without a name
/// leave `winners` as it is.
TILEGRID_API void foldLevelSet(Geometry::Volume::LevelSetMode mode, float* values, float const* samples, signed char* winners, int count);

/// Numbers between which values lie, both included.
struct ValueBounds {
    float low, high;
};
/// Whether `foldLevelSet` would leave all values as they are, and note no winner, whatever samples within the bounds it got.
/// May be false where that is so.
/// \param notesWinners  it would be asked who won
TILEGRID_API bool keepsLevelSet(Geometry::Volume::LevelSetMode mode, float const* values, ValueBounds const& samples, bool notesWinners, int count);
/// Whether `foldLevelSet` would give the samples (negated for a difference) in all places, whatever values within the bounds
/// were there. May be false where that is so.
TILEGRID_API bool replacesLevelSet(Geometry::Volume::LevelSetMode mode, ValueBounds const& values, float const* samples, int count);
/// What it gives then.
TILEGRID_API void replaceLevelSet(Geometry::Volume::LevelSetMode mode, float* values, float const* samples, int count);

}  // namespace tilegrid
