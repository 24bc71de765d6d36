#include "TilegridOps/substrate/channel_services.h"
#include "support/address_channels.h"
#include "support/jobs.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using OST::TileTree3D::detail::Nothing;

/// Runs `work` on 1, 2 and 8 threads, several times each: every result must be the first one's.
template <class Work> void expectSameResult(Work const& work)
{
    using Result = decltype(work());
    std::optional<Result> first;
    for (int threads : kThreadCounts)
        for (int repeat = 0; repeat < 3; ++repeat)
            parallel::runJob(nullptr, threads, [&] {
                Result result = work();
                if (first) {
                    EXPECT_TRUE(result == *first) << threads << " threads, run " << repeat;
                } else {
                    first = std::move(result);
                }
            });
}

template <class Tr> class Schedule : public ::testing::Test {
protected:
    Schedule() { growAll(tree_, SphereBand<Tr>(Tr::maxDepth)); }
    Tree<Tr> tree_{"tree"};
};
TYPED_TEST_SUITE(Schedule, Structures, StructureNames);

TYPED_TEST(Schedule, does_not_change_the_tiles_of_a_growth_nor_their_order)
{
    expectSameResult([] {
        Tree<TypeParam> tree("tree");
        TileList<TypeParam> added;
        growAll(tree, SphereBand<TypeParam>(TypeParam::maxDepth - 1, 5), &added);
        growAll(tree, SphereBand<TypeParam>(TypeParam::maxDepth, 7), &added);
        std::vector<std::vector<Place>> listed;
        for (auto const& level : added) {
            listed.emplace_back();
            for (int3 const& corner : level) listed.back().push_back(toPlace(corner));
        }
        EXPECT_GT(tree.tileCount(TypeParam::maxDepth), 500);
        return std::make_pair(orderOf(tree), listed);
    });
}

TYPED_TEST(Schedule, does_not_change_a_growth_over_a_range)
{
    expectSameResult([] {
        Tree<TypeParam> tree("tree");
        const auto add = [](int64 begin, int64 end, Tree<TypeParam>& collected) {
            auto accessor = collected.tileAccessor();
            for (int64 n = begin; n < end; ++n) {
                const auto h = Random::mixed(static_cast<std::uint64_t>(n));
                accessor.addTile(int(h % 900), int((h >> 20) % 900), int((h >> 40) % 900), TypeParam::maxDepth);
            }
        };
        tree.template refine<decltype(add), int64>(add, 0, 3000, 17, nullptr);
        return orderOf(tree);
    });
}

TYPED_TEST(Schedule, does_not_change_a_float_sum_of_a_reduction)
{
    expectSameResult([this] {
        float sum = 0.1f;  // any start would do; the join adds it once per part
        this->tree_.reduce(
            Nothing(), Nothing(),
            [](auto const& tile, float& s) { s += 1.0f / static_cast<float>(tile.index() + 3 + tile.depth()); },
            Nothing(), Nothing(), [](float& left, float right) { left += right; }, sum);
        return sum;
    });
}

TYPED_TEST(Schedule, does_not_change_the_places_of_channel_extremes_with_ties)
{
    OST::Object object;
    VoxelTopology<TypeParam> topology("voxels", kCorner);
    topology.update(this->tree_);
    Channel<TypeParam, short, TypeParam::width, 0> channel("c", nullptr, kInitializeNone, false, true, 0,
                                                           TypeParam::maxDepth);
    channel.updateTilesAdded(topology);
    for (int64 n = 0; n < channel.tileCount(-1); ++n)
        for (int e = 0; e < TypeParam::voxelCount; ++e)
            channel.tileData(n)(e) =
                static_cast<short>(Random::mixed(static_cast<std::uint64_t>(n * 131 + e)) % 100 - 50);
    expectSameResult([&] {
        short min = 0, max = 0;
        VoxelCoord minAt, maxAt;
        CoreGL::channelMinMax(this->tree_, channel, 0, TypeParam::maxDepth, min, max, &minAt, &maxAt);
        EXPECT_EQ(min, -50);
        EXPECT_EQ(max, 49);
        return std::make_pair(minAt, maxAt);
    });
}

TYPED_TEST(Schedule, does_not_change_the_bytes_of_a_pass)
{
    expectSameResult([this] {
        Channel<TypeParam, float, TypeParam::width, 0> channel("c", nullptr, kInitializeNone, false, true, 0,
                                                               TypeParam::maxDepth);
        channel.updateTilesAdded(this->tree_);
        struct Data {
            TileData<float, TypeParam::width, 0> values;
        };
        this->tree_.traverseVoxels(
            Data(), [&channel](auto const& tile, Data& data) { data.values = channel.tileData(tile.treeIndex()); },
            [](auto const& tile, int3 const& ijk, Data& data) {
                data.values(ijk) =
                    static_cast<float>(tile.tijk().x + ijk.x) / static_cast<float>(3 + ijk.y + tile.depth());
            });
        std::vector<float> bytes;
        for (int64 n = 0; n < channel.tileCount(-1); ++n) {
            const auto tile = channel.tileData(n);
            bytes.insert(bytes.end(), tile.begin(), tile.end());
        }
        return bytes;
    });
}

TYPED_TEST(Schedule, does_not_change_sorting_and_the_channels_that_follow_it)
{
    Tree<TypeParam> shuffled("shuffled");
    Random random(12);
    TileSet<TypeParam> set;
    addRandomTiles(random, shuffled, set, 600);
    expectSameResult([&] {
        Tree<TypeParam> tree(shuffled);
        AddressChannels<TypeParam> channels(tree);
        TilePermutation permutation;
        tree.sortIntoMortonOrder(&permutation);
        channels.tilesPermuted(permutation);
        EXPECT_EQ(channels.violations(set.tiles()), "");
        return std::make_pair(orderOf(tree), permutation);
    });
}

}  // namespace
}  // namespace tilegrid::test
