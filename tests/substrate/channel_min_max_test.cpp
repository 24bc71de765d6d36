#include "TilegridOps/substrate/channel_services.h"
#include "support/jobs.h"
#include "support/trees.h"

#include <limits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class T> struct Extremes {
    T min, max;
    VoxelCoord minAt, maxAt;
    friend bool operator==(Extremes const&, Extremes const&) = default;
};

template <class Tr> class ChannelMinMax : public ::testing::Test {
protected:
    static constexpr int W = Tr::width, D = Tr::maxDepth;
    ChannelMinMax() { growAll(tree_, SphereBand<Tr>(D, 4)); }
    template <class T, int N = Tr::width, int H = 0>
    Channel<Tr, T, N, H> channel(T value, int minDepth = 0, int depth = Tr::maxDepth)
    {
        Channel<Tr, T, N, H> made("c", &value, kInitializeNone, false, true, minDepth, depth);
        made.updateTilesAdded(tree_);
        return made;
    }
    VoxelCoord placeOf(int64 index, int depth, int3 const& v) const
    {
        auto const& tile = tree_.tile(index, depth);
        return VoxelCoord(tile.tijk() + tile.voxelDataWidth() * v, depth);
    }
    /// One loop over (depth, tile, voxel); the first of equal values stays.
    template <class C, class T> Extremes<T> expected(C const& c, int low, int high, Extremes<T> found) const
    {
        for (int d = std::max(low, c.minDepth()); d <= std::min(high, c.depth()); ++d)
            for (int64 n = 0; n < tree_.tileCount(d); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 v = cubeIndex(W, flat);
                    const T value = c.tileData(n, d)(v);
                    if (value < found.min) found.min = value, found.minAt = placeOf(n, d, v);
                    if (value > found.max) found.max = value, found.maxAt = placeOf(n, d, v);
                }
        return found;
    }
    template <class C, class T> Extremes<T> measured(C const& c, int low, int high, Extremes<T> seed) const
    {
        CoreGL::channelMinMax(tree_, c, low, high, seed.min, seed.max, &seed.minAt, &seed.maxAt);
        return seed;
    }
    Tree<Tr> tree_{"tree"};
};
TYPED_TEST_SUITE(ChannelMinMax, Structures, StructureNames);

TYPED_TEST(ChannelMinMax, finds_the_extremes_and_the_first_place_of_each)
{
    constexpr int D = TypeParam::maxDepth;
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        Random random(seed);
        auto c = this->template channel<int>(0);
        const int64 values = seed % 2 ? 1000000 : 5;  // few values: many ties
        for (int64 n = 0; n < c.tileCount(-1); ++n)
            for (int& v : c.tileData(n)) v = static_cast<int>(random.between(-values, values));
        for (auto [low, high] : {std::pair{0, D}, {3, D - 1}, {D, D}, {-3, D + 3}}) {
            const Extremes<int> start{std::numeric_limits<int>::max(), std::numeric_limits<int>::lowest(), {}, {}};
            EXPECT_TRUE(this->measured(c, low, high, start) == this->expected(c, low, high, start)) << "seed " << seed;
        }
    }
}

TYPED_TEST(ChannelMinMax, gives_a_tie_to_the_lower_depth_then_tile_then_voxel)
{
    constexpr int D = TypeParam::maxDepth;
    auto c = this->template channel<float>(0);
    const int64 last = this->tree_.tileCount(D) - 1;
    const auto at = [&c](int64 n, int d, int flat) -> float& { return c.tileData(n, d)(flat); };
    at(last, D, 9) = at(last, D, 3) = at(last / 2, D, 40) = 5;
    const Extremes<float> seed{-100, 1, {}, {}};
    EXPECT_EQ(this->measured(c, 0, D, seed).maxAt, this->placeOf(last / 2, D, cubeIndex(TypeParam::width, 40)));
    at(last / 2, D, 40) = 0;
    EXPECT_EQ(this->measured(c, 0, D, seed).maxAt, this->placeOf(last, D, cubeIndex(TypeParam::width, 3)));
    at(0, 2, 60) = 5;
    EXPECT_EQ(this->measured(c, 0, D, seed).maxAt, this->placeOf(0, 2, cubeIndex(TypeParam::width, 60)));
}

