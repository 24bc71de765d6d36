#include "io/vdb_grids.h"

#include <openvdb/tools/VolumeToMesh.h>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::int3;

namespace {

/// The two triangles of a quad, cut along its shorter diagonal.
void appendQuad(IndexSurface& surface, std::vector<openvdb::Vec3s> const& points, openvdb::Vec4I const& quad)
{
    const auto squared = [&points](unsigned a, unsigned b) { return (points[a] - points[b]).lengthSqr(); };
    const int3 q{int(quad[0]), int(quad[1]), int(quad[2])};
    const int last = int(quad[3]);
    if (squared(quad[0], quad[2]) <= squared(quad[1], quad[3])) {
        surface.triangles.push_back({q.x, q.y, q.z});
        surface.triangles.push_back({q.x, q.z, last});
    } else {
        surface.triangles.push_back({q.x, q.y, last});
        surface.triangles.push_back({q.y, q.z, last});
    }
}

}  // namespace

IndexSurface surfaceInIndexSpace(openvdb::FloatGrid const& grid)
{
    IndexSurface surface;
    const openvdb::CoordBBox box = grid.evalActiveVoxelBoundingBox();
    if (box.empty()) return surface;
    // Points come out as floats: measured from the low corner of the content they keep their digits.
    const openvdb::FloatGrid::Ptr local = openvdb::ConstPtrCast<openvdb::FloatGrid>(grid.copy());  // shares the tree
    auto toLocal = openvdb::math::Transform::createLinearTransform(1.0);
    toLocal->postTranslate(-box.min().asVec3d());
    local->setTransform(toLocal);
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    std::vector<openvdb::Vec4I> quads;
    openvdb::tools::volumeToMesh(*local, points, triangles, quads, /*isovalue*/ 0.0, /*adaptivity*/ 0.0);

    const openvdb::Vec3d origin = box.min().asVec3d();
    for (openvdb::Vec3s const& p : points)
        surface.vertices.emplace_back(p[0] + origin[0], p[1] + origin[1], p[2] + origin[2]);
    // The mesher's faces look inward: their reverse looks outward.
    for (openvdb::Vec3I const& t : triangles) surface.triangles.push_back({int(t[2]), int(t[1]), int(t[0])});
    for (openvdb::Vec4I const& q : quads) appendQuad(surface, points, {q[3], q[2], q[1], q[0]});
    return surface;
}

}  // namespace tilegrid::io
