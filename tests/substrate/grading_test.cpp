#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "support/clusters.h"
#include "support/jobs.h"
#include "support/output.h"

#include <climits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using CoreGL::TileTree3D::gradeTileTree;
using CoreGL::TileTree3D::isGraded;
using CoreGL::TileTree3D::TileColor;

constexpr std::uint64_t kSeeds[] = {1, 2, 3, 4, 5, 6};

/// A tree of every kind, not graded, with its twin.
template <class Tr> struct Sample {
    Tree<Tr> tree{"tree"};
    TileSet<Tr> set;
    explicit Sample(std::uint64_t seed, int count = 40)
    {
        Random random(seed);
        addClusters(random, tree, set, count);
        addRandomTiles(random, tree, set, count / 4);
    }
};

template <class Tr> std::set<TileKey> keysOf(TileList<Tr> const& list)
{
    std::set<TileKey> keys;
    for (int d = 0; d < Tr::levels; ++d)
        for (int3 const& low : list[d])
            EXPECT_TRUE(keys.insert({d, toPlace(low)}).second) << "listed twice: " << TileKey{d, toPlace(low)};
    return keys;
}

template <class Tr> std::set<TileKey> without(TileSet<Tr> const& all, TileSet<Tr> const& some)
{
    std::set<TileKey> rest;
    for (TileKey const& key : all.tiles())
        if (!some.has(key)) rest.insert(key);
    return rest;
}

template <class Tr> class Grading : public ::testing::Test {};
TYPED_TEST_SUITE(Grading, Structures, StructureNames);

TYPED_TEST(Grading, adds_in_one_call_exactly_the_tiles_of_the_least_graded_set_and_lists_them)
{
    constexpr int D = TypeParam::maxDepth;
    for (std::uint64_t seed : kSeeds) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Sample<TypeParam> sample(seed);
        const auto before = orderOf(sample.tree);
        const auto expected = gradedClosure(sample.set, 0, D);
        TileList<TypeParam> added;
        gradeTileTree<TypeParam>(sample.tree, &added, nullptr, 0, D);
        EXPECT_EQ(differences(sample.tree, expected), "");
        EXPECT_EQ(keysOf<TypeParam>(added), without(expected, sample.set));
        EXPECT_GT(keysOf<TypeParam>(added).size(), 20u);
        const auto after = orderOf(sample.tree);
        for (int d = 0; d <= D; ++d) {
            ASSERT_GE(after[d].size(), before[d].size());
            EXPECT_TRUE(std::equal(before[d].begin(), before[d].end(), after[d].begin()));
            for (std::size_t n = 0; n < added[d].size(); ++n)
                EXPECT_EQ(after[d][before[d].size() + n].low, toPlace(added[d][n])) << "the list is in tile order";
        }
        EXPECT_TRUE(isGraded(sample.tree, 0, D));
    }
}

TYPED_TEST(Grading, of_a_graded_tree_adds_nothing_and_leaves_its_version_alone)
{
    constexpr int D = TypeParam::maxDepth;
    Sample<TypeParam> sample(7);
    gradeTileTree<TypeParam>(sample.tree, nullptr, nullptr, 0, D);
    const auto version = sample.tree.version();
    const auto order = orderOf(sample.tree);
    TileList<TypeParam> added;
    gradeTileTree<TypeParam>(sample.tree, &added, nullptr, 0, D);
    EXPECT_EQ(sample.tree.version(), version);
    EXPECT_TRUE(orderOf(sample.tree) == order);
    EXPECT_EQ(added, TileList<TypeParam>());
}

TYPED_TEST(Grading, without_a_list_adds_the_same_tiles_in_the_same_order)
{
    Sample<TypeParam> sample(8), other(8);
    TileList<TypeParam> added;
    gradeTileTree<TypeParam>(sample.tree, &added, nullptr, 0, TypeParam::maxDepth);
    gradeTileTree<TypeParam>(other.tree, nullptr, nullptr, 0, TypeParam::maxDepth);
    EXPECT_TRUE(orderOf(sample.tree) == orderOf(other.tree));
}

