#include "TilegridOps/substrate/halo.h"
#include "support/halo_world.h"
#include "support/jobs.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr> class CompressedHalo : public ::testing::Test {};
TYPED_TEST_SUITE(CompressedHalo, Structures, StructureNames);

template <class Tr, class T> using Compressed = Channel<Tr, T, Tr::width + 1, 0>;

template <class Tr, class T>
Compressed<Tr, T> compressedOf(World<Tr, T> const& world, int minDepth = -1, int maxDepth = -1)
{
    const T old = elementOf<T>(kUntouched);
    Compressed<Tr, T> out("out", &old, kInitializeNone, false, true, 0, Tr::maxDepth);
    out.updateTilesAdded(world.tree);
    computeHalo<Tr, T, 0, 0, 1, 0>(*world.channel, world.tree, out, minDepth, maxDepth);
    return out;
}

/// The first tiles whose compressed halo differs in any bit from a gather of mode `mode`.
template <class Tr, class T>
std::string differences(World<Tr, T> const& world, Compressed<Tr, T> const& compressed, HaloMode mode)
{
    constexpr int n = (Tr::width + 1) * (Tr::width + 1) * (Tr::width + 1);
    TileData<T, Tr::width + 1, 0> gathered(n);
    std::ostringstream out;
    auto accessor = world.tree.tileAccessor();
    for (int64 t = 0; t < world.tree.tileCount(-1) && out.tellp() < 300; ++t) {
        auto const& tile = world.tree.tile(t);
        const auto values = compressed.tileData(tile.treeIndex());
        gathered.set(elementOf<T>(kUntouched));
        if (tile.depth() >= world.minDepth && tile.depth() <= world.maxDepth)
            setHaloTile<Tr, T, 0, 0, 1, 0>(tile.treeIndex(), *world.channel, mode, kHaloAll, accessor, gathered, kFill,
                                           1.0f, kCorner);
        if (std::memcmp(values.data(), gathered.data(), n * sizeof(T)) != 0) out << keyOf(tile) << " differs\n";
    }
    return out.str();
}

TYPED_TEST(CompressedHalo, is_what_the_linear_gather_finds_on_graded_trees)
{
    for (std::uint64_t seed : {16, 17}) {
        const auto set = randomSet<TypeParam>(seed, 40, true);
        const World<TypeParam, float> floats(set, noise);
        EXPECT_EQ(differences(floats, compressedOf(floats), kHaloLinear), "");
        EXPECT_EQ(differences(floats, compressedOf(floats), kHaloFromParent), "");
        const World<TypeParam, Ostara::Math::double3> doubles(set, noise);
        EXPECT_EQ(differences(doubles, compressedOf(doubles), kHaloLinear), "");
        const World<TypeParam, short> shorts(
            set, [](TileKey const& key, int i, int j, int k) { return 1000 * noise(key, i, j, k); });
        EXPECT_EQ(differences(shorts, compressedOf(shorts), kHaloInject), "");
    }
}

TYPED_TEST(CompressedHalo, goes_depth_by_depth_on_other_trees)
{
    const auto set = randomSet<TypeParam>(18, 60, false);
    for (int last : {TypeParam::maxDepth, TypeParam::maxDepth - 2}) {
        const World<TypeParam, float> world(set, noise, 0, last);
        EXPECT_EQ(differences(world, compressedOf(world), kHaloFromParent), "") << "to depth " << last;
    }
}

/// Compressed halos worked out in double, each from that of the parent.
template <class Tr> class CompressedOracle {
public:
    using Set = TileSet<Tr>;
    using Site = typename SiteOracle<Tr>::Site;
    CompressedOracle(SiteOracle<Tr> const& voxels, Set const& set) : voxels_(voxels), set_(set) {}
    Site at(TileKey const& tile, Place const& position)
    {
        const auto known = memory_.find({tile, position});
        if (known != memory_.end()) return known->second;
        return memory_[{tile, position}] = find(tile, position);
    }

private:
    Site find(TileKey const& tile, Place const& position)
    {
        Place cell = tile.low;
        for (int a = 0; a < 3; ++a) cell[a] += position[a] * Set::voxelWidth(tile.depth);
        const auto there = set_.find(cell, tile.depth);
        if (there && there->depth == tile.depth) return {voxels_.voxelAt(*there, cell), 0};
        if (tile.depth <= voxels_.minDepth) return {voxels_.outside, 0};
        const TileKey parent = Set::parentOf(tile);
        const std::int64_t width = Set::voxelWidth(parent.depth);
        Site sum{0, 0};
        for (int corner = 0; corner < 8; ++corner) {
            Place base;
            double weight = 1;
            for (int a = 0; a < 3; ++a) {
                const double f = static_cast<double>((cell[a] - parent.low[a]) % width) / static_cast<double>(width);
                weight *= corner >> a & 1 ? f : 1 - f;
                base[a] = (cell[a] - parent.low[a]) / width + (corner >> a & 1);
            }
            if (weight == 0) continue;
            const Site part = at(parent, base);
            sum.value += weight * part.value;
            sum.levels = std::max(sum.levels, part.levels);
        }
        return {sum.value, sum.levels + 1};
    }
    SiteOracle<Tr> const& voxels_;
    Set const& set_;
    std::map<std::pair<TileKey, Place>, Site> memory_;
};

