#include "benchmarks/support/loads.h"

#include "io/mesh.h"

#include <algorithm>
#include <random>

namespace bench {

template <class Tr> Corvid::MutablePtr<FloatChannel<Tr>> sphereChannel(Container<Tr> const& tree, SphereField sphere, int minDepth)
{
    using Tile = typename Container<Tr>::Tile;
    const float outside = kBand;
    auto channel = Corvid::makeMutable<FloatChannel<Tr>>("distance", &outside, kInitializeLinear, false, true, minDepth, Tr::maxDepth);
    channel->updateTilesAdded(tree);
    tree.traverse(
        detail::Nothing(), detail::Nothing(),
        [&](Tile const& tile) {
            const auto values = channel->tileData(tile.treeIndex());
            const float w = float(tile.voxelDataWidth());
            for (int k = 0; k < Tr::width; ++k)
                for (int j = 0; j < Tr::width; ++j)
                    for (int i = 0; i < Tr::width; ++i)
                        values(i, j, k) = sphere(tile.tijk().x + i * w, tile.tijk().y + j * w, tile.tijk().z + k * w);
        },
        detail::Nothing(), detail::Nothing(), kByLevel, TreeIndex(), minDepth, Tr::maxDepth);
    return channel;
}

std::vector<Load> loads(bool withBunny)
{
    std::vector<Load> all;
    for (int across : {512, 1024})
        all.push_back({"sphere" + std::to_string(across), std::make_shared<PeerGrid>(PeerGrid::sphere(float(across) / 2)), {}});
    if (withBunny) {
        const auto mesh = tilegrid::io::readMesh(TILEGRID_BENCH_DATA "/bunny.obj", 0, Corvid::RuntimeServices());
        all.push_back({"bunny", std::make_shared<PeerGrid>(PeerGrid::mesh(mesh.vertices, mesh.triangles, 0.0387f)), {}});
    }
    for (Load& load : all) load.band = load.peer->activeVoxels();
    return all;
}

template <class Tr> std::shared_ptr<Container<Tr>> treeOf(Load const& load)
{
    auto tree = std::make_shared<Container<Tr>>("tree");
    auto accessor = tree->tileAccessor();
    for (int3 const& p : load.band) accessor.addTile(p.x, p.y, p.z, Tr::maxDepth);
    tree->sortIntoMortonOrder();
    return tree;
}

std::vector<int3> shuffled(std::vector<int3> places, unsigned seed)
{
    std::shuffle(places.begin(), places.end(), std::mt19937(seed));
    return places;
}

std::vector<int3> randomInBox(std::vector<int3> const& band, std::size_t count, unsigned seed)
{
    Ostara::Math::bbox<int3, int> box;
    for (int3 const& p : band) box.add(p);
    std::mt19937 random(seed);
    std::vector<int3> places(count);
    for (int3& p : places)
        for (int axis = 0; axis < 3; ++axis) p[axis] = std::uniform_int_distribution<int>(box.min[axis], box.max[axis])(random);
    return places;
}

template Corvid::MutablePtr<FloatChannel<BinaryTraits>> sphereChannel(Container<BinaryTraits> const&, SphereField, int);
template Corvid::MutablePtr<FloatChannel<QuinaryTraits>> sphereChannel(Container<QuinaryTraits> const&, SphereField, int);
template std::shared_ptr<Container<BinaryTraits>> treeOf(Load const&);
template std::shared_ptr<Container<QuinaryTraits>> treeOf(Load const&);

}  // namespace bench
