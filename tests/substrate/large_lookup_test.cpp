#include "support/trees.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

/// Queries of three kinds against a set: near the last one (as a sampler moves), near some tile, and anywhere.
template <class Tr> class LargeLookup : public ::testing::Test {
protected:
    using Set = TileSet<Tr>;
    void collect()
    {
        set_ = {};
        corners_.clear();
        for (int64 n = 0; n < tree_.tileCount(-1); ++n) {
            auto const& tile = tree_.tile(n);
            set_.add(toPlace(tile.tijk()), tile.depth());
            corners_.push_back(toPlace(tile.tijk()));
        }
        ASSERT_EQ(int64(set_.tiles().size()), tree_.tileCount(-1));
    }
    void query(ConstTileAccessor<Tr> const& accessor, Random& random, int count)
    {
        Place p{0, 0, 0};
        for (int n = 0; n < count; ++n) {
            if (random.oneIn(20)) {
                p = corners_.empty() || random.oneIn(4) ? randomPlace<Tr>(random, 5000)
                                                        : corners_[std::size_t(random.below(int64(corners_.size())))];
            } else {
                const std::int64_t step = random.oneIn(6) ? 40 : 2;
                for (std::int64_t& x : p)
                    x = std::clamp(x + random.between(-step, step), Set::rangeMin - 1, Set::rangeMax + 1);
            }
            const int depth = static_cast<int>(random.oneIn(4) ? random.between(0, Tr::maxDepth) : Tr::maxDepth);
            const auto expected = set_.find(p, depth);
            const int3 at = toInt3(p);
            const TreeIndex found = accessor.find(at.x, at.y, at.z, depth);
            ASSERT_EQ(found.valid(), expected.has_value()) << at << ", depth " << depth;
            if (!expected) continue;
            ASSERT_LT(found.index, tree_.tileCount(found.depth));
            ASSERT_EQ(keyOf(tree_.tile(found)), *expected) << at << ", depth " << depth;
            ASSERT_EQ(&accessor.tileImpl(at.x, at.y, at.z, depth), &tree_.tile(found));
        }
    }
    Tree<Tr> tree_{"tree"};
    Set set_;
    std::vector<Place> corners_;
};
TYPED_TEST_SUITE(LargeLookup, Structures, StructureNames);

TYPED_TEST(LargeLookup, is_right_in_a_thick_band_before_and_after_sorting_and_growth)
{
    Random random(1);
    auto accessor = std::as_const(this->tree_).tileAccessor();
    for (double radius : {3.0, 14.0, 15.0}) {
        growAll(this->tree_, SphereBand<TypeParam>(TypeParam::maxDepth, radius));
        this->collect();
        this->query(accessor, random, 4000);
    }
    EXPECT_GT(this->tree_.tileCount(TypeParam::maxDepth), 3000);
    this->tree_.sortIntoMortonOrder();
    this->query(accessor, random, 4000);
    growAll(this->tree_, SphereBand<TypeParam>(TypeParam::maxDepth - 1, 9));
    this->collect();
    this->query(accessor, random, 4000);
}

TYPED_TEST(LargeLookup, is_right_with_clusters_at_the_ends_of_tile_space)
{
    // Far apart, so that no dense table over their common box fits into memory.
    using Set = TileSet<TypeParam>;
    Random random(2);
    auto tiles = this->tree_.tileAccessor();
    auto accessor = std::as_const(this->tree_).tileAccessor();
    const std::int64_t ends[] = {Set::rangeMin + 100, 0, Set::rangeMax - 100};
    for (std::int64_t x : ends)
        for (std::int64_t y : ends)
            for (std::int64_t z : {ends[0], ends[2]}) {
                const int3 low = toInt3({x - 20, y - 20, z - 20}), high = toInt3({x + 20, y + 20, z + 20});
                tiles.addTiles(low, high, TypeParam::maxDepth);
                this->collect();
                this->query(accessor, random, 400);
                this->query(tiles, random, 400);
            }
    this->tree_.sortIntoMortonOrder();
    this->query(accessor, random, 4000);
}

TYPED_TEST(LargeLookup, is_right_for_every_depth_that_may_be_the_deepest)
{
    Random random(3);
    for (int deepest = 0; deepest <= TypeParam::maxDepth; ++deepest) {
        SCOPED_TRACE("deepest depth " + std::to_string(deepest));
        this->tree_.tileAccessor().addTiles(toInt3({-3, -3, -3}), toInt3({3, 3, 3}), deepest);
        const Place elsewhere = randomPlace<TypeParam>(random, 1000000);
        this->tree_.tileAccessor().addTile(int(elsewhere[0]), int(elsewhere[1]), int(elsewhere[2]),
                                           std::max(0, deepest - 2));
        this->collect();
        this->query(std::as_const(this->tree_).tileAccessor(), random, 600);
    }
}

TYPED_TEST(LargeLookup, is_right_while_tiles_vanish_below_a_stale_accessor)
{
    Random random(4);
    auto accessor = std::as_const(this->tree_).tileAccessor();
    growAll(this->tree_, SphereBand<TypeParam>(TypeParam::maxDepth, 8));
    while (this->tree_.tileCount(-1) > 200) {
        this->collect();
        this->query(accessor, random, 1500);
        std::vector<std::vector<int64>> doomed(TypeParam::levels);
        for (int n = 0; n < 200; ++n) {
            auto const& tile = this->tree_.tile(random.below(this->tree_.tileCount(-1)));
            if (tile.depth() > TypeParam::maxDepth - 4) doomed[tile.depth()].push_back(tile.index());
        }
        if (random.oneIn(3))
            doomed[TypeParam::maxDepth - 4].push_back(random.below(this->tree_.tileCount(TypeParam::maxDepth - 4)));
        TileMoves moves;
        this->tree_.removeTiles(doomed, moves, random.oneIn(2));
        if (random.oneIn(3)) this->tree_.sortIntoMortonOrder();
        if (random.oneIn(3))
            this->tree_.tileAccessor().addTile(int(random.between(-50, 50)), 3, 4, TypeParam::maxDepth);
    }
}

TYPED_TEST(LargeLookup, is_right_on_many_threads_with_an_accessor_each)
{
    growAll(this->tree_, SphereBand<TypeParam>(TypeParam::maxDepth, 10));
    this->collect();
    std::atomic<int> wrong{0};
    Tree<TypeParam> const& tree = this->tree_;
    parallel::runJob(nullptr, 8, [&] {
        parallel::forRanges(0, 16, 1, [&](int64 begin, int64 end) {
            for (int64 part = begin; part < end; ++part) {
                Random random(static_cast<std::uint64_t>(part) + 100);
                const auto accessor = tree.tileAccessor();
                for (int n = 0; n < 1500; ++n) {
                    const Place p = randomPlace<TypeParam>(random, 60);
                    const auto expected = this->set_.find(p, TypeParam::maxDepth);
                    const TreeIndex found = accessor.find(int(p[0]), int(p[1]), int(p[2]), TypeParam::maxDepth);
                    if (found.valid() != expected.has_value() || (expected && keyOf(tree.tile(found)) != *expected))
                        ++wrong;
                }
            }
        });
    });
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace tilegrid::test
