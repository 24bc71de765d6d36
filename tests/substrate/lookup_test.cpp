#include "support/trees.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// A place of 32 bits that need not lie in tile space.
template <class Tr> Place anyPlace(Random& random)
{
    using Set = TileSet<Tr>;
    if (!random.oneIn(4)) return randomPlace<Tr>(random, 40 * Set::tileWidth(Tr::maxDepth));
    Place p = randomPlace<Tr>(random, 40 * Set::tileWidth(Tr::maxDepth));
    const std::int64_t outside[] = {Set::rangeMin - 1, Set::rangeMax + 1, -2147483648ll,
                                    2147483647ll,      Set::rangeMin,     Set::rangeMax};
    p[random.below(3)] = outside[random.below(6)];
    return p;
}

template <class Tr> TreeIndex expectedAt(Tree<Tr> const& tree, TileSet<Tr> const& set, Place const& p, int depth)
{
    const auto key = set.find(p, depth);
    return key ? indexOf(tree, *key) : TreeIndex{};
}

template <class Tr> class Lookup : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    void compare(Random& random, ConstTileAccessor<Tr> const& accessor, int queries)
    {
        for (int n = 0; n < queries; ++n) {
            const Place p = anyPlace<Tr>(random);
            const int depth = static_cast<int>(random.oneIn(2) ? Tr::maxDepth : random.between(0, Tr::maxDepth));
            const int3 at = toInt3(p);
            const TreeIndex expected = expectedAt(tree_, set_, p, depth);
            ASSERT_EQ(accessor.find(at.x, at.y, at.z, depth), expected) << at << " depth " << depth;
            auto const& tile = accessor.tileImpl(at.x, at.y, at.z, depth);
            ASSERT_EQ(tile.valid(), expected.valid()) << at << " depth " << depth;
            ASSERT_EQ(tile.treeIndex(), expected);
            const TreeIndex hint{random.between(-1, 500), static_cast<int>(random.between(-1, Tr::maxDepth))};
            ASSERT_EQ(tree_.find(at.x, at.y, at.z, depth, hint), expected)
                << "hint " << hint.index << " of depth " << hint.depth;
        }
    }
    Tree<Tr> tree_{"tree"};
    Set set_;
};
TYPED_TEST_SUITE(Lookup, Structures, StructureNames);

TYPED_TEST(Lookup, finds_nothing_in_an_empty_tree)
{
    EXPECT_EQ(this->tree_.find(0, 0, 0, TypeParam::maxDepth), TreeIndex());
    auto const& tile = std::as_const(this->tree_).tileAccessor().tileImpl(0, 0, 0, TypeParam::maxDepth);
    EXPECT_FALSE(tile.valid());
    EXPECT_EQ(tile.treeIndex(), TreeIndex());
}

TYPED_TEST(Lookup, agrees_with_the_set_of_tiles_everywhere)
{
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(seed);
        addRandomTiles(random, this->tree_, this->set_, 80);
        this->compare(random, std::as_const(this->tree_).tileAccessor(), 1500);
    }
}

TYPED_TEST(Lookup, stays_right_with_an_accessor_from_before_a_change)
{
    Random random(77);
    addRandomTiles(random, this->tree_, this->set_, 80);
    auto stale = std::as_const(this->tree_).tileAccessor();
    auto staleGrowing = this->tree_.tileAccessor();
    this->compare(random, stale, 200);
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        if (round % 3 == 1) {
            std::vector<std::vector<OST::int64>> doomed(TypeParam::levels);
            for (int n = 0; n < 30; ++n) {
                auto const& tile = this->tree_.tile(random.below(this->tree_.tileCount(-1)));
                if (tile.depth() < 6) continue;
                doomed[tile.depth()].push_back(tile.index());
                this->set_.remove(keyOf(tile));
            }
            TileMoves moves;
            this->tree_.removeTiles(doomed, moves, false);
        } else if (round % 3 == 2) {
            this->tree_.sortIntoMortonOrder();
        } else {
            for (int n = 0; n < 20; ++n) {
                const Place p = randomPlace<TypeParam>(random, 400);
                const int depth = static_cast<int>(random.between(0, TypeParam::maxDepth));
                const TreeIndex added = staleGrowing.addTile(int(p[0]), int(p[1]), int(p[2]), depth);
                this->set_.add(p, depth);
                ASSERT_TRUE(added.valid());
                EXPECT_EQ(keyOf(this->tree_.tile(added)), TileSet<TypeParam>::keyAt(p, depth));
            }
        }
        ASSERT_EQ(differences(this->tree_, this->set_), "");
        this->compare(random, stale, 300);
        this->compare(random, staleGrowing, 300);
    }
}

