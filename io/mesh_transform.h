#pragma once
#include "io/mesh.h"

namespace tilegrid::io {

/// How a mesh is placed: first scaled, then turned, then moved, the first two about the origin.
struct MeshTransform {
    /// Along x, y, z; positive.
    Ostara::Math::double3 scale{1.0};
    /// Degrees around the x axis, then the y axis, then the z axis. The axes stay where they are; by the right-hand rule.
    Ostara::Math::double3 rotate;
    /// World units.
    Ostara::Math::double3 move;

    /// Computed in double. Turns by multiples of 90 degrees are exact.
    Ostara::Math::double3 operator()(Ostara::Math::double3 const& place) const;
    bool isIdentity() const;
};

/// Turns a mesh whose z axis points up so that its y axis does, as it is in the world of this library: x stays, z becomes y, y
/// becomes -z. Exact; normals turn too.
void turnUpFromZ(TriangleMesh& mesh);
/// The way back.
void turnUpToZ(TriangleMesh& mesh);

/// Of the box around all vertices; 0 without any.
double longestSide(TriangleMesh const& mesh);

/// Places a mesh. Vertices are computed in double and rounded to float once; triangles keep their order and direction.
/// \throws InputError for a scale that is not positive, for numbers that are not finite, and for a result that no float holds
void transformMesh(TriangleMesh& mesh, MeshTransform const& transform);

}  // namespace tilegrid::io
