#include "sampling/sampled_volume.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> struct Located {
    bool found;
    LocatedVoxel voxel;
    float halfInverseWidth = -1;
    bool operator==(Located const& o) const
    {
        return found == o.found && voxel.treeIndex == o.voxel.treeIndex && voxel.lijk == o.voxel.lijk && voxel.frac == o.voxel.frac;
    }
};

/// Base sampler over a set of tiles.
template <class Tr> struct LocateVoxel : ::testing::Test {
    using Set = TileSet<Tr>;
    using Sampler = VoxelSampler<Tr, float, float3>;
    static constexpr int W = Tr::width, D = Tr::maxDepth;

    void make(Set const& set, VoxelOffsetType offset, float voxelSize = 1.0f)
    {
        tree_ = std::make_unique<Tree<Tr>>("tree", voxelSize);
        addAll(set, *tree_);
        topology_ = std::make_unique<VoxelTopology<Tr>>("voxels", offset);
        sampler_ = std::make_unique<Sampler>(*tree_, *topology_);
    }
    Located<Tr> at(float3 const& p, int space = kTileSpace, int depth = D) const
    {
        Located<Tr> result{};
        result.found = sampler_->locateVoxel(p, space, depth, result.voxel, &result.halfInverseWidth);
        return result;
    }
    TileKey tileOf(Located<Tr> const& located) const { return keyOf(tree_->tile(located.voxel.treeIndex)); }

    std::unique_ptr<Tree<Tr>> tree_;
    std::unique_ptr<VoxelTopology<Tr>> topology_;
    std::unique_ptr<Sampler> sampler_;
};
TYPED_TEST_SUITE(LocateVoxel, Structures, StructureNames);

template <class Tr> TileSet<Tr> boxAroundOrigin(int depth)
{
    const std::int64_t reach = 2 * TileSet<Tr>::tileWidth(depth);
    TileSet<Tr> set;
    set.addBox({-reach, -reach, -reach}, {reach, reach, reach}, depth);
    return set;
}

TYPED_TEST(LocateVoxel, of_a_position_on_a_high_boundary_lies_in_the_next_tile)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    this->make(boxAroundOrigin<TypeParam>(D), kCorner);
    const TileKey middle = TileSet<TypeParam>::keyAt({0, 0, 0}, D);
    for (int side : {-1, 0, 1})
        for (int axis = 0; axis < 3; ++axis) {
            // The high face of the tile before the one at `low`.
            Place low = middle.low;
            low[axis] += side * W;
            const float3 p{float(low[0]), float(low[1]), float(low[2])};
            const auto located = this->at(p);
            ASSERT_TRUE(located.found);
            EXPECT_EQ(this->tileOf(located), TileSet<TypeParam>::keyAt(low, D));
            EXPECT_EQ(located.voxel.lijk, int3(0, 0, 0));
            EXPECT_EQ(located.voxel.frac, float3(0, 0, 0));
        }
}

TYPED_TEST(LocateVoxel, floors_negative_places_too)
{
    constexpr int D = TypeParam::maxDepth;
    this->make(boxAroundOrigin<TypeParam>(D), kCorner);
    for (float x : {-3.0f, -2.5f, -1.0f, -0.25f, -0.0f, 0.0f, 0.75f, 1.0f}) {
        const auto located = this->at(float3(x, 0, 0));
        ASSERT_TRUE(located.found);
        const TileKey tile = TileSet<TypeParam>::keyAt({std::int64_t(std::floor(x)), 0, 0}, D);
        EXPECT_EQ(this->tileOf(located), tile) << x;
        EXPECT_EQ(float(tile.low[0] + located.voxel.lijk.x) + located.voxel.frac.x, x);
        EXPECT_EQ(located.voxel.lijk.x, int(std::floor(x)) - int(tile.low[0]));
    }
}

