#include <TilegridOps/TilegridOps.h>

#include <cmath>
#include <cstdio>

/// A box of ten tiles per axis, each of 4^3 voxels of value 1: the sum over all finest voxels is their number, and follows the
/// factor.
namespace {

using namespace OST::TileTree3D;
using Values = Channel<BinaryTraits, float, 4, 0>;

Corvid::Ptr<Ostara::Object> boxOfOnes(Corvid::RuntimeServices const& services)
{
    Corvid::Ptr<Ostara::Object> empty;
    Geometry::Volume::create_empty_volume(0.5f, Geometry::Volume::AutoSubdivisionStructure::kBinary, empty, services);
    auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(empty));
    auto tree = native->extractComponent<Container<BinaryTraits>>(Ostara::Geometry::sVoxelTileTree);
    auto topology = native->extractComponent<VoxelTopology<BinaryTraits>>(Ostara::Geometry::sVoxelComp);
    tree->tileAccessor().addTiles(int3(0, 0, 0), int3(39, 39, 39), BinaryTraits::maxDepth);
    topology->update(*tree);
    Command::createChannel<float, 2, 4, 4, 0>("ones", *topology, *native, 1.0f, kInitializeNone, 0, BinaryTraits::maxDepth);
    native->putComponent(std::move(topology));
    native->putComponent(std::move(tree));
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

long long sumOfFinest(Ostara::Object const& volume)
{
    const auto native = Ostara::Geometry::shallow_copy_object_to_ost_volume(volume);
    const auto tree = native->component<Container<BinaryTraits>>(Ostara::Geometry::sVoxelTileTree);
    const auto values = native->component<Values>("ones");
    double sum = 0;
    tree->reduceVoxels(
        ConstTileData<float, 4, 0>(), [&values](auto const& tile, auto& data) { data = values->tileData(tile.treeIndex()); },
        [](auto const&, int3 const& ijk, auto& data, double& mine) { mine += data(ijk); },
        [](double& left, double right) { left += right; }, sum, kByLevel, TreeIndex(), BinaryTraits::maxDepth, BinaryTraits::maxDepth);
    return std::llround(sum);
}

}  // namespace

int main()
{
    tilegrid::Job job;
    const Corvid::RuntimeServices services(&job);
    auto volume = boxOfOnes(services);
    const long long before = sumOfFinest(*volume);
    Geometry::Volume::scale_property(std::move(volume), "ones", 3.0f, volume, services);
    std::printf("%lld voxels, %lld after scaling by 3\n", before, sumOfFinest(*volume));
}
