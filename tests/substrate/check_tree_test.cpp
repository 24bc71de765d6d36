// What the check of a tree finds, on trees that are broken in one known way.
#include "TilegridOps/substrate/container.h"
#include "support/files.h"
#include "support/structures.h"
#include "support/trees.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// Writes members of tiles that nobody else may write.
template <class Tr> struct TileMembers : Tile<Tr, Tr::childCount> {
    using Base = Tile<Tr, Tr::childCount>;
    static int3& tijk(Base& tile) { return tile.*(&TileMembers::tijk_); }
    static std::int32_t& depth(Base& tile) { return tile.*(&TileMembers::depth_); }
    static OST::int64& index(Base& tile) { return tile.*(&TileMembers::index_); }
    static OST::int64& parent(Base& tile) { return tile.*(&TileMembers::parentIndex_); }
    static ChildTable<Tr::childCount>& children(Base& tile) { return tile.*(&TileMembers::children_); }
    static bool& valid(Base& tile) { return tile.*(&TileMembers::valid_); }
};

template <class Tr> class BrokenTree : public ::testing::Test {
protected:
    using TileT = typename Tree<Tr>::Tile;
    static constexpr int kDepth = 3;

    BrokenTree()
    {
        // A box around the origin down to depth 3, and one more tile far away, so that there are several parents.
        const int w = static_cast<int>(TileSet<Tr>::tileWidth(kDepth));
        tree_.tileAccessor().addTiles(int3(-w), int3(w), kDepth);
        tree_.tileAccessor().addTile(Tr::rangeMin, Tr::rangeMin, Tr::rangeMin, kDepth);
        EXPECT_EQ(lines(), "");
    }
    TileT& first() { return tree_.tile(0, kDepth); }
    TileT& second() { return tree_.tile(1, kDepth); }
    TileT& parent() { return tree_.tile(first().parentTreeIndex()); }
    /// Of the first tile in its parent.
    int cellOfFirst()
    {
        const int3 cell = parent().childIJK(first());
        return flatIndex(Tr::branching, cell.x, cell.y, cell.z);
    }
    /// A child table with the entries of `tile` that its caller may change.
    std::array<OST::int64, Tr::childCount> entriesOf(TileT const& tile) const
    {
        std::array<OST::int64, Tr::childCount> entries;
        std::copy_n(tile.childIndices(), Tr::childCount, entries.begin());
        return entries;
    }
    std::string lines() const
    {
        std::string text;
        for (std::string const& line : checkTree(tree_)) text += line + "\n";
        return text;
    }
    /// The check finds `what`, and the tile in which it is to be found.
    void expectFault(TileT const& tile, std::string const& what) const
    {
        const std::string text = lines();
        EXPECT_TRUE(contains(text, what)) << text;
        EXPECT_TRUE(contains(text, "tile " + std::to_string(tile.index()) + " of depth " + std::to_string(tile.depth()))) << text;
    }
    Tree<Tr> tree_{"tree"};
};
TYPED_TEST_SUITE(BrokenTree, Structures, StructureNames);

TYPED_TEST(BrokenTree, with_a_placeholder_among_its_tiles_is_found)
{
    TileMembers<TypeParam>::valid(this->first()) = false;
    this->expectFault(this->first(), "it is marked as a placeholder");
}

TYPED_TEST(BrokenTree, whose_tile_gives_another_index_or_depth_is_found)
{
    TileMembers<TypeParam>::index(this->first()) = 1;
    this->expectFault(this->first(), "it does not know its own place");
    TileMembers<TypeParam>::index(this->first()) = 0;
    TileMembers<TypeParam>::depth(this->first()) = this->kDepth + 1;
    this->expectFault(this->first(), "it does not know its own place");
}

TYPED_TEST(BrokenTree, whose_tile_is_moved_by_less_than_its_width_is_found)
{
    TileMembers<TypeParam>::tijk(this->first()).y += 1;
    this->expectFault(this->first(), "it is not aligned to its width");
}

TYPED_TEST(BrokenTree, whose_tile_is_moved_out_of_tile_space_is_found)
{
    using Set = TileSet<TypeParam>;
    TileMembers<TypeParam>::tijk(this->first()).x = static_cast<int>(Set::rangeMin - Set::tileWidth(this->kDepth));
    this->expectFault(this->first(), "it leaves tile space");
    TileMembers<TypeParam>::tijk(this->first()).x = static_cast<int>(Set::rangeMax + 1);
    this->expectFault(this->first(), "it leaves tile space");
}

