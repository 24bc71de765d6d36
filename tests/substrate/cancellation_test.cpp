#include "support/address_channels.h"
#include "support/jobs.h"

#include <atomic>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using OST::TileTree3D::detail::Nothing;

template <class Tr> class Cancellation : public ::testing::Test {
protected:
    Cancellation() { reset(); }
    void reset()
    {
        tree_ = std::make_unique<Tree<Tr>>("tree");
        growAll(*tree_, SphereBand<Tr>(Tr::maxDepth - 1));
        before_ = orderOf(*tree_);
    }
    void expectUnchanged()
    {
        EXPECT_TRUE(orderOf(*tree_) == before_);
        EXPECT_TRUE(checkTree(*tree_).empty());
    }
    std::unique_ptr<Tree<Tr>> tree_;
    std::vector<std::vector<TileKey>> before_;
};
TYPED_TEST_SUITE(Cancellation, Structures, StructureNames);

TYPED_TEST(Cancellation, of_a_traverse_comes_out_after_its_stage_with_every_tile_visited)
{
    for (TraversalMode mode : {kTreeSerialOrder, kByLevel, kBottomUp, kMarkingWalk, kParallelTree}) {
        std::atomic<int64> tiles{0};
        std::atomic<int> ends{0};
        cancelAtEveryPoll([&] { tiles = 0, ends = 0; },
                          [&] {
                              this->tree_->traverse(
                                  Nothing(), [&] { ++ends; }, [&](auto const&) { ++tiles; }, Nothing(), Nothing(),
                                  mode);
                          },
                          [&] {
                              EXPECT_EQ(tiles, this->tree_->tileCount(-1)) << "a stage is not stopped in mid-flight";
                              EXPECT_EQ(ends, 1);
                              this->expectUnchanged();
                          });
    }
}

TYPED_TEST(Cancellation, by_a_lambda_of_the_pass_itself_ends_that_pass)
{
    for (int threads : kThreadCounts) {
        Job job;
        int64 later = 0;
        EXPECT_THROW(parallel::runJob(&job, threads,
                                      [&] {
                                          this->tree_->traverse(
                                              Nothing(), Nothing(),
                                              [&job](auto const& tile) {
                                                  if (tile.index() == 3) job.cancel();
                                              },
                                              Nothing(), Nothing());
                                          ++later;
                                      }),
                     std::runtime_error);
        EXPECT_EQ(later, 0);
    }
}

TYPED_TEST(Cancellation, of_a_reduction_and_of_voxel_passes_raises_the_same_exception)
{
    const auto sum = [](int64& left, int64 right) { left += right; };
    cancelAtEveryPoll(
        [] {},
        [&] {
            int64 count = 0;
            this->tree_->reduce(
                Nothing(), Nothing(), [](auto const&, int64& n) { ++n; }, Nothing(), Nothing(), sum, count);
            EXPECT_EQ(count, this->tree_->tileCount(-1));
            this->tree_->traverseVoxels(
                0, [](auto const&, int&) {}, [](auto const&, int3 const&, int&) {});
            count = 0;
            this->tree_->reduceVoxels(
                0, [](auto const&, int&) {}, [](auto const&, int3 const&, int&, int64& n) { ++n; }, sum, count);
            EXPECT_EQ(count, this->tree_->voxelDataCount(-1));
        },
        [&] { this->expectUnchanged(); });
}

TYPED_TEST(Cancellation, of_a_growth_leaves_the_tree_and_the_list_as_they_were)
{
    TileList<TypeParam> added;
    const SphereBand<TypeParam> band(TypeParam::maxDepth, 6);
    cancelAtEveryPoll(
        [&] {
            this->reset();
            added = {};
        },
        [&] {
            growAll(*this->tree_, band, &added);
            // The next call is right: reached by the uncancelled runs only.
            EXPECT_GT(this->tree_->tileCount(TypeParam::maxDepth), 100);
            EXPECT_TRUE(checkTree(*this->tree_).empty());
        },
        [&] {
            this->expectUnchanged();
            EXPECT_EQ(added, TileList<TypeParam>());
        });
}

