#pragma once
#include "TilegridOps/host/object.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::io {

/// What a level set costs, and how far it is from the volumes that it was merged from.
struct LevelSetCost {
    /// World size of the finest voxel.
    double voxelSize = 0;
    double voxels = 0, bytes = 0;
    /// Largest difference from the combined level sets, in world units, over places near the surface.
    double error = 0;
};

/// A merged level set beside grids of one voxel size over a band of 3 voxels to each side of the same surface.
struct Savings {
    std::int64_t places = 0;
    LevelSetCost merged;
    /// The coarsest grid whose error is no larger, and the grid of the merged level set's finest voxels.
    LevelSetCost sameError, finest;
};

/// How level sets are combined (in the order of Geometry::Volume::LevelSetMode).
enum class Combination { kUnion, kDifference, kIntersection };

/// Measures what voxels of several sizes save. The error is taken at fixed random places within one finest voxel of
/// the combined surface, looked for in the box of each input in turn, so that small parts count as well as large ones. Grids of
/// one size are not made: a grid's error is that of the trilinear mix of the combined level sets at its nodes, its voxels follow
/// from the merged surface's area, and a voxel takes as many bytes as a leaf voxel of the merged level set does.
///
/// Same result for any number of threads.
/// \param inputs  the volumes that were merged, in their order
/// \throws InputError where one of them has no signed distance with a surface
Savings measureSavings(Ostara::Object const& merged, std::vector<Ostara::Object const*> const& inputs, Combination combination);

/// Keys: places, merged{voxel_size,voxels,bytes,error}, same_error{...}, finest{...}. One object.
std::string toJson(Savings const& savings);
/// A table for people, bytes first; blanks stand between its columns, however large the numbers are.
std::string toText(Savings const& savings);

}  // namespace tilegrid::io