TYPED_TEST(BrokenTree, whose_tile_is_moved_out_of_its_parent_is_found)
{
    TileMembers<TypeParam>::tijk(this->first()).z -= this->parent().tileVoxelWidth();
    this->expectFault(this->first(), "it lies outside its parent");
}

TYPED_TEST(BrokenTree, whose_tile_is_moved_to_another_cell_of_its_parent_is_found)
{
    auto& tile = this->first();
    const int step = tile.tileVoxelWidth();
    const int3 cell = this->parent().childIJK(tile);
    TileMembers<TypeParam>::tijk(tile).x += cell.x == 0 ? step : -step;
    this->expectFault(tile, "its parent does not list it");
}

TYPED_TEST(BrokenTree, with_two_tiles_at_one_place_is_found)
{
    TileMembers<TypeParam>::tijk(this->second()) = this->first().tijk();
    this->expectFault(this->second(), "another tile lies at the same place");
}

TYPED_TEST(BrokenTree, whose_tile_lost_its_parent_is_found)
{
    TileMembers<TypeParam>::parent(this->first()) = -1;
    this->expectFault(this->first(), "it has no parent and is no root");
    this->expectFault(this->first(), "its ancestors are missing");
}

TYPED_TEST(BrokenTree, whose_tile_names_a_parent_beyond_the_last_is_found)
{
    TileMembers<TypeParam>::parent(this->first()) = this->tree_.tileCount(this->kDepth - 1);
    this->expectFault(this->first(), "its parent does not exist");
}

TYPED_TEST(BrokenTree, whose_parent_forgot_its_child_is_found)
{
    auto entries = this->entriesOf(this->parent());
    entries[std::size_t(this->cellOfFirst())] = -1;
    TileMembers<TypeParam>::children(this->parent()).entries = entries.data();
    this->expectFault(this->first(), "its parent does not list it");
}

TYPED_TEST(BrokenTree, whose_parent_lists_a_child_beyond_the_last_is_found)
{
    auto entries = this->entriesOf(this->parent());
    entries[std::size_t(this->cellOfFirst())] = this->tree_.tileCount(this->kDepth);
    TileMembers<TypeParam>::children(this->parent()).entries = entries.data();
    this->expectFault(this->parent(), "it lists a child that does not exist");
}

TYPED_TEST(BrokenTree, whose_tile_lists_the_child_of_another_is_found)
{
    // The last tile of the depth above takes the first tile, which is not below it.
    auto& thief = this->tree_.tile(this->tree_.tileCount(this->kDepth - 1) - 1, this->kDepth - 1);
    ASSERT_NE(thief.treeIndex(), this->parent().treeIndex());
    auto entries = this->entriesOf(thief);
    entries[0] = 0;
    TileMembers<TypeParam>::children(thief).entries = entries.data();
    this->expectFault(thief, "it lists a child that has another parent");
}

TYPED_TEST(BrokenTree, whose_tile_at_the_finest_depth_lists_a_child_is_found)
{
    Tree<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, TypeParam::maxDepth);
    auto& tile = tree.tile(0, TypeParam::maxDepth);
    auto entries = this->entriesOf(tile);
    entries[0] = 0;
    TileMembers<TypeParam>::children(tile).entries = entries.data();
    const auto wrong = checkTree(tree);
    ASSERT_EQ(wrong.size(), 1u);
    EXPECT_TRUE(contains(wrong.front(), "it lists a child that does not exist")) << wrong.front();
}

TYPED_TEST(BrokenTree, whose_tile_owns_an_empty_child_table_is_found)
{
    std::array<OST::int64, TypeParam::childCount> none;
    none.fill(-1);
    TileMembers<TypeParam>::children(this->first()).entries = none.data();
    this->expectFault(this->first(), "it owns a child table without children");
}

TYPED_TEST(BrokenTree, whose_root_lies_at_another_place_than_it_is_listed_is_found)
{
    auto& root = this->tree_.tile(0, 0);
    TileMembers<TypeParam>::tijk(root).x += 1;
    this->expectFault(root, "it is listed as a root of another place");
    EXPECT_TRUE(contains(this->lines(), "the list of roots names a tile that is not there")) << this->lines();
}

}  // namespace
}  // namespace tilegrid::test
