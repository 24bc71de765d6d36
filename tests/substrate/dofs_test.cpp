#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/grading.h"
#include "support/clusters.h"
#include "support/jobs.h"
#include "support/volumes.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// Flags by their meaning, from nothing but a set of tiles. Positions are in tile space.
template <class Tr> struct FlagTwin {
    using Set = TileSet<Tr>;
    Set const& set;

    /// The eight places that meet at a position, one unit to either side.
    static std::array<Place, 8> meeting(Place const& p)
    {
        std::array<Place, 8> all;
        for (int n = 0; n < 8; ++n) all[n] = {p[0] - (n & 1), p[1] - (n >> 1 & 1), p[2] - (n >> 2 & 1)};
        return all;
    }
    /// A sample of depth d hangs if a tile that meets it is coarser than d.
    bool hangs(Place const& p, int d) const
    {
        for (Place const& q : meeting(p)) {
            const auto found = set.find(q, d);
            if (found && found->depth < d) return true;
        }
        return false;
    }
    bool refined(Place const& p, int d) const
    {
        return d < Set::maxDepth && Set::inRange(p) && set.has(Set::keyAt(p, d + 1));
    }
    int flags(TileKey const& key, int i, int j, int k) const
    {
        const std::int64_t v = Set::voxelWidth(key.depth);
        const Place p{key.low[0] + i * v, key.low[1] + j * v, key.low[2] + k * v};
        const bool hanging = hangs(p, key.depth);
        if (refined(p, key.depth)) return hanging ? 4 : hangs(p, key.depth + 1) ? 1 : 2;
        bool regular = true;
        for (Place const& q : meeting(p)) regular = regular && !refined(q, key.depth);
        return (hanging ? 4 : 1) + (regular ? 8 : 0);
    }
};

template <class Tr> DofChannel<Tr> dofsOf(Tree<Tr> const& tree, int minDepth = 0, int depth = Tr::maxDepth)
{
    const short rubbish = 77;
    DofChannel<Tr> dofs("dofs", &rubbish, kInitializeNone, false, true, minDepth, depth);
    dofs.updateTilesAdded(tree);
    computeDofs(tree, dofs);
    return dofs;
}

/// One line for each wrong flag, at most ten; counts the values seen.
template <class Tr>
std::string wrongFlags(Tree<Tr> const& tree, TileSet<Tr> const& set, DofChannel<Tr> const& dofs, std::map<int, int>* seen = nullptr)
{
    const FlagTwin<Tr> twin{set};
    std::ostringstream out;
    int lines = 0;
    for (OST::int64 n = 0; n < tree.tileCount(-1) && lines < 10; ++n) {
        auto const& tile = tree.tile(n);
        const auto flags = dofs.tileData(tile.treeIndex());
        for (int e = 0; e < Tr::voxelCount && lines < 10; ++e) {
            const int3 ijk = cubeIndex(Tr::width, e);
            const int expected = twin.flags(keyOf(tile), ijk.x, ijk.y, ijk.z);
            if (seen) ++(*seen)[expected];
            if (flags(e) != expected && ++lines)
                out << "voxel " << ijk << " of " << keyOf(tile) << " is " << flags(e) << ", not " << expected << "\n";
        }
    }
    return out.str();
}

template <class Tr> class Dofs : public ::testing::Test {};
TYPED_TEST_SUITE(Dofs, Structures, StructureNames);

TYPED_TEST(Dofs, say_what_the_geometry_says_on_random_trees_graded_and_not)
{
    for (std::uint64_t seed : {1, 2, 3, 4, 5})
        for (bool graded : {false, true}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << (graded ? ", graded" : ""));
            Random random(seed);
            Tree<TypeParam> tree("tree");
            TileSet<TypeParam> set;
            addClusters(random, tree, set, 12);
            addRandomTiles(random, tree, set, 4);
            if (graded) {
                CoreGL::TileTree3D::gradeTileTree<TypeParam>(tree, nullptr, nullptr, 0, TypeParam::maxDepth);
                set = gradedClosure(set, 0, TypeParam::maxDepth);
            }
            std::map<int, int> seen;
            EXPECT_EQ(wrongFlags(tree, set, dofsOf(tree), &seen), "");
            // Every value that can be occurs. In a graded tree no sample meets both a coarser and a finer tile.
            std::map<int, int> possible{{1, 0}, {2, 0}, {9, 0}, {12, 0}};
            if (!graded) possible[4] = 0;
            for (auto const& [value, count] : seen) EXPECT_TRUE(possible.count(value)) << value << ", " << count << " times";
            EXPECT_EQ(seen.size(), possible.size());
        }
}

