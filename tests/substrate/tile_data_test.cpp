#include "TilegridOps/substrate/channel.h"
#include "support/trees.h"

#include <thread>
#include <type_traits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

static_assert(TileData<float, 4, 1>::elements == 216 && TileData<float, 4, 2>::elements == 512
              && TileData<float, 5, 0>::elements == 125);
static_assert(
    std::is_polymorphic_v<TileData<
        float, 5, 1>> && std::is_polymorphic_v<TileData<float, 6, 1>> && std::is_polymorphic_v<TileData<float, 7, 1>>);
static_assert(!std::is_polymorphic_v<TileData<float, 4, 0>> && !std::is_polymorphic_v<TileData<float, 4, 1>>);

template <int N, int H> void expectOrder()
{
    TileData<int, N, H> data(TileData<int, N, H>::elements);
    int flat = 0;
    for (int k = -H; k < N + H; ++k)
        for (int j = -H; j < N + H; ++j)
            for (int i = -H; i < N + H; ++i, ++flat) {
                EXPECT_EQ(&data(i, j, k), &data(flat));
                EXPECT_EQ(&data(int3(i, j, k)), &data(flat));
                EXPECT_EQ(&data[int3(i, j, k)], &data(flat));
                const ConstTileData<int, N, H> read = data;
                EXPECT_EQ(&read(i, j, k), &data(flat));
                EXPECT_EQ(&read[int3(i, j, k)], &read(flat));
            }
    EXPECT_EQ(flat, data.size());
}

TEST(TileData, runs_over_i_fastest_then_j_then_k_from_the_halo_on)
{
    expectOrder<4, 0>();
    expectOrder<5, 0>();
    expectOrder<6, 0>();
    expectOrder<4, 1>();
    expectOrder<5, 1>();
    expectOrder<6, 1>();
    expectOrder<4, 2>();
    expectOrder<5, 2>();
}

TEST(TileData, without_data_is_false_and_holds_nothing)
{
    const TileData<float, 4, 0> none;
    const ConstTileData<float, 4, 0> noneConst;
    EXPECT_FALSE(none);
    EXPECT_FALSE(noneConst);
    EXPECT_EQ(none.size(), 0);
    EXPECT_EQ(noneConst.size(), 0);
    EXPECT_FALSE((ConstTileData<float, 4, 0>(none)));
}

TEST(TileData, made_with_a_count_owns_its_array_together_with_its_copies)
{
    TileData<double, 4, 0> copy;
    {
        TileData<double, 4, 0> scratch(64, 2.5);
        EXPECT_EQ(scratch.size(), 64);
        for (double v : scratch) EXPECT_EQ(v, 2.5);
        copy = scratch;
        scratch(7) = 9;
    }
    EXPECT_EQ(copy(7), 9);
    const TileData<double, 4, 0> moved(std::move(copy));
    EXPECT_EQ(moved(7), 9);
    for (int v : TileData<int, 4, 0>(10)) EXPECT_EQ(v, 0);
}

TEST(TileData, fills_also_with_one_of_its_own_elements)
{
    TileData<int, 4, 0> data(64);
    for (int n = 0; n < 64; ++n) data(n) = n;
    data.set(data(5));
    for (int v : data) EXPECT_EQ(v, 5);
}

TEST(TileData, copies_the_elements_of_another)
{
    TileData<int, 4, 0> a(64), b(64, -1), shorter(10, -1);
    for (int n = 0; n < 64; ++n) a(n) = n;
    b.set(ConstTileData<int, 4, 0>(a));
    a(3) = 77;
    for (int n = 0; n < 64; ++n) EXPECT_EQ(b(n), n);
    shorter.set(ConstTileData<int, 4, 0>(b));
    for (int n = 0; n < 10; ++n) EXPECT_EQ(shorter(n), n);
}

TEST(TileData, that_is_polymorphic_notes_elements_added_until_they_are_cleared)
{
    std::vector<float> array(6 * 6 * 6 + 2 * 6 * 6 * 10);
    TileData<float, 5, 1> data;
    data.setFlatPointer(array.data());
    EXPECT_EQ(&data(-1, -1, -1), array.data());
    EXPECT_EQ(data.size(), 343);
    EXPECT_EQ(data.elementsAddedSize(), 0u);
    data.noteElementAdded(17);
    data.noteElementAdded(4);
    EXPECT_EQ(data.elementsAddedSize(), 2u);
    EXPECT_EQ(std::vector<int>(data.beginElementsAdded(), data.endElementsAdded()), (std::vector<int>{17, 4}));
    data.clearElementsAdded();
    EXPECT_TRUE(data.beginElementsAdded() == data.endElementsAdded());
}

template <class Tr> class DynamicTileData : public ::testing::Test {};
TYPED_TEST_SUITE(DynamicTileData, Structures, StructureNames);

TYPED_TEST(DynamicTileData, stays_right_while_the_channel_grows)
{
    Tree<TypeParam> tree("tree");
    auto tiles = tree.tileAccessor();
    tiles.addTile(0, 0, 0, TypeParam::maxDepth);
    const float zero = 0;
    Channel<TypeParam, float, TypeParam::width, 0> channel("c", &zero, kInitializeNone, false, true, 0,
                                                           TypeParam::maxDepth);
    channel.updateTilesAdded(tree);
    const auto data = channel.tileDataAccessor().tileData(TreeIndex{0, TypeParam::maxDepth});
    EXPECT_TRUE(data);
    EXPECT_EQ(data.size(), TypeParam::voxelCount);
    for (int e = 0; e < data.size(); ++e) data(e) = static_cast<float>(e + 1);
    const auto missing = channel.tileDataAccessor().tileData(TreeIndex{1, TypeParam::maxDepth});
    EXPECT_FALSE(missing);
    for (int round = 1; round <= 12; ++round) {
        tiles.addTiles(int3(0, 0, 0), int3(20 * round, 50, 50), TypeParam::maxDepth);
        channel.updateTilesAdded(tree);
        for (int e = 0; e < data.size(); ++e) ASSERT_EQ(data(e), static_cast<float>(e + 1)) << "round " << round;
        data(int3(1, 2, 3)) = data(flatIndex(TypeParam::width, 1, 2, 3));
    }
    EXPECT_TRUE(missing) << "a tile that came to be";
    EXPECT_EQ(missing(0), 0);
}

TEST(SubstrateAllocator, gives_aligned_memory)
{
    for (std::size_t alignment : {std::size_t(16), std::size_t(64), std::size_t(4096)})
        for (std::size_t size : {std::size_t(1), std::size_t(100), std::size_t(1) << 20}) {
            void* p = OST::allocate_jemalloc(size, alignment);
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignment, 0u);
            std::memset(p, 0x5a, size);
            OST::deallocate_jemalloc(p);
        }
    EXPECT_THROW(OST::allocate_jemalloc(std::size_t(1) << 62, 64), std::bad_alloc);
}

}  // namespace
}  // namespace tilegrid::test
