#include "TilegridOps/substrate/accessor.h"
#include "support/jobs.h"
#include "support/output.h"
#include "support/site_oracle.h"
#include "support/text_match.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

/// The neighbour that the set of tiles has, by search.
template <class Tr> std::optional<TileKey> neighborIn(TileSet<Tr> const& set, TileKey const& key, int3 const& step)
{
    Place place = key.low;
    for (int a = 0; a < 3; ++a) place[a] += step[a] * TileSet<Tr>::tileWidth(key.depth);
    return set.find(place, key.depth);
}

/// The first wrong answers of the accessor, over all tiles and directions.
template <class Tr> std::string wrongNeighbors(ConstTileAccessor<Tr> const& accessor, TileSet<Tr> const& set)
{
    std::ostringstream out;
    auto const& tree = accessor.container();
    for (int64 n = 0; n < tree.tileCount(-1) && out.tellp() < 300; ++n) {
        auto const& tile = tree.tile(n);
        for (int d = 0; d < 27; ++d) {
            const auto direction = static_cast<NeighborDirection>(d);
            const auto expected = neighborIn(set, keyOf(tile), int3(d / 9 - 1, d / 3 % 3 - 1, d % 3 - 1));
            auto const& found = accessor.tileNeighbor(tile, direction);
            const TreeIndex index = accessor.treeIndexNeighbor(tile, direction);
            if (found.valid() != expected.has_value() || (expected && keyOf(found) != *expected)
                || index != found.treeIndex())
                out << "direction " << d << " of " << keyOf(tile) << "\n";
        }
    }
    return out.str();
}

template <class Tr> class Neighbors : public ::testing::Test {
public:
    void make(std::uint64_t seed, int tiles, bool graded)
    {
        set_ = randomSet<Tr>(seed, tiles, graded);
        addAll(set_, tree_);
    }
    std::string wrong() const { return wrongNeighbors(std::as_const(tree_).tileAccessor(), set_); }
    Tree<Tr> tree_{"tree"};
    TileSet<Tr> set_;
};
TYPED_TEST_SUITE(Neighbors, Structures, StructureNames);

TYPED_TEST(Neighbors, from_the_table_are_those_found_by_search)
{
    for (bool graded : {false, true}) {
        SCOPED_TRACE(graded ? "graded" : "not graded");
        const auto set = randomSet<TypeParam>(graded ? 11 : 12, 80, graded);
        Tree<TypeParam> tree("tree");
        addAll(set, tree);
        EXPECT_EQ(tree.tileNeighbors(), nullptr);
        EXPECT_EQ(wrongNeighbors(std::as_const(tree).tileAccessor(), set), "") << "without a table";
        tree.precomputeTileNeighbors();
        EXPECT_NE(tree.tileNeighbors(), nullptr);
        EXPECT_EQ(wrongNeighbors(std::as_const(tree).tileAccessor(), set), "") << "with the table";
    }
}

TYPED_TEST(Neighbors, are_right_in_an_empty_tree_and_around_the_root)
{
    this->tree_.precomputeTileNeighbors();
    this->tree_.precomputeCompressedTileHalos();
    auto const& outside = std::as_const(this->tree_)
                              .tileAccessor()
                              .tileNeighbor(Tree<TypeParam>::outsideTile(), neighborDirection(1, 0, 0));
    EXPECT_FALSE(outside.valid());
    this->set_.add({0, 0, 0}, 0);
    addAll(this->set_, this->tree_);
    EXPECT_EQ(this->wrong(), "");
    this->tree_.precomputeTileNeighbors();
    EXPECT_EQ(this->wrong(), "");
}

TYPED_TEST(Neighbors, stay_right_through_every_change_of_the_tree)
{
    constexpr int D = TypeParam::maxDepth;
    this->make(21, 40, false);
    // One accessor lives through all of it.
    const auto accessor = std::as_const(this->tree_).tileAccessor();
    const auto check = [&](char const* after) {
        EXPECT_EQ(this->tree_.tileNeighbors(), nullptr) << after;
        EXPECT_EQ(wrongNeighbors(accessor, this->set_), "") << "right after " << after;
        this->tree_.precomputeTileNeighbors();
        EXPECT_NE(this->tree_.tileNeighbors(), nullptr) << after;
        EXPECT_EQ(wrongNeighbors(accessor, this->set_), "") << "with a new table after " << after;
    };
    check("the start");

    // The neighbours of one tile, so that places that had a coarser one get one of the same depth.
    const TileKey deep = this->set_.list().back();
    for (int side : {-1, 1}) {
        Place place = deep.low;
        place[0] += side * TileSet<TypeParam>::tileWidth(deep.depth);
        if (!TileSet<TypeParam>::inRange(place)) continue;
        this->set_.add(place, deep.depth);
        this->tree_.tileAccessor().addTile(static_cast<int>(place[0]), static_cast<int>(place[1]),
                                           static_cast<int>(place[2]), deep.depth);
    }
    check("tiles were added one by one");

    Tree<TypeParam> other("other");
    TileSet<TypeParam> others;
    Random random(22);
    addRandomTiles(random, other, others, 30);
    this->tree_.refine(other, nullptr, false);
    this->set_.addAll(others);
    check("another tree was added");

    std::vector<std::vector<int64>> removed(TypeParam::levels);
    for (int depth = D - 2; depth <= D; ++depth)
        for (int64 n = 0; n < this->tree_.tileCount(depth); n += 5) removed[depth].push_back(n);
    for (int depth = D - 2; depth <= D; ++depth)
        for (int64 n : removed[depth]) this->set_.remove(keyOf(this->tree_.tile(n, depth)));
    TileMoves moves;
    this->tree_.removeTiles(removed, moves, true);
    check("tiles were removed");

    this->tree_.sortIntoMortonOrder();
    check("the tiles were sorted");

    const SphereBand<TypeParam> band(D, 3);
    growAll(this->tree_, band);
    for (TileKey const& key : this->set_.list())
        if (key.depth == 0) this->set_.grow(key, band, D);
    check("the tree grew");
}

