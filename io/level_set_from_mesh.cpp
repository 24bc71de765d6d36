#include "io/level_set_from_mesh.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/distance_tiles.h"
#include "io/error.h"
#include "io/level_set_tiles.h"
#include "io/text.h"
#include "io/volume_builder.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

struct Box {
    double3 low{std::numeric_limits<double>::infinity()}, high{-std::numeric_limits<double>::infinity()};
    double longest() const { return std::max({high.x - low.x, high.y - low.y, high.z - low.z}); }
    double farthest() const
    {
        return std::max(
            {std::abs(low.x), std::abs(low.y), std::abs(low.z), std::abs(high.x), std::abs(high.y), std::abs(high.z)});
    }
};

/// The box of the mesh. \throws InputError for a mesh that the reader of files would not have made
Box checkedBox(TriangleMesh const& mesh)
{
    if (mesh.triangles.empty()) throw InputError("the mesh has no triangle");
    Box box;
    for (float3 const& v : mesh.vertices)
        for (int axis = 0; axis < 3; ++axis) {
            if (!std::isfinite(v[axis])) throw InputError("the mesh has a coordinate that is not finite");
            box.low[axis] = std::min(box.low[axis], double(v[axis]));
            box.high[axis] = std::max(box.high[axis], double(v[axis]));
        }
    const auto count = static_cast<OST::int64>(mesh.vertices.size());
    for (int3 const& t : mesh.triangles)
        for (int corner = 0; corner < 3; ++corner)
            if (t[corner] < 0 || t[corner] >= count)
                throw InputError("the mesh has a triangle with a vertex that is not there");
    return box;
}

void checkFiner(FinerBox const& finer, Box const& box, double band, int deepest)
{
    if (finer.levels < 1 || finer.levels > deepest - 2)
        throw InputError("the box is to be " + std::to_string(finer.levels) + " levels finer: give 1 to "
                         + std::to_string(deepest - 2));
    for (int axis = 0; axis < 3; ++axis) {
        const std::string sides = std::string("the box reaches from ") + number(finer.low[axis]) + " to "
            + number(finer.high[axis]) + " along " + "xyz"[axis];
        if (!(finer.low[axis] < finer.high[axis]) || !std::isfinite(finer.low[axis]) || !std::isfinite(finer.high[axis]))
            throw InputError(sides + ": give its low corner first, then its high one");
        if (finer.low[axis] > box.high[axis] + band || finer.high[axis] < box.low[axis] - band)
            throw InputError(sides + ", and the mesh from " + number(box.low[axis]) + " to " + number(box.high[axis])
                             + ": nothing of it would be finer");
    }
}

/// Area of the triangles that may have a part in the box.
double areaIn(FinerBox const& finer, TriangleMesh const& mesh)
{
    TriangleMesh part{mesh.vertices, {}};
    for (int3 const& t : mesh.triangles) {
        bool meets = true;
        for (int axis = 0; axis < 3; ++axis) {
            const auto [low, high] = std::minmax(
                {mesh.vertices[t[0]][axis], mesh.vertices[t[1]][axis], mesh.vertices[t[2]][axis]});
            meets = meets && low <= finer.high[axis] && high >= finer.low[axis];
        }
        if (meets) part.triangles.push_back(t);
    }
    return surfaceArea(part);
}

/// World size of the finest voxels.
template <class Tr> float finestVoxel(LevelSetOptions const& options)
{
    const int levels = options.finer ? options.finer->levels : 0;
    return static_cast<float>(options.voxelSize / std::pow(double(Tr::branching), levels));
}

[[noreturn]] void refuseSize(double bytes, LevelSetOptions const& options)
{
    throw InputError("the level set would take about " + byteText(bytes) + " at voxel size " + number(options.voxelSize)
                     + (options.finer ? " and " + std::to_string(options.finer->levels) + " levels finer in the box" : "")
                     + ", and the limit is " + byteText(double(options.maxBytes))
                     + ": use a larger voxel size or raise the limit");
}

template <class Tr> void checkOptions(TriangleMesh const& mesh, Box const& box, LevelSetOptions const& options)
{
    const double h = options.voxelSize, band = options.bandVoxels;
    const std::string size = number(options.voxelSize);
    if (!(h > 0.0) || !std::isfinite(h)) throw InputError("the voxel size is " + size + ": give a positive number");
    if (!(band >= 1.0) || !(band <= 1e6))
        throw InputError("the band is " + number(band) + " voxels wide on each side: give 1 to 1e6");
    if (h > box.longest())
        throw InputError("the voxel size " + size + " is larger than the mesh, whose longest side is "
                         + number(box.longest()) + ": nothing of it would be left");
    if (options.finer) checkFiner(*options.finer, box, band * h, Tr::maxDepth);
    const double finest = finestVoxel<Tr>(options), ratio = h / finest;
    // One tile beyond the band stays inside tile space, on the side where that is the narrower.
    const double limit = double(Tr::rangeMax) - (band + Tr::width) * ratio;
    if (!(finest > 0.0) || !(box.farthest() / finest <= limit))
        throw InputError("the mesh reaches " + number(box.farthest()) + " from the origin, "
                         + number(box.farthest() / finest) + " voxels of size " + number(finest)
                         + "; the tree reaches " + number(limit)
                         + ": use a larger voxel size, or move the mesh to the origin");
    double bytes = estimatedLevelSetBytes<Tr>(surfaceArea(mesh) / (h * h), box.longest() / h, band);
    if (options.finer) {
        double longest = 0.0;
        for (int axis = 0; axis < 3; ++axis)
            longest = std::max(longest, std::min(box.high[axis], options.finer->high[axis])
                                   - std::max(box.low[axis], options.finer->low[axis]));
        bytes += estimatedLevelSetBytes<Tr>(areaIn(*options.finer, mesh) / (finest * finest), longest / finest, band);
    }
    if (options.maxBytes > 0 && bytes > double(options.maxBytes)) refuseSize(bytes, options);
}

