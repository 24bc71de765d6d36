#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include <cstring>

/// Passes over all values of a channel, b = a * 0.99 + 0.01, against what memory can do ("limit": the same arithmetic over two
/// flat arrays far larger than the caches) and against the peer's pass over its leaves (per stored value of its own).

namespace {

using namespace bench;

template <class Tr> struct Channels {
    std::shared_ptr<Container<Tr>> tree;
    Corvid::MutablePtr<FloatChannel<Tr>> a, b;
};

template <class Tr> std::shared_ptr<Channels<Tr>> makeChannels(Load const& load)
{
    auto made = std::make_shared<Channels<Tr>>();
    made->tree = treeOf<Tr>(load);
    made->a = sphereChannel(*made->tree, SphereField{100.0f}, 0);
    made->b = Corvid::makeMutable<FloatChannel<Tr>>(*made->a);
    return made;
}

template <class Tr> std::uint64_t checksum(FloatChannel<Tr> const& channel)
{
    std::uint32_t bits;
    const float value = channel.tileData(0, Tr::maxDepth)(0);
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

template <class Tr> std::uint64_t tilePass(Channels<Tr>& c)
{
    using Tile = typename Container<Tr>::Tile;
    c.tree->traverse(
        detail::Nothing(), detail::Nothing(),
        [a = c.a.get(), b = c.b.get()](Tile const& tile) {
            float const* from = a->tileData(tile.treeIndex()).data();
            float* to = b->tileData(tile.treeIndex()).data();
            for (int v = 0; v < Tr::voxelCount; ++v) to[v] = from[v] * 0.99f + 0.01f;
        },
        detail::Nothing(), detail::Nothing());
    return checksum<Tr>(*c.b);
}

template <class Tr> std::uint64_t voxelPass(Channels<Tr>& c)
{
    using Tile = typename Container<Tr>::Tile;
    struct Data {
        ConstTileData<float, Tr::width, 0> from;
        TileData<float, Tr::width, 0> to;
    };
    c.tree->traverseVoxels(
        Data(),
        [a = c.a.get(), b = c.b.get()](Tile const& tile, Data& data) {
            data.from = std::as_const(*a).tileData(tile.treeIndex());
            data.to = b->tileData(tile.treeIndex());
        },
        [](Tile const&, int3 const& ijk, Data& data) { data.to(ijk) = data.from(ijk) * 0.99f + 0.01f; });
    return checksum<Tr>(*c.b);
}

struct Flat {
    tilegrid::Slab<float> a, b;
};

std::uint64_t flatPass(Flat& flat)
{
    float const* from = flat.a.data();
    float* to = flat.b.data();
    tilegrid::parallel::forRanges(0, std::int64_t(flat.a.size()), 1 << 14, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t n = begin; n < end; ++n) to[n] = from[n] * 0.99f + 0.01f;
    });
    std::uint32_t bits;
    std::memcpy(&bits, to, sizeof bits);
    return bits;
}

constexpr std::size_t kFlatValues = std::size_t(1) << 26;

template <class Tr> void addAll(std::string const& structure, Load const& load, std::shared_ptr<Flat> flat)
{
    const auto channels = makeChannels<Tr>(load);
    const std::int64_t values = channels->a->elementCount(-1);
    for (int threads : {1, 2}) {
        const std::string at = "/" + structure + "/" + load.name;
        add("tile_pass_float" + at, "ours", threads, values, [channels] { return tilePass(*channels); });
        add("tile_pass_float" + at, "limit", threads, kFlatValues, [flat] { return flatPass(*flat); });
        add("tile_pass_float" + at, "peer", threads, load.peer->leafValues(), [peer = load.peer] { return peer->leafPass(); });
        add("voxel_pass_lambda" + at, "ours", threads, values, [channels] { return voxelPass(*channels); });
        add("voxel_pass_lambda" + at, "limit", threads, kFlatValues, [flat] { return flatPass(*flat); });
    }
}

}  // namespace

int main(int argc, char** argv)
{
    const auto flat = std::make_shared<Flat>();
    flat->a.resize(kFlatValues);
    flat->b.resize(kFlatValues);
    std::fill(flat->a.begin(), flat->a.end(), 1.5f);
    for (Load const& load : loads(/*withBunny*/ true)) {
        addAll<BinaryTraits>("binary", load, flat);
        addAll<QuinaryTraits>("quinary", load, flat);
    }
    return runAll(argc, argv, "passes");
}
