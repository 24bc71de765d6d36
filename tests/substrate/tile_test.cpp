#include "TilegridOps/substrate/topology.h"
#include "support/trees.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> class Widths : public ::testing::Test {};
TYPED_TEST_SUITE(Widths, Structures, StructureNames);

TYPED_TEST(Widths, are_powers_of_the_branching_from_the_finest_depth_up)
{
    using Set = TileSet<TypeParam>;
    ASSERT_EQ(TypeParam::maxDepth, Set::maxDepth);
    EXPECT_EQ(TypeParam::levels, Set::maxDepth + 1);
    for (int d = 0; d <= Set::maxDepth; ++d) {
        EXPECT_EQ(TypeParam::voxelDataWidth(d), Set::voxelWidth(d));
        EXPECT_EQ(TypeParam::tileVoxelWidth(d), Set::tileWidth(d));
        EXPECT_EQ(TypeParam::voxelWidth(d), Set::cellWidth(d));
        EXPECT_EQ(Tree<TypeParam>::tileVoxelWidth(d), Set::tileWidth(d));
        EXPECT_EQ(Tree<TypeParam>::Tile::tileVoxelWidth(d), Set::tileWidth(d));
        EXPECT_EQ(Tree<TypeParam>::Tile::voxelDataWidth(d), Set::voxelWidth(d));
    }
    EXPECT_EQ(TypeParam::voxelDataWidth(TypeParam::maxDepth), 1);
}

TYPED_TEST(Widths, make_one_tile_of_depth_0_cover_tile_space_exactly)
{
    using Set = TileSet<TypeParam>;
    EXPECT_EQ(TypeParam::rangeMin, Set::rangeMin);
    EXPECT_EQ(TypeParam::rangeMax, Set::rangeMax);
    EXPECT_EQ(Set::tileWidth(0), Set::rangeMax - Set::rangeMin + 1);
    EXPECT_EQ(Tree<TypeParam>::tileSpaceMaxTileDistance(), Set::rangeMax - Set::rangeMin);
}

TEST(NeighborDirections, number_the_offsets_from_0_to_26_with_13_as_the_tile_itself)
{
    int expected = 0;
    for (int dx = -1; dx <= 1; ++dx)
        for (int dy = -1; dy <= 1; ++dy)
            for (int dz = -1; dz <= 1; ++dz, ++expected) {
                EXPECT_EQ(neighborDirection(dx, dy, dz), expected);
                EXPECT_EQ(neighborOffset(NeighborDirection(expected)), int3(dx, dy, dz));
            }
    EXPECT_EQ(neighborDirection(0, 0, 0), kNeighborSelf);
}

TEST(VoxelOffsets, put_a_component_at_the_low_corner_for_each_set_bit)
{
    const Ostara::Math::float3 expected[] = {{0.5f, 0.5f, 0.5f}, {0, 0.5f, 0.5f}, {0.5f, 0, 0.5f}, {0, 0, 0.5f},
                                             {0.5f, 0.5f, 0},    {0, 0.5f, 0},    {0.5f, 0, 0},    {0, 0, 0}};
    const VoxelOffsetType names[] = {kCenter, kFaceX, kFaceY, kEdgeZ, kFaceZ, kEdgeY, kEdgeX, kCorner};
    for (int n = 0; n < 8; ++n) {
        EXPECT_EQ(names[n], n);
        EXPECT_EQ(voxelOffset(names[n]), expected[n]);
        EXPECT_EQ(VoxelTopology<BinaryTraits>("v", names[n]).offset(), expected[n]);
        EXPECT_EQ(VoxelTopology<BinaryTraits>("v", names[n]).offsetType(), names[n]);
    }
}

template <class Tr> class TileGeometry : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    TileGeometry()
    {
        Random random(42);
        addRandomTiles(random, tree_, set_, 60);
        auto accessor = tree_.tileAccessor();
        for (std::int64_t corner : {Set::rangeMin, Set::rangeMax})
            accessor.addTile(int(corner), int(corner), int(corner), Tr::maxDepth);
    }
    template <class F> void forEachTile(F f)
    {
        for (OST::int64 n = 0; n < tree_.tileCount(-1); ++n) f(tree_.tile(n));
    }
    Tree<Tr> tree_{"tree"};
    Set set_;
};
TYPED_TEST_SUITE(TileGeometry, Structures, StructureNames);

TYPED_TEST(TileGeometry, has_widths_and_bounds_of_its_depth)
{
    using Set = TileSet<TypeParam>;
    this->forEachTile([](auto const& tile) {
        const int d = tile.depth();
        EXPECT_EQ(tile.voxelDataWidth(), Set::voxelWidth(d));
        EXPECT_EQ(tile.tileVoxelWidth(), Set::tileWidth(d));
        EXPECT_EQ(tile.voxelWidth(), Set::cellWidth(d));
        if (d < Set::maxDepth) {
            EXPECT_EQ(tile.childVoxelDataWidth(), Set::voxelWidth(d + 1));
        }
        if (d > 0) {
            EXPECT_EQ(tile.parentVoxelDataWidth(), Set::voxelWidth(d - 1));
        }
        EXPECT_EQ(tile.voxelCoord(), VoxelCoord(tile.tijk(), d));
        EXPECT_EQ(tile.treeIndex(), (TreeIndex{tile.index(), d}));
        Ostara::Math::bbox<int3, int> box;
        tile.tileSpaceBounds(box);
        EXPECT_EQ(box.min, tile.tijk());
        for (int a = 0; a < 3; ++a) EXPECT_EQ(box.max[a], tile.tijk()[a] + Set::tileWidth(d) - 1);
    });
}