TYPED_TEST(Neighbors, of_tiles_that_the_tree_does_not_hold_are_found_as_well)
{
    this->make(31, 40, false);
    this->tree_.precomputeTileNeighbors();
    // Another tree, whose tiles of equal index lie elsewhere.
    Tree<TypeParam> other("other");
    TileSet<TypeParam> others;
    Random random(32);
    addRandomTiles(random, other, others, 60);
    const auto accessor = std::as_const(this->tree_).tileAccessor();
    for (int64 n = 0; n < other.tileCount(-1); ++n)
        for (int d = 0; d < 27; ++d) {
            auto const& tile = other.tile(n);
            const auto expected =
                neighborIn(this->set_, keyOf(tile), neighborOffset(static_cast<NeighborDirection>(d)));
            auto const& found = accessor.tileNeighbor(tile, static_cast<NeighborDirection>(d));
            ASSERT_EQ(found.valid(), expected.has_value());
            if (expected) {
                ASSERT_EQ(keyOf(found), *expected);
            }
        }
}

TYPED_TEST(Neighbors, in_the_table_are_the_same_for_any_number_of_threads_and_after_a_copy)
{
    this->make(41, 60, true);
    for (int threads : kThreadCounts) {
        Tree<TypeParam> copy(this->tree_);
        EXPECT_EQ(copy.tileNeighbors(), nullptr) << "a copy has no table of its own";
        EXPECT_EQ(copy.highNeighbors(), nullptr);
        pollsOf(threads, [&] {
            copy.precomputeTileNeighbors();
            copy.precomputeCompressedTileHalos();
        });
        EXPECT_EQ(wrongNeighbors(std::as_const(copy).tileAccessor(), this->set_), "") << threads << " threads";
        auto const* high = copy.highNeighbors();
        ASSERT_NE(high, nullptr);
        for (int64 n = 0; n < copy.tileCount(-1); ++n)
            for (int h = 0; h < kHighNeighbors; ++h) {
                auto const& tile = copy.tile(n);
                const int3 step((h + 1) % 2, (h + 1) / 2 % 2, (h + 1) / 4);
                const auto expected = neighborIn(this->set_, keyOf(tile), step);
                const std::int32_t found = high->of(tile.treeIndex())[h];
                if (expected && expected->depth == tile.depth()) {
                    ASSERT_GE(found, 0);
                    ASSERT_EQ(keyOf(copy.tile(found, tile.depth())), *expected);
                } else {
                    ASSERT_EQ(found, -1);
                }
            }
        copy.tileAccessor().addTile(99, 99, 99, TypeParam::maxDepth);
        copy.tileAccessor().addTile(99, -99, 99, TypeParam::maxDepth);
        EXPECT_EQ(copy.highNeighbors(), nullptr) << "after a change";
    }
}

TYPED_TEST(Neighbors, leave_no_table_behind_when_their_making_is_cancelled)
{
    this->make(51, 20, false);
    growAll(this->tree_, SphereBand<TypeParam>(TypeParam::maxDepth, 15));
    for (TileKey const& key : this->set_.list())
        if (key.depth == 0) this->set_.grow(key, SphereBand<TypeParam>(TypeParam::maxDepth, 15), TypeParam::maxDepth);
    std::unique_ptr<Tree<TypeParam>> copy;
    cancelAtEveryPoll([&] { copy = std::make_unique<Tree<TypeParam>>(this->tree_); },
                      [&] {
                          copy->precomputeTileNeighbors();
                          copy->precomputeCompressedTileHalos();
                      },
                      [&] { EXPECT_TRUE(!copy->tileNeighbors() || !copy->highNeighbors()); });
    EXPECT_EQ(wrongNeighbors(std::as_const(*copy).tileAccessor(), this->set_), "");
}

TYPED_TEST(Neighbors, count_as_memory_only_with_what_speeds_up_access)
{
    this->make(61, 30, false);
    std::size_t used = 0, reserved = 0, usedAfter = 0, reservedAfter = 0, usedByAll = 0, reservedByAll = 0;
    this->tree_.memUse(used, reserved, false);
    this->tree_.precomputeTileNeighbors();
    this->tree_.precomputeCompressedTileHalos();
    this->tree_.memUse(usedAfter, reservedAfter, false);
    EXPECT_EQ(usedAfter, used);
    EXPECT_EQ(reservedAfter, reserved);
    this->tree_.memUse(usedByAll, reservedByAll, true);
    EXPECT_GE(usedByAll, used + static_cast<std::size_t>(this->tree_.tileCount(-1)) * (26 + 7) * 4);
}

TYPED_TEST(Neighbors, of_compressed_halos_are_announced_from_verbose_level_2_on)
{
    this->make(71, 10, false);
    for (int level : {0, 1, 2, 3}) {
        this->tree_.tileAccessor().addTile(level, 0, 0, TypeParam::maxDepth);
        const VerboseLevel verbose(level);
        const CapturedStream out;
        this->tree_.precomputeCompressedTileHalos();
        const auto lines = out.lines();
        ASSERT_EQ(lines.size(), level > 1 ? 2u : 0u);
        if (level < 2) continue;
        EXPECT_EQ(lines[0], "Precomputing compressed tile halos.begin");
        EXPECT_TRUE(matches(lines[1], "Precomputing compressed tile halos\\.end \\([0-9]+(\\.[0-9]+)?(e-[0-9]+)?\\)"))
            << lines[1];
    }
}

}  // namespace
}  // namespace tilegrid::test