TYPED_TEST(ChannelMinMax, keeps_a_seed_that_nothing_beats_and_its_places)
{
    const auto c = this->template channel<short>(4);
    const Extremes<short> seed{4, 4, VoxelCoord(1, 2, 3, 4), VoxelCoord(5, 6, 7, 8)};
    EXPECT_TRUE(this->measured(c, 0, TypeParam::maxDepth, seed) == seed);
    short min = 9, max = -9;
    CoreGL::channelMinMax(this->tree_, c, 0, TypeParam::maxDepth, min, max, nullptr, nullptr);
    EXPECT_EQ(min, 4);
    EXPECT_EQ(max, 4);
}

TYPED_TEST(ChannelMinMax, of_no_depth_in_common_keeps_the_seed)
{
    const auto c = this->template channel<float>(4, 3, 5);
    const Extremes<float> seed{100, -100, VoxelCoord(1, 2, 3, 4), VoxelCoord(5, 6, 7, 8)};
    EXPECT_TRUE(this->measured(c, 6, TypeParam::maxDepth, seed) == seed);
    EXPECT_TRUE(this->measured(c, 5, 3, seed) == seed);
}

TYPED_TEST(ChannelMinMax, never_counts_a_nan)
{
    auto c = this->template channel<float>(std::numeric_limits<float>::quiet_NaN());
    const Extremes<float> seed{100, -100, {}, {}};
    EXPECT_TRUE(this->measured(c, 0, TypeParam::maxDepth, seed) == seed);
    c.tileData(1, TypeParam::maxDepth)(2) = 7;
    const auto found = this->measured(c, 0, TypeParam::maxDepth, seed);
    EXPECT_EQ(found.min, 7);
    EXPECT_EQ(found.max, 7);
}

TYPED_TEST(ChannelMinMax, looks_at_the_voxels_only_and_not_at_extra_layers_or_halos)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    const Extremes<int> seed{100, -100, {}, {}};
    const auto check = [&]<int N, int H>() {
        auto c = this->template channel<int, N, H>(1);
        for (int64 n = 0; n < c.tileCount(-1); ++n) {
            c.tileData(n).set(99);
            for (int flat = 0; flat < TypeParam::voxelCount; ++flat) c.tileData(n)(cubeIndex(W, flat)) = 3;
        }
        c.tileData(0, D)(W - 1, W - 1, W - 1) = 8;
        const auto found = this->measured(c, 0, D, seed);
        EXPECT_EQ(found.min, 3);
        EXPECT_EQ(found.max, 8);
        EXPECT_EQ(found.maxAt, this->placeOf(0, D, int3(W - 1, W - 1, W - 1)));
    };
    check.template operator()<W + 1, 0>();
    check.template operator()<W, 1>();
}

TYPED_TEST(ChannelMinMax, orders_vectors_by_all_components_at_once)
{
    using Ostara::Math::float3;
    auto c = this->template channel<float3>(float3(0, 0, 0));
    c.tileData(0, 1)(5) = float3(9, 9, 0);  // above in two components only: not above
    c.tileData(0, 1)(6) = float3(2, 3, 1);  // above in all
    c.tileData(0, 1)(7) = float3(-1, -1, -5);
    const auto found =
        this->measured(c, 0, TypeParam::maxDepth, Extremes<float3>{float3(0, 0, 0), float3(0, 0, 0), {}, {}});
    EXPECT_EQ(found.max, float3(2, 3, 1));
    EXPECT_EQ(found.min, float3(-1, -1, -5));
    EXPECT_EQ(found.maxAt, this->placeOf(0, 1, cubeIndex(TypeParam::width, 6)));
}

TYPED_TEST(ChannelMinMax, can_be_cancelled_and_is_right_afterwards)
{
    auto c = this->template channel<float>(0);
    c.tileData(0, 0)(1) = 2;
    float min = 0, max = 0;
    cancelAtEveryPoll(
        [] {}, [&] { CoreGL::channelMinMax(this->tree_, c, 0, TypeParam::maxDepth, min, max, nullptr, nullptr); },
        [] {});
    EXPECT_EQ(max, 2);
}

}  // namespace
}  // namespace tilegrid::test
