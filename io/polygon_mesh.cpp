#include "io/polygon_mesh.h"

#include "io/error.h"
#include "io/text_scan.h"

namespace tilegrid::io {

using Ostara::Math::float3;
using Ostara::Math::int3;

bool PolygonBuilder::addVertex(double x, double y, double z)
{
    if (!isFiniteFloat(x) || !isFiniteFloat(y) || !isFiniteFloat(z)) return false;
    mesh_.vertices.emplace_back(static_cast<float>(x), static_cast<float>(y), static_cast<float>(z));
    checkSize();
    return true;
}

void PolygonBuilder::endPolygon()
{
    const std::size_t begin = mesh_.ends.empty() ? 0 : mesh_.ends.back(), size = mesh_.corners.size() - begin;
    if (size < 3) return mesh_.corners.resize(begin);
    triangles_ += size - 2;
    checkSize();
    mesh_.ends.push_back(static_cast<std::uint32_t>(mesh_.corners.size()));
}

void PolygonBuilder::addTriangle(std::int64_t a, std::int64_t b, std::int64_t c)
{
    for (const std::int64_t corner : {a, b, c}) addCorner(corner);
    endPolygon();
}

PolygonMesh PolygonBuilder::take(std::vector<Attribute> attributes)
{
    for (const std::int32_t corner : mesh_.corners)
        if (static_cast<std::size_t>(corner) >= mesh_.vertices.size())
            throw InputError("a face names vertex " + std::to_string(corner) + ", counted from 0, and the file has "
                             + std::to_string(mesh_.vertices.size()));
    mesh_.attributes = std::move(attributes);
    return std::move(mesh_);
}

void PolygonBuilder::checkSize() const
{
    const std::uint64_t bytes = mesh_.vertices.size() * sizeof(float3) + triangles_ * sizeof(int3);
    if (mesh_.vertices.size() >= INT32_MAX || mesh_.corners.size() >= INT32_MAX || 3 * triangles_ > INT32_MAX
        || (maxBytes_ > 0 && bytes > maxBytes_))
        throw InputError("its " + std::to_string(triangles_) + " triangles or more, over " + std::to_string(mesh_.vertices.size())
                         + " vertices, are too many for the limit");
}

}  // namespace tilegrid::io
