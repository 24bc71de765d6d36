#pragma once
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/runtime.h"
#include "io/attribute.h"

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
    /// Values at the vertices, linear between them on a triangle.
    std::vector<Attribute> attributes = {};
    /// For each triangle, the places in `attributes` of its corners' values, where vertices that were joined keep values of their
    /// own, as at the seam between two colours. Empty: the vertices themselves.
    std::vector<Ostara::Math::int3> attributeCorners = {};
    bool hasNormals() const { return !normals.empty() && normals.size() == vertices.size(); }
};

/// What is known about the edges of a mesh. Closed: triangles run along every edge as often one way as the other, so that the
/// surface has no rim; it may still meet itself along edges of four and more triangles.
struct MeshTopology {
    std::int64_t edges = 0;
    /// Those that triangles run along more often one way than the other.
    std::int64_t openEdges = 0;
    /// Of the open ones: of an even number of triangles, so that turning some of them around would close the edge.
    std::int64_t flippedEdges = 0;
    /// Of more than two triangles, open or not.
    std::int64_t nonManifoldEdges = 0;
    /// Length of the open edges together.
    double openLength = 0.0;
    bool closed() const { return openEdges == 0; }
};

/// Reads OBJ, PLY (faces or triangle strips), STL, OFF or glTF 2.0 (`.gltf`, `.glb`; meshes placed by their nodes and joined).
/// Polygons are triangulated, identical vertices joined, degenerate triangles dropped. Colours and real values at vertices become
/// attributes.
/// \throws InputError for files that are missing, empty, truncated, hold no triangle, an index out of range, a
///         coordinate that is NaN or infinite, or more than `maxBytes` (0: no limit) would hold
TriangleMesh readMesh(std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services);

/// Writes PLY (binary), OBJ, STL (binary) or glTF (.glb) by the name's ending, with normals if the mesh has them and the form can
/// hold them, under a temporary name first, so that a failure leaves an old file. A .ply or .glb holds all attributes, an .obj the
/// colours; what is left out is said in a warning.
/// \throws InputError if the file cannot be written, or an attribute has not a value for each vertex
void writeMesh(std::string const& path, TriangleMesh const& mesh, Corvid::RuntimeServices const& services = {});

/// Vertices count as one only if their index is the same. Triangles that use a vertex twice have no part in it.
MeshTopology meshTopology(TriangleMesh const& mesh);
/// "12 of 300 edges are open (4%), 3 of them because neighbours face opposite ways": what messages say of a mesh that is not closed.
std::string openEdgesText(MeshTopology const& edges);
/// Volume enclosed (divergence theorem) and area, summed in index order.
double enclosedVolume(TriangleMesh const& mesh);
double surfaceArea(TriangleMesh const& mesh);

}  // namespace tilegrid::io
