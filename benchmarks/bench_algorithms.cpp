#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include "TilegridOps/algorithms/analyze.h"
#include "TilegridOps/algorithms/extrapolate.h"
#include "TilegridOps/algorithms/resample.h"
#include "TilegridOps/algorithms/splat.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/channel_services.h"
#include "TilegridOps/substrate/grading.h"

#include <cstring>
#include <random>

/// Algorithms on level sets, per active voxel of the peer: differential operators, a turned copy, points splatted, and a field continued. All depths of our volumes
/// have values and take part. Both sides make a new grid.

namespace {

using namespace bench;
using namespace VolumeGL::TileTree3D::Analyze;

template <class Tr> Corvid::Ptr<Ostara::Object> volumeOf(Load const& load, bool table)
{
    using namespace Ostara::Geometry;
    auto native = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 1.0f, kCorner);
    auto tree = native->template extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = native->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    tree->refine(*treeOf<Tr>(load), nullptr, true);
    // As algorithms find their volumes: tiles that touch differ by one depth at the most.
    CoreGL::TileTree3D::gradeTileTree<Tr>(*tree, nullptr, nullptr, 0, Tr::maxDepth);
    tree->sortIntoMortonOrder();
    if (table) tree->precomputeTileNeighbors();
    topology->update(*tree);
    auto distance = sphereChannel(*tree, SphereField{100.0f}, 0);
    distance->setName(sVoxelSignedDistance);
    native->putComponent(std::move(distance));
    native->putComponent(std::move(topology));
    native->putComponent(std::move(tree));
    return move_ost_volume_to_object(*native);
}

std::uint64_t checksum(void const* value)
{
    std::uint32_t bits;
    std::memcpy(&bits, value, sizeof bits);
    return bits;
}

template <class Operator, class Tr, class Result> std::uint64_t analyzed(Ostara::Object const& volume)
{
    // A view shares what it reads; the result goes with it.
    Corvid::Ptr<OST::Object> shared = Ostara::Geometry::shallow_copy_object_to_ost_volume(volume);
    const auto view = Corvid::toMutable(shared);
    VolumeGL::TileTree3D::analyze<Operator>(Ostara::Geometry::sVoxelSignedDistance, "result", true, *view);
    const auto result = view->template component<Channel<Tr, Result, Tr::width, 0>>("result");
    return checksum(result->tileData(result->tileCount(Tr::maxDepth) / 2, Tr::maxDepth).data());
}

constexpr double kAngle = 0.5235987755982988;  // 30 degrees

template <class Tr> std::uint64_t rotated(Ostara::Object const& volume, InterpolationMode mode)
{
    Ostara::Math::float4x4 matrix;
    matrix(0, 0) = matrix(1, 1) = float(std::cos(kAngle));
    matrix(0, 1) = float(std::sin(kAngle));
    matrix(1, 0) = -matrix(0, 1);
    matrix(2, 2) = matrix(3, 3) = 1;
    Corvid::Ptr<Ostara::Object> target;
    VolumeGL::TileTree3D::resample<CoreGL::CorvidLogger>(Ostara::Geometry::sVoxelSignedDistance, matrix, 0.0f,
                                                         static_cast<Geometry::Volume::AutoSubdivisionStructure>(0), mode, volume, target,
                                                         CoreGL::CorvidLogger(Corvid::RuntimeServices()));
    const auto result = target->native()->template component<FloatChannel<Tr>>(Ostara::Geometry::sVoxelSignedDistance);
    return checksum(result->tileData(result->tileCount(Tr::maxDepth) / 2, Tr::maxDepth).data());
}

template <class Tr> void addAll(std::string const& width, Load const& load)
{
    const auto with = volumeOf<Tr>(load, true), without = volumeOf<Tr>(load, false);
    const std::int64_t voxels = std::int64_t(load.band.size());
    const auto peer = load.peer;
    for (int threads : {1, 2}) {
        const std::string at = width + "/" + load.name;
        add("gradient_" + at, "ours", threads, voxels, [with] { return analyzed<GradientOperator, Tr, float3>(*with); });
        add("gradient_no_table_" + at, "ours", threads, voxels, [without] { return analyzed<GradientOperator, Tr, float3>(*without); });
        add("gradient_" + at, "peer", threads, voxels, [peer] { return peer->gradient(); });
        add("laplacian_" + at, "ours", threads, voxels, [with] { return analyzed<LaplacianOperator, Tr, float>(*with); });
        add("laplacian_" + at, "peer", threads, voxels, [peer] { return peer->laplacian(); });
        add("curvature_" + at, "ours", threads, voxels, [with] { return analyzed<MeanCurvatureOperator, Tr, float>(*with); });
        add("curvature_" + at, "peer", threads, voxels, [peer] { return peer->meanCurvature(); });
        add("rotated_linear_" + at, "ours", threads, voxels, [with] { return rotated<Tr>(*with, kLinear); });
        add("rotated_linear_" + at, "peer", threads, voxels, [peer] { return peer->rotated(kAngle, false); });
        add("rotated_quadratic_" + at, "ours", threads, voxels, [with] { return rotated<Tr>(*with, kQuadraticC0Averaged); });
        add("rotated_quadratic_" + at, "peer", threads, voxels, [peer] { return peer->rotated(kAngle, true); });
    }
}

