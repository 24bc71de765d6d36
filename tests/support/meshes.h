#pragma once
#include "io/mesh.h"

#include <cmath>
#include <map>
#include <utility>

namespace tilegrid::test {

/// A box of twelve triangles, outward.
inline io::TriangleMesh boxMesh(Ostara::Math::float3 const& low, Ostara::Math::float3 const& high)
{
    io::TriangleMesh mesh;
    for (int n = 0; n < 8; ++n)
        mesh.vertices.emplace_back(n & 1 ? high.x : low.x, n & 2 ? high.y : low.y, n & 4 ? high.z : low.z);
    mesh.triangles = {{0, 2, 1}, {1, 2, 3}, {4, 5, 6}, {5, 7, 6}, {0, 1, 4}, {1, 5, 4},
                      {2, 6, 3}, {3, 6, 7}, {0, 4, 2}, {2, 4, 6}, {1, 3, 5}, {3, 7, 5}};
    return mesh;
}

/// An octahedron whose triangles are divided `rounds` times, with its vertices on the sphere.
inline io::TriangleMesh sphereMesh(float radius, int rounds, Ostara::Math::float3 const& centre = {})
{
    using Ostara::Math::float3;
    using Ostara::Math::int3;
    std::vector<float3> directions{{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    std::vector<int3> triangles{{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4}, {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    for (int round = 0; round < rounds; ++round) {
        std::map<std::pair<int, int>, int> middles;
        const auto middle = [&](int a, int b) {
            const auto [found, isNew] = middles.try_emplace(std::minmax(a, b), static_cast<int>(directions.size()));
            if (isNew) {
                const float3 sum = directions[a] + directions[b];
                directions.push_back((1.0f / length(sum)) * sum);
            }
            return found->second;
        };
        std::vector<int3> finer;
        for (int3 const& t : triangles) {
            const int ab = middle(t.x, t.y), bc = middle(t.y, t.z), ca = middle(t.z, t.x);
            finer.insert(finer.end(), {{t.x, ab, ca}, {ab, t.y, bc}, {ca, bc, t.z}, {ab, bc, ca}});
        }
        triangles = std::move(finer);
    }
    io::TriangleMesh mesh;
    for (float3 const& d : directions) mesh.vertices.push_back(centre + radius * d);
    mesh.triangles = triangles;
    return mesh;
}

/// Both meshes in one.
inline io::TriangleMesh joined(io::TriangleMesh mesh, io::TriangleMesh const& other)
{
    const int first = static_cast<int>(mesh.vertices.size());
    mesh.vertices.insert(mesh.vertices.end(), other.vertices.begin(), other.vertices.end());
    for (auto const& t : other.triangles) mesh.triangles.push_back({t.x + first, t.y + first, t.z + first});
    return mesh;
}

inline io::TriangleMesh turnedInsideOut(io::TriangleMesh mesh)
{
    for (auto& t : mesh.triangles) std::swap(t.y, t.z);
    return mesh;
}

}  // namespace tilegrid::test