TYPED_TEST(CompressedHalo, agrees_with_the_oracle_in_any_range_of_depths)
{
    constexpr int D = TypeParam::maxDepth, W = TypeParam::width;
    for (bool graded : {false, true})
        for (auto [low, high] : {std::pair{0, D}, {D - 2, D}, {1, D - 1}, {D - 5, D - 3}}) {
            const World<TypeParam, float> world(randomSet<TypeParam>(23, 30, graded), noise, low, high);
            const auto out = compressedOf(world);
            const auto voxels = world.oracle(noise, 7, true);
            CompressedOracle<TypeParam> oracle(voxels, world.set);
            for (TreeIndex const& tile : someTiles(world.tree, 100)) {
                if (tile.depth < low || tile.depth > high) continue;
                const auto values = out.tileData(tile);
                for (int k = 0; k <= W; ++k)
                    for (int j = 0; j <= W; ++j)
                        for (int i = 0; i <= W; ++i) {
                            const auto site = oracle.at(keyOf(world.tree.tile(tile)), {i, j, k});
                            ASSERT_NEAR(values(i, j, k), site.value, site.levels * kMixError)
                                << "(" << i << ", " << j << ", " << k << ") of " << keyOf(world.tree.tile(tile));
                        }
            }
        }
}

TYPED_TEST(CompressedHalo, is_the_same_with_tables_and_for_any_number_of_threads)
{
    World<TypeParam, float> world(randomSet<TypeParam>(19, 60, true), noise);
    const auto searched = bytesOf(compressedOf(world));
    for (int threads : kThreadCounts) {
        std::vector<std::byte> bytes;
        pollsOf(threads, [&] {
            world.tree.precomputeCompressedTileHalos();
            world.tree.precomputeTileNeighbors();
            bytes = bytesOf(compressedOf(world));
        });
        EXPECT_TRUE(bytes == searched) << threads << " threads";
    }
}

TYPED_TEST(CompressedHalo, uses_no_parent_at_the_lowest_depth_of_the_pass)
{
    constexpr int D = TypeParam::maxDepth, W = TypeParam::width;
    const World<TypeParam, float> world(randomSet<TypeParam>(20, 40, true), noise);
    const auto out = compressedOf(world, D - 1, D);
    int fromDefault = 0;
    for (int64 t = 0; t < world.tree.tileCount(-1); ++t) {
        auto const& tile = world.tree.tile(t);
        const auto values = out.tileData(tile.treeIndex());
        if (tile.depth() < D - 1) {
            for (float v : values) ASSERT_EQ(v, kUntouched);
        }
        if (tile.depth() != D - 1) continue;
        auto const& neighbor = world.tree.tileAccessor().tileNeighbor(tile, neighborDirection(1, 0, 0));
        if (neighbor.depth() == D - 1) continue;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j) ASSERT_EQ(values(W, j, k), kFill);
        ++fromDefault;
    }
    EXPECT_GT(fromDefault, 0);
}

TYPED_TEST(CompressedHalo, of_an_empty_tree_and_of_a_root_alone)
{
    const World<TypeParam, float> empty(TileSet<TypeParam>(), noise);
    EXPECT_EQ(compressedOf(empty).tileCount(-1), 0);
    TileSet<TypeParam> set;
    set.add({0, 0, 0}, 0);
    const World<TypeParam, float> root(set, noise);
    EXPECT_EQ(differences(root, compressedOf(root), kHaloLinear), "");
}

TYPED_TEST(CompressedHalo, of_a_single_tile_from_its_parents_compressed_halo)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(21, 40, true), noise);
    auto compressed = compressedOf(world);
    constexpr int n = (TypeParam::width + 1) * (TypeParam::width + 1) * (TypeParam::width + 1);
    TileData<float, TypeParam::width + 1, 0> out(n);
    auto accessor = world.tree.tileAccessor();
    for (TreeIndex const& index : someTiles(world.tree, 60)) {
        auto const& tile = world.tree.tile(index);
        auto const* parent = tile.depth() > 0 ? &world.tree.tile(tile.parentTreeIndex()) : nullptr;
        const auto parentHalo =
            parent ? compressed.tileData(parent->treeIndex()) : TileData<float, TypeParam::width + 1, 0>();
        setHaloTile<TypeParam, float, 0, 0, 1, 0>(tile, parent, *world.channel, parentHalo, kHaloFromParent, accessor,
                                                  out);
        const auto expected = compressed.tileData(index);
        for (int e = 0; e < n; ++e) ASSERT_EQ(out(e), expected(e)) << keyOf(tile) << ", element " << e;
        // The other modes need no parent.
        setHaloTile<TypeParam, float, 0, 0, 1, 0>(tile, nullptr, *world.channel, {}, kHaloLinear, accessor, out);
        for (int e = 0; e < n; ++e) ASSERT_EQ(out(e), expected(e)) << keyOf(tile) << ", element " << e << ", mode 4";
    }
}

TYPED_TEST(CompressedHalo, can_be_cancelled)
{
    World<TypeParam, float> world(randomSet<TypeParam>(22, 10, true), noise);
    cancelAtEveryPoll([] {}, [&] { compressedOf(world); }, [] {});
}

}  // namespace
}  // namespace tilegrid::test