TYPED_TEST(Dofs, of_a_single_tile_are_free_and_regular_everywhere)
{
    Tree<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 0);
    const auto dofs = dofsOf(tree);
    for (short flags : dofs.tileData(0, 0)) EXPECT_EQ(flags, kDofFree | kDofRegular);
}

TYPED_TEST(Dofs, at_the_finest_depth_are_regular)
{
    Tree<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, TypeParam::maxDepth);
    const auto dofs = dofsOf(tree);
    for (short flags : dofs.tileData(0, TypeParam::maxDepth)) EXPECT_TRUE(flags & kDofRegular);
    // Of the finest tile's voxels those on the low faces hang, and no other.
    for (int e = 0; e < TypeParam::voxelCount; ++e) {
        const int3 ijk = cubeIndex(TypeParam::width, e);
        const bool low = ijk.x == 0 || ijk.y == 0 || ijk.z == 0;
        EXPECT_EQ(dofs.tileData(0, TypeParam::maxDepth)(e), low ? 12 : 9);
    }
}

TYPED_TEST(Dofs, of_a_root_never_hang_nor_do_those_at_the_border_of_tile_space)
{
    using Set = TileSet<TypeParam>;
    Tree<TypeParam> tree("tree");
    Set set;
    // A whole layer of depth 2 along the low border: nothing is coarser there.
    addBoth(tree, set, {Set::rangeMin, Set::rangeMin, Set::rangeMin}, 2);
    const auto dofs = dofsOf(tree);
    for (int depth = 0; depth <= 2; ++depth)
        for (short flags : dofs.tileData(0, depth)) EXPECT_FALSE(flags & kDofHanging);
    EXPECT_EQ(wrongFlags(tree, set, dofs), "");
}

TYPED_TEST(Dofs, above_a_child_whose_coincident_voxel_hangs_are_free)
{
    using Set = TileSet<TypeParam>;
    // One child in the middle of the root: all low sides of it are coarse. Its inner voxels do not hang.
    Tree<TypeParam> tree("tree");
    Set set;
    addBoth(tree, set, {0, 0, 0}, 1);
    ASSERT_EQ(tree.tileCount(1), 1);
    const auto dofs = dofsOf(tree);
    const int3 cell = tree.tile(0, 0).childIJK(tree.tile(0, 1));
    int fromChild = 0;
    for (int e = 0; e < TypeParam::voxelCount; ++e) {
        const int3 ijk = cubeIndex(TypeParam::width, e);
        if (!(tree.tile(0, 0).voxelChildIJK(ijk.x, ijk.y, ijk.z) == cell)) continue;
        const auto below = tree.tile(0, 0).childDataIJK(ijk.x, ijk.y, ijk.z);
        const bool lowSide = below.x == 0 || below.y == 0 || below.z == 0;
        EXPECT_EQ(dofs.tileData(0, 0)(e), lowSide ? kDofFree : kDofFromChild) << ijk;
        fromChild += !lowSide;
    }
    // Two voxels a cell and axis, or one: the structures differ in this.
    EXPECT_EQ(fromChild, TypeParam::cellVoxels == 2 ? 1 : 0);
}

TYPED_TEST(Dofs, over_full_children_come_from_them)
{
    Tree<TypeParam> tree("tree");
    constexpr int3 low(TypeParam::rangeMin), high(TypeParam::rangeMax);
    tree.tileAccessor().addTiles(low, high, 1);
    const auto dofs = dofsOf(tree);
    for (short flags : dofs.tileData(0, 0)) EXPECT_EQ(flags, kDofFromChild);
}

