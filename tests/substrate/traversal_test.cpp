#include "support/jobs.h"
#include "support/trees.h"

#include <atomic>
#include <mutex>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using OST::TileTree3D::detail::Nothing;

constexpr TraversalMode kModes[] = {kTreeSerialOrder, kByLevel, kBottomUp, kMarkingWalk, kParallelTree};

/// A tree with a band of some thousand tiles, deep enough for passes to be cut into many tasks.
template <class Tr> class Traversal : public ::testing::Test {
protected:
    using TreeT = Tree<Tr>;
    using Tile = typename TreeT::Tile;
    Traversal() { growAll(tree_, SphereBand<Tr>(Tr::maxDepth)); }

    /// The tiles of a subtree (or all) in a range of depths, found by the parent links.
    std::set<TileKey> expected(TreeIndex const& start, int minDepth, int maxDepth) const
    {
        std::set<TileKey> keys;
        for (int64 n = 0; n < tree_.tileCount(-1); ++n) {
            auto const& tile = tree_.tile(n);
            if (tile.depth() < minDepth || tile.depth() > maxDepth) continue;
            TreeIndex up = tile.treeIndex();
            while (start.valid() && up.valid() && up.depth > start.depth) up = tree_.tile(up).parentTreeIndex();
            if (!start.valid() || up == start) keys.insert(keyOf(tile));
        }
        return keys;
    }
    /// The tiles in the order in which a pass began them.
    std::vector<TileKey> visited(TraversalMode mode, TreeIndex const& start = {}, int minDepth = 0,
                                 int maxDepth = Tr::maxDepth) const
    {
        std::mutex mutex;
        std::vector<TileKey> order;
        tree_.traverse(
            Nothing(), Nothing(),
            [&](Tile const& tile) {
                const std::scoped_lock lock(mutex);
                order.push_back(keyOf(tile));
            },
            Nothing(), Nothing(), mode, start, minDepth, maxDepth);
        return order;
    }
    TreeT tree_{"tree"};
};
TYPED_TEST_SUITE(Traversal, Structures, StructureNames);

TYPED_TEST(Traversal, visits_every_tile_of_the_range_once_in_every_mode)
{
    constexpr int D = TypeParam::maxDepth;
    const TreeIndex below = this->tree_.tile(0, D - 2).treeIndex(), leaf{5, D};
    for (TraversalMode mode : kModes)
        for (TreeIndex const& start : {TreeIndex(), TreeIndex{0, 0}, below, leaf})
            for (auto [low, high] : {std::pair{0, D}, {D, D}, {0, 0}, {3, D - 1}, {-5, D + 5}, {D - 1, D}}) {
                SCOPED_TRACE(testing::Message()
                             << "mode " << mode << ", start " << start.depth << ", depths " << low << " to " << high);
                const auto order = this->visited(mode, start, low, high);
                const auto expected = this->expected(start, low, high);
                EXPECT_EQ(order.size(), expected.size());
                EXPECT_TRUE(std::set<TileKey>(order.begin(), order.end()) == expected);
            }
}

TYPED_TEST(Traversal, with_the_minimum_depth_above_the_maximum_visits_nothing)
{
    for (TraversalMode mode : kModes) {
        EXPECT_TRUE(this->visited(mode, {}, 5, 4).empty());
        EXPECT_TRUE(this->visited(mode, {}, TypeParam::maxDepth + 1, TypeParam::maxDepth + 9).empty());
        EXPECT_TRUE(this->visited(mode, {}, -9, -1).empty());
        EXPECT_TRUE(this->visited(mode, {0, 3}, 5, 4).empty());
    }
}

TYPED_TEST(Traversal, of_an_empty_tree_begins_and_ends_once_without_a_tile)
{
    const Tree<TypeParam> empty("empty");
    std::vector<std::string> calls;
    const auto call = [&calls](char const* what) { return [&calls, what](auto&&...) { calls.push_back(what); }; };
    for (TraversalMode mode : kModes)
        empty.traverse(call("begin"), call("end"), call("tile"), call("end of tile"), call("voxel"), mode);
    EXPECT_EQ(
        calls,
        (std::vector<std::string>{"begin", "end", "begin", "end", "begin", "end", "begin", "end", "begin", "end"}));
}

