#include "TilegridOps/substrate/dilation.h"
#include "TilegridOps/substrate/traversal.h"
#include "support/clusters.h"
#include "support/jobs.h"

#include <limits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using Box = Ostara::Math::bbox<int3, int>;
template <class Tr> using Dilation = CoreGL::TileTree3D::DilationAllocationVisitor<Tr>;
template <class Tr> using Boxes = CoreGL::TileTree3D::TileBoxes<Tr>;

constexpr int kNone = std::numeric_limits<int>::max();

/// What a growth wanted: the tiles that it adds to a copy of the tree, and its reaches.
template <class Tr> struct Outcome {
    std::set<TileKey> added;
    std::vector<std::vector<TileKey>> order;
    int smallest = kNone, largest = 0;
};

template <class Tr>
Outcome<Tr> grow(Tree<Tr> const& tree, int dilation, typename Dilation<Tr>::Mask const* mask, Boxes<Tr> const* boxes, int minDepth, int maxDepth)
{
    const auto before = orderOf(tree);
    Dilation<Tr> visitor(tree, dilation, mask, boxes);
    using Tile = typename Tree<Tr>::Tile;
    tree.template reduceInternalNonInlined<Tile const&, Tree<Tr> const&>(&visitor, kByLevel, TreeIndex(), minDepth, maxDepth, 50, 0,
                                                                         Tr::branching, kChildCells);
    EXPECT_TRUE(orderOf(tree) == before) << "the tree stays as it is during the pass";
    Outcome<Tr> outcome;
    outcome.smallest = visitor.smallestReach();
    outcome.largest = visitor.largestReach();
    Tree<Tr> grown(tree);
    TileList<Tr> added;
    visitor.tiles().addTo(grown, &added, /*updateLookup*/ true);
    EXPECT_TRUE(checkTree(grown).empty());
    for (int d = 0; d < Tr::levels; ++d)
        for (int3 const& low : added[d]) outcome.added.insert({d, toPlace(low)});
    outcome.order = orderOf(grown);
    return outcome;
}

/// The rule, on sets of tiles: a box that reaches one layer over its tile wants the tiles it meets, one that reaches further
/// the whole cube.
template <class Tr> struct Twin {
    using Set = TileSet<Tr>;
    TileSet<Tr> set, grown = set;
    int smallest = kNone, largest = 0;

    void visit(TileKey const& key, Place const& low, Place const& high)
    {
        constexpr int W = Tr::width;
        // Layers on each side, counted one by one.
        std::int64_t reach = 0;
        Place below{}, above{};
        for (int a = 0; a < 3; ++a) {
            while (low[a] < -W * below[a]) ++below[a];
            while (high[a] >= W * (above[a] + 1)) ++above[a];
            reach = std::max({reach, below[a], above[a]});
        }
        smallest = std::min(smallest, static_cast<int>(reach));
        largest = std::max(largest, static_cast<int>(reach));
        if (reach > 1) below = above = {reach, reach, reach};
        if (reach == 0) return;
        const std::int64_t w = Set::tileWidth(key.depth);
        for (std::int64_t c = -below[2]; c <= above[2]; ++c)
            for (std::int64_t b = -below[1]; b <= above[1]; ++b)
                for (std::int64_t a = -below[0]; a <= above[0]; ++a)
                    grown.add({key.low[0] + a * w, key.low[1] + b * w, key.low[2] + c * w}, key.depth);
    }
    std::set<TileKey> added() const
    {
        std::set<TileKey> result;
        for (TileKey const& key : grown.tiles())
            if (!set.has(key)) result.insert(key);
        return result;
    }
};

template <class Tr> class DilationAllocation : public ::testing::Test {
protected:
    static constexpr int W = Tr::width, D = Tr::maxDepth;
    Tree<Tr> tree_{"tree"};
    TileSet<Tr> set_;

    DilationAllocation()
    {
        Random random(21);
        addClusters(random, tree_, set_, 6);
    }
    /// The box of a tile's own voxels, widened to both sides.
    static std::pair<Place, Place> widened(Box const& box, std::int64_t by)
    {
        Place low, high;
        for (int a = 0; a < 3; ++a) low[a] = box.min[a] - by, high[a] = box.max[a] + by;
        return {low, high};
    }
    void expectSame(Outcome<Tr> const& outcome, Twin<Tr> const& twin)
    {
        EXPECT_EQ(outcome.added, twin.added());
        EXPECT_EQ(outcome.smallest, twin.smallest);
        EXPECT_EQ(outcome.largest, twin.largest);
    }
};
TYPED_TEST_SUITE(DilationAllocation, Structures, StructureNames);

TYPED_TEST(DilationAllocation, without_mask_or_boxes_grows_by_layers_that_the_dilation_reaches)
{
    constexpr int W = TypeParam::width;
    for (int dilation : {-9, -1, 0, 1, W - 1, W, W + 1, 2 * W, 2 * W + 1}) {
        SCOPED_TRACE(testing::Message() << "dilation " << dilation);
        Twin<TypeParam> twin{this->set_};
        for (TileKey const& key : this->set_.list())
            if (key.depth >= 3) twin.visit(key, {-dilation, -dilation, -dilation}, {dilation + W - 1, dilation + W - 1, dilation + W - 1});
        const auto outcome = grow<TypeParam>(this->tree_, dilation, nullptr, nullptr, 3, TypeParam::maxDepth);
        this->expectSame(outcome, twin);
        EXPECT_EQ(outcome.added.empty(), dilation <= 0);
        EXPECT_EQ(outcome.largest, std::max(0, (dilation + W - 1) / W));
    }
}

