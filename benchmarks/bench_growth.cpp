#include "TilegridOps/substrate/channel_services.h"
#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include <algorithm>

/// Growing, ordering and allocating.

namespace {

using namespace bench;

/// Tiles and finest values of a sphere's band, built and thrown away; the peer builds its own from the same formula.
template <class Tr> std::uint64_t buildSphere(float radius)
{
    Container<Tr> tree("tree");
    growBand(tree, SphereField{radius});
    const auto values = sphereChannel(tree, SphereField{radius}, Tr::maxDepth);
    return std::uint64_t(values->elementCount(-1));
}

template <class Tr> void addGrowth(std::string const& structure, Load const& load, int across)
{
    for (int threads : {1, 2}) {
        const std::string name = "refine_band/" + structure + "/" + load.name;
        add(name, "ours", threads, load.peer->activeCount(), [across] { return buildSphere<Tr>(float(across) / 2); });
        add(name, "peer", threads, load.peer->activeCount(), [across] { return peerBuildSphere(float(across) / 2); });
    }
}

/// Morton code of a finest binary tile, for the reference sort.
std::uint64_t mortonCode(int3 const& corner)
{
    std::uint64_t code = 0;
    for (int bit = 20; bit >= 0; --bit)
        for (int axis = 2; axis >= 0; --axis)
            code = code << 1 | ((std::uint32_t(corner[axis]) - std::uint32_t(BinaryTraits::rangeMin)) >> (bit + 2) & 1);
    return code;
}

/// A tree whose tiles were added in random order is copied and sorted; the reference sorts as many 63-bit keys.
void addSort(Load const& load)
{
    const auto ordered = treeOf<BinaryTraits>(load);
    std::vector<int3> corners;
    for (OST::int64 n = 0; n < ordered->tileCount(BinaryTraits::maxDepth); ++n) corners.push_back(ordered->tile(n, BinaryTraits::maxDepth).tijk());
    corners = shuffled(std::move(corners), 3);
    const auto tree = std::make_shared<Container<BinaryTraits>>("tree");
    auto accessor = tree->tileAccessor();
    const auto keys = std::make_shared<std::vector<std::uint64_t>>();
    for (int3 const& p : corners) {
        accessor.addTile(p.x, p.y, p.z, BinaryTraits::maxDepth);
        keys->push_back(mortonCode(p));
    }
    for (int threads : {1, 2}) {
        add("merge_sort/binary/" + load.name, "ours", threads, std::int64_t(keys->size()), [tree] {
            Container<BinaryTraits> copy(*tree);
            copy.sortIntoMortonOrder();
            return std::uint64_t(copy.tile(0, BinaryTraits::maxDepth).tijk().x);
        });
        add("merge_sort/binary/" + load.name, "std::sort of keys", threads, std::int64_t(keys->size()), [keys] {
            auto sorted = *keys;
            std::sort(sorted.begin(), sorted.end());
            return sorted.front();
        });
    }
}

/// A temporary with every element set, made and released; the reference does the same with one vector.
template <class Tr> void addTemporary(std::string const& structure, Load const& load)
{
    const auto tree = treeOf<Tr>(load);
    for (int threads : {1, 2}) {
        const std::string name = "temporary_channel/" + structure + "/" + load.name;
        add(name, "ours", threads, tree->voxelDataCount(-1), [tree] {
            ChannelPool::enable();
            Corvid::Ptr<FloatChannel<Tr>> temporary;
            channelTemporary<Tr, float, Tr::width, 0>(temporary, *tree, 1.0f, /*usePool*/ true, /*callElementConstructor*/ true, 0, Tr::maxDepth);
            return std::uint64_t(temporary->tileData(0, Tr::maxDepth)(0));
        });
        add(name, "std::vector", threads, tree->voxelDataCount(-1), [tree] {
            const std::vector<float> values(std::size_t(tree->voxelDataCount(-1)), 1.0f);
            return std::uint64_t(values[values.size() / 2]);
        });
    }
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        if (load.name != "bunny") {
            const int across = load.name == "sphere512" ? 512 : 1024;
            addGrowth<BinaryTraits>("binary", load, across);
            addGrowth<QuinaryTraits>("quinary", load, across);
        }
        addSort(load);
        addTemporary<BinaryTraits>("binary", load);
        addTemporary<QuinaryTraits>("quinary", load);
    }
    return runAll(argc, argv, "growth");
}