TYPED_TEST(Lookup, takes_a_depth_below_0_as_no_tile_and_one_beyond_the_finest_as_the_finest)
{
    this->tree_.tileAccessor().addTile(3, 4, 5, TypeParam::maxDepth);
    EXPECT_EQ(this->tree_.find(3, 4, 5, -1), TreeIndex());
    EXPECT_EQ(this->tree_.find(3, 4, 5, TypeParam::maxDepth + 1), (TreeIndex{0, TypeParam::maxDepth}));
    EXPECT_EQ(this->tree_.find(3, 4, 5, 1000), (TreeIndex{0, TypeParam::maxDepth}));
}

TYPED_TEST(Lookup, finds_neighbours_at_any_time_without_a_table)
{
    using Set = TileSet<TypeParam>;
    for (std::uint64_t seed = 11; seed <= 14; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(seed);
        addRandomTiles(random, this->tree_, this->set_, 30);
        auto accessor = std::as_const(this->tree_).tileAccessor();
        const OST::int64 count = this->tree_.tileCount(-1), step = 1 + count / 250;
        for (OST::int64 n = random.below(step); n < count; n += step) {
            auto const& tile = this->tree_.tile(n);
            for (int direction = 0; direction < 27; ++direction) {
                const int3 offset = neighborOffset(NeighborDirection(direction));
                Place p = toPlace(tile.tijk());
                for (int a = 0; a < 3; ++a) p[a] += offset[a] * Set::tileWidth(tile.depth());
                // The place stands for a whole tile: the finest tile not below this depth that holds it.
                const auto expected = this->set_.find(p, tile.depth());
                auto const& found = accessor.tileNeighbor(tile, NeighborDirection(direction));
                EXPECT_EQ(found.valid(), expected.has_value());
                EXPECT_EQ(found.treeIndex(), accessor.treeIndexNeighbor(tile, NeighborDirection(direction)));
                if (expected) {
                    EXPECT_EQ(keyOf(found), *expected);
                }
                if (direction == kNeighborSelf) {
                    EXPECT_EQ(&found, &tile);
                }
            }
        }
    }
}

TYPED_TEST(Lookup, gives_an_invalid_neighbour_beyond_the_border_of_tile_space)
{
    using Set = TileSet<TypeParam>;
    auto accessor = this->tree_.tileAccessor();
    const int low = int(Set::rangeMin), high = int(Set::rangeMax);
    for (int d = 0; d <= TypeParam::maxDepth; ++d) {
        const auto lowest = this->tree_.tile(accessor.addTile(low, low, low, d));
        const auto highest = this->tree_.tile(accessor.addTile(high, high, high, d));
        for (int direction = 0; direction < 27; ++direction) {
            const int3 o = neighborOffset(NeighborDirection(direction));
            if (o.x < 0 || o.y < 0 || o.z < 0) {
                EXPECT_FALSE(accessor.tileNeighbor(lowest, NeighborDirection(direction)).valid());
                EXPECT_EQ(accessor.treeIndexNeighbor(lowest, NeighborDirection(direction)), TreeIndex());
            }
            if (o.x > 0 || o.y > 0 || o.z > 0) {
                EXPECT_FALSE(accessor.tileNeighbor(highest, NeighborDirection(direction)).valid());
            }
        }
    }
}

