#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/halo.h"
#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

/// Tiles and what lies beside them: the table of neighbours against one look-up each, compressed halos against a copy of as many
/// bytes, grading, and what a sample costs where tiles meet coarser ones, against one elsewhere in the same tree.

namespace {

using namespace bench;
using OST::int64;
using tilegrid::parallel::forRanges;

void require(bool holds, char const* what)
{
    if (holds) return;
    std::fprintf(stderr, "%s\n", what);
    std::exit(1);
}

/// Calls `body(tile)` with all tiles of all depths, in parallel; `makeBody` is called once for each part.
template <class Tr, class MakeBody> void forAllTiles(Container<Tr> const& tree, MakeBody makeBody)
{
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        forRanges(0, tree.tileCount(depth), 64, [&](int64 begin, int64 end) {
            const auto body = makeBody();
            for (int64 n = begin; n < end; ++n) body(tree.tile(n, depth));
        });
}

/// What the table holds, found place by place: running numbers over all depths.
template <class Tr> struct LookedUpNeighbors {
    std::array<int64, Tr::levels + 1> first{};
    std::vector<std::int32_t> numbers;

    explicit LookedUpNeighbors(Container<Tr> const& tree) : numbers(std::size_t(27 * tree.tileCount(-1)))
    {
        for (int depth = 0; depth < Tr::levels; ++depth) first[depth + 1] = first[depth] + tree.tileCount(depth);
    }
    void run(Container<Tr> const& tree)
    {
        forAllTiles(tree, [&] {
            return [&, accessor = tree.tileAccessor()](typename Container<Tr>::Tile const& tile) {
                std::int32_t* out = numbers.data() + 27 * (first[tile.depth()] + tile.index());
                for (int d = 0; d < 27; ++d) {
                    const TreeIndex found = accessor.treeIndexNeighbor(tile, NeighborDirection(d));
                    out[d] = found.valid() ? std::int32_t(first[found.depth] + found.index) : -1;
                }
            };
        });
    }
    bool equals(Container<Tr> const& tree, TileNeighbors<Tr> const& table) const
    {
        bool same = true;
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int d = 0; d < 27; ++d) {
                    const TreeIndex found = table.find({n, depth}, NeighborDirection(d));
                    const int64 number = found.valid() ? first[found.depth] + found.index : -1;
                    same &= number == numbers[std::size_t(27 * (first[depth] + n) + d)];
                }
        return same;
    }
};

/// Per tile. Both sides keep their memory from run to run.
template <class Tr> void addNeighbors(std::string const& name, std::shared_ptr<Container<Tr>> tree)
{
    // A table is made again only for a tree that changed: two trees that differ by one corner take turns.
    const auto changed = std::make_shared<Container<Tr>>(*tree);
    changed->tileAccessor().addTile(Tr::rangeMin, Tr::rangeMin, Tr::rangeMin, Tr::maxDepth);
    const auto table = std::make_shared<TileNeighbors<Tr>>();
    const auto lookedUp = std::make_shared<LookedUpNeighbors<Tr>>(*tree);
    table->build(*tree);
    lookedUp->run(*tree);
    require(lookedUp->equals(*tree, *table), "neighbours_build: the table differs from look-ups");
    for (int threads : {1, 2}) {
        const int64 tiles = tree->tileCount(-1);
        add(name, "ours", threads, tiles, [tree, changed, table] {
            auto const& next = table->describes(tree->version()) ? *changed : *tree;
            table->build(next);
            return std::uint64_t(table->find({next.tileCount(Tr::maxDepth) / 2, Tr::maxDepth}, kNeighborSelf).index);
        });
        add(name, "look-ups", threads, tiles, [tree, lookedUp] {
            lookedUp->run(*tree);
            return std::uint64_t(lookedUp->numbers[lookedUp->numbers.size() / 2]);
        });
    }
}

template <class Tr> struct Volume {
    using Halo = Channel<Tr, float, Tr::width + 1, 0>;
    using Linear = VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0>;

    explicit Volume(std::shared_ptr<Container<Tr>> built)
        : tree(std::move(built)), topology("voxels", kCorner), channel(sphereChannel(*tree, SphereField{100.0f}, 0))
    {
        const float outside = kBand;
        halo = std::make_unique<Halo>("halo", &outside, kInitializeNone, false, true, 0, Tr::maxDepth);
        halo->updateTilesAdded(*tree);
        fillHalo();
    }
    void fillHalo() { computeHalo<Tr, float, 0, 0, 1, 0>(*channel, std::as_const(*tree), *halo, -1, -1); }
    Linear linear() const { return {*tree, topology, channel.get()}; }
    Linear compressed() const { return {*tree, topology, halo.get()}; }
    CubicSampler<Tr, float> cubic(JumpPolicy policy) const
    {
        return {*tree, topology, channel.get(), CubicMode::kCubicC1, /*clampOutput*/ true, policy, nullptr, 0, 0};
    }

    std::shared_ptr<Container<Tr>> tree;
    VoxelTopology<Tr> topology;
    Corvid::MutablePtr<FloatChannel<Tr>> channel;
    std::unique_ptr<Halo> halo;
};

