#include "TilegridOps/substrate/dependent_values.h"
#include "support/site_oracle.h"
#include "support/structures.h"

#include <cmath>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr, class T> using Plain = Channel<Tr, T, Tr::width, 0>;

template <class Tr> class DependentValueLimits : public ::testing::Test {};
TYPED_TEST_SUITE(DependentValueLimits, Structures, StructureNames);

TEST(QuinaryDependentValues, above_children_come_from_the_first_voxel_of_each_child)
{
    using Tr = QuinaryTraits;
    // One voxel per child cell, so a voxel above a child stands for all of it, and its place is the child's low corner.
    for (int n = 0; n < Tr::voxelCount; ++n) {
        const int3 ijk = cubeIndex(Tr::width, n);
        EXPECT_EQ(Tree<Tr>::Tile::childDataIJK(ijk.x, ijk.y, ijk.z), int3(0));
        EXPECT_EQ(Tree<Tr>::Tile::voxelChildIJK(ijk.x, ijk.y, ijk.z), ijk);
    }
    Tree<Tr> tree("tree");
    tree.tileAccessor().addTiles(int3(Tr::rangeMin), int3(Tr::rangeMax), 1);
    DofChannel<Tr> dofs("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    dofs.updateTilesAdded(tree);
    computeDofs(tree, dofs);
    Plain<Tr, float> channel("values", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    channel.updateTilesAdded(tree);
    for (int64 n = 0; n < tree.tileCount(1); ++n)
        for (int e = 0; e < Tr::voxelCount; ++e) channel.tileData(n, 1)(e) = float(1000 * n + e);
    setNonDOFValues<Tr, float>(0, Tr::maxDepth, tree, channel, dofs, kNonDofCopy);
    for (int e = 0; e < Tr::voxelCount; ++e) EXPECT_EQ(channel.tileData(0, 0)(e), float(1000 * tree.tile(0, 0).childIndex(e)));
}

TYPED_TEST(DependentValueLimits, of_an_empty_tree_are_none)
{
    Tree<TypeParam> tree("tree");
    DofChannel<TypeParam> dofs("dofs", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    Plain<TypeParam, float> channel("values", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    computeDofs(tree, dofs);
    for (int mode : {0, 1, 2}) setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, tree, channel, dofs, mode);
    EXPECT_EQ(channel.tileCount(-1), 0);
}

TYPED_TEST(DependentValueLimits, at_the_border_of_tile_space_hang_only_on_what_lies_inside)
{
    using Set = TileSet<TypeParam>;
    Set set;
    set.add({Set::rangeMin, Set::rangeMin, Set::rangeMin}, TypeParam::maxDepth);
    set.add({Set::rangeMax, Set::rangeMax, Set::rangeMax}, TypeParam::maxDepth);
    gradeSet(set);
    Tree<TypeParam> tree("tree");
    addAll(set, tree);
    DofChannel<TypeParam> dofs("dofs", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    dofs.updateTilesAdded(tree);
    computeDofs(tree, dofs);
    // A constant that is the default too stays, whatever lies beyond.
    const float four = 4;
    Plain<TypeParam, float> channel("values", &four, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    channel.updateTilesAdded(tree);
    int64 hanging = 0;
    for (int64 n = 0; n < dofs.tileCount(-1); ++n)
        for (int e = 0; e < TypeParam::voxelCount; ++e)
            if (dofs.tileData(n)(e) & kDofHanging) channel.tileData(n)(e) = NAN, ++hanging;
    EXPECT_GT(hanging, 100);
    const TreeIndex first = tree.find(int(Set::rangeMin), int(Set::rangeMin), int(Set::rangeMin), TypeParam::maxDepth);
    for (short flags : std::as_const(dofs).tileData(first)) EXPECT_FALSE(flags & kDofHanging) << "nothing lies before it";
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, tree, channel, dofs, kNonDofCopy);
    for (int64 n = 0; n < channel.tileCount(-1); ++n)
        for (float v : channel.tileData(n)) ASSERT_EQ(v, 4.0f);
}

}  // namespace
}  // namespace tilegrid::test