TYPED_TEST(Grading, appends_to_a_list_that_holds_something)
{
    Sample<TypeParam> sample(9);
    TileList<TypeParam> added;
    added[3].push_back(int3(1, 2, 3));
    gradeTileTree<TypeParam>(sample.tree, &added, nullptr, 0, TypeParam::maxDepth);
    EXPECT_GT(added[3].size(), 1u);
    EXPECT_EQ(toPlace(added[3][0]), (Place{1, 2, 3}));
}

TYPED_TEST(Grading, gives_the_same_bytes_on_1_2_and_8_threads)
{
    Sample<TypeParam> first(10, 400);
    gradeTileTree<TypeParam>(first.tree, nullptr, nullptr, 0, TypeParam::maxDepth);
    for (int threads : kThreadCounts) {
        Sample<TypeParam> sample(10, 400);
        parallel::runJob(nullptr, threads,
                         [&] { gradeTileTree<TypeParam>(sample.tree, nullptr, nullptr, 0, TypeParam::maxDepth); });
        EXPECT_TRUE(orderOf(sample.tree) == orderOf(first.tree)) << threads << " threads";
    }
}

TYPED_TEST(Grading, looks_only_at_the_depths_it_is_given)
{
    constexpr int D = TypeParam::maxDepth;
    // The last two depths alone, a part in the middle, and ranges that are nonsense.
    const std::pair<int, int> ranges[] = {{D - 1, D}, {2, 4}, {0, D - 1}, {D, D}, {3, 2}, {-5, D + 9}, {INT_MAX, INT_MAX},
                                          {INT_MIN, INT_MIN}, {INT_MIN, INT_MAX}, {0, 1}, {1, 2}};
    for (auto const& [minDepth, maxDepth] : ranges) {
        SCOPED_TRACE(testing::Message() << minDepth << " to " << maxDepth);
        Sample<TypeParam> sample(11);
        const auto expected = gradedClosure(sample.set, std::min(minDepth, D), maxDepth);
        gradeTileTree<TypeParam>(sample.tree, nullptr, nullptr, minDepth, maxDepth);
        EXPECT_EQ(differences(sample.tree, expected), "");
    }
}

TYPED_TEST(Grading, gives_a_much_coarser_neighbour_one_tile_a_level_coarser_which_the_next_round_grades_in_turn)
{
    constexpr int D = TypeParam::maxDepth;
    using Set = TileSet<TypeParam>;
    // One finest tile at the low corner of a depth 2 tile, beside coarse ones in all low directions.
    Tree<TypeParam> tree("tree");
    Set set;
    const std::int64_t w = Set::tileWidth(2);
    const Place p = Set::keyAt({w / 2, w / 2, w / 2}, 2).low;
    addBoth(tree, set, p, D);
    ASSERT_EQ(tree.tileCount(D), 1);
    gradeTileTree<TypeParam>(tree, nullptr, nullptr, D - 1, D);
    // Of the 26 neighbours, those inside the own parent need nothing; the others lie in 7 tiles of depth D - 1.
    EXPECT_EQ(tree.tileCount(D), 1);
    EXPECT_EQ(tree.tileCount(D - 1), 8);
    gradeTileTree<TypeParam>(tree, nullptr, nullptr, 0, D);
    EXPECT_EQ(differences(tree, gradedClosure(set, 0, D)), "");
}

TYPED_TEST(Grading, leaves_trees_without_deep_tiles_alone)
{
    Tree<TypeParam> empty("empty"), root("root"), shallow("shallow");
    root.tileAccessor().addTile(0, 0, 0, 0);
    shallow.tileAccessor().addTile(0, 0, 0, 1);
    for (Tree<TypeParam>* tree : {&empty, &root, &shallow}) {
        const auto version = tree->version();
        gradeTileTree<TypeParam>(*tree, nullptr, nullptr, 0, TypeParam::maxDepth);
        EXPECT_EQ(tree->version(), version);
        EXPECT_TRUE(isGraded(*tree, 0, TypeParam::maxDepth));
    }
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(shallow.tileCount(-1), 2);
}

