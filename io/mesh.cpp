#include "io/mesh.h"

#include "io/error.h"
#include "io/file_content.h"
#include "io/formats.h"
#include "io/gltf.h"
#include "io/mesh_readers.h"
#include "io/polygon.h"
#include "io/text.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <span>
#include <unordered_map>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

[[noreturn]] void fail(std::string const& path, std::string const& why)
{
    throw InputError("cannot read the mesh '" + path + "': " + why);
}

/// Joins vertices at the same place (0 and -0 are one) in the order of their first use.
class Welder {
public:
    explicit Welder(TriangleMesh& mesh) : mesh_(mesh) {}

    std::int32_t add(float3 const& v)
    {
        const float3 place{v.x + 0.0f, v.y + 0.0f, v.z + 0.0f};  // -0 becomes 0
        const auto [found, isNew] = known_.try_emplace(place, static_cast<std::int32_t>(mesh_.vertices.size()));
        if (isNew) mesh_.vertices.push_back(place);
        return found->second;
    }

private:
    struct Hash {
        std::size_t operator()(float3 const& v) const
        {
            std::uint64_t h = 0;
            for (int axis = 0; axis < 3; ++axis)
                h = (h ^ std::bit_cast<std::uint32_t>(v[axis])) * 0x9e3779b97f4a7c15ull;
            return h ^ h >> 32;
        }
    };
    TriangleMesh& mesh_;
    std::unordered_map<float3, std::int32_t, Hash> known_;
};

/// Divides polygons and joins vertices. Values at the vertices stay as many as the file has.
TriangleMesh weldedTriangles(PolygonMesh&& polygons)
{
    TriangleMesh result;
    Welder welder(result);
    std::vector<int3> parts;
    std::uint32_t begin = 0;
    for (const std::uint32_t end : polygons.ends) {
        parts.clear();
        appendTriangles(polygons.vertices, std::span(polygons.corners).subspan(begin, end - begin), parts);
        begin = end;
        for (int3 const& part : parts) {
            int3 triangle;
            for (int corner = 0; corner < 3; ++corner)
                triangle[corner] = welder.add(polygons.vertices[std::size_t(part[corner])]);
            // Without two equal corners a triangle stays, even with no area: its neighbours need its edges.
            if (triangle.x == triangle.y || triangle.y == triangle.z || triangle.z == triangle.x) continue;
            result.triangles.push_back(triangle);
            if (!polygons.attributes.empty()) result.attributeCorners.push_back(part);
        }
    }
    result.attributes = std::move(polygons.attributes);
    return result;
}

PolygonMesh polygonsOf(std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services)
{
    const std::string ending = endingOf(path), content = fileContent(path, "mesh", maxBytes);
    try {
        if (ending == "glb" || ending == "gltf") return gltfMesh(content, path, maxBytes, services);
        if (ending == "obj") return objMesh(content, maxBytes);
        if (ending == "ply") return plyMesh(content, maxBytes);
        if (ending == "stl") return stlMesh(content, maxBytes);
        return offMesh(content, maxBytes);
    } catch (InputError const& error) {
        fail(path, error.what());
    }
}

}  // namespace

TriangleMesh readMesh(std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services)
{
    const std::vector<std::string> endings = endingsThat(&FileFormat::readsMeshes);
    if (std::find(endings.begin(), endings.end(), "." + endingOf(path)) == endings.end())
        fail(path, "the ending tells the form, and only " + endingsText(&FileFormat::readsMeshes) + " are known");
    PolygonMesh polygons = polygonsOf(path, maxBytes, services);
    if (polygons.ends.empty()) fail(path, "it holds no triangle");
    TriangleMesh mesh = weldedTriangles(std::move(polygons));
    if (mesh.triangles.empty()) fail(path, "it holds no triangle with three different corners");
    return mesh;
}

double enclosedVolume(TriangleMesh const& mesh)
{
    if (mesh.vertices.empty()) return 0.0;
    const double3 origin(mesh.vertices.front());  // near the mesh: far from it the terms would cancel
    double six = 0.0;
    for (int3 const& t : mesh.triangles) {
        const double3 a = double3(mesh.vertices[t.x]) - origin, b = double3(mesh.vertices[t.y]) - origin;
        six += dot(a, cross(b, double3(mesh.vertices[t.z]) - origin));
    }
    return six / 6.0;
}

double surfaceArea(TriangleMesh const& mesh)
{
    double twice = 0.0;
    for (int3 const& t : mesh.triangles) {
        const double3 a(mesh.vertices[t.x]);
        twice += length(cross(double3(mesh.vertices[t.y]) - a, double3(mesh.vertices[t.z]) - a));
    }
    return 0.5 * twice;
}

}  // namespace tilegrid::io