TYPED_TEST(Traversal, begins_before_the_first_tile_and_ends_after_the_last)
{
    for (TraversalMode mode : kModes) {
        std::atomic<int> state{0}, wrong{0};
        std::atomic<int64> open{0}, tiles{0};
        this->tree_.traverse([&] { wrong += state.exchange(1) != 0; },
                             [&] { wrong += state.exchange(2) != 1 || open != 0; },
                             [&](auto const&) { wrong += state != 1, ++open, ++tiles; },
                             [&](auto const&) { wrong += state != 1, --open; }, Nothing(), mode);
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(state, 2);
        EXPECT_EQ(tiles, this->tree_.tileCount(-1));
    }
}

TYPED_TEST(Traversal, bottom_up_ends_the_children_before_it_begins_their_parent)
{
    for (TraversalMode mode : {kBottomUp, kMarkingWalk}) {
        std::vector<std::vector<std::atomic<char>>> done(TypeParam::levels);
        for (int d = 0; d < TypeParam::levels; ++d) done[d] = std::vector<std::atomic<char>>(this->tree_.tileCount(d));
        std::atomic<int> wrong{0};
        parallel::runJob(nullptr, 8, [&] {
            this->tree_.traverse(
                Nothing(), Nothing(),
                [&](auto const& tile) {
                    for (int cell = 0; cell < TypeParam::childCount && tile.depth() < TypeParam::maxDepth; ++cell)
                        if (!tile.isLeaf(cell)) wrong += done[tile.depth() + 1][tile.childIndex(cell)] != 1;
                },
                [&](auto const& tile) { done[tile.depth()][tile.index()] = 1; }, Nothing(), mode);
        });
        EXPECT_EQ(wrong, 0) << "mode " << mode;
    }
}

TYPED_TEST(Traversal, calls_each_voxel_of_the_range_once_with_i_fastest)
{
    for (auto [first, last] : {std::pair{0, TypeParam::width}, {0, TypeParam::branching}, {1, 3}, {2, 2}}) {
        std::vector<int3> expected;
        for (int k = first; k < last; ++k)
            for (int j = first; j < last; ++j)
                for (int i = first; i < last; ++i) expected.push_back(int3(i, j, k));
        std::mutex mutex;
        std::map<TileKey, std::vector<int3>> voxels;
        this->tree_.traverse(
            Nothing(), Nothing(), Nothing(), Nothing(),
            [&](auto const& tile, int3 const& ijk) {
                const std::scoped_lock lock(mutex);
                voxels[keyOf(tile)].push_back(ijk);
                return true;
            },
            kParallelTree, {}, TypeParam::maxDepth - 1, TypeParam::maxDepth, 1, true, first, last, kVoxels);
        if (!expected.empty()) {
            EXPECT_EQ(int64(voxels.size()),
                      this->tree_.tileCount(TypeParam::maxDepth) + this->tree_.tileCount(TypeParam::maxDepth - 1));
        }
        for (auto const& [key, list] : voxels) EXPECT_EQ(list, expected);
    }
}

