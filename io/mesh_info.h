#pragma once
#include "TilegridOps/host/object.h"
#include "io/mesh.h"

#include <string>
#include <vector>

namespace tilegrid::io {

/// What a mesh is, before anything is made of it.
struct MeshInfo {
    std::int64_t vertices = 0, triangles = 0;
    /// Triangles over the same three vertices as an earlier one, facing either way.
    std::int64_t repeatedTriangles = 0;
    /// Sets of triangles that hang together by vertices.
    std::int64_t parts = 0;
    Ostara::Math::float3 boundsMin, boundsMax;
    double longestSide = 0.0, area = 0.0;
    MeshTopology edges;
    /// Signed, positive with normals outward; of a mesh that is not closed, what its triangles span with a point of it.
    double volume = 0.0;
};
MeshInfo describeMesh(TriangleMesh const& mesh);

struct PointsInfo {
    struct Column {
        std::string name;
        float min = 0.0f, max = 0.0f;
    };
    std::int64_t points = 0;
    /// Every array of floats, and the three components of every array of vectors, by the names that tables have; without NaN.
    std::vector<Column> columns;
    Ostara::Math::float3 boundsMin, boundsMax;
};
/// \throws InputError for an object that is no point cloud
PointsInfo describePoints(Ostara::Object const& points);

/// Keys: vertices, triangles, repeated_triangles, parts, bounds_min, bounds_max, longest_side, area, volume, closed, edges, open_edges,
/// flipped_edges, non_manifold_edges. One object, indented.
std::string toJson(MeshInfo const& info);
/// Keys: points, bounds_min, bounds_max, columns[{name,min,max}].
std::string toJson(PointsInfo const& info);
/// For people: the same in lines.
std::string toText(MeshInfo const& info);
std::string toText(PointsInfo const& info);

}  // namespace tilegrid::io