TYPED_TEST(Grading, at_the_border_of_tile_space_adds_nothing_beyond)
{
    using Set = TileSet<TypeParam>;
    constexpr int D = TypeParam::maxDepth;
    for (std::int64_t x : {Set::rangeMin, Set::rangeMax})
        for (std::int64_t y : {Set::rangeMin, Set::rangeMax})
            for (std::int64_t z : {Set::rangeMin, Set::rangeMax}) {
                Tree<TypeParam> tree("tree");
                Set set;
                addBoth(tree, set, {x, y, z}, D);
                gradeTileTree<TypeParam>(tree, nullptr, nullptr, 0, D);
                EXPECT_EQ(differences(tree, gradedClosure(set, 0, D)), "");
                EXPECT_TRUE(isGraded(tree, 0, D));
            }
}

TYPED_TEST(Grading, cancelled_at_any_poll_leaves_a_sound_tree_and_a_list_of_what_was_added)
{
    constexpr int D = TypeParam::maxDepth;
    std::optional<Sample<TypeParam>> sample;
    TileList<TypeParam> added;
    const auto closure = gradedClosure(Sample<TypeParam>(12, 16).set, 0, D);
    cancelAtEveryPoll(
        [&] {
            sample.emplace(12, 16);
            added = {};
        },
        [&] { gradeTileTree<TypeParam>(sample->tree, &added, nullptr, 0, D); },
        [&] {
            TileSet<TypeParam> now = sample->set;
            for (TileKey const& key : keysOf<TypeParam>(added)) {
                EXPECT_TRUE(closure.has(key));
                now.add(key.low, key.depth);
            }
            EXPECT_EQ(differences(sample->tree, now), "");
        });
}

/// Colours by tile, and the rules by which grading uses them, one tile after the other.
template <class Tr> struct ColoredTwin {
    TileSet<Tr> set;
    std::map<TileKey, bool> touched;

    void grade(int stop, int maxDepth)
    {
        for (int d = maxDepth; d >= stop; --d) {
            const auto working = touched;
            std::vector<Place> wanted;
            for (TileKey const& key : set.list())
                if (key.depth == d && working.at(key)) visit(key, wanted);
            const TileSet<Tr> before = set;
            for (Place const& p : wanted) set.add(p, d - 1);
            for (TileKey const& key : without(set, before)) touched[key] = true;
        }
    }
    void visit(TileKey const& key, std::vector<Place>& wanted)
    {
        const std::int64_t w = TileSet<Tr>::tileWidth(key.depth);
        for (int direction = 0; direction < 27; ++direction) {
            const auto neighbor = direction == 13 ? std::nullopt : neighborOf(set, key, direction);
            if (!neighbor) continue;
            if (neighbor->depth < key.depth - 1)
                wanted.push_back({key.low[0] + (direction / 9 - 1) * w, key.low[1] + (direction / 3 % 3 - 1) * w,
                                  key.low[2] + (direction % 3 - 1) * w});
            else if (neighbor->depth != key.depth)
                touched[*neighbor] = true;
            else if (!touched.at(*neighbor))
                touched[TileSet<Tr>::parentOf(*neighbor)] = true;
        }
    }
};

template <class Tr> std::vector<std::vector<TileColor>> colorsOf(Tree<Tr> const& tree, std::map<TileKey, bool> const& touched)
{
    std::vector<std::vector<TileColor>> colors(Tr::levels);
    for (int d = 0; d < Tr::levels; ++d)
        for (OST::int64 n = 0; n < tree.tileCount(d); ++n) {
            const TileKey key = keyOf(tree.tile(n, d));
            const auto found = touched.find(key);
            // The second byte is nobody's here and must stay.
            colors[d].push_back({static_cast<unsigned char>(found != touched.end() && found->second),
                                 static_cast<unsigned char>(key.low[0] * 7 + d)});
        }
    return colors;
}

