#include "support/trees.h"

#include <mutex>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr> class Growth : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    void expectTree() { EXPECT_EQ(differences(tree_, set_), ""); }
    Tree<Tr> tree_{"tree"};
    Set set_;
};
TYPED_TEST_SUITE(Growth, Structures, StructureNames);

/// Asks for the child whose cell holds a place.
template <class Tr> auto towards(Place const& place)
{
    return [place](auto const& tile, int3 const& cell) {
        return TileSet<Tr>::contains(
            TileSet<Tr>::childOf(keyOf(tile), flatIndex(Tr::branching, cell.x, cell.y, cell.z)), place);
    };
}

TYPED_TEST(Growth, of_an_empty_tree_from_depth_0_creates_the_tile_at_the_origin_first)
{
    TileList<TypeParam> added;
    growAll(
        this->tree_, [](auto const&, int3 const&) { return false; }, &added);
    this->set_.add({0, 0, 0}, 0);
    this->expectTree();
    ASSERT_EQ(added[0].size(), 1u);
    EXPECT_EQ(added[0][0], this->tree_.tile(0, 0).tijk());
}

TYPED_TEST(Growth, of_an_empty_tree_from_a_deeper_depth_adds_nothing)
{
    TileList<TypeParam> added;
    const auto always = [](auto const&, int3 const&) { return true; };
    this->tree_.template refine<decltype(always), 0>(always, TreeIndex(), 1, TypeParam::maxDepth, &added);
    this->expectTree();
    EXPECT_EQ(added, TileList<TypeParam>());
}

TYPED_TEST(Growth, asks_for_children_at_the_finest_depth_in_vain)
{
    const auto wants = towards<TypeParam>({9, 9, 9});
    growAll(this->tree_, wants);
    this->set_.add({9, 9, 9}, TypeParam::maxDepth);
    this->expectTree();
    const auto always = [](auto const&, int3 const&) { return true; };
    this->tree_.template refine<decltype(always), 0>(always, TreeIndex{0, TypeParam::maxDepth}, 0, TypeParam::maxDepth,
                                                     nullptr);
    this->tree_.template refine<decltype(always), 0>(always, TreeIndex(), TypeParam::maxDepth, TypeParam::maxDepth,
                                                     nullptr);
    this->expectTree();
}

TYPED_TEST(Growth, ends_at_the_maximum_depth_of_the_call)
{
    for (int deepest : {0, 1, 5, TypeParam::maxDepth - 1}) {
        growAll(this->tree_, towards<TypeParam>({-1, 2, 3}), nullptr, deepest);
        this->set_.add({-1, 2, 3}, deepest);
        this->expectTree();
    }
}

TYPED_TEST(Growth, from_one_tile_leaves_everything_outside_its_subtree_alone)
{
    auto accessor = this->tree_.tileAccessor();
    const Place a{5, 5, 5}, b{-100000, 70, 123456};
    for (Place const& p : {a, b}) {
        accessor.addTile(int(p[0]), int(p[1]), int(p[2]), TypeParam::maxDepth - 2);
        this->set_.add(p, TypeParam::maxDepth - 2);
    }
    const TileKey start = TileSet<TypeParam>::keyAt(b, TypeParam::maxDepth - 2);
    const auto always = [](auto const&, int3 const&) { return true; };
    const auto alwaysKey = [](TileKey const&, int) { return true; };
    this->tree_.template refine<decltype(always), 0>(always, indexOf(this->tree_, start), 0, TypeParam::maxDepth - 1,
                                                     nullptr);
    this->set_.grow(start, alwaysKey, TypeParam::maxDepth - 1);
    EXPECT_EQ(this->set_.count(TypeParam::maxDepth - 1), TypeParam::childCount);
    this->expectTree();
}

TYPED_TEST(Growth, from_a_depth_starts_at_every_tile_of_that_depth)
{
    Random random(5);
    addRandomTiles(random, this->tree_, this->set_, 40);
    const int from = TypeParam::maxDepth - 3;
    const auto firstCell = [](auto const&, int3 const& cell) { return cell == int3(0, 0, 0); };
    const auto firstCellKey = [](TileKey const&, int cell) { return cell == 0; };
    this->tree_.template refine<decltype(firstCell), 0>(firstCell, TreeIndex(), from, TypeParam::maxDepth, nullptr);
    for (TileKey const& key : this->set_.list())
        if (key.depth == from) this->set_.grow(key, firstCellKey, TypeParam::maxDepth);
    this->expectTree();
}

TYPED_TEST(Growth, walks_through_children_that_exist_only_where_it_is_told_to)
{
    // Two chains below one tile; only one is entered, although both are there.
    const Place a{5, 5, 5}, b{5 + TileSet<TypeParam>::tileWidth(TypeParam::maxDepth - 3), 5, 5};
    auto accessor = this->tree_.tileAccessor();
    for (Place const& p : {a, b}) {
        accessor.addTile(int(p[0]), int(p[1]), int(p[2]), TypeParam::maxDepth - 2);
        this->set_.add(p, TypeParam::maxDepth - 2);
    }
    growAll(this->tree_, towards<TypeParam>(a));
    this->set_.add(a, TypeParam::maxDepth);
    this->expectTree();
}

