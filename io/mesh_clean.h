#pragma once
#include "io/mesh.h"

namespace tilegrid::io {

/// What becomes of triangles over the same three vertices that face opposite ways.
enum class TwinRule {
    kCancel,   ///< none stays of as many of each: what lies between two solids is no surface of both together
    kKeepOne,  ///< the first stays, as a sheet
};

/// Drops triangles that add nothing: those that use a vertex twice, and all but one over the same three vertices. With
/// `kCancel` the one that stays faces the way of the greater number, so a surface winds around the same places as before, but
/// not more than once for copies of one triangle. The order stays. n log n.
/// \return how many were dropped
std::int64_t dropRepeatedTriangles(TriangleMesh& mesh, TwinRule rule);

}  // namespace tilegrid::io
