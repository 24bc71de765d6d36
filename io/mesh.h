#pragma once
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/runtime.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::io {

/// Triangles over shared vertices, world units, normals outward by the right-hand rule.
struct TriangleMesh {
    std::vector<Ostara::Math::float3> vertices;
    std::vector<Ostara::Math::int3> triangles;
    /// One per vertex, or none at all. Readers leave them out.
    std::vector<Ostara::Math::float3> normals = {};
    bool hasNormals() const { return !normals.empty() && normals.size() == vertices.size(); }
};

/// What is known about the edges of a mesh. Closed and manifold: every edge lies in two triangles, in opposite
/// directions.
struct MeshTopology {
    /// Of one triangle; of more than two; of two that run along it the same way.
    std::int64_t openEdges = 0;
    std::int64_t nonManifoldEdges = 0;
    std::int64_t flippedEdges = 0;
    bool closed() const { return openEdges == 0 && nonManifoldEdges == 0; }
};

/// Reads OBJ, PLY or STL. Polygons are triangulated, identical vertices joined, degenerate triangles dropped. Warns
/// about open and non-manifold meshes and says what is assumed.
/// \throws InputError for files that are missing, empty, truncated, hold no triangle, an index out of range, a
///         coordinate that is NaN or infinite, or more than `maxBytes` (0: no limit) would hold
TriangleMesh readMesh(std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services);

/// Writes PLY (binary) or OBJ by the name's ending, with normals if the mesh has them, under a temporary name first, so that a failure leaves an old file.
/// \throws InputError if the file cannot be written
void writeMesh(std::string const& path, TriangleMesh const& mesh);

MeshTopology meshTopology(TriangleMesh const& mesh);
/// Volume enclosed (divergence theorem) and area, summed in index order.
double enclosedVolume(TriangleMesh const& mesh);
double surfaceArea(TriangleMesh const& mesh);

}  // namespace tilegrid::io