TYPED_TEST(DilationAllocation, with_boxes_grows_around_each_tile_s_own)
{
    constexpr int W = TypeParam::width;
    for (int dilation : {-3, 0, 1, 2, W, 2 * W})
        for (std::uint64_t seed : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << "dilation " << dilation << ", seed " << seed);
            Random random(seed);
            Twin<TypeParam> twin{this->set_};
            Boxes<TypeParam> boxes;
            for (int d = 0; d <= TypeParam::maxDepth; ++d)
                for (int64 n = 0; n < this->tree_.tileCount(d); ++n) {
                    Box box;
                    if (!random.oneIn(3)) {
                        box.add(int3(static_cast<int>(random.below(W)), static_cast<int>(random.below(W)), static_cast<int>(random.below(W))));
                        if (random.oneIn(2)) box.add(int3(static_cast<int>(random.below(W)), 0, W - 1));
                        const auto [low, high] = this->widened(box, std::abs(dilation));
                        twin.visit(keyOf(this->tree_.tile(n, d)), low, high);
                    }
                    boxes[d].push_back(box);
                }
            const auto outcome = grow<TypeParam>(this->tree_, dilation, nullptr, &boxes, 0, TypeParam::maxDepth);
            this->expectSame(outcome, twin);
            EXPECT_EQ(outcome.smallest > 1, std::abs(dilation) >= 2 * W) << "one voxel of a tile reaches less than the tile";
        }
}

TYPED_TEST(DilationAllocation, with_a_mask_grows_around_its_voxels_that_are_not_zero)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    using Mask = typename Dilation<TypeParam>::Mask;
    for (int dilation : {-2, 0, 1, W, W + 2})
        for (std::uint64_t seed : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << "dilation " << dilation << ", seed " << seed);
            Random random(seed);
            Twin<TypeParam> twin{this->set_};
            Mask mask("mask", nullptr, kInitializeNone, false, true, 1, D);
            mask.updateTilesAdded(this->tree_);
            Boxes<TypeParam> ignored;
            for (int d = 1; d <= D; ++d)
                for (int64 n = 0; n < this->tree_.tileCount(d); ++n) {
                    Box box;
                    for (int64 m = random.below(3); m > 0; --m) {
                        const int3 at(static_cast<int>(random.below(W)), static_cast<int>(random.below(W)), static_cast<int>(random.below(W)));
                        box.add(at);
                        const float values[] = {1.0f, -0.5f, std::numeric_limits<float>::quiet_NaN(), 1e-40f};
                        mask.tileData(n, d)(at) = values[random.below(4)];
                    }
                    if (box.empty()) {
                        mask.tileData(n, d)(1, 1, 1) = -0.0f;
                        continue;
                    }
                    const auto [low, high] = this->widened(box, std::abs(dilation));
                    twin.visit(keyOf(this->tree_.tile(n, d)), low, high);
                }
            this->expectSame(grow<TypeParam>(this->tree_, dilation, &mask, &ignored, 0, D), twin);
        }
}

TYPED_TEST(DilationAllocation, of_nothing_active_has_no_reach)
{
    Boxes<TypeParam> none;
    const auto outcome = grow<TypeParam>(this->tree_, 50, nullptr, &none, 0, TypeParam::maxDepth);
    EXPECT_TRUE(outcome.added.empty());
    EXPECT_EQ(outcome.smallest, kNone);
    EXPECT_EQ(outcome.largest, 0);
}

TYPED_TEST(DilationAllocation, ends_at_the_border_of_tile_space_however_far_it_reaches)
{
    constexpr int B = TypeParam::branching;
    for (int dilation : {std::numeric_limits<int>::max(), 1000 * TypeParam::width}) {
        const auto outcome = grow<TypeParam>(this->tree_, dilation, nullptr, nullptr, 0, 2);
        // Depth 2 is full then, and its parents are.
        EXPECT_EQ(outcome.order[1].size(), std::size_t(B * B * B));
        EXPECT_EQ(outcome.order[2].size(), std::size_t(B * B * B * B * B * B));
    }
    // A negative dilation that has no positive counterpart.
    EXPECT_TRUE(grow<TypeParam>(this->tree_, std::numeric_limits<int>::min(), nullptr, nullptr, 0, 2).added.empty());
    Boxes<TypeParam> boxes;
    boxes[2].resize(1, Box{int3(0), int3(0)});
    EXPECT_EQ(grow<TypeParam>(this->tree_, std::numeric_limits<int>::min(), nullptr, &boxes, 2, 2).order[2].size(),
              std::size_t(B * B * B * B * B * B));
}

TYPED_TEST(DilationAllocation, gives_the_same_order_on_1_2_and_8_threads)
{
    Random random(22);
    addClusters(random, this->tree_, this->set_, 60);
    for (int dilation : {1, 9}) {
        const auto first = grow<TypeParam>(this->tree_, dilation, nullptr, nullptr, 2, TypeParam::maxDepth);
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                const auto outcome = grow<TypeParam>(this->tree_, dilation, nullptr, nullptr, 2, TypeParam::maxDepth);
                EXPECT_TRUE(outcome.order == first.order) << threads << " threads";
                EXPECT_EQ(outcome.smallest, first.smallest);
                EXPECT_EQ(outcome.largest, first.largest);
            });
    }
}

}  // namespace
}  // namespace tilegrid::test