TYPED_TEST(LocateVoxel, of_a_corner_sample_1e_6_below_a_tile_never_counts_from_below_it)
{
    // Whether rounding of the position puts it into the tile above or below, no index is negative, so no halo is asked for.
    constexpr int W = TypeParam::width;
    for (int depth : {TypeParam::maxDepth, TypeParam::maxDepth - 2}) {
        this->make(boxAroundOrigin<TypeParam>(depth), kCorner);
        const double w = double(TileSet<TypeParam>::voxelWidth(depth));
        for (std::int64_t tile : {-1, 0, 1}) {
            const TileKey key = TileSet<TypeParam>::keyAt({tile * std::int64_t(w) * W, 0, 0}, depth);
            const double low = double(key.low[0]);
            const auto located = this->at(float3(float(low - 1e-6 * w), float(key.low[1]), float(key.low[2])));
            ASSERT_TRUE(located.found);
            EXPECT_GE(located.voxel.lijk.x, 0);
            EXPECT_GE(located.voxel.frac.x, 0.0f);
            const double back = double(this->tileOf(located).low[0]) + w * (double(located.voxel.lijk.x) + located.voxel.frac.x);
            EXPECT_NEAR(back, low, 2e-6 * w);
        }
    }
}

TYPED_TEST(LocateVoxel, snaps_to_the_first_sample_from_1e_5_below_it)
{
    constexpr int D = TypeParam::maxDepth;
    this->make(boxAroundOrigin<TypeParam>(D), kCenter);
    const TileKey key = TileSet<TypeParam>::keyAt({0, 0, 0}, D);
    const auto below = [&](double distance) {
        return this->at(float3(float(double(key.low[0]) + 0.5 - distance), float(key.low[1]) + 0.5f, float(key.low[2]) + 0.5f));
    };
    for (double distance : {0.0, 1e-6, 5e-6}) {
        EXPECT_EQ(below(distance).voxel.lijk.x, 0) << distance;
        EXPECT_EQ(below(distance).voxel.frac.x, 0.0f) << distance;
    }
    for (double distance : {2e-5, 1e-3, 0.25, 0.5}) {
        EXPECT_EQ(below(distance).voxel.lijk.x, -1) << distance;
        EXPECT_NEAR(below(distance).voxel.frac.x, 1 - distance, 4 * kEpsilon) << distance;
    }
}

TYPED_TEST(LocateVoxel, with_a_voxel_size_of_zero_leads_every_world_position_to_the_origin)
{
    this->make(boxAroundOrigin<TypeParam>(TypeParam::maxDepth), kCorner, 0.0f);
    const auto origin = this->at(float3(0, 0, 0));
    ASSERT_TRUE(origin.found);
    for (float3 const& p : {float3(1e30f, -5, 3), float3(-0.0f, 7, -1e-30f), float3(1, 2, 3)}) EXPECT_EQ(this->at(p, kWorldSpace), origin);
    EXPECT_FALSE(this->at(float3(INFINITY, 0, 0), kWorldSpace).found) << "infinity times zero is no place";
}

TYPED_TEST(LocateVoxel, of_positions_that_are_no_place_or_outside_finds_nothing)
{
    this->make(boxAroundOrigin<TypeParam>(TypeParam::maxDepth), kCenter, 0.5f);
    // The root tile covers all of tile space.
    const float end = TypeParam::branching == 2 ? 536870912.0f : 610351616.0f;
    for (float bad : {NAN, INFINITY, -INFINITY, std::numeric_limits<float>::max(), -std::numeric_limits<float>::max(), 1073741824.0f,
                      -1073741824.0f, 4e9f, -4e9f, end, std::nextafter(-end, -INFINITY)})
        for (int axis = 0; axis < 3; ++axis)
            for (int space : {int(kTileSpace), int(kWorldSpace), 0, 1, 3, -1}) {
                float3 p(1, 1, 1);
                p[axis] = space == kWorldSpace ? 0.5f * bad : bad;
                const auto located = this->at(p, space);
                EXPECT_FALSE(located.found) << p;
                EXPECT_EQ(located.voxel.treeIndex, TreeIndex());
            }
    EXPECT_TRUE(this->at(float3(std::nextafter(end, 0.0f), -end * 0.99f, 0)).found);
}

TYPED_TEST(LocateVoxel, reads_any_coordinate_space_but_2_as_tile_space)
{
    this->make(boxAroundOrigin<TypeParam>(TypeParam::maxDepth), kCorner, 0.25f);
    for (int space : {0, 1, 3, -7}) EXPECT_EQ(this->at(float3(1.5f, 2, 3), space), this->at(float3(1.5f, 2, 3), kTileSpace));
    EXPECT_EQ(this->at(float3(0.375f, 0.5f, 0.75f), kWorldSpace), this->at(float3(1.5f, 2, 3), kTileSpace));
}

