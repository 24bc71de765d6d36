#pragma once
#include "TilegridOps/host/math.h"
#include "io/attribute.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::io {

/// A mesh as a file has it: what the readers of the formats leave, before polygons are divided and vertices joined.
struct PolygonMesh {
    /// Finite.
    std::vector<Ostara::Math::float3> vertices;
    /// Vertices of all polygons, one polygon after the other; each is in range.
    std::vector<std::int32_t> corners;
    /// Where the corners of each polygon end. It has three at least.
    std::vector<std::uint32_t> ends;
    /// A value for every vertex.
    std::vector<Attribute> attributes;
};

/// Collects a mesh while a file is read, so that nothing is allocated by a number that only stands in the file.
class PolygonBuilder {
public:
    /// \param maxBytes  that vertices and triangles may take; 0: no limit
    explicit PolygonBuilder(std::uint64_t maxBytes) : maxBytes_(maxBytes) {}

    /// False, and nothing added, for a coordinate that is no finite float.
    bool addVertex(double x, double y, double z);
    /// Vertices may come later: `take` looks whether all are there.
    void addCorner(std::int64_t vertex) { mesh_.corners.push_back(static_cast<std::int32_t>(vertex < 0 || vertex > INT32_MAX ? INT32_MAX : vertex)); }
    /// Ends a polygon. One of fewer than three corners is dropped. \throws InputError above the limit
    void endPolygon();
    void addTriangle(std::int64_t a, std::int64_t b, std::int64_t c);

    std::size_t vertexCount() const { return mesh_.vertices.size(); }
    PolygonMesh const& mesh() const { return mesh_; }
    /// The mesh. \throws InputError if a polygon names a vertex that is not there, or above the limit
    PolygonMesh take(std::vector<Attribute> attributes = {});

private:
    void checkSize() const;
    PolygonMesh mesh_;
    std::uint64_t maxBytes_, triangles_ = 0;
};

}  // namespace tilegrid::io
