#include "benchmarks/support/bench.h"
#include "benchmarks/support/merge_peer.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/nodes/merge.h"
#include "TilegridOps/substrate/channel_services.h"
#include "TilegridOps/substrate/commands.h"
#include "io/level_set_from_mesh.h"
#include "io/level_set_from_shape.h"

#include <array>

/// Two volumes joined into one, per active voxel of the peer's result: level sets on one lattice, level sets of which the second
/// has voxels 1.3 times as large, and a property of three numbers at those sizes.

namespace {

using namespace bench;
using namespace OST::TileTree3D;
using Geometry::Volume::LevelSetMode, Geometry::Volume::FogDensityMode;
using Volume = Corvid::Ptr<Ostara::Object>;
using Volumes = Corvid::Array<Volume>;
using tilegrid::io::TriangleMesh;

constexpr float kCoarser = 1.3f;
constexpr char kProperty[] = "place";

std::uint64_t merged(Volumes const& volumes, Geometry::Volume::AutoSubdivisionStructure structure)
{
    Volume output;
    Geometry::Volume::merge_volumes_internal(volumes, true, false, LevelSetMode::kUnion, FogDensityMode::kAdd, 0.5f,
                                             Geometry::Volume::Properties::Mode::kAutomatic, Geometry::Volume::InterpolationMode::kLinear,
                                             false, 1.0f, 0.01f, structure, output, Corvid::RuntimeServices());
    return output->native() ? 1 : 0;
}

/// A volume of the same tiles that holds, in place of the level set, the world place of each voxel.
template <class Tr> Volume withPlaces(Ostara::Object const& levelSet)
{
    using namespace Ostara::Geometry;
    auto const& native = *levelSet.native();
    const auto tree = native.component<Container<Tr>>(sVoxelTileTree);
    auto result = Corvid::makeMutable<OST::Object>();
    const float3 none(0.0f);
    auto channel = Corvid::makeMutable<Channel<Tr, float3, Tr::width, 0>>(kProperty, &none, kInitializeLinear, false, true, 0, Tr::maxDepth);
    channel->updateTilesAdded(*tree);
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        const auto values = channel->tileData(tile.treeIndex());
        for (int v = 0; v < Tr::voxelCount; ++v)
            values(v) = tree->voxelSize() * float3(tile.tijk() + tile.voxelDataWidth() * cubeIndex(Tr::width, v));
    }
    result->putComponent(Corvid::makeMutable<Container<Tr>>(*tree));
    result->putComponent(Corvid::makeMutable<VoxelTopology<Tr>>(*native.component<VoxelTopology<Tr>>(sVoxelComp)));
    result->putComponent(std::move(channel));
    return move_ost_volume_to_object(*result);
}

/// Level sets at the fine voxel size, one of them again coarser.
struct Inputs {
    Volume first, second, coarserSecond;
};
struct Load {
    std::string name;
    std::shared_ptr<PeerPair> oneLattice, twoSizes;
    std::function<Inputs(tilegrid::io::Structure)> make;
};

tilegrid::io::LevelSetOptions options(float voxelSize, tilegrid::io::Structure structure)
{
    tilegrid::io::LevelSetOptions result;
    result.voxelSize = voxelSize;
    result.structure = structure;
    return result;
}

Load bunnies()
{
    constexpr float kVoxel = 0.0387f;
    const auto mesh = tilegrid::io::readMesh(TILEGRID_BENCH_DATA "/bunny.obj", 0, Corvid::RuntimeServices());
    TriangleMesh shifted = mesh;
    for (auto& vertex : shifted.vertices) vertex.x += 1.7f;
    Load load{"bunny", std::make_shared<PeerPair>(PeerPair::meshes(mesh, kVoxel, shifted, kVoxel)),
              std::make_shared<PeerPair>(PeerPair::meshes(mesh, kVoxel, shifted, kCoarser * kVoxel)), {}};
    load.make = [mesh, shifted](tilegrid::io::Structure structure) {
        const auto make = [structure](TriangleMesh const& m, float voxel) {
            return tilegrid::io::levelSetFromMesh(m, options(voxel, structure), Corvid::RuntimeServices());
        };
        return Inputs{make(mesh, kVoxel), make(shifted, kVoxel), make(shifted, kCoarser * kVoxel)};
    };
    return load;
}

Load spheres()
{
    const float3 a(0.0f), b(150.0f, 40.0f, 10.0f);
    constexpr float kRadius = 256.0f;
    Load load{"sphere512", std::make_shared<PeerPair>(PeerPair::spheres(a, 1.0f, b, 1.0f, kRadius)),
              std::make_shared<PeerPair>(PeerPair::spheres(a, 1.0f, b, kCoarser, kRadius)), {}};
    load.make = [a, b](tilegrid::io::Structure structure) {
        const auto make = [structure](float3 const& centre, float voxel) {
            return tilegrid::io::levelSetFromShape(tilegrid::io::Sphere{Ostara::Math::double3(centre), double(kRadius)}, options(voxel, structure));
        };
        return Inputs{make(a, 1.0f), make(b, 1.0f), make(b, kCoarser)};
    };
    return load;
}

template <class Tr> void addStructure(Load const& load, std::string const& name, tilegrid::io::Structure structure)
{
    const Inputs inputs = load.make(structure);
    const Volumes same = {inputs.first, inputs.second}, sizes = {inputs.first, inputs.coarserSecond};
    const Volumes properties = {withPlaces<Tr>(*inputs.first), withPlaces<Tr>(*inputs.coarserSecond)};
    const auto forced = Tr::branching == 2 ? Geometry::Volume::AutoSubdivisionStructure::kBinary : Geometry::Volume::AutoSubdivisionStructure::kQuinary;
    const auto active = load.oneLattice->unionActive(), activeSizes = load.twoSizes->unionActive();
    for (int threads : {1, 2}) {
        const std::string at = name + "/" + load.name;
        add("merge_same_lattice/" + at, "ours", threads, active, [same, forced] { return merged(same, forced); });
        add("merge_same_lattice/" + at, "peer", threads, active, [peer = load.oneLattice] { return peer->unionCopy(); });
        add("merge_two_sizes/" + at, "ours", threads, activeSizes, [sizes, forced] { return merged(sizes, forced); });
        add("merge_two_sizes/" + at, "peer", threads, activeSizes, [peer = load.twoSizes] { return peer->unionResampled(); });
        add("merge_property_float3/" + at, "ours", threads, activeSizes, [properties, forced] { return merged(properties, forced); });
        add("merge_property_float3/" + at, "peer", threads, activeSizes, [peer = load.twoSizes] { return peer->sumResampled(); });
    }
}

}  // namespace

int main(int argc, char** argv)
{
    // The peer's allocator keeps what it frees for the next repetition; so does ours once it may.
    ChannelPool::enable();
    for (Load const& load : {bunnies(), spheres()}) {
        addStructure<BinaryTraits>(load, "binary", tilegrid::io::Structure::kBinary);
        addStructure<QuinaryTraits>(load, "quinary", tilegrid::io::Structure::kQuinary);
    }
    return runAll(argc, argv, "merge");
}