TYPED_TEST(Growth, asks_every_tile_once_for_each_of_its_cells)
{
    std::mutex mutex;
    std::map<TileKey, std::map<int, int>> asked;
    const SphereBand<TypeParam> band(TypeParam::maxDepth - 1, 4);
    const auto wants = [&](auto const& tile, int3 const& cell) {
        const std::scoped_lock lock(mutex);
        ++asked[keyOf(tile)][flatIndex(TypeParam::branching, cell.x, cell.y, cell.z)];
        return band(tile, cell);
    };
    growAll(this->tree_, wants, nullptr, TypeParam::maxDepth - 1);
    this->set_.add({0, 0, 0}, 0);
    this->set_.grow(this->set_.list()[0], band, TypeParam::maxDepth - 1);
    this->expectTree();
    for (TileKey const& key : this->set_.list()) {
        if (key.depth == TypeParam::maxDepth - 1) continue;  // nothing can come of asking there
        ASSERT_EQ(int(asked[key].size()), TypeParam::childCount) << key;
        for (auto const& [cell, times] : asked[key]) EXPECT_EQ(times, 1) << key << " cell " << cell;
    }
}

TYPED_TEST(Growth, sees_a_tile_not_yet_in_the_tree_with_the_index_that_it_will_have)
{
    Random random(6);
    addRandomTiles(random, this->tree_, this->set_, 10);
    std::mutex mutex;
    std::map<TileKey, TreeIndex> seen;
    const SphereBand<TypeParam> band(TypeParam::maxDepth - 2, 3);
    const auto wants = [&](auto const& tile, int3 const& cell) {
        const std::scoped_lock lock(mutex);
        seen[keyOf(tile)] = tile.treeIndex();
        return band(tile, cell);
    };
    growAll(this->tree_, wants);
    ASSERT_GT(seen.size(), 50u);
    for (auto const& [key, index] : seen) EXPECT_EQ(index, indexOf(this->tree_, key)) << key;
}

TYPED_TEST(Growth, puts_new_tiles_behind_the_old_ones_in_morton_order)
{
    Random random(3);
    addRandomTiles(random, this->tree_, this->set_, 40);
    const auto before = orderOf(this->tree_);
    TileList<TypeParam> added;
    const SphereBand<TypeParam> band(TypeParam::maxDepth);
    growAll(this->tree_, band, &added);
    this->set_.grow(TileSet<TypeParam>::keyAt({0, 0, 0}, 0), band, TypeParam::maxDepth);
    this->expectTree();
    const auto now = orderOf(this->tree_);
    for (int d = 0; d < TypeParam::levels; ++d) {
        const auto split = now[d].begin() + static_cast<std::ptrdiff_t>(before[d].size());
        EXPECT_TRUE(std::equal(now[d].begin(), split, before[d].begin()));
        EXPECT_TRUE(std::is_sorted(split, now[d].end(), TileSet<TypeParam>::mortonBefore)) << "depth " << d;
        ASSERT_EQ(static_cast<std::ptrdiff_t>(added[d].size()), now[d].end() - split);
        for (std::size_t n = 0; n < added[d].size(); ++n)
            EXPECT_EQ(toPlace(added[d][n]), split[static_cast<std::ptrdiff_t>(n)].low);
    }
}

TYPED_TEST(Growth, is_the_same_serially_and_in_parallel)
{
    const SphereBand<TypeParam> band(TypeParam::maxDepth, 4);
    Tree<TypeParam> serial("serial");
    TileList<TypeParam> addedSerial, added;
    serial.template refine<SphereBand<TypeParam>, 0>(band, TreeIndex(), 0, TypeParam::maxDepth, &addedSerial,
                                                     kTreeSerialOrder);
    growAll(this->tree_, band, &added);
    EXPECT_TRUE(orderOf(serial) == orderOf(this->tree_));
    EXPECT_EQ(addedSerial, added);
}

TYPED_TEST(Growth, from_many_tiles_is_the_same_serially_and_in_parallel_and_in_morton_order)
{
    // Start tiles in no particular order: a walk from one to the next meets the new tiles out of order.
    Random random(8);
    addRandomTiles(random, this->tree_, this->set_, 60);
    const int from = TypeParam::maxDepth - 3;
    const auto someCells = [](auto const& tile, int3 const& cell) { return (cell.x + cell.z + tile.depth()) % 2 == 0; };
    Tree<TypeParam> serial(this->tree_), parallel(this->tree_);
    const auto before = orderOf(this->tree_);
    const auto grow = [&](Tree<TypeParam>& tree, TraversalMode mode) {
        tree.template refine<decltype(someCells), 0>(someCells, TreeIndex(), from, from + 2, nullptr, mode);
    };
    grow(serial, kTreeSerialOrder);
    grow(parallel, kParallelTree);
    const auto now = orderOf(serial);
    EXPECT_TRUE(now == orderOf(parallel));
    for (int d = from + 1; d <= from + 2; ++d) {
        const auto split = now[d].begin() + static_cast<std::ptrdiff_t>(before[d].size());
        EXPECT_GT(now[d].end() - split, 50);
        EXPECT_TRUE(std::is_sorted(split, now[d].end(), TileSet<TypeParam>::mortonBefore)) << "depth " << d;
    }
}