TYPED_TEST(TileGeometry, contains_exactly_the_places_of_its_box)
{
    using Set = TileSet<TypeParam>;
    Random random(7);
    this->forEachTile([&random](auto const& tile) {
        const TileKey key = keyOf(tile);
        const std::int64_t w = Set::tileWidth(tile.depth());
        for (int a = 0; a < 3; ++a)
            for (std::int64_t offset : {std::int64_t(-1), std::int64_t(0), w - 1, w, random.below(w)}) {
                Place p = key.low;
                p[a] += offset;
                if (p[a] > 0x7fffffff) continue;
                EXPECT_EQ(tile.contains(toInt3(p)), offset >= 0 && offset < w) << key << " offset " << offset;
            }
        // Places far away, whose difference does not fit 32 bits with a sign.
        EXPECT_EQ(tile.contains(0x7fffffff, tile.tijk().y, tile.tijk().z), false);
        EXPECT_EQ(tile.contains(tile.tijk().x, -0x7fffffff - 1, tile.tijk().z), false);
    });
}

TYPED_TEST(TileGeometry, maps_places_cells_and_child_corners_to_each_other)
{
    using Set = TileSet<TypeParam>;
    Random random(8);
    this->forEachTile([&random](auto const& tile) {
        if (tile.depth() == Set::maxDepth) return;
        const TileKey key = keyOf(tile);
        for (int cell = 0; cell < TypeParam::childCount; ++cell) {
            const int3 ijk = cubeIndex(TypeParam::branching, cell);
            const Place low = Set::childOf(key, cell).low;
            EXPECT_EQ(toPlace(tile.childTIJK(ijk)), low);
            Place inside = low;
            for (std::int64_t& x : inside) x += random.below(Set::cellWidth(key.depth));
            EXPECT_EQ(tile.childIJK(toInt3(inside)), ijk);
        }
    });
    for (OST::int64 n = 0; n < this->tree_.tileCount(-1); ++n) {
        auto const& tile = this->tree_.tile(n);
        if (!tile.parentTreeIndex().valid()) continue;
        auto const& parent = this->tree_.tile(tile.parentTreeIndex());
        const int3 cell = parent.childIJK(tile);
        EXPECT_EQ(parent.childTreeIndex(cell), tile.treeIndex());
        EXPECT_EQ(parent.childTreeIndex(cell.x, cell.y, cell.z), tile.treeIndex());
    }
}

TYPED_TEST(TileGeometry, puts_a_voxel_and_its_coincident_child_voxel_at_one_place)
{
    using Set = TileSet<TypeParam>;
    using Tile = typename Tree<TypeParam>::Tile;
    constexpr int W = TypeParam::width;
    this->forEachTile([](Tile const& tile) {
        if (tile.depth() == Set::maxDepth) return;
        for (int flat = 0; flat < TypeParam::voxelCount; ++flat) {
            const int3 v = cubeIndex(W, flat), cell = Tile::voxelChildIJK(v.x, v.y, v.z);
            const int3 c = Tile::childDataIJK(v.x, v.y, v.z);
            const TileKey child = Set::childOf(keyOf(tile), flatIndex(TypeParam::branching, cell.x, cell.y, cell.z));
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(tile.tijk()[a] + v[a] * Set::voxelWidth(tile.depth()),
                          child.low[a] + c[a] * Set::voxelWidth(child.depth));
                EXPECT_TRUE(c[a] >= 0 && c[a] < W);
            }
        }
    });
    if (TypeParam::branching == 2) {
        EXPECT_EQ(Tile::voxelChildIJK(3, 1, 2), int3(1, 0, 1));
    } else {
        EXPECT_EQ(Tile::voxelChildIJK(3, 1, 2), int3(3, 1, 2));
    }
}

TYPED_TEST(TileGeometry, orders_corners_by_the_cells_on_the_way_down_with_k_first)
{
    using Set = TileSet<TypeParam>;
    Random random(9);
    for (int n = 0; n < 3000; ++n) {
        const int d = static_cast<int>(random.between(1, Set::maxDepth));
        const TileKey a = Set::keyAt(randomPlace<TypeParam>(random, 5 * Set::tileWidth(d)), d);
        const TileKey b = Set::keyAt(randomPlace<TypeParam>(random, 5 * Set::tileWidth(d)), d);
        EXPECT_EQ(mortonLess<TypeParam>(toInt3(a.low), toInt3(b.low)), Set::mortonBefore(a, b)) << a << " and " << b;
    }
}

TYPED_TEST(TileGeometry, rounds_float_places_down_and_refuses_what_lies_outside)
{
    using Set = TileSet<TypeParam>;
    int3 index(1, 2, 3);
    EXPECT_TRUE(tileSpaceIndex<TypeParam>(float3(-0.25f, 0.75f, 17.0f), index));
    EXPECT_EQ(index, int3(-1, 0, 17));
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    for (float bad : {nan, inf, -inf, 3e38f, -3e38f, 7e8f, -7e8f})
        for (int axis = 0; axis < 3; ++axis) {
            float3 place(4.0f, 5.0f, 6.0f);
            place[axis] = bad;
            int3 kept(1, 2, 3);
            EXPECT_FALSE(tileSpaceIndex<TypeParam>(place, kept)) << bad;
            EXPECT_EQ(kept, int3(1, 2, 3));
        }
    EXPECT_TRUE(tileSpaceIndex<TypeParam>(float3(float(Set::rangeMin / 2)), index));
    EXPECT_EQ(index.x, static_cast<int>(float(Set::rangeMin / 2)));
}

}  // namespace
}  // namespace tilegrid::test
