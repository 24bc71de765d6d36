#include "io/mesh.h"
#include "io/text.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::int3;

namespace {

/// Calls `visit(low, high, forward, triangles)` for every edge, in the order of its vertices: how many triangles run along it, and
/// how many of them from the lower vertex to the higher one.
template <class Visit> void forEachEdge(TriangleMesh const& mesh, Visit visit)
{
    struct Edge {
        std::int32_t low, high;
        bool forward;
        auto operator<=>(Edge const&) const = default;
    };
    std::vector<Edge> edges;
    edges.reserve(3 * mesh.triangles.size());
    for (int3 const& t : mesh.triangles) {
        if (t.x == t.y || t.y == t.z || t.z == t.x) continue;
        for (int corner = 0; corner < 3; ++corner) {
            const std::int32_t from = t[corner], to = t[(corner + 1) % 3];
            edges.push_back({std::min(from, to), std::max(from, to), from < to});
        }
    }
    std::sort(edges.begin(), edges.end());
    for (std::size_t begin = 0, end; begin < edges.size(); begin = end) {
        std::int64_t forward = 0;
        for (end = begin; end < edges.size() && edges[end].low == edges[begin].low && edges[end].high == edges[begin].high; ++end)
            forward += edges[end].forward;
        visit(edges[begin].low, edges[begin].high, forward, static_cast<std::int64_t>(end - begin));
    }
}

}  // namespace

MeshTopology meshTopology(TriangleMesh const& mesh)
{
    MeshTopology result;
    forEachEdge(mesh, [&](std::int32_t low, std::int32_t high, std::int64_t forward, std::int64_t triangles) {
        const bool open = 2 * forward != triangles;
        ++result.edges;
        result.openEdges += open;
        result.flippedEdges += open && triangles % 2 == 0;
        result.nonManifoldEdges += triangles > 2;
        if (open) result.openLength += length(double3(mesh.vertices[high]) - double3(mesh.vertices[low]));
    });
    return result;
}

std::string openEdgesText(MeshTopology const& edges)
{
    // Two digits: one open edge of a large scan is no "0%".
    const double share = 100.0 * double(edges.openEdges) / double(std::max<std::int64_t>(edges.edges, 1));
    const double unit = share > 0.0 ? std::pow(10.0, std::floor(std::log10(share)) - 1.0) : 1.0;
    std::string text = std::to_string(edges.openEdges) + " of " + std::to_string(edges.edges) + " edges are open (" + number(unit * std::round(share / unit)) + "%)";
    if (edges.flippedEdges > 0)
        text += ", " + std::to_string(edges.flippedEdges) + " of them because neighbours face opposite ways";
    return text;
}

}  // namespace tilegrid::io