TYPED_TEST(Dofs, are_written_only_where_the_channel_has_tiles)
{
    Random random(6);
    Tree<TypeParam> tree("tree");
    TileSet<TypeParam> set;
    addClusters(random, tree, set, 8);
    const auto all = dofsOf(tree), some = dofsOf(tree, 3, TypeParam::maxDepth - 1);
    for (int depth = 3; depth < TypeParam::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
            for (int e = 0; e < TypeParam::voxelCount; ++e) {
                const short whole = all.tileData(n, depth)(e), part = some.tileData(n, depth)(e);
                // Below the channel's end no child can tell that it hangs.
                if (depth < TypeParam::maxDepth - 1) {
                    EXPECT_EQ(part, whole);
                }
            }
    Tree<TypeParam> empty("empty");
    EXPECT_EQ(dofsOf(empty).tileCount(-1), 0);
}

TYPED_TEST(Dofs, are_the_same_bytes_on_1_2_and_8_threads_and_stop_when_cancelled)
{
    Random random(7);
    Tree<TypeParam> tree("tree");
    TileSet<TypeParam> set;
    addClusters(random, tree, set, 60);
    const auto first = dofsOf(tree);
    for (int threads : kThreadCounts) {
        DofChannel<TypeParam> dofs("dofs", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
        dofs.updateTilesAdded(tree);
        parallel::runJob(nullptr, threads, [&] { computeDofs(tree, dofs); });
        for (OST::int64 n = 0; n < tree.tileCount(-1); ++n) {
            const auto mine = dofs.tileData(n), expected = std::as_const(first).tileData(n);
            ASSERT_TRUE(std::equal(expected.begin(), expected.end(), mine.begin()));
        }
    }
    cancelAtEveryPoll([] {}, [&] { dofsOf(tree); }, [] {});
}

template <class Tr> Corvid::MutablePtr<Native> sampleNative()
{
    return nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTiles({-9, -9, -9}, {9, 9, 9}, Tr::maxDepth); });
}

TYPED_TEST(Dofs, are_created_in_a_volume_that_lacks_them)
{
    using Ostara::Geometry::sVoxelDegreeOfFreedom;
    auto volume = sampleNative<TypeParam>();
    const auto tree = treeOf<TypeParam>(*volume);
    createDofs<TypeParam>(sVoxelDegreeOfFreedom, *volume);
    const auto dofs = volume->template component<DofChannel<TypeParam>>(sVoxelDegreeOfFreedom);
    ASSERT_TRUE(dofs);
    EXPECT_EQ(dofs->minDepth(), 0);
    EXPECT_EQ(dofs->depth(), TypeParam::maxDepth);
    EXPECT_EQ(dofs->defaultValue(), 0);
    EXPECT_EQ(dofs->dataElementInitializerType(), kInitializeNone);
    TileSet<TypeParam> set;
    for (auto const& level : orderOf(*tree))
        for (TileKey const& key : level) set.add(key.low, key.depth);
    EXPECT_EQ(wrongFlags(*tree, set, *dofs), "");
    EXPECT_EQ(treeOf<TypeParam>(*volume).get(), tree.get()) << "a tree that others share is not copied";
    EXPECT_TRUE(volume->hasComponentFromName(sVoxelComp));
}

TYPED_TEST(Dofs, are_computed_anew_in_a_channel_that_is_there)
{
    auto volume = sampleNative<TypeParam>();
    addChannel<DofChannel<TypeParam>>(*volume, "mine", 5, [](TileKey const&, int) { return short(99); }, 0, TypeParam::maxDepth - 2);
    createDofs<TypeParam>("mine", *volume);
    const auto dofs = volume->template component<DofChannel<TypeParam>>("mine");
    EXPECT_EQ(dofs->depth(), TypeParam::maxDepth - 2);
    EXPECT_EQ(dofs->defaultValue(), 5);
    for (OST::int64 n = 0; n < dofs->tileCount(-1); ++n)
        for (short flags : dofs->tileData(n)) EXPECT_NE(flags, 99);
}

TYPED_TEST(Dofs, are_not_created_without_a_tree_or_a_topology_of_the_structure)
{
    using Other = std::conditional_t<TypeParam::branching == 2, QuinaryTraits, BinaryTraits>;
    auto volume = sampleNative<TypeParam>();
    createDofs<Other>("dofs", *volume);
    EXPECT_FALSE(volume->hasComponentFromName("dofs"));
    Corvid::Ptr<OST::Component> topology;
    volume->removeComponent(sVoxelComp, topology);
    createDofs<TypeParam>("dofs", *volume);
    EXPECT_FALSE(volume->hasComponentFromName("dofs"));
    EXPECT_TRUE(volume->hasComponentFromName(sVoxelTileTree));
    Native nothing;
    createDofs<TypeParam>("dofs", nothing);
    EXPECT_FALSE(nothing.hasComponentFromName("dofs"));
}

}  // namespace
}  // namespace tilegrid::test
