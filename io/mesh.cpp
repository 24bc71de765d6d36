#include "io/mesh.h"

#include "io/error.h"
#include "io/file_content.h"
#include "io/mesh_check.h"
#include "io/polygon.h"
#include "io/text.h"

#include <assimp/Importer.hpp>
#include <assimp/scene.h>

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

bool isFinite(aiVector3D const& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

/// What must hold before anything is computed from an imported scene. \return its number of faces
std::uint64_t checkScene(aiScene const& scene, std::string const& path)
{
    std::uint64_t faces = 0;
    for (aiMesh const* mesh : std::span(scene.mMeshes, scene.mNumMeshes)) {
        for (aiVector3D const& v : std::span(mesh->mVertices, mesh->mNumVertices))
            if (!isFinite(v)) fail(path, "a vertex has a coordinate that is not a finite number");
        for (aiFace const& face : std::span(mesh->mFaces, mesh->mNumFaces)) {
            faces += face.mNumIndices >= 3;
            for (unsigned index : std::span(face.mIndices, face.mNumIndices))
                if (index >= mesh->mNumVertices) fail(path, "a face names a vertex that is not there");
        }
    }
    return faces;
}

TriangleMesh weldedTriangles(aiScene const& scene)
{
    TriangleMesh result;
    Welder welder(result);
    std::vector<std::int32_t> corners;
    std::vector<int3> triangles;
    for (aiMesh const* mesh : std::span(scene.mMeshes, scene.mNumMeshes))
        for (aiFace const& face : std::span(mesh->mFaces, mesh->mNumFaces)) {
            corners.clear();
            for (const unsigned index : std::span(face.mIndices, face.mNumIndices)) {
                aiVector3D const& v = mesh->mVertices[index];
                corners.push_back(welder.add({v.x, v.y, v.z}));
            }
            triangles.clear();
            appendTriangles(result.vertices, corners, triangles);
            // Without two equal corners a triangle stays, even with no area: its neighbours need its edges.
            for (int3 const& t : triangles)
                if (t.x != t.y && t.y != t.z && t.z != t.x) result.triangles.push_back(t);
        }
    return result;
}

TriangleMesh imported(std::string const& path, std::string const& content, std::string const& ending,
                      MeshCounts const& counts)
{
    Assimp::Importer importer;
    aiScene const* scene = importer.ReadFileFromMemory(content.data(), content.size(), 0, ending.c_str());
    if (!scene) fail(path, importer.GetErrorString());
    if (const std::uint64_t faces = checkScene(*scene, path); faces != counts.faces)
        fail(path,
             "it has " + std::to_string(counts.faces) + " faces, and " + std::to_string(faces) + " could be read");
    return weldedTriangles(*scene);
}

}  // namespace

TriangleMesh readMesh(std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const&)
{
    const std::string ending = endingOf(path);
    if (ending != "obj" && ending != "ply" && ending != "stl")
        fail(path, "the ending tells the form, and only .obj, .ply and .stl are known");
    const std::string content = fileContent(path, "mesh", maxBytes);
    MeshCounts counts;
    try {
        counts = checkMeshContent(content, ending);
    } catch (InputError const& error) {
        fail(path, error.what());
    }
    if (counts.triangles == 0) fail(path, "it holds no triangle");
    const std::uint64_t bytes = counts.vertices * sizeof(float3) + counts.triangles * sizeof(int3);
    if (counts.vertices > INT32_MAX || 3 * counts.triangles > INT32_MAX || (maxBytes > 0 && bytes > maxBytes))
        fail(path, "its " + std::to_string(counts.triangles) + " triangles are too many for the limit");
    TriangleMesh mesh = imported(path, content, ending, counts);
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