TYPED_TEST(Grading, with_colours_follows_the_touched_tiles_and_marks_those_they_reach)
{
    constexpr int D = TypeParam::maxDepth;
    for (std::uint64_t seed : kSeeds)
        for (int threads : kThreadCounts) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << ", " << threads << " threads");
            Sample<TypeParam> sample(seed);
            ColoredTwin<TypeParam> twin{sample.set, {}};
            Random random(seed);
            for (TileKey const& key : sample.set.list()) twin.touched[key] = random.oneIn(3);
            auto colors = colorsOf(sample.tree, twin.touched);
            const auto before = colors;
            TileList<TypeParam> added;
            parallel::runJob(nullptr, threads, [&] { gradeTileTree<TypeParam>(sample.tree, &added, colors.data(), 0, D); });
            twin.grade(2, D);
            EXPECT_EQ(differences(sample.tree, twin.set), "");
            EXPECT_EQ(keysOf<TypeParam>(added), without(twin.set, sample.set));
            for (int d = 0; d <= D; ++d) {
                ASSERT_EQ(colors[d].size(), std::size_t(sample.tree.tileCount(d)));
                for (std::size_t n = 0; n < colors[d].size(); ++n) {
                    const TileKey key = keyOf(sample.tree.tile(OST::int64(n), d));
                    EXPECT_EQ(colors[d][n].touched, twin.touched.at(key)) << key;
                    EXPECT_EQ(colors[d][n].state, n < before[d].size() ? before[d][n].state : 0) << key;
                }
            }
        }
}

TYPED_TEST(Grading, with_colours_on_what_changed_alone_is_complete)
{
    constexpr int D = TypeParam::maxDepth;
    for (std::uint64_t seed : kSeeds) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Sample<TypeParam> sample(seed);
        gradeTileTree<TypeParam>(sample.tree, nullptr, nullptr, 0, D);
        TileSet<TypeParam> set = gradedClosure(sample.set, 0, D);
        const TileSet<TypeParam> old = set;
        Random random(seed + 100);
        addClusters(random, sample.tree, set, 8);
        addRandomTiles(random, sample.tree, set, 8);
        std::map<TileKey, bool> touched;
        for (TileKey const& key : without(set, old)) touched[key] = true;
        auto colors = colorsOf(sample.tree, touched);
        gradeTileTree<TypeParam>(sample.tree, nullptr, colors.data(), 0, D);
        EXPECT_EQ(differences(sample.tree, gradedClosure(set, 0, D)), "");
    }
}

TYPED_TEST(Grading, with_colours_that_are_all_zero_adds_nothing_and_with_none_yet_takes_every_tile_as_touched)
{
    constexpr int D = TypeParam::maxDepth;
    Sample<TypeParam> sample(13);
    auto colors = colorsOf(sample.tree, {});
    const auto order = orderOf(sample.tree);
    gradeTileTree<TypeParam>(sample.tree, nullptr, colors.data(), 0, D);
    EXPECT_TRUE(orderOf(sample.tree) == order);
    std::vector<std::vector<TileColor>> missing(TypeParam::levels);
    gradeTileTree<TypeParam>(sample.tree, nullptr, missing.data(), 0, D);
    EXPECT_EQ(differences(sample.tree, gradedClosure(sample.set, 0, D)), "");
}

