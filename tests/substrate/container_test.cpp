#include "TilegridOps/substrate/topology.h"
#include "support/trees.h"

#include <cmath>
#include <limits>
#include <sstream>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr> class TileContainer : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    TileContainer()
    {
        Random random(17);
        addRandomTiles(random, tree_, set_, 60);
    }
    Tree<Tr> tree_{"tree", 0.5f};
    Set set_;
};
TYPED_TEST_SUITE(TileContainer, Structures, StructureNames);

TYPED_TEST(TileContainer, counts_all_depths_as_the_sum_of_each)
{
    int64 sum = 0;
    for (int d = 0; d <= TypeParam::maxDepth; ++d) sum += this->tree_.tileCount(d);
    EXPECT_EQ(this->tree_.tileCount(-1), sum);
    EXPECT_EQ(sum, int64(this->set_.tiles().size()));
    EXPECT_EQ(this->tree_.size(), std::size_t(sum));
    EXPECT_EQ(this->tree_.tileCount(TypeParam::maxDepth + 1), 0);
}

TYPED_TEST(TileContainer, stores_w_cubed_voxels_for_each_of_them)
{
    EXPECT_EQ(this->tree_.voxelDataCount(-1), this->tree_.tileCount(-1) * (TypeParam::branching == 2 ? 64 : 125));
    EXPECT_EQ(this->tree_.elementCount(-1), this->tree_.voxelDataCount(-1));
    EXPECT_EQ(this->tree_.elementCount(TreeIndex{0, 0}), TypeParam::voxelCount);
    EXPECT_EQ(this->tree_.elementCount(TreeIndex{1, 0}), 0);
    EXPECT_EQ(this->tree_.elementCount(TreeIndex()), 0);
}

TYPED_TEST(TileContainer, shows_each_place_of_tile_space_by_exactly_one_voxel)
{
    // In units of the finest cell the shown voxels of all depths fill tile space. Counted in long double: 87 bits overflow 64.
    long double volume = 0;
    for (int d = 0; d <= TypeParam::maxDepth; ++d)
        volume += static_cast<long double>(this->tree_.voxelCount(d))
            * std::pow(static_cast<long double>(TileSet<TypeParam>::voxelWidth(d)), 3);
    const long double all = std::pow(static_cast<long double>(TileSet<TypeParam>::tileWidth(0)), 3);
    EXPECT_NEAR(static_cast<double>(volume / all), 1.0, 1e-12);
    int64 sum = 0;
    for (int d = 0; d <= TypeParam::maxDepth; ++d) sum += this->tree_.voxelCount(d);
    EXPECT_EQ(this->tree_.voxelCount(-1), sum);
}

TYPED_TEST(TileContainer, has_the_bounds_of_its_deepest_depth)
{
    Ostara::Math::bbox<int3, int> box, expected;
    this->tree_.tileSpaceBounds(box);
    for (TileKey const& key : this->set_.list()) {
        if (key.depth != TypeParam::maxDepth) continue;
        expected.add(toInt3(key.low));
        Place high = key.low;
        for (std::int64_t& x : high) x += TypeParam::width - 1;
        expected.add(toInt3(high));
    }
    EXPECT_TRUE(box == expected);
    Ostara::Math::bbox<double3, double> world;
    this->tree_.worldSpaceBounds(world);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(world.min[a], 0.5 * expected.min[a]);
        EXPECT_EQ(world.max[a], 0.5 * (expected.max[a] + 1.0)) << "to the far face";
    }
}

TYPED_TEST(TileContainer, without_tiles_has_an_empty_box_and_no_voxel)
{
    const Tree<TypeParam> empty("empty");
    Ostara::Math::bbox<int3, int> box;
    box.add(int3(1, 2, 3));
    empty.tileSpaceBounds(box);
    EXPECT_TRUE(box.empty());
    Ostara::Math::bbox<double3, double> world;
    empty.worldSpaceBounds(world);
    EXPECT_TRUE(world.empty());
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty.tileCount(-1), 0);
    EXPECT_EQ(empty.voxelCount(-1), 0);
    EXPECT_EQ(empty.voxelDataCount(-1), 0);
    EXPECT_FALSE(Tree<TypeParam>::outsideTile().valid());
    EXPECT_EQ(Tree<TypeParam>::outsideTile().treeIndex(), TreeIndex());
}

TYPED_TEST(TileContainer, has_one_root_with_its_place_as_key)
{
    ASSERT_EQ(std::distance(this->tree_.cbeginRoots(), this->tree_.cendRoots()), 1);
    EXPECT_EQ(this->tree_.cbeginRoots()->second, (TreeIndex{0, 0}));
    EXPECT_EQ(this->tree_.cbeginRoots()->first, this->tree_.tile(0, 0).voxelCoord());
}

