#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <span>
#include <vector>

namespace tilegrid::io {

/// Divides a polygon into triangles over its own corners, and appends them in its direction.
///
/// Whatever the polygon is (bent out of its plane, crossing or touching itself, all on a line), there are two triangles fewer
/// than corners, and along every edge that is not the polygon's they cancel: a closed mesh stays closed. If it is
/// a simple polygon seen along its normal, they cover it and do not overlap.
/// \param vertices  finite
/// \param corners   indices into `vertices`; fewer than three make nothing
/// \return how many steps the search for corners in the way took: at most `polygonStepLimit` and a few for each corner. The time is
///         that and O(n log n).
std::int64_t appendTriangles(std::span<Ostara::Math::float3 const> vertices, std::span<std::int32_t const> corners,
                             std::vector<Ostara::Math::int3>& triangles);
/// Proportional to n log n.
std::int64_t polygonStepLimit(std::size_t corners);

}  // namespace tilegrid::io
