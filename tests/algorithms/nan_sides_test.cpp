#include "TilegridOps/algorithms/nan_sides.h"
#include "redistance_world.h"
#include "support/clusters.h"
#include "support/jobs.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

const Point kCentre = {0.31, -0.17, 0.23};
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

template <class Tr> class NanSides : public ::testing::Test {
public:
    static constexpr int fine = Tr::maxDepth;
    static Redistanced<Tr> ball()
    {
        Redistanced<Tr> world(cubeOfTiles<Tr>(fine, -20, 20), fine);
        world.fill(sphere(kCentre, 12));
        return world;
    }
    /// Voxels of the finest depth more than `margin` voxels from the surface, on the wrong side of it.
    static int wrongSides(Redistanced<Tr>& world, double margin)
    {
        const Field exact = sphere(kCentre, 12);
        int wrong = 0;
        world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
            if (t.depth == fine && world.isFree(t, v) && std::abs(exact(p)) > margin) wrong += !((world.at(t, v) < 0) == (exact(p) < 0));
        });
        return wrong;
    }
};
TYPED_TEST_SUITE(NanSides, Structures, StructureNames);

TYPED_TEST(NanSides, are_those_of_most_finite_neighbours_and_outside_on_a_tie)
{
    // The six neighbours of the voxel (1, 1, 1): how many are inside, how many outside; the others hold NaN too.
    for (auto [inside, outside, isInside] : {std::tuple(4, 2, true), {3, 3, false}, {2, 4, false}, {1, 0, true}, {2, 1, true}, {0, 6, false}, {6, 0, true}}) {
        SCOPED_TRACE(std::to_string(inside) + " inside, " + std::to_string(outside) + " outside");
        Redistanced<TypeParam> world(cubeOfTiles<TypeParam>(this->fine, 0, 3), this->fine);
        world.fill([](Point const&) { return double(kNan); });
        const TreeIndex tile = world.tree.find(0, 0, 0, this->fine);
        const auto values = world.values->tileData(tile);
        int n = 0;
        for (int3 const& at : {int3(0, 1, 1), int3(1, 0, 1), int3(1, 1, 0), int3(2, 1, 1), int3(1, 2, 1), int3(1, 1, 2)}) {
            if (n < inside + outside) values(at) = n < inside ? -2.0f : 2.0f;
            ++n;
        }
        giveNansSides(world.tree, *world.values);
        EXPECT_TRUE(std::isfinite(values(1, 1, 1)));
        EXPECT_EQ(values(1, 1, 1) < 0, isInside);
    }
}

TYPED_TEST(NanSides, leave_no_pinhole_in_a_ball_that_is_redistanced)
{
    // Single voxels, and a block whose middle has no finite neighbour.
    auto world = this->ball();
    Random random(4);
    int lost = 0;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        const bool block = std::max({std::abs(p[0]), std::abs(p[1]), std::abs(p[2])}) <= 3;
        if (t.depth == this->fine && (block || random.oneIn(20))) world.at(t, v) = kNan, ++lost;
    });
    EXPECT_GT(lost, 500);
    world.redistance();
    // Further than a voxel from the surface all neighbours that are finite have one side; two next to each other may both be lost.
    EXPECT_EQ(this->wrongSides(world, 2.0), 0);
}

TYPED_TEST(NanSides, stay_nan_where_nothing_is_finite_and_where_voxels_are_fixed)
{
    Redistanced<TypeParam> world(cubeOfTiles<TypeParam>(this->fine, 0, 3), this->fine);
    world.fill([](Point const&) { return double(kNan); });
    giveNansSides(world.tree, *world.values);
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) { EXPECT_TRUE(std::isnan(world.at(t, v))); });
    auto ball = this->ball();
    const TreeIndex tile = ball.tree.find(0, 0, 0, this->fine);
    ball.values->tileData(tile)(1, 1, 1) = kNan;
    giveNansSides<TypeParam>(ball.tree, *ball.values, 0, this->fine, [](OST::int64, int, int) { return true; });
    EXPECT_TRUE(std::isnan(ball.values->tileData(tile)(1, 1, 1)));
}

TYPED_TEST(NanSides, same_bytes_for_any_number_of_threads)
{
    std::string first;
    for (int threads : kThreadCounts) {
        auto world = this->ball();
        Random random(7);
        world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
            if (random.oneIn(3)) world.at(t, v) = kNan;
        });
        parallel::runJob(nullptr, threads, [&] { giveNansSides(world.tree, *world.values); });
        const std::string bytes = world.bytes();
        if (first.empty()) first = bytes;
        EXPECT_TRUE(first == bytes) << threads << " threads";
    }
}

}  // namespace
}  // namespace tilegrid::test