TYPED_TEST(Lookup, of_a_tile_added_with_its_ancestors_finds_every_one_of_them)
{
    auto accessor = this->tree_.tileAccessor();
    const TreeIndex added = accessor.addTile(-77, 12345, 5, TypeParam::maxDepth);
    EXPECT_EQ(this->tree_.tileCount(-1), TypeParam::levels);
    for (int d = 0; d <= TypeParam::maxDepth; ++d) {
        EXPECT_EQ(this->tree_.tileCount(d), 1);
        EXPECT_EQ(this->tree_.find(-77, 12345, 5, d), (TreeIndex{0, d}));
    }
    EXPECT_EQ(added, (TreeIndex{0, TypeParam::maxDepth}));
    EXPECT_EQ(accessor.addTile(-77, 12345, 5, TypeParam::maxDepth), added) << "a tile that is there is not added again";
    EXPECT_EQ(this->tree_.tileCount(-1), TypeParam::levels);
}

TYPED_TEST(Lookup, finds_nothing_added_for_a_place_outside_tile_space)
{
    using Set = TileSet<TypeParam>;
    auto accessor = this->tree_.tileAccessor();
    for (std::int64_t outside :
         {Set::rangeMin - 1, Set::rangeMax + 1, std::int64_t(-2147483648ll), std::int64_t(2147483647)})
        for (int axis = 0; axis < 3; ++axis)
            for (int d : {0, 1, TypeParam::maxDepth}) {
                int3 place(0, 0, 0);
                place[axis] = int(outside);
                EXPECT_EQ(accessor.addTile(place.x, place.y, place.z, d), TreeIndex());
                EXPECT_EQ(this->tree_.tileCount(-1), 0);
            }
    // And the tree is in use afterwards as if nothing had happened.
    accessor.addTile(0, 0, 0, 3);
    this->set_.add({0, 0, 0}, 3);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

TYPED_TEST(Lookup, of_a_box_counts_both_of_its_corners_in)
{
    using Set = TileSet<TypeParam>;
    const int d = TypeParam::maxDepth, w = int(Set::tileWidth(d));
    const int x = int(Set::keyAt({0, 0, 0}, d).low[0]);  // a tile border
    auto accessor = this->tree_.tileAccessor();
    accessor.addTiles(int3(x, x, x), int3(x + w - 1, x + w - 1, x + w - 1), d);
    EXPECT_EQ(this->tree_.tileCount(d), 1) << "a box that is one tile";
    accessor.addTiles(int3(x, x, x), int3(x + w, x, x), d);
    EXPECT_EQ(this->tree_.tileCount(d), 2) << "one voxel further in x";
    accessor.addTiles(int3(x - 1, x - 1, x - 1), int3(x, x, x), d);
    EXPECT_EQ(this->tree_.tileCount(d), 9) << "one voxel below in all axes";
    this->set_.addBox({x, x, x}, {x + w, x, x}, d);
    this->set_.addBox({x - 1, x - 1, x - 1}, {x, x, x}, d);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

TYPED_TEST(Lookup, of_a_box_that_reaches_beyond_tile_space_has_the_part_inside)
{
    using Set = TileSet<TypeParam>;
    auto accessor = this->tree_.tileAccessor();
    const int least = -2147483647 - 1, most = 2147483647;
    accessor.addTiles(int3(least, least, least), int3(most, most, most), 1);
    this->set_.addBox({least, least, least}, {most, most, most}, 1);
    EXPECT_EQ(this->tree_.tileCount(1), TypeParam::childCount);
    const int edge = int(Set::rangeMax), near = edge - int(Set::tileWidth(TypeParam::maxDepth));
    accessor.addTiles(int3(near, near, near), int3(most, edge + 1, edge), TypeParam::maxDepth);
    this->set_.addBox({near, near, near}, {most, edge + 1ll, edge}, TypeParam::maxDepth);
    accessor.addTiles(int3(edge + 1, 0, 0), int3(most, 5, 5), TypeParam::maxDepth);  // all of it outside
    accessor.addTiles(int3(5, 5, 5), int3(4, 9, 9), TypeParam::maxDepth);            // holds nothing
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

}  // namespace
}  // namespace tilegrid::test