TYPED_TEST(Traversal, over_voxels_gives_each_task_its_own_copy_of_the_data)
{
    struct Data {
        TileKey tile;
        int voxels = 0;
        std::atomic<int>* wrong;
        std::atomic<int64>* total;
    };
    std::atomic<int> wrong{0};
    std::atomic<int64> total{0};
    parallel::runJob(nullptr, 8, [&] {
        this->tree_.traverseVoxels(
            Data{{}, 0, &wrong, &total},
            [](auto const& tile, Data& data) {
                data.tile = keyOf(tile);
                data.voxels = 0;
            },
            [](auto const& tile, int3 const& ijk, Data& data) {
                *data.wrong +=
                    data.tile != keyOf(tile) || data.voxels != flatIndex(TypeParam::width, ijk.x, ijk.y, ijk.z);
                ++data.voxels;
                ++*data.total;
            });
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(total, this->tree_.voxelDataCount(-1));
}

TYPED_TEST(Traversal, of_a_tree_that_may_change_hands_out_its_own_tiles)
{
    std::atomic<int64> same{0};
    Tree<TypeParam>& tree = this->tree_;
    tree.traverse(
        Nothing(), Nothing(),
        [&](typename Tree<TypeParam>::Tile& tile) { same += &tile == &tree.tile(tile.treeIndex()); }, Nothing(),
        Nothing());
    EXPECT_EQ(same, tree.tileCount(-1));
}

TYPED_TEST(Traversal, hands_an_exception_of_a_lambda_to_the_caller_and_works_again_afterwards)
{
    for (TraversalMode mode : kModes)
        for (int threads : kThreadCounts) {
            const auto pass = [&](int64 bad) {
                parallel::runJob(nullptr, threads, [&] {
                    this->tree_.traverse(
                        Nothing(), Nothing(),
                        [bad](auto const& tile) {
                            if (tile.depth() == TypeParam::maxDepth && tile.index() == bad)
                                throw std::logic_error("mine");
                        },
                        Nothing(), Nothing(), mode);
                });
            };
            EXPECT_THROW(pass(this->tree_.tileCount(TypeParam::maxDepth) / 2), std::logic_error);
            EXPECT_NO_THROW(pass(-1));
        }
}

TYPED_TEST(Traversal, that_reduces_starts_from_the_callers_identity_and_sees_every_tile_in_order)
{
    // Concatenation is associative but not commutative: a join in the wrong order shows.
    using List = std::vector<TreeIndex>;
    std::vector<TreeIndex> expected;
    for (int64 n = 0; n < this->tree_.tileCount(-1); ++n) expected.push_back(this->tree_.tile(n).treeIndex());
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            List list;
            this->tree_.reduce(
                Nothing(), Nothing(), [](auto const& tile, List& data) { data.push_back(tile.treeIndex()); }, Nothing(),
                Nothing(), [](List& left, List const& right) { left.insert(left.end(), right.begin(), right.end()); },
                list);
            EXPECT_TRUE(list == expected) << threads << " threads";
        });
}

TYPED_TEST(Traversal, that_reduces_voxels_counts_them_all)
{
    struct Handle {
        int depth = -1;
    };
    std::array<int64, TypeParam::levels> counts{};
    this->tree_.reduceVoxels(
        Handle(), [](auto const& tile, Handle& handle) { handle.depth = tile.depth(); },
        [](auto const&, int3 const&, Handle& handle, auto& data) { ++data[handle.depth]; },
        [](auto& left, auto const& right) {
            for (std::size_t d = 0; d < left.size(); ++d) left[d] += right[d];
        },
        counts);
    for (int d = 0; d < TypeParam::levels; ++d) EXPECT_EQ(counts[d], this->tree_.voxelDataCount(d)) << d;
}

TYPED_TEST(Traversal, by_a_visitor_of_ones_own_makes_the_documented_calls)
{
    struct Mine final : Visitor<Tree<TypeParam>> {
        using Tile = typename Tree<TypeParam>::Tile;
        std::atomic<int64>* counts;  // traverse begin, end; tile begin, end; voxels
        explicit Mine(std::atomic<int64>* c) : counts(c) {}
        void beginTraverse() override { ++counts[0]; }
        void endTraverse() override { ++counts[1]; }
        using Visitor<Tree<TypeParam>>::beginTile;
        using Visitor<Tree<TypeParam>>::endTile;
        using Visitor<Tree<TypeParam>>::visitInteriorVoxel;
        void beginTile(Tile const&) override { ++counts[2]; }
        void endTile(Tile const&) override { ++counts[3]; }
        bool visitInteriorVoxel(Tile const&, int3 const&) override { return ++counts[4] > 0; }
        Visitor<Tree<TypeParam>>* clone() const override { return new Mine(*this); }
    };
    std::atomic<int64> counts[5] = {};
    Mine visitor(counts);
    using Tile = typename Tree<TypeParam>::Tile;
    this->tree_.template traverseInternalNonInlined<Tile const&, Tree<TypeParam> const&>(
        &visitor, kParallelTree, TreeIndex(), 0, TypeParam::maxDepth, 1, true, 0, 2, kChildCells,
        TypeParam::maxDepth - 3);
    const int64 tiles = this->tree_.tileCount(-1);
    EXPECT_EQ(counts[0], 1);
    EXPECT_EQ(counts[1], 1);
    EXPECT_EQ(counts[2], tiles);
    EXPECT_EQ(counts[3], tiles);
    EXPECT_EQ(counts[4], 8 * tiles);
}

}  // namespace
}  // namespace tilegrid::test
