#include "io/mesh_clean.h"

#include <algorithm>
#include <array>
#include <utility>

namespace tilegrid::io {

using Ostara::Math::int3;

namespace {

/// A triangle by its vertices in ascending order, and whether it runs through them in an even permutation of that order.
struct Facing {
    std::array<std::int32_t, 3> vertices;
    std::int32_t index;
    bool forward;
    auto operator<=>(Facing const&) const = default;
};

Facing facingOf(int3 const& t, std::int32_t index)
{
    Facing facing{{t.x, t.y, t.z}, index, true};
    auto& [a, b, c] = facing.vertices;
    const auto order = [&facing](std::int32_t& low, std::int32_t& high) {
        if (low <= high) return;
        std::swap(low, high);
        facing.forward = !facing.forward;
    };
    order(a, b);
    order(b, c);
    order(a, b);
    return facing;
}

}  // namespace

std::int64_t dropRepeatedTriangles(TriangleMesh& mesh, TwinRule rule)
{
    std::vector<Facing> facings;
    facings.reserve(mesh.triangles.size());
    for (std::size_t n = 0; n < mesh.triangles.size(); ++n) {
        int3 const& t = mesh.triangles[n];
        if (t.x != t.y && t.y != t.z && t.z != t.x) facings.push_back(facingOf(t, static_cast<std::int32_t>(n)));
    }
    std::sort(facings.begin(), facings.end());
    std::vector<char> keep(mesh.triangles.size());
    for (std::size_t begin = 0, end; begin < facings.size(); begin = end) {
        std::int64_t surplus = 0;
        for (end = begin; end < facings.size() && facings[end].vertices == facings[begin].vertices; ++end)
            surplus += facings[end].forward ? 1 : -1;
        std::size_t kept = begin;
        if (rule == TwinRule::kCancel) {
            if (surplus == 0) continue;
            while (facings[kept].forward != (surplus > 0)) ++kept;
        }
        keep[static_cast<std::size_t>(facings[kept].index)] = 1;
    }
    std::size_t left = 0;
    for (std::size_t n = 0; n < mesh.triangles.size(); ++n)
        if (keep[n]) {
            mesh.triangles[left] = mesh.triangles[n];
            if (!mesh.attributeCorners.empty()) mesh.attributeCorners[left] = mesh.attributeCorners[n];
            ++left;
        }
    const auto dropped = static_cast<std::int64_t>(mesh.triangles.size() - left);
    mesh.triangles.resize(left);
    if (!mesh.attributeCorners.empty()) mesh.attributeCorners.resize(left);
    return dropped;
}

}  // namespace tilegrid::io
