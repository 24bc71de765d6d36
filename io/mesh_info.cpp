#include "io/mesh_info.h"

#include "TilegridOps/host/geometry.h"
#include "io/error.h"
#include "io/mesh_clean.h"
#include "io/mesh_transform.h"
#include "io/points.h"
#include "io/points_table.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace tilegrid::io {

using Json = nlohmann::ordered_json;
using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

/// Union-find with halved paths: the root of a set is its smallest vertex.
std::int64_t partsOf(TriangleMesh const& mesh)
{
    std::vector<std::int32_t> parent(mesh.vertices.size());
    std::iota(parent.begin(), parent.end(), 0);
    const auto rootOf = [&parent](std::int32_t v) {
        while (parent[v] != v) v = parent[v] = parent[parent[v]];
        return v;
    };
    std::vector<char> used(mesh.vertices.size());
    for (int3 const& t : mesh.triangles)
        for (int corner = 0; corner < 3; ++corner) {
            used[t[corner]] = 1;
            const std::int32_t a = rootOf(t.x), b = rootOf(t[corner]);
            parent[std::max(a, b)] = std::min(a, b);
        }
    std::int64_t parts = 0;
    for (std::size_t v = 0; v < parent.size(); ++v) parts += used[v] && parent[v] == static_cast<std::int32_t>(v);
    return parts;
}

Json jsonOf(float3 const& v)
{
    return Json::array({double(v.x), double(v.y), double(v.z)});
}

std::string textOf(float3 const& v) { return number(v.x) + ", " + number(v.y) + ", " + number(v.z); }

std::string boundsText(float3 const& low, float3 const& high)
{
    return "bounds      from " + textOf(low) + " to " + textOf(high) + " (" + textOf(high - low) + ")\n";
}

std::string dumped(Json const& json)
{
    // Names are bytes from files: what is no UTF-8 is shown as a replacement character.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

MeshInfo describeMesh(TriangleMesh const& mesh)
{
    MeshInfo info;
    info.vertices = static_cast<std::int64_t>(mesh.vertices.size());
    info.triangles = static_cast<std::int64_t>(mesh.triangles.size());
    TriangleMesh once{mesh.vertices, mesh.triangles};
    info.repeatedTriangles = dropRepeatedTriangles(once, TwinRule::kKeepOne);
    info.parts = partsOf(mesh);
    if (!mesh.vertices.empty()) info.boundsMin = info.boundsMax = mesh.vertices.front();
    for (float3 const& v : mesh.vertices)
        for (int axis = 0; axis < 3; ++axis) {
            info.boundsMin[axis] = std::min(info.boundsMin[axis], v[axis]);
            info.boundsMax[axis] = std::max(info.boundsMax[axis], v[axis]);
        }
    info.longestSide = longestSide(mesh);
    info.area = surfaceArea(mesh);
    info.edges = meshTopology(mesh);
    info.volume = enclosedVolume(mesh);
    return info;
}

PointsInfo describePoints(Ostara::Object const& points)
{
    if (!isPointCloud(points)) throw InputError("there are no points to describe");
    const AttributeTable table = tableOf(points, {});
    PointsInfo info;
    info.points = static_cast<std::int64_t>(table.rows());
    for (std::size_t n = 0; n < table.names.size(); ++n) {
        PointsInfo::Column column{table.names[n], 0.0f, 0.0f};
        bool any = false;
        for (const float value : table.columns[n]) {
            if (std::isnan(value)) continue;
            column.min = any ? std::min(column.min, value) : value;
            column.max = any ? std::max(column.max, value) : value;
            any = true;
        }
        for (int axis = 0; axis < 3; ++axis)
            if (column.name == std::string(1, "xyz"[axis])) info.boundsMin[axis] = column.min, info.boundsMax[axis] = column.max;
        info.columns.push_back(std::move(column));
    }
    return info;
}

std::string toJson(MeshInfo const& info)
{
    return dumped({{"vertices", info.vertices}, {"triangles", info.triangles}, {"repeated_triangles", info.repeatedTriangles},
                   {"parts", info.parts}, {"bounds_min", jsonOf(info.boundsMin)}, {"bounds_max", jsonOf(info.boundsMax)},
                   {"longest_side", info.longestSide}, {"area", info.area}, {"volume", info.volume}, {"closed", info.edges.closed()},
                   {"edges", info.edges.edges}, {"open_edges", info.edges.openEdges}, {"flipped_edges", info.edges.flippedEdges},
                   {"non_manifold_edges", info.edges.nonManifoldEdges}});
}

std::string toJson(PointsInfo const& info)
{
    Json columns = Json::array();
    for (PointsInfo::Column const& column : info.columns)
        columns.push_back({{"name", column.name}, {"min", column.min}, {"max", column.max}});
    return dumped({{"points", info.points}, {"bounds_min", jsonOf(info.boundsMin)}, {"bounds_max", jsonOf(info.boundsMax)}, {"columns", columns}});
}

std::string toText(MeshInfo const& info)
{
    std::string text = "triangles   " + std::to_string(info.triangles) + " over " + std::to_string(info.vertices) + " vertices, in "
        + std::to_string(info.parts) + (info.parts == 1 ? " part\n" : " parts\n") + boundsText(info.boundsMin, info.boundsMax);
    text += "longest     " + number(info.longestSide) + ": voxels=256 makes voxels of " + number(info.longestSide / 256) + "\n";
    text += "area        " + number(info.area) + "\nclosed      " + (info.edges.closed() ? "yes" : "no: " + openEdgesText(info.edges));
    text += "\nvolume      " + number(info.volume) + (info.edges.closed() ? "" : ", as far as that can be told of an open mesh")
        + (info.volume < 0.0 ? ": most triangles face inward" : "") + "\n";
    if (info.edges.nonManifoldEdges > 0) text += "edges       " + std::to_string(info.edges.nonManifoldEdges) + " of more than two triangles\n";
    if (info.repeatedTriangles > 0) text += "repeated    " + std::to_string(info.repeatedTriangles) + " triangles lie on the vertices of another one\n";
    return text;
}

std::string toText(PointsInfo const& info)
{
    std::string text = "points      " + std::to_string(info.points) + "\n" + boundsText(info.boundsMin, info.boundsMax);
    for (PointsInfo::Column const& column : info.columns)
        text += "attribute   " + column.name + ", from " + number(column.min) + " to " + number(column.max) + "\n";
    return text;
}

}  // namespace tilegrid::io