TYPED_TEST(Growth, over_an_empty_range_adds_only_the_root)
{
    int calls = 0;
    const auto add = [&calls](int64 begin, int64 end, Tree<TypeParam>&) { calls += end > begin; };
    TileList<TypeParam> added;
    this->tree_.template refine<decltype(add), int64>(add, 0, 0, 4, &added);
    this->set_.add({0, 0, 0}, 0);
    this->expectTree();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(added[0].size(), 1u);
}

TYPED_TEST(Growth, over_a_range_cuts_it_at_the_halves_whatever_the_threads)
{
    for (auto [begin, end, grain] : {std::array<int64, 3>{0, 1000, 7}, {-5, 40, 1}, {3, 4, 10}, {10, 26, 16}}) {
        std::vector<std::pair<int64, int64>> expected;
        const auto halves = [&, grain = grain](auto const& self, int64 b, int64 e) -> void {
            if (e - b > grain) {
                self(self, b, b + (e - b) / 2);
                self(self, b + (e - b) / 2, e);
            } else {
                expected.push_back({b, e});
            }
        };
        halves(halves, begin, end);
        std::mutex mutex;
        std::vector<std::pair<int64, int64>> parts;
        const auto add = [&](int64 b, int64 e, Tree<TypeParam>& collected) {
            EXPECT_EQ(collected.tileCount(0), 1) << "every part starts from the root tile";
            const std::scoped_lock lock(mutex);
            parts.push_back({b, e});
        };
        this->tree_.template refine<decltype(add), int64>(add, begin, end, static_cast<std::size_t>(grain), nullptr);
        std::sort(parts.begin(), parts.end());
        EXPECT_EQ(parts, expected);
    }
}

TYPED_TEST(Growth, over_a_range_joins_the_parts_from_left_to_right)
{
    // Tiles of one depth come out in the order of the range; the second half names tiles of the first once more.
    std::vector<Place> places;
    Random random(21);
    for (int n = 0; n < 200; ++n) places.push_back({random.between(-4000, 4000), random.between(-4000, 4000), 0});
    places.insert(places.end(), places.begin(), places.begin() + 50);
    const auto add = [&places](int64 begin, int64 end, Tree<TypeParam>& collected) {
        auto accessor = collected.tileAccessor();
        for (int64 n = begin; n < end; ++n)
            accessor.addTile(int(places[n][0]), int(places[n][1]), int(places[n][2]), TypeParam::maxDepth);
    };
    this->tree_.template refine<decltype(add), int64>(add, 0, int64(places.size()), 3, nullptr);
    this->set_.add({0, 0, 0}, 0);
    std::vector<TileKey> expected;
    for (Place const& p : places) {
        this->set_.add(p, TypeParam::maxDepth);
        const TileKey key = TileSet<TypeParam>::keyAt(p, TypeParam::maxDepth);
        if (std::find(expected.begin(), expected.end(), key) == expected.end()) expected.push_back(key);
    }
    this->expectTree();
    EXPECT_TRUE(orderOf(this->tree_)[TypeParam::maxDepth] == expected);
}

TYPED_TEST(Growth, by_another_tree_appends_to_a_list_that_is_not_empty)
{
    Tree<TypeParam> other("other");
    other.tileAccessor().addTile(1, 1, 1, 2);
    TileList<TypeParam> added;
    added[1].push_back(int3(11, 12, 13));
    this->tree_.refine(other, &added, true);
    ASSERT_EQ(added[1].size(), 2u);
    EXPECT_EQ(added[1][0], int3(11, 12, 13));
    EXPECT_EQ(added[1][1], other.tile(0, 1).tijk());
    this->tree_.refine(other, &added, true);
    EXPECT_EQ(added[1].size(), 2u) << "nothing was missing";
    this->tree_.refine(Tree<TypeParam>("empty"), &added, true);
    this->set_.add({1, 1, 1}, 2);
    this->expectTree();
}

TYPED_TEST(Growth, by_the_tree_itself_changes_nothing)
{
    Random random(4);
    addRandomTiles(random, this->tree_, this->set_, 30);
    this->tree_.refine(this->tree_, nullptr, true);
    this->expectTree();
}

TYPED_TEST(Growth, in_a_private_container_does_not_touch_its_owner)
{
    this->tree_.setVoxelSize(0.125f);
    Tree<TypeParam>* mine = this->tree_.threadLocalContainer(0);
    ASSERT_NE(mine, nullptr);
    EXPECT_TRUE(mine->empty());
    EXPECT_EQ(mine->voxelSize(), 0.125f);
    mine->tileAccessor().addTile(0, 0, 0, 4);
    EXPECT_TRUE(this->tree_.empty());
    this->tree_.freeThreadLocalContainer(mine);
}

}  // namespace
}  // namespace tilegrid::test