/// Points around the voxels of a band, one for each, and a value of each.
struct Cloud {
    std::shared_ptr<Ostara::Object> ours;
    std::shared_ptr<PeerPoints> peer;
    std::vector<float3> places;
    std::vector<float> values;
};
Cloud cloudOf(Load const& load)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<float> inVoxel(-0.49f, 0.49f);
    std::vector<float3> places;
    std::vector<float> values;
    for (int3 const& p : shuffled(load.band, 3)) {
        const float x = inVoxel(random), y = inVoxel(random), z = inVoxel(random);
        places.push_back(float3(p) + float3(x, y, z));
        values.push_back(x + 2);
    }
    auto ours = std::make_shared<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    ours->set(Ostara::Geometry::sPointPosition, Corvid::Array<float3>(places.begin(), places.end()));
    ours->set(Corvid::String("value"), Corvid::Array<float>(values.begin(), values.end()));
    return {ours, std::make_shared<PeerPoints>(places, values, 1.0f), places, values};
}

/// Sums with trilinear weights into a new volume.
template <class Tr> std::uint64_t splatted(Ostara::Object const& points)
{
    using namespace Ostara::Geometry;
    auto native = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 1.0f, kCorner);
    VolumeGL::TileTree3D::splatPoints<VolumeGL::TileTree3D::Splat::LinearKernel>(1.0f, 0, 0, 1, 1, /*normalize*/ false, "value", points, *native);
    const auto result = native->template component<FloatChannel<Tr>>("value");
    return checksum(result->tileData(result->tileCount(Tr::maxDepth) / 2, Tr::maxDepth).data());
}

void addSplats(Load const& load)
{
    const auto cloud = std::make_shared<Cloud>(cloudOf(load));
    const std::int64_t count = std::int64_t(cloud->places.size());
    // The peer splats points that it holds by voxel; from an array of points, as we have them, it makes that form first.
    const auto fromArray = [cloud] { return PeerPoints(cloud->places, cloud->values, 1.0f).rasterizeTrilinear(); };
    for (int threads : {1, 2}) {
        for (char const* kind : {"splat_", "splat_from_array_"}) {
            add(kind + ("w4/" + load.name), "ours", threads, count, [cloud] { return splatted<BinaryTraits>(*cloud->ours); });
            add(kind + ("w5/" + load.name), "ours", threads, count, [cloud] { return splatted<QuinaryTraits>(*cloud->ours); });
        }
        for (char const* width : {"w4/", "w5/"}) {
            add(std::string("splat_") + width + load.name, "peer", threads, count, [cloud] { return cloud->peer->rasterizeTrilinear(); });
            add(std::string("splat_from_array_") + width + load.name, "peer", threads, count, fromArray);
        }
    }
}

/// Distances known inside a sphere that most of the band lies outside of, continued through all of it. The copies that each
/// repetition works on are part of its time.
void addExtrapolation(Load const& load)
{
    using namespace VolumeGL::TileTree3D::LevelSet;
    struct Field {
        std::shared_ptr<Container<BinaryTraits>> tree;
        VoxelTopology<BinaryTraits> topology{"topology", kCorner};
        Corvid::MutablePtr<FloatChannel<BinaryTraits>> data;
        Corvid::MutablePtr<Channel<BinaryTraits, unsigned char, 4, 0>> marker;
    };
    const auto field = std::make_shared<Field>();
    field->tree = std::make_shared<Container<BinaryTraits>>(*treeOf<BinaryTraits>(load));
    CoreGL::TileTree3D::gradeTileTree<BinaryTraits>(*field->tree, nullptr, nullptr, 0, BinaryTraits::maxDepth);
    field->tree->sortIntoMortonOrder();
    field->topology.update(*field->tree);
    field->data = sphereChannel(*field->tree, SphereField{254.0f}, 0);
    const unsigned char unknown = 0;
    field->marker = Corvid::makeMutable<Channel<BinaryTraits, unsigned char, 4, 0>>("known", &unknown, kInitializeNone, false, true, 0,
                                                                                   BinaryTraits::maxDepth);
    field->marker->updateTilesAdded(*field->tree);
    for (std::int64_t n = 0; n < field->tree->tileCount(-1); ++n)
        for (int v = 0; v < BinaryTraits::voxelCount; ++v) field->marker->tileData(n)(v) = field->data->tileData(n)(v) < 0 ? 1 : 0;
    for (int threads : {1, 2})
        add("extrapolate_w4/" + load.name, "ours", threads, std::int64_t(load.band.size()), [field] {
            FloatChannel<BinaryTraits> data(*field->data);
            Channel<BinaryTraits, unsigned char, 4, 0> marker(*field->marker);
            extrapolateChannel<BinaryTraits, float>(ExtrapolationType::kSignedDistance, *field->tree, field->topology, marker, data, nullptr,
                                                    nullptr, 0, BinaryTraits::maxDepth, false);
            return checksum(data.tileData(data.tileCount(BinaryTraits::maxDepth) / 2, BinaryTraits::maxDepth).data());
        });
}

}  // namespace

int main(int argc, char** argv)
{
    // As the node does.
    ChannelPool::enable();
    for (Load const& load : loads(/*withBunny*/ true)) {
        if (load.name == "sphere1024") continue;
        addAll<BinaryTraits>("w4", load);
        addAll<QuinaryTraits>("w5", load);
        addSplats(load);
        addExtrapolation(load);
    }
    return runAll(argc, argv, "algorithms");
}