TYPED_TEST(Grading, is_judged_by_the_pairs_that_lie_within_the_depths)
{
    constexpr int D = TypeParam::maxDepth;
    const CapturedStream quiet(std::cerr);
    int graded = 0, ungraded = 0;
    for (std::uint64_t seed : kSeeds) {
        Sample<TypeParam> sample(seed, 6);
        if (seed % 2) gradeTileTree<TypeParam>(sample.tree, nullptr, nullptr, 0, 4);
        TileSet<TypeParam> set;
        for (auto const& level : orderOf(sample.tree))
            for (TileKey const& key : level) set.add(key.low, key.depth);
        for (auto const& [minDepth, maxDepth] : {std::pair(0, D), std::pair(0, 4), std::pair(3, 5), std::pair(D - 2, D), std::pair(D - 1, D), std::pair(4, 1)}) {
            bool expected = true;
            for (TileKey const& key : set.list())
                for (int direction = 0; direction < 27 && key.depth >= minDepth && key.depth <= maxDepth; ++direction) {
                    const auto neighbor = neighborOf(set, key, direction);
                    if (neighbor && neighbor->depth < key.depth - 1 && neighbor->depth >= minDepth) expected = false;
                }
            EXPECT_EQ(isGraded(sample.tree, minDepth, maxDepth), expected) << minDepth << " to " << maxDepth << ", seed " << seed;
            ++(expected ? graded : ungraded);
        }
    }
    EXPECT_GT(graded, 4);
    EXPECT_GT(ungraded, 4);
}

TEST(Grading, names_the_first_pair_that_breaks_the_rule_on_any_number_of_threads)
{
    // Three tiles of depth 3 deep in the lower half of tile space; the first one breaks the rule in direction 4, against
    // the root's other half, not yet in the directions before, which lie in the same parent or beyond tile space.
    using Set = TileSet<BinaryTraits>;
    Tree<BinaryTraits> tree("tree");
    const int w = static_cast<int>(Set::tileWidth(3)), low = static_cast<int>(Set::rangeMin);
    tree.tileAccessor().addTile(low + 2 * w, low, low, 3);
    tree.tileAccessor().addTile(low + 6 * w, low, low, 3);
    for (int threads : kThreadCounts) {
        const CapturedStream out(std::cerr);
        bool graded = true;
        parallel::runJob(nullptr, threads, [&] { graded = isGraded(tree, 0, 28); });
        EXPECT_FALSE(graded);
        std::ostringstream expected;
        expected << "tile " << low + 2 * w << ", " << low << ", " << low << " at depth 3 is not graded in direction 4\n"
                 << " - The neighbor " << low << ", " << low << ", " << low << " is at depth 1\n";
        EXPECT_EQ(out.text(), expected.str());
    }
}

TYPED_TEST(Grading, runs_under_its_timer)
{
    const VerboseLevel verbose(2);
    const CapturedStream out;
    Tree<TypeParam> tree("tree");
    gradeTileTree<TypeParam>(tree, nullptr, nullptr, 0, TypeParam::maxDepth);
    EXPECT_EQ(out.text().rfind("Fluids::coarsenRefine.grade_tile_tree : ", 0), 0u) << out.text();
}

TYPED_TEST(Grading, finds_neighbours_by_links_like_any_other_search)
{
    for (std::uint64_t seed : kSeeds) {
        Sample<TypeParam> sample(seed);
        NeighborWalk<TypeParam> walk(sample.tree);
        Random random(seed);
        for (int n = 0; n < 4000; ++n) {
            auto const& tile = sample.tree.tile(n < 2000 ? n % sample.tree.tileCount(-1) : random.below(sample.tree.tileCount(-1)));
            const int direction = static_cast<int>(random.below(27));
            const TreeIndex found = walk.treeIndexNeighbor(tile, NeighborDirection(direction));
            const auto expected = neighborOf(sample.set, keyOf(tile), direction);
            ASSERT_EQ(found.valid(), expected.has_value()) << keyOf(tile) << ", direction " << direction;
            if (expected) {
                ASSERT_EQ(keyOf(sample.tree.tile(found)), *expected) << "direction " << direction;
            }
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