/// The surface in tile space, in double: float coordinates scaled without loss.
TriangleTree treeInTileSpace(TriangleMesh const& mesh, double voxelSize)
{
    std::vector<double3> vertices;
    vertices.reserve(mesh.vertices.size());
    for (float3 const& v : mesh.vertices) vertices.emplace_back(v.x / voxelSize, v.y / voxelSize, v.z / voxelSize);
    return TriangleTree(vertices, mesh.triangles);
}

/// The tiles of the band: all of one depth, and with a finer box those of the finest depth that meet it.
template <class Tr> std::vector<VoxelCoord> tilesOf(TriangleTree const& surface, LevelSetOptions const& options)
{
    std::vector<VoxelCoord> tiles;
    const double band = options.bandVoxels;
    const int levels = options.finer ? options.finer->levels : 0, depth = Tr::maxDepth - levels;
    for (int3 const& corner : tilesNearSurface<Tr>(surface, band * Tr::voxelDataWidth(depth), depth))
        tiles.emplace_back(corner, depth);
    if (!options.finer) return tiles;
    const double unit = 1.0 / finestVoxel<Tr>(options);
    const TileSpaceBox box{unit * options.finer->low, unit * options.finer->high};
    for (int3 const& corner : tilesNearSurface<Tr>(surface, band, Tr::maxDepth, &box))
        tiles.emplace_back(corner, Tr::maxDepth);
    return tiles;
}

/// Grades the tree, whose channels are not there yet.
template <class Tr> void grade(OST::Object& native, LevelSetOptions const& options)
{
    using Ostara::Geometry::sVoxelComp, Ostara::Geometry::sVoxelTileTree;
    auto tree = native.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = native.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    CoreGL::TileTree3D::gradeTileTree<Tr>(*tree, nullptr, nullptr, 0, Tr::maxDepth);
    tree->sortIntoMortonOrder();
    topology->update(*tree);
    // What grading adds, no estimate knows.
    std::size_t used = 0, reserved = 0;
    tree->memUse(used, reserved, /*withLookup*/ false);
    const double bytes = double(used) + double(sizeof(float)) * double(tree->voxelDataCount(-1));
    native.putComponent(std::move(tree));
    native.putComponent(std::move(topology));
    if (options.maxBytes > 0 && bytes > double(options.maxBytes)) refuseSize(bytes, options);
}

template <class Tr>
Corvid::Ptr<Ostara::Object> levelSet(TriangleMesh const& mesh, LevelSetOptions const& options,
                                     Corvid::RuntimeServices const& services)
{
    checkOptions<Tr>(mesh, checkedBox(mesh), options);
    const MeshTopology edges = meshTopology(mesh);
    if (!edges.closed())
        services.message(Severity::kWarning,
                         "the mesh is not closed (" + std::to_string(edges.openEdges) + " open and "
                             + std::to_string(edges.nonManifoldEdges)
                             + " non-manifold edges): inside is taken to be where the surface winds around a "
                               "place by more than one half");
    const double h = finestVoxel<Tr>(options);
    const TriangleTree surface = treeInTileSpace(mesh, h);
    auto native = makeVolume<Tr>(tilesOf<Tr>(surface, options), static_cast<float>(h), kCorner);
    if (options.finer) grade<Tr>(*native, options);
    const DistanceTiles distances(surface, edges.closed() && edges.flippedEdges == 0);
    const float band = static_cast<float>(double(options.bandVoxels) * options.voxelSize);
    addChannel<Tr>(*native, Ostara::Geometry::sVoxelSignedDistance, band,
                   [&](Container<Tr> const& tree, auto& channel) {
                       for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                           parallel::loop(0, tree.tileCount(depth), 8, [&](OST::int64 begin, OST::int64 end) {
                               for (OST::int64 n = begin; n < end; ++n)
                                   distances.fill(double3(tree.tile(n, depth).tijk()), Tr::voxelDataWidth(depth),
                                                  Tr::width, h, channel.tileData(n, depth).data());
                           });
                   });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace

Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services)
{
    return options.structure == Structure::kBinary ? levelSet<BinaryTraits>(mesh, options, services)
                                                   : levelSet<QuinaryTraits>(mesh, options, services);
}

}  // namespace tilegrid::io
