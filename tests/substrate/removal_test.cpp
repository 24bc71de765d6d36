#include "support/address_channels.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr> class Removal : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    Removal()
    {
        Random random(31);
        addRandomTiles(random, tree_, set_, 50);
    }
    /// The tile of that depth with the most descendants.
    TileKey richest(int depth) const
    {
        TileKey best;
        std::ptrdiff_t most = -1;
        for (TileKey const& key : set_.list()) {
            if (key.depth != depth) continue;
            const auto below = std::count_if(set_.tiles().begin(), set_.tiles().end(), [&key](TileKey const& k) {
                return k.depth > key.depth && Set::contains(key, k.low);
            });
            if (below > most) most = below, best = key;
        }
        return best;
    }
    void remove(TileKey const& key)
    {
        std::vector<std::vector<int64>> doomed(Tr::levels);
        doomed[key.depth].push_back(indexOf(tree_, key).index);
        TileMoves moves;
        tree_.removeTiles(doomed, moves, true);
        set_.remove(key);
        EXPECT_EQ(differences(tree_, set_), "");
    }
    Tree<Tr> tree_{"tree"};
    Set set_;
};
TYPED_TEST_SUITE(Removal, Structures, StructureNames);

TYPED_TEST(Removal, of_a_tile_takes_all_its_descendants_with_it)
{
    const TileKey victim = this->richest(TypeParam::maxDepth - 6);
    const auto before = this->set_.tiles().size();
    this->remove(victim);
    ASSERT_LT(this->set_.tiles().size() + 8, before) << "the tile had many descendants";
}

TYPED_TEST(Removal, of_the_root_leaves_an_empty_tree_that_can_grow_again)
{
    this->remove(TileSet<TypeParam>::keyAt({0, 0, 0}, 0));
    EXPECT_TRUE(this->tree_.empty());
    EXPECT_EQ(this->tree_.deepestDepth(), -1);
    EXPECT_TRUE(this->tree_.cbeginRoots() == this->tree_.cendRoots());
    Random random(32);
    addRandomTiles(random, this->tree_, this->set_, 20);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

TYPED_TEST(Removal, of_the_last_child_makes_its_parent_a_leaf)
{
    auto accessor = this->tree_.tileAccessor();
    const Place lone{400000000, 400000000, -400000000};
    accessor.addTile(int(lone[0]), int(lone[1]), int(lone[2]), TypeParam::maxDepth);
    this->set_.add(lone, TypeParam::maxDepth);
    this->remove(TileSet<TypeParam>::keyAt(lone, TypeParam::maxDepth));
    auto const& parent =
        this->tree_.tile(indexOf(this->tree_, TileSet<TypeParam>::keyAt(lone, TypeParam::maxDepth - 1)));
    EXPECT_TRUE(parent.isLeaf());
    accessor.addTile(int(lone[0]), int(lone[1]), int(lone[2]), TypeParam::maxDepth);
    this->set_.add(lone, TypeParam::maxDepth);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
}

TYPED_TEST(Removal, of_a_tile_named_twice_and_below_another_named_one_removes_it_once)
{
    const TileKey parent = this->richest(TypeParam::maxDepth - 3);
    std::vector<std::vector<int64>> doomed(TypeParam::levels);
    for (TileKey const& key : this->set_.list())
        if (key.depth >= parent.depth && TileSet<TypeParam>::contains(parent, key.low))
            for (int twice = 0; twice < 2; ++twice) doomed[key.depth].push_back(indexOf(this->tree_, key).index);
    ASSERT_GE(doomed[TypeParam::maxDepth].size(), 2u);
    std::reverse(doomed[TypeParam::maxDepth].begin(), doomed[TypeParam::maxDepth].end());
    TileMoves moves;
    this->tree_.removeTiles(doomed, moves, true);
    this->set_.remove(parent);
    EXPECT_EQ(differences(this->tree_, this->set_), "");
    for (auto const& level : doomed)
        EXPECT_TRUE(std::adjacent_find(level.begin(), level.end(), std::greater_equal<>()) == level.end());
}

TYPED_TEST(Removal, of_nothing_changes_nothing)
{
    const auto before = orderOf(this->tree_);
    std::vector<std::vector<int64>> none;
    TileMoves moves;
    this->tree_.removeTiles(none, moves, true);
    EXPECT_TRUE(orderOf(this->tree_) == before);
    for (auto const& level : moves)
        for (auto const& [from, to] : level) EXPECT_EQ(from, to);
}

TYPED_TEST(Removal, in_many_rounds_keeps_every_value_with_its_tile)
{
    AddressChannels<TypeParam> channels(this->tree_);
    Random random(33);
    while (!this->tree_.empty()) {
        std::vector<std::vector<int64>> doomed(TypeParam::levels);
        for (int n = 0; n < 25; ++n) {
            auto const& tile = this->tree_.tile(random.below(this->tree_.tileCount(-1)));
            doomed[tile.depth()].push_back(tile.index());
            this->set_.remove(keyOf(tile));
            if (tile.depth() < 3) break;
        }
        const std::set<TileKey> rest = this->set_.tiles();
        TileMoves moves;
        this->tree_.removeTiles(doomed, moves, true);
        channels.tilesRemoved(moves);
        ASSERT_EQ(channels.violations(rest), "");
    }
    EXPECT_TRUE(this->set_.tiles().empty());
}

TYPED_TEST(Removal, and_sorting_leave_a_copy_of_the_tree_alone)
{
    const Tree<TypeParam> copy(this->tree_);
    const auto before = orderOf(copy);
    const TileSet<TypeParam> set = this->set_;
    this->tree_.sortIntoMortonOrder();
    this->remove(TileSet<TypeParam>::keyAt({0, 0, 0}, 2));
    EXPECT_TRUE(orderOf(copy) == before);
    EXPECT_EQ(differences(copy, set), "");
}

TYPED_TEST(Removal, then_sorting_twice_gives_a_permutation_that_keeps_every_place)
{
    this->tree_.sortIntoMortonOrder();
    const auto before = orderOf(this->tree_);
    TilePermutation permutation;
    this->tree_.sortIntoMortonOrder(&permutation);
    EXPECT_TRUE(orderOf(this->tree_) == before);
    for (auto const& level : permutation)
        for (std::size_t n = 0; n < level.size(); ++n) EXPECT_EQ(level[n], int64(n));
}

}  // namespace
}  // namespace tilegrid::test