TYPED_TEST(TileContainer, converts_between_world_and_tile_space)
{
    EXPECT_EQ(this->tree_.toWorldSpace(float3(2, -4, 7)), float3(1, -2, 3.5f));
    EXPECT_EQ(this->tree_.toTileSpace(float3(1, -2, 3.5f)), float3(2, -4, 7));
    this->tree_.setVoxelSize(2.0f);
    EXPECT_EQ(this->tree_.voxelSize(), 2.0f);
    EXPECT_EQ(this->tree_.toWorldSpace(float3(2, -4, 7)), float3(4, -8, 14));
    EXPECT_EQ(this->tree_.maxDepth(), TypeParam::maxDepth) << "whatever depths are in use";
    EXPECT_EQ(this->tree_.maxRelativeRefinementError(), 0.0f);
    this->tree_.setMaxRelativeRefinementError(0.25f);
    EXPECT_EQ(this->tree_.maxRelativeRefinementError(), 0.25f);
}

TYPED_TEST(TileContainer, is_copied_with_all_it_knows)
{
    this->tree_.setMaxRelativeRefinementError(0.125f);
    Corvid::Ptr<OST::Component> component;
    this->tree_.copyTo(component);
    const auto copy = Corvid::dynamicPointerCast<Tree<TypeParam>>(component);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->name(), this->tree_.name());
    EXPECT_EQ(copy->voxelSize(), 0.5f);
    EXPECT_EQ(copy->maxRelativeRefinementError(), 0.125f);
    EXPECT_TRUE(orderOf(*copy) == orderOf(this->tree_));
    EXPECT_EQ(differences(*copy, this->set_), "");
    // The original may go: the copy shares nothing with it.
    Tree<TypeParam> grown(*copy);
    grown.tileAccessor().addTiles({1000, 1000, 1000}, {1040, 1040, 1040}, TypeParam::maxDepth);
    EXPECT_EQ(differences(*copy, this->set_), "");
}

TYPED_TEST(TileContainer, takes_in_another_by_update_and_nothing_from_other_components)
{
    Tree<TypeParam> other("other");
    other.tileAccessor().addTile(777, 777, 777, TypeParam::maxDepth - 1);
    static_cast<OST::Component&>(this->tree_).update(other);
    this->set_.add({777, 777, 777}, TypeParam::maxDepth - 1);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
    static_cast<OST::Component&>(this->tree_).update(VoxelTopology<TypeParam>("v", kCorner));
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

TYPED_TEST(TileContainer, tells_its_memory_and_content)
{
    std::size_t used = 10, reserved = 20, usedAll = 10, reservedAll = 20;
    this->tree_.memUse(used, reserved, false);
    this->tree_.memUse(usedAll, reservedAll, true);
    EXPECT_GE(used, 10 + std::size_t(this->tree_.tileCount(-1)) * sizeof(typename Tree<TypeParam>::Tile));
    EXPECT_GE(reserved - 20, used - 10);
    EXPECT_GE(usedAll, used);
    EXPECT_GE(reservedAll, reserved);
    std::ostringstream text;
    this->tree_.dump(text);
    EXPECT_FALSE(text.str().empty());
}

TYPED_TEST(TileContainer, gives_its_counts_to_a_topology)
{
    VoxelTopology<TypeParam> topology("v", kEdgeY);
    topology.update(this->tree_);
    for (int d = -1; d <= TypeParam::maxDepth; ++d) {
        EXPECT_EQ(topology.tileCount(d), this->tree_.tileCount(d));
        EXPECT_EQ(topology.elementCount(d), this->tree_.voxelDataCount(d));
    }
    EXPECT_EQ(topology.elementCount(TreeIndex{0, 0}), TypeParam::voxelCount);
    EXPECT_EQ(topology.elementCount(TreeIndex{this->tree_.tileCount(4), 4}), 0);
    Corvid::Ptr<OST::Component> copy;
    topology.copyTo(copy);
    const auto same = Corvid::dynamicPointerCast<VoxelTopology<TypeParam>>(copy);
    ASSERT_TRUE(same);
    EXPECT_EQ(same->offsetType(), kEdgeY);
    EXPECT_EQ(same->tileCount(-1), this->tree_.tileCount(-1));
    EXPECT_EQ(same->name(), topology.name());
}

TYPED_TEST(TileContainer, with_an_odd_voxel_size_leads_to_no_wrong_tile)
{
    // A voxel size that is no number, zero or infinite must not lead to a wrong tile.
    for (float size :
         {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 1e-40f}) {
        this->tree_.setVoxelSize(size);
        int3 index(5, 5, 5);
        const float3 place = this->tree_.toTileSpace(float3(1, 2, 3));
        if (tileSpaceIndex<TypeParam>(place, index)) {
            for (int a = 0; a < 3; ++a) {
                EXPECT_TRUE(std::isfinite(place[a]));
                EXPECT_TRUE(index[a] >= TypeParam::rangeMin && index[a] <= TypeParam::rangeMax);
            }
        } else {
            EXPECT_EQ(index, int3(5, 5, 5));
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