/// Per element of the halo channel. The copy reads and writes as many bytes as that channel has.
template <class Tr> void addHalo(std::string const& name, std::shared_ptr<Volume<Tr>> volume)
{
    const auto elements = std::size_t(volume->halo->elementCount(-1));
    const auto flat = std::make_shared<std::pair<tilegrid::Slab<float>, tilegrid::Slab<float>>>();
    flat->first.resize(elements);
    flat->second.resize(elements);
    std::fill(flat->first.begin(), flat->first.end(), 1.5f);
    for (int threads : {1, 2}) {
        add(name, "ours", threads, int64(elements), [volume] {
            volume->fillHalo();
            return std::uint64_t(volume->halo->tileData(0, Tr::maxDepth)(0) != 0);
        });
        add(name, "copy", threads, int64(elements), [flat] {
            forRanges(0, int64(flat->first.size()), 1 << 14,
                      [&](int64 begin, int64 end) { std::copy(&flat->first[0] + begin, &flat->first[0] + end, &flat->second[0] + begin); });
            return std::uint64_t(flat->second[flat->second.size() / 2]);
        });
    }
}

/// A shell of tiles four levels above the finest, one in a hundred of which is refined at one place down to the finest.
template <class Tr> std::shared_ptr<Container<Tr>> shellWithSpots()
{
    constexpr int kCoarse = Tr::maxDepth - 4, kRadius = 40;
    const int width = Tr::tileVoxelWidth(kCoarse);
    auto tree = std::make_shared<Container<Tr>>("tree");
    auto accessor = tree->tileAccessor();
    std::vector<int3> shell;
    for (int z = -kRadius - 2; z <= kRadius + 2; ++z)
        for (int y = -kRadius - 2; y <= kRadius + 2; ++y)
            for (int x = -kRadius - 2; x <= kRadius + 2; ++x)
                if (std::fabs(SphereField{kRadius}(float(x), float(y), float(z))) < 1.5f) shell.push_back(width * int3(x, y, z));
    for (int3 const& p : shell) accessor.addTile(p.x, p.y, p.z, kCoarse);
    std::mt19937 random(5);
    std::uniform_int_distribution<int> within(0, width - 1);
    shell = shuffled(std::move(shell), 4);
    for (std::size_t n = 0; n < shell.size() / 100; ++n) {
        const int3 p = shell[n] + int3(within(random), within(random), within(random));
        accessor.addTile(p.x, p.y, p.z, Tr::maxDepth);
    }
    tree->sortIntoMortonOrder();
    return tree;
}

/// Per tile that grading adds. Each run grades a new copy of the tree; what the copy takes is shown beside it.
template <class Tr> void addGrading(std::string const& structure)
{
    const auto tree = shellWithSpots<Tr>();
    Container<Tr> graded(*tree);
    CoreGL::TileTree3D::gradeTileTree<Tr>(graded, nullptr, nullptr, 0, Tr::maxDepth);
    require(CoreGL::TileTree3D::isGraded<Tr>(graded, 0, Tr::maxDepth), "grade_band: the tree is not graded");
    const int64 added = graded.tileCount(-1) - tree->tileCount(-1);
    for (int threads : {1, 2}) {
        add("grade_band/" + structure, "ours", threads, added, [tree] {
            Container<Tr> copy(*tree);
            CoreGL::TileTree3D::gradeTileTree<Tr>(copy, nullptr, nullptr, 0, Tr::maxDepth);
            return std::uint64_t(copy.tileCount(-1));
        });
        add("grade_band/" + structure, "copy of the tree", threads, added, [tree] { return std::uint64_t(Container<Tr>(*tree).tileCount(-1)); });
    }
}

using Positions = std::vector<float3>;

/// Places in finest tiles all over the tree, eight to a tile: those whose cell has all its corners in finest tiles, and those
/// at jumps.
template <class Tr> std::pair<Positions, Positions> uniformAndAtJumps(Container<Tr> const& tree)
{
    constexpr int64 kTiles = 30'000;
    const int64 step = std::max<int64>(1, tree.tileCount(Tr::maxDepth) / kTiles);
    const auto accessor = tree.tileAccessor();
    std::mt19937 random(11);
    std::uniform_real_distribution<float> within(0.0f, float(Tr::width) - 0.01f);
    std::pair<Positions, Positions> found;
    for (int64 n = 0; n < tree.tileCount(Tr::maxDepth); n += step)
        for (int sample = 0; sample < 8; ++sample) {
            const int3 corner = tree.tile(n, Tr::maxDepth).tijk();
            const float3 p = float3(corner) + float3(within(random), within(random), within(random));
            const int3 low(int(std::floor(p.x)), int(std::floor(p.y)), int(std::floor(p.z)));
            bool uniform = true;
            for (int c = 0; c < 8; ++c)
                uniform &= accessor.find(low.x + (c & 1), low.y + (c >> 1 & 1), low.z + (c >> 2), Tr::maxDepth).depth == Tr::maxDepth;
            (uniform ? found.first : found.second).push_back(p);
        }
    return found;
}