TYPED_TEST(Cancellation, of_a_growth_is_followed_by_a_right_one)
{
    const SphereBand<TypeParam> band(TypeParam::maxDepth, 6);
    Tree<TypeParam> expected(*this->tree_);
    growAll(expected, band);
    const std::int64_t polls = pollsOf(1, [&] {
        Tree<TypeParam> copy(*this->tree_);
        growAll(copy, band);
    });
    for (std::int64_t n = 1; n <= polls; ++n) {
        Tree<TypeParam> tree(*this->tree_);
        EXPECT_TRUE(cancelledAt(n, 8, [&] { growAll(tree, band); }));
        growAll(tree, band);
        EXPECT_TRUE(orderOf(tree) == orderOf(expected)) << "after poll " << n;
    }
}

TYPED_TEST(Cancellation, of_a_growth_of_an_empty_tree_leaves_at_most_the_tile_it_starts_from_and_lists_it)
{
    std::unique_ptr<Tree<TypeParam>> tree;
    TileList<TypeParam> added;
    cancelAtEveryPoll(
        [&] {
            tree = std::make_unique<Tree<TypeParam>>("tree");
            added = {};
        },
        [&] { growAll(*tree, SphereBand<TypeParam>(TypeParam::maxDepth, 2), &added); },
        [&] {
            TileSet<TypeParam> set;
            if (!tree->empty()) set.add({0, 0, 0}, 0);
            EXPECT_EQ(differences(*tree, set), "");
            EXPECT_EQ(int64(added[0].size()), tree->tileCount(0));
            EXPECT_TRUE(added[1].empty());
        });
}

TYPED_TEST(Cancellation, of_a_growth_over_a_range_leaves_the_tree_and_the_list_as_they_were)
{
    TileList<TypeParam> added;
    const auto add = [](int64 begin, int64 end, Tree<TypeParam>& collected) {
        auto accessor = collected.tileAccessor();
        for (int64 n = begin; n < end; ++n) accessor.addTile(int(n) * 100, 7, -9, TypeParam::maxDepth);
    };
    cancelAtEveryPoll(
        [&] {
            this->reset();
            added = {};
        },
        [&] { this->tree_->template refine<decltype(add), int64>(add, 0, 500, 10, &added); },
        [&] {
            this->expectUnchanged();
            EXPECT_EQ(added, TileList<TypeParam>());
        });
}

TYPED_TEST(Cancellation, before_a_pass_begins_is_seen_at_its_end)
{
    Job job;
    job.cancel();
    std::atomic<int64> tiles{0};
    EXPECT_THROW(parallel::runJob(&job, 2,
                                  [&] {
                                      this->tree_->traverse(
                                          Nothing(), Nothing(), [&](auto const&) { ++tiles; }, Nothing(), Nothing());
                                  }),
                 std::runtime_error);
    EXPECT_EQ(tiles, this->tree_->tileCount(-1));
}

TYPED_TEST(Cancellation, of_one_job_does_not_stop_another)
{
    Job cancelled, running;
    cancelled.cancel();
    std::atomic<int64> tiles{0};
    const auto pass = [&] {
        this->tree_->traverse(
            Nothing(), Nothing(), [&](auto const&) { ++tiles; }, Nothing(), Nothing());
    };
    EXPECT_THROW(parallel::runJob(&cancelled, 2,
                                  [&] {
                                      // A job inside a job: the inner one serves only itself.
                                      EXPECT_NO_THROW(parallel::runJob(&running, 2, pass));
                                      pass();
                                  }),
                 std::runtime_error);
    EXPECT_EQ(tiles, 2 * this->tree_->tileCount(-1));
    EXPECT_NO_THROW(pass()) << "a thread without a job is never cancelled";
}

}  // namespace
}  // namespace tilegrid::test
