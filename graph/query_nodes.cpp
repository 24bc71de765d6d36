#include "TilegridOps/nodes/query.h"

#include "TilegridOps/substrate/traits.h"
#include "graph/node_families.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <ostream>

namespace tilegrid::graph {

namespace {

using Json = nlohmann::ordered_json;
using Ostara::Math::float3;
using Ostara::Math::int3;

Json jsonOf(float3 const& v)
{
    return {asWritten(v.x), asWritten(v.y), asWritten(v.z)};
}

Json jsonOf(int3 const& v)
{
    return {v.x, v.y, v.z};
}

std::string textOf(float3 const& v)
{
    return shortest(v.x) + " " + shortest(v.y) + " " + shortest(v.z);
}

/// Prints a document, or what stands for it in text.
void print(StepContext& step, Json const& document, std::string const& text)
{
    step.results << (step.arguments.flag("json") ? document.dump() : text) << "\n";
}

Result runVoxelSize(StepContext& step)
{
    float size = 0;
    Geometry::Volume::get_voxel_size(*step.volume().volume, size, step.services);
    print(step, {{"voxel_size", asWritten(size)}}, shortest(size));
    return {};
}

Result runVoxelCount(StepContext& step)
{
    OST::int64 count = 0;
    Geometry::Volume::get_voxel_count(*step.volume().volume, count, step.services);
    print(step, {{"voxel_count", count}}, std::to_string(count));
    return {};
}

Result runBounds(StepContext& step)
{
    float3 min, max;
    Geometry::Volume::volume_bounds(*step.volume().volume, min, max, step.services);
    print(step, {{"min", jsonOf(min)}, {"max", jsonOf(max)}}, "min " + textOf(min) + "\nmax " + textOf(max));
    return {};
}

/// What the tiles of one depth have in common, and how many there are.
struct DepthSummary {
    long long tiles = 0, leafVoxels = 0;
    /// Tile-space units per voxel.
    int voxelWidth = 0;
    int3 min{0}, max{0};
};

struct TileInfo {
    Corvid::Ptr<Corvid::Array<int>> depths, voxelWidths;
    Corvid::Ptr<Corvid::Array<int3>> positions;
    Corvid::Ptr<Corvid::Array<bool>> leafVoxels;
    Geometry::Volume::SubdivisionStructure structure{};
    int maxDepth = 0, tileWidth = 0;
    int3 rangeMin{0}, rangeMax{0};
};

std::vector<DepthSummary> summarize(TileInfo const& info)
{
    std::vector<DepthSummary> summaries(std::size_t(info.maxDepth) + 1);
    const std::size_t voxelsPerTile = std::size_t(info.tileWidth) * info.tileWidth * info.tileWidth;
    for (std::size_t tile = 0; tile < info.depths->size(); ++tile) {
        DepthSummary& summary = summaries[std::size_t((*info.depths)[tile])];
        const int3 low = (*info.positions)[tile];
        const int width = (*info.voxelWidths)[tile];
        const int3 high = low + int3(width * info.tileWidth - 1);
        for (int axis = 0; axis < 3; ++axis) {
            summary.min[axis] = summary.tiles ? std::min(summary.min[axis], low[axis]) : low[axis];
            summary.max[axis] = summary.tiles ? std::max(summary.max[axis], high[axis]) : high[axis];
        }
        bool const* leaves = info.leafVoxels->data() + tile * voxelsPerTile;
        summary.leafVoxels += std::count(leaves, leaves + voxelsPerTile, true);
        summary.voxelWidth = width;
        ++summary.tiles;
    }
    return summaries;
}

void printTileInfo(StepContext& step, TileInfo const& info)
{
    const bool binary = info.structure == Geometry::Volume::SubdivisionStructure(0);
    Json document = {{"structure", binary ? "binary" : "quinary"}, {"max_depth", info.maxDepth}, {"tile_width", info.tileWidth},
                     {"range_min", jsonOf(info.rangeMin)},          {"range_max", jsonOf(info.rangeMax)}};
    std::string text = std::string("structure ") + (binary ? "binary" : "quinary") + ", finest depth " + std::to_string(info.maxDepth) + ", " +
                       std::to_string(info.tileWidth) + " voxels per tile and axis";
    Json depths = Json::array();
    long long tiles = 0, leafVoxels = 0;
    const std::vector<DepthSummary> summaries = summarize(info);
    for (std::size_t depth = 0; depth < summaries.size(); ++depth) {
        DepthSummary const& at = summaries[depth];
        if (at.tiles == 0) continue;
        tiles += at.tiles;
        leafVoxels += at.leafVoxels;
        depths.push_back({{"depth", depth}, {"tiles", at.tiles}, {"leaf_voxels", at.leafVoxels}, {"voxel_width", at.voxelWidth},
                          {"min", jsonOf(at.min)}, {"max", jsonOf(at.max)}});
        text += "\ndepth " + std::to_string(depth) + ": " + std::to_string(at.tiles) + " tiles, " + std::to_string(at.leafVoxels) +
                " leaf voxels of width " + std::to_string(at.voxelWidth);
    }
    document["tile_count"] = tiles;
    document["leaf_voxel_count"] = leafVoxels;
    document["depths"] = std::move(depths);
    print(step, document, text + "\nall: " + std::to_string(tiles) + " tiles, " + std::to_string(leafVoxels) + " leaf voxels");
}

Result runTileInfo(StepContext& step)
{
    TileInfo info;
    // The node reports what is wrong as a message, and the runner stops on that; the defaults are not worth printing.
    Geometry::Volume::get_volume_tile_info(*step.volume().volume, info.depths, info.positions, info.voxelWidths, info.leafVoxels, info.structure,
                                           info.maxDepth, info.tileWidth, info.rangeMin, info.rangeMax, step.services);
    if (info.depths && info.depths->size() > 0) printTileInfo(step, info);
    return {};
}

NodeInfo queryNode(std::string name, std::string help, Result (*run)(StepContext&))
{
    NodeInfo node{.name = std::move(name), .help = std::move(help), .hasResult = false, .run = run};
    node.inputs = {{.name = "volume", .help = "any volume"}};
    node.parameters = {jsonParameter()};
    return node;
}

}  // namespace

std::vector<NodeInfo> queryNodes()
{
    return {
        queryNode("get_voxel_size", "prints the world size of a voxel of the finest depth", runVoxelSize),
        queryNode("get_voxel_count", "prints the number of voxels of all depths, interior ones included", runVoxelCount),
        queryNode("volume_bounds", "prints the world box of what the volume shows", runBounds),
        queryNode("get_volume_tile_info", "prints structure, tiles and leaf voxels by depth, positions in tile space", runTileInfo),
    };
}

}  // namespace tilegrid::graph
