#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/surface/surface.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"

#include <stdexcept>

/// The zero surface of a level set as a mesh. On a band of one depth against the peer's extraction, per active voxel of the peer;
/// on a tree whose depth differs from place to place per triangle, against the peer's on a grid of the finest voxels.

namespace {

using namespace bench;
using tilegrid::surface::Surface;

template <class Tr> struct Volume {
    std::shared_ptr<Container<Tr> const> tree;
    std::shared_ptr<VoxelTopology<Tr> const> topology;
    std::shared_ptr<FloatChannel<Tr> const> levelSet;

    Surface extract() const { return tilegrid::surface::extractSurface<Tr>(*tree, *topology, *levelSet); }
};

template <class Tr> Volume<Tr> volumeOf(std::shared_ptr<Container<Tr>> tree, SphereField sphere)
{
    auto topology = std::make_shared<VoxelTopology<Tr>>("voxels", kCorner);
    topology->update(*tree);
    auto channel = std::make_shared<FloatChannel<Tr>>(*sphereChannel(*tree, sphere, 0));
    return {tree, topology, channel};
}

template <class Tr> Volume<Tr> bunnyVolume()
{
    tilegrid::io::LevelSetOptions options;
    options.voxelSize = 0.0387f;
    options.structure = Tr::branching == 2 ? tilegrid::io::Structure::kBinary : tilegrid::io::Structure::kQuinary;
    const auto mesh = tilegrid::io::readMesh(TILEGRID_BENCH_DATA "/bunny.obj", 0, Corvid::RuntimeServices());
    const auto volume = tilegrid::io::levelSetFromMesh(mesh, options, Corvid::RuntimeServices());
    auto const& native = *volume->native();
    using namespace Ostara::Geometry;
    return {std::make_shared<Container<Tr>>(*native.component<Container<Tr>>(sVoxelTileTree)),
            std::make_shared<VoxelTopology<Tr>>(*native.component<VoxelTopology<Tr>>(sVoxelComp)),
            std::make_shared<FloatChannel<Tr>>(*native.component<FloatChannel<Tr>>(sVoxelSignedDistance))};
}

/// The band of a sphere in finest voxels for x and y above 0, one depth coarser for each of them that is not.
template <class Tr> std::shared_ptr<Container<Tr>> adaptiveTree(SphereField sphere)
{
    auto tree = std::make_shared<Container<Tr>>("tree");
    const auto wants = [sphere](auto const& tile, int3 const& cell) {
        const int3 corner = tile.childTIJK(cell);
        const int deepest = Tr::maxDepth - (corner.x < 0) - (corner.y < 0);
        const float half = 0.5f * float(tile.voxelWidth());
        if (tile.depth() >= deepest) return false;
        return std::fabs(sphere(corner.x + half, corner.y + half, corner.z + half)) <
               kBand * float(Tr::voxelDataWidth(deepest)) + 1.7321f * half;
    };
    tree->tileAccessor().addTile(0, 0, 0, 0);
    tree->template refine<decltype(wants), 0>(wants, TreeIndex(), 0, Tr::maxDepth, nullptr);
    return tree;
}

std::uint64_t checksum(Surface const& mesh)
{
    std::uint64_t sum = mesh.vertices.size();
    for (int3 const& t : mesh.triangles) sum = sum * 31 + std::uint64_t(t.x);
    return sum;
}

template <class Tr> void addUniform(std::string const& width, Load const& load, Volume<Tr> const& volume)
{
    const Surface mesh = volume.extract();
    if (mesh.vertices.size() + mesh.triangles.size() == 0) throw std::runtime_error("no surface");
    const std::string name = "extract_surface_" + width + "/" + load.name;
    figure(name + "/triangles", "ours", double(mesh.triangles.size()), "triangles");
    figure(name + "/triangles", "peer", double(load.peer->surfaceTriangles()), "triangles");
    for (int threads : {1, 2}) {
        add(name, "ours", threads, std::int64_t(load.band.size()), [volume] { return volume.extract().triangles.size(); });
        add(name, "peer", threads, std::int64_t(load.band.size()), [peer = load.peer] { return peer->surfaceTriangles(); });
    }
}

template <class Tr> void addAdaptive(std::string const& width, Load const& load)
{
    const SphereField sphere{float(std::stoi(load.name.substr(6))) / 2};
    const auto volume = volumeOf<Tr>(adaptiveTree<Tr>(sphere), sphere);
    const auto triangles = std::int64_t(volume.extract().triangles.size());
    const std::string name = "extract_surface_adaptive_" + width + "/" + load.name;
    for (int threads : {1, 2}) {
        add(name, "ours", threads, triangles, [volume] { return checksum(volume.extract()); });
        add(name, "peer", threads, load.peer->surfaceTriangles(), [peer = load.peer] { return peer->surfaceTriangles(); });
    }
}

template <class Tr> void addAll(std::string const& width, Load const& load)
{
    if (load.name == "bunny") return addUniform(width, load, bunnyVolume<Tr>());
    addUniform(width, load, volumeOf<Tr>(treeOf<Tr>(load), SphereField{float(std::stoi(load.name.substr(6))) / 2}));
    if (load.name == "sphere512") addAdaptive<Tr>(width, load);
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        addAll<BinaryTraits>("w4", load);
        addAll<QuinaryTraits>("w5", load);
    }
    return runAll(argc, argv, "surface");
}