TYPED_TEST(LocateVoxel, agrees_with_a_search_of_the_set_for_every_depth_and_order_of_queries)
{
    using Set = TileSet<TypeParam>;
    const Set set = randomSet<TypeParam>(5, 60, false);
    for (VoxelOffsetType offset : {kCorner, kCenter, kFaceY}) {
        this->make(set, offset);
        Random random(6);
        for (float3 const& p : positionsIn<TypeParam>(set, 7, 3000, 0, 1e9)) {
            const int depth = random.oneIn(2) ? TypeParam::maxDepth : static_cast<int>(random.between(-1, TypeParam::maxDepth + 2));
            Place place;
            for (int a = 0; a < 3; ++a) place[a] = static_cast<std::int64_t>(std::floor(double(p[a])));
            const auto expected = set.find(place, depth);
            const auto located = this->at(p, kTileSpace, depth);
            ASSERT_EQ(located.found, expected.has_value()) << p << " depth " << depth;
            if (!expected) continue;
            ASSERT_EQ(this->tileOf(located), *expected) << p;
            const double w = double(Set::voxelWidth(expected->depth));
            EXPECT_EQ(located.halfInverseWidth, static_cast<float>(0.5 / w));
            for (int a = 0; a < 3; ++a) {
                const double local = (double(p[a]) - double(expected->low[a])) / w - (offset >> a & 1 ? 0.0 : 0.5);
                const int site = located.voxel.lijk[a];
                ASSERT_TRUE(site >= (offset >> a & 1 ? 0 : -1) && site <= TypeParam::width - 1);
                // Three roundings of numbers up to W.
                ASSERT_NEAR(site + double(located.voxel.frac[a]), local, std::max(1.01e-5, 2.0 * TypeParam::width * kEpsilon)) << p;
                ASSERT_GE(located.voxel.frac[a], 0.0f);
                ASSERT_LE(located.voxel.frac[a], 1.0f + 8 * kEpsilon);
            }
            // A sampler without a past gives the same.
            const VoxelSampler<TypeParam, float, float3> fresh(*this->tree_, *this->topology_);
            Located<TypeParam> again{};
            again.found = fresh.locateVoxel(p, kTileSpace, depth, again.voxel);
            ASSERT_TRUE(again == located);
        }
    }
}

TYPED_TEST(LocateVoxel, stays_right_when_the_tree_grows)
{
    constexpr int D = TypeParam::maxDepth;
    TileSet<TypeParam> set;
    set.add({0, 0, 0}, D - 1);
    this->make(set, kCorner);
    EXPECT_EQ(this->at(float3(0.5f, 0.5f, 0.5f)).voxel.treeIndex.depth, D - 1);
    this->tree_->tileAccessor().addTile(0, 0, 0, D);
    EXPECT_EQ(this->at(float3(0.5f, 0.5f, 0.5f)).voxel.treeIndex.depth, D);
}

TEST(InterpolationModes, pass_from_nodes_unchanged_and_anything_else_is_linear)
{
    using Node = Geometry::Volume::InterpolationMode;
    for (int n = 0; n <= 4; ++n) EXPECT_EQ(int(interpolationMode(Node(n))), n);
    for (int n : {-1, 5, 1000, -1000}) EXPECT_EQ(interpolationMode(Node(n)), kLinear);
    EXPECT_EQ(int(Node::kLinear), 0);
    EXPECT_EQ(int(Node::kCubicC1Monotonic), 4);
}

TEST(InterpolationModes, become_cubic_modes_one_lower_up_to_the_last)
{
    EXPECT_EQ(cubicMode(kQuadraticC0Averaged), CubicMode::kQuadraticC0Averaged);
    EXPECT_EQ(cubicMode(kCubicC0), CubicMode::kCubicC0);
    EXPECT_EQ(cubicMode(kCubicC1), CubicMode::kCubicC1);
    EXPECT_EQ(cubicMode(kCubicC1Monotonic), CubicMode::kCubicC1Monotonic);
    EXPECT_EQ(cubicMode(InterpolationMode(77)), CubicMode::kCubicC1Monotonic);
    EXPECT_STREQ(interpolationName(CubicMode(4)), "kError");
    EXPECT_STREQ(interpolationName(CubicMode(-1)), "kError");
    EXPECT_STREQ(interpolationName(CubicMode::kQuadraticC0Averaged), "kQuadraticC0Averaged");
    EXPECT_STREQ(interpolationName(CubicMode::kCubicC1Monotonic), "kCubicC1Monotonic");
}

}  // namespace
}  // namespace tilegrid::test
