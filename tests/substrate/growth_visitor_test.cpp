#include "support/jobs.h"
#include "support/trees.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

/// What the visitors of one growth saw, shared by all clones.
struct Log {
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::multiset<TileKey> begun;
    std::vector<std::string> calls;
    int begins = 0, ends = 0;
};

/// A growth visitor written out by hand.
template <class Tr> struct BandVisitor final : Visitor<Tree<Tr>> {
    using Base = Visitor<Tree<Tr>>;
    using Tile = typename Base::Tile;
    using Base::beginTile;
    using Base::endTile;
    using Base::visitInteriorVoxel;
    SphereBand<Tr> band;
    bool serial;
    Log* log;
    BandVisitor(SphereBand<Tr> const& b, bool s, Log* l) : band(b), serial(s), log(l) {}
    void beginTraverse() override { ++log->begins; }
    void endTraverse() override { ++log->ends; }
    void beginTile(Tile const& tile) override
    {
        const std::scoped_lock lock(log->mutex);
        log->begun.insert(keyOf(tile));
        log->threads.insert(std::this_thread::get_id());
    }
    void endTile(Tile const&) override { this->forceSerial = serial; }
    bool visitInteriorVoxel(Tile const& tile, int3 const& cell) override { return band(tile, cell); }
    Base* clone() const override { return new BandVisitor(*this); }
};

template <class Tr> class GrowthVisitor : public ::testing::Test {};
TYPED_TEST_SUITE(GrowthVisitor, Structures, StructureNames);

TYPED_TEST(GrowthVisitor, that_forces_it_runs_in_the_calling_thread_and_grows_the_same_tree)
{
    constexpr int D = TypeParam::maxDepth;
    const SphereBand<TypeParam> band(D, 5);
    Tree<TypeParam> expected("expected");
    growAll(expected, band);
    for (bool serial : {false, true})
        for (int threads : kThreadCounts) {
            SCOPED_TRACE(testing::Message() << (serial ? "serial, " : "parallel, ") << threads << " threads");
            Tree<TypeParam> tree("tree");
            Log log;
            BandVisitor<TypeParam> visitor(band, serial, &log);
            std::thread::id caller;
            parallel::runJob(nullptr, threads, [&] {
                caller = std::this_thread::get_id();
                tree.refineInternalNonInlined(&visitor, TreeIndex(), 0, D, nullptr, kParallelTree, D - 1);
            });
            EXPECT_TRUE(orderOf(tree) == orderOf(expected));
            if (serial) {
                EXPECT_EQ(log.threads, std::set<std::thread::id>{caller});
            }
            // Every tile above the finest depth is begun once, by whatever clone.
            for (int64 n = 0; n < tree.tileCount(-1); ++n)
                if (tree.tile(n).depth() < D) {
                    EXPECT_EQ(log.begun.count(keyOf(tree.tile(n))), 1u) << keyOf(tree.tile(n));
                }
            EXPECT_EQ(log.begins, 1);
            EXPECT_EQ(log.ends, 1);
        }
}

TYPED_TEST(GrowthVisitor, may_collect_the_children_first_without_another_result)
{
    constexpr int D = TypeParam::maxDepth;
    const SphereBand<TypeParam> band(D - 1, 4);
    Tree<TypeParam> expected("expected"), tree("tree");
    growAll(expected, band);
    Log log;
    BandVisitor<TypeParam> visitor(band, false, &log);
    visitor.collectChildren = true;
    tree.refineInternalNonInlined(&visitor, TreeIndex(), 0, D, nullptr, kParallelTree, D - 1);
    EXPECT_TRUE(orderOf(tree) == orderOf(expected));
}

TYPED_TEST(GrowthVisitor, that_throws_leaves_the_tree_as_it_was_and_the_next_growth_is_right)
{
    constexpr int D = TypeParam::maxDepth;
    const SphereBand<TypeParam> band(D, 5);
    for (TraversalMode mode : {kParallelTree, kTreeSerialOrder})
        for (int threads : kThreadCounts)
            for (int failDepth : {0, 3, D - 1}) {
                Tree<TypeParam> tree("tree"), expected("expected");
                growAll(tree, SphereBand<TypeParam>(D - 2, 3));
                expected.refine(tree, nullptr, true);
                growAll(expected, band);
                const auto before = orderOf(tree);
                const auto bad = [&](auto const& tile, int3 const& cell) {
                    if (tile.depth() == failDepth && cell == int3(1, 1, 1)) throw std::out_of_range("mine");
                    return band(tile, cell);
                };
                TileList<TypeParam> added;
                EXPECT_THROW(parallel::runJob(
                                 nullptr, threads,
                                 [&] { tree.template refine<decltype(bad), 0>(bad, TreeIndex(), 0, D, &added, mode); }),
                             std::out_of_range);
                EXPECT_TRUE(orderOf(tree) == before);
                EXPECT_EQ(added, TileList<TypeParam>());
                EXPECT_TRUE(checkTree(tree).empty());
                growAll(tree, band);
                EXPECT_TRUE(orderOf(tree) == orderOf(expected));
            }
}

TYPED_TEST(GrowthVisitor, of_a_range_that_throws_leaves_the_tree_as_it_was)
{
    for (int threads : kThreadCounts) {
        Tree<TypeParam> tree("tree");
        tree.tileAccessor().addTile(0, 0, 0, 5);
        const auto before = orderOf(tree);
        const auto add = [](int64 begin, int64 end, Tree<TypeParam>& collected) {
            if (begin <= 77 && 77 < end) throw std::out_of_range("mine");
            collected.tileAccessor().addTile(int(begin), 0, 0, TypeParam::maxDepth);
        };
        const auto grow = [&](int64 count) {
            parallel::runJob(nullptr, threads,
                             [&] { tree.template refine<decltype(add), int64>(add, 0, count, 4, nullptr); });
        };
        EXPECT_THROW(grow(200), std::out_of_range);
        EXPECT_TRUE(orderOf(tree) == before);
        EXPECT_NO_THROW(grow(60));
        EXPECT_GT(tree.tileCount(TypeParam::maxDepth), 3);
        EXPECT_TRUE(checkTree(tree).empty());
    }
}

}  // namespace
}  // namespace tilegrid::test