/// Sum of `sample(sampler, position)`, with a sampler for each part.
template <class Sampler, class Sample> std::uint64_t sampleAll(Sampler const& prototype, Positions const& positions, Sample sample)
{
    constexpr int64 kPart = 4096;
    const auto count = int64(positions.size());
    std::vector<double> sums(std::size_t((count + kPart - 1) / kPart));
    forRanges(0, int64(sums.size()), 1, [&](int64 begin, int64 end) {
        const Sampler sampler(prototype);
        for (int64 part = begin; part < end; ++part)
            for (int64 n = part * kPart; n < std::min(count, (part + 1) * kPart); ++n)
                sums[std::size_t(part)] += sample(sampler, positions[std::size_t(n)]);
    });
    double total = 0;
    for (double sum : sums) total += sum;
    return std::uint64_t(std::fabs(total));
}

Positions everyTenth(Positions const& positions)
{
    Positions kept;
    for (std::size_t n = 0; n < positions.size(); n += 10) kept.push_back(positions[n]);
    return kept;
}

/// Per sample: "ours" next to coarser tiles, "uniform" elsewhere in the finest tiles of the same tree; tile after tile, and
/// without order.
template <class Tr> void addJumps(std::string const& at, std::shared_ptr<Volume<Tr>> volume)
{
    const auto [uniform, near] = uniformAndAtJumps(*volume->tree);
    const auto addSides = [volume](std::string const& name, Positions atJumps, Positions elsewhere, auto run) {
        for (auto const& [side, places] : {std::pair("ours", atJumps), std::pair("uniform", elsewhere)})
            for (int threads : {1, 2})
                add(name, side, threads, int64(places.size()), [volume, places = places, run] { return run(*volume, places); });
    };
    const auto addOrders = [&](std::string const& name, Positions const& atJumps, Positions const& elsewhere, auto run) {
        const auto mixed = [](Positions positions) {
            std::shuffle(positions.begin(), positions.end(), std::mt19937(13));
            return positions;
        };
        addSides(name + "_coherent" + at, atJumps, elsewhere, run);
        addSides(name + "_random" + at, mixed(atJumps), mixed(elsewhere), run);
    };
    const auto linear = [](auto const& sampler, float3 const& p) { return double(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace)); };
    const auto gradient = [](auto const& sampler, float3 const& p) {
        float3 g;
        const double value = sampler.sampleLinearWithGradient(p, Tr::maxDepth, kTileSpace, g);
        return value + g.x + g.y + g.z;
    };
    const auto cubic = [](auto const& sampler, float3 const& p) { return double(sampler.sampleCubic(p, Tr::maxDepth, kTileSpace)); };
    const auto trilinearCubic = [cubic](Volume<Tr> const& v, Positions const& p) { return sampleAll(v.cubic(JumpPolicy::kTrilinearAtJump), p, cubic); };
    const auto hierarchicalCubic = [cubic](Volume<Tr> const& v, Positions const& p) { return sampleAll(v.cubic(JumpPolicy::kHierarchical), p, cubic); };
    addOrders("jump_linear", near, uniform, [linear](Volume<Tr> const& v, Positions const& p) { return sampleAll(v.linear(), p, linear); });
    addOrders("jump_linear_halo", near, uniform, [linear](Volume<Tr> const& v, Positions const& p) { return sampleAll(v.compressed(), p, linear); });
    addOrders("jump_gradient", near, uniform, [gradient](Volume<Tr> const& v, Positions const& p) { return sampleAll(v.linear(), p, gradient); });
    addOrders("jump_cubic_trilinear", near, uniform, trilinearCubic);
    // Some microseconds each.
    addOrders("jump_cubic_hierarchical", everyTenth(near), everyTenth(uniform), hierarchicalCubic);
}

template <class Tr> void addAll(std::string const& structure, Load const& load)
{
    const std::string at = "/" + structure + "/" + load.name;
    const auto tree = treeOf<Tr>(load);
    addNeighbors<Tr>("neighbours_build" + at, tree);
    addHalo<Tr>("compute_halo" + at, std::make_shared<Volume<Tr>>(tree));
    const auto graded = std::make_shared<Container<Tr>>(*tree);
    CoreGL::TileTree3D::gradeTileTree<Tr>(*graded, nullptr, nullptr, 0, Tr::maxDepth);
    const auto volume = std::make_shared<Volume<Tr>>(graded);
    addNeighbors<Tr>("neighbours_build_graded" + at, graded);
    addHalo<Tr>("compute_halo_graded" + at, volume);
    addJumps<Tr>(at, volume);
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        if (load.name == "sphere1024") continue;
        addAll<BinaryTraits>("binary", load);
        addAll<QuinaryTraits>("quinary", load);
    }
    addGrading<BinaryTraits>("binary");
    addGrading<QuinaryTraits>("quinary");
    return runAll(argc, argv, "reading");
}
