#include "TilegridOps/algorithms/extrapolate.h"
#include "TilegridOps/substrate/child_values.h"
#include "redistance_world.h"
#include "support/clusters.h"

/// Level sets whose samples lie in the middle of the voxels, where nothing hangs and no two depths share a sample.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

const Point kCentre = {0.31, -0.17, 0.23};

template <class Tr> class CentreSamples : public ::testing::Test {
public:
    static constexpr int fine = Tr::maxDepth, ratio = Tr::branching;
    /// In finest voxels.
    static constexpr int radius = ratio == 2 ? 20 : 60, half = ratio == 2 ? 32 : 75;

    /// Fine voxels where x is negative, voxels one depth coarser elsewhere.
    static Redistanced<Tr> jump()
    {
        TileSet<Tr> set;
        set.addBox({-half, -half, -half}, {-1, half - 1, half - 1}, fine);
        set.addBox({0, -half, -half}, {half - 1, half - 1, half - 1}, fine - 1);
        return Redistanced<Tr>(gradedClosure(set, 0, fine), fine, 1.0f, kCenter);
    }
};
TYPED_TEST_SUITE(CentreSamples, Structures, StructureNames);

TYPED_TEST(CentreSamples, become_distances_of_a_sphere)
{
    Redistanced<TypeParam> world(cubeOfTiles<TypeParam>(this->fine, -32, 32), this->fine, 0.5f, kCenter);
    const Field exact = sphere(kCentre, 20);
    world.fill([&](Point const& p) { return 1.7 * exact(p); });
    world.redistance();
    const Errors errors = errorsOf<TypeParam>(world, exact, 5);
    EXPECT_GT(errors.count, 10000);
    EXPECT_LE(errors.largest, 0.005);
}

TYPED_TEST(CentreSamples, become_distances_across_a_jump_and_voxels_above_children_the_mean_of_these)
{
    auto world = this->jump();
    const Field exact = sphere(kCentre, this->radius);
    world.fill(exact);
    for (int call = 0; call < 5; ++call) {
        world.redistance();
        const Errors errors = errorsOf<TypeParam>(world, exact, 3 * this->ratio);
        EXPECT_GT(errors.count, 10000);
        EXPECT_LE(errors.largest, (this->ratio == 2 ? 1 : this->ratio) * (call ? 0.015 : 0.01)) << "call " << call;
    }
    const std::string bytes = world.bytes();
    setNonLeafValueToChildValue(*world.values, world.tree, kCenter, 0, TypeParam::maxDepth);
    EXPECT_TRUE(bytes == world.bytes());
}

TEST(CentreSamplesExtrapolated, continue_linear_data_exactly_also_across_a_jump)
{
    using Tr = BinaryTraits;
    using namespace VolumeGL::TileTree3D::LevelSet;
    const Field linear = [](Point const& p) { return 0.3 * p[0] - 0.2 * p[1] + 0.5 * p[2] + 1; };
    auto world = CentreSamples<Tr>::jump();
    world.fill(linear);
    Channel<Tr, unsigned char, 4, 0> marker("marker", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    marker.updateTilesAdded(world.topology);
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        const bool known = p[2] <= 0.4 * p[0];
        marker.tileData(t)(v) = known;
        if (!known) world.at(t, v) = -77;
    });
    extrapolateChannel<Tr, float>(ExtrapolationType::kLinear, world.tree, world.topology, marker, *world.values, nullptr, &*world.dofs, 0, Tr::maxDepth, false);
    Errors errors;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth >= Tr::maxDepth - 1) errors.add(world.length(world.at(t, v)) - linear(p));
    });
    EXPECT_GT(errors.count, 100000);
    EXPECT_LE(errors.largest, 1e-4) << "of values up to 35";
}

}  // namespace
}  // namespace tilegrid::test
