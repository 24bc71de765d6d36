#include "TilegridOps/substrate/dependent_values.h"
#include "level_set_volume.h"
#include "support/clusters.h"

/// Redistancing where the surface passes from fine to coarser tiles.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> class RedistancingAcrossJumps : public ::testing::Test {
public:
    static constexpr int fine = Tr::maxDepth;
    /// Fine voxels of a coarse one.
    static constexpr int ratio = Tr::branching;
    /// In fine voxels.
    static constexpr int radius = Tr::branching == 2 ? 20 : 60;
    static constexpr int half = Tr::branching == 2 ? 32 : 72;
    /// A centre off both lattices.
    static constexpr Point centre = {0.31, -0.17, 0.23};

    /// A cube with fine voxels where x is negative (or not), and voxels `depths` coarser in the other half.
    static TileSet<Tr> jump(bool fineLow, int depths, bool graded, std::int64_t h = half)
    {
        TileSet<Tr> set;
        set.addBox({fineLow ? -h : 0, -h, -h}, {(fineLow ? 0 : h) - 1, h - 1, h - 1}, fine);
        set.addBox({fineLow ? 0 : -h, -h, -h}, {(fineLow ? h : 0) - 1, h - 1, h - 1}, fine - depths);
        return graded ? gradedClosure(set, 0, fine) : set;
    }
};
TYPED_TEST_SUITE(RedistancingAcrossJumps, Structures, StructureNames);

// With linear values beside the jump the error there would be the square of the coarse voxel over 8 radii, 0.025 fine voxels of
// the binary structure, and twice that after some calls.
TYPED_TEST(RedistancingAcrossJumps, stays_third_order_and_does_not_drift)
{
    const double unit = TestFixture::ratio == 2 ? 1 : TestFixture::ratio;
    const Field exact = sphere(TestFixture::centre, TestFixture::radius);
    for (bool fineLow : {true, false}) {
        SCOPED_TRACE(fineLow ? "fine below" : "fine above");
        Redistanced<TypeParam> world(TestFixture::jump(fineLow, 1, true), TestFixture::fine);
        world.fill(exact);
        const double band = 3 * TestFixture::ratio;
        for (int call = 0; call < 5; ++call) {
            world.redistance();
            const Errors errors = errorsOf<TypeParam>(world, exact, band);
            EXPECT_GT(errors.count, 1000);
            EXPECT_LE(errors.largest, (call ? 0.015 : 0.01) * unit) << "call " << call;
        }
        EXPECT_LE(slopeErrors<TypeParam>(world, exact, band).largest, 0.01);
        // Hanging voxels and those above children follow from the others, to the bit.
        const std::string bytes = world.bytes();
        setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, world.tree, *world.values, *world.dofs, kNonDofCopy);
        EXPECT_TRUE(bytes == world.bytes());
    }
}

/// What a redistancing must never do, whatever the tree: leave something that is not finite, or change a sign.
template <class Tr> void expectFiniteAndSignsKept(Redistanced<Tr> const& before, Redistanced<Tr> const& after)
{
    bool kept = true, finite = true;
    after.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        finite &= std::isfinite(after.at(t, v));
        if (after.isFree(t, v) && after.isLeafVoxel(t, v)) kept &= (before.at(t, v) < 0) == (after.at(t, v) < 0);
    });
    EXPECT_TRUE(finite);
    EXPECT_TRUE(kept);
}

// The radius is three of the coarse voxels, so that these know what they hold half of.
TYPED_TEST(RedistancingAcrossJumps, of_several_levels_stays_near_and_keeps_signs)
{
    const int depths = TestFixture::ratio == 2 ? 4 : 2;
    const double coarse = std::pow(TestFixture::ratio, depths), size = 3 * coarse;
    const Field exact = sphere(TestFixture::centre, size);
    for (bool fineLow : {true, false}) {
        SCOPED_TRACE(fineLow ? "fine below" : "fine above");
        Redistanced<TypeParam> world(TestFixture::jump(fineLow, depths, false, std::int64_t(size + coarse)), TestFixture::fine);
        world.fill(exact);
        const auto before = world;
        world.redistance();
        expectFiniteAndSignsKept(before, world);
        const Errors errors = errorsOf<TypeParam>(world, exact, 3 * coarse);
        EXPECT_GT(errors.count, 10000);
        EXPECT_LE(errors.largest, 0.2 * coarse);
    }
}

// A voxel of 625 finest ones tells nothing of a sphere of 60.
TYPED_TEST(RedistancingAcrossJumps, to_voxels_larger_than_the_surface_keeps_signs)
{
    for (bool fineLow : {true, false}) {
        Redistanced<TypeParam> world(TestFixture::jump(fineLow, 4, false), TestFixture::fine);
        world.fill(sphere(TestFixture::centre, TestFixture::radius));
        const auto before = world;
        world.redistance();
        expectFiniteAndSignsKept(before, world);
    }
}

// Beside the ends of the tiles of a band the next coarser tile may be many times as large.
TYPED_TEST(RedistancingAcrossJumps, of_a_band_alone_leaves_only_hanging_voxels_off)
{
    const Field exact = sphere(TestFixture::centre, TestFixture::radius);
    Redistanced<TypeParam> world(bandSet<TypeParam>(exact, 3, TestFixture::radius + 16), TestFixture::fine);
    world.fill(exact);
    for (int call = 0; call < 2; ++call) world.redistance();
    Errors free, hanging;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth == TypeParam::maxDepth) (world.isFree(t, v) ? free : hanging).add(world.length(world.at(t, v)) - exact(p));
    });
    EXPECT_GT(hanging.count, 1000);
    EXPECT_LE(free.largest, 0.01);
    EXPECT_GT(hanging.largest, 0.1) << "interpolated from voxels that are coarser by several levels";
    const std::string bytes = world.bytes();
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, world.tree, *world.values, *world.dofs, kNonDofCopy);
    EXPECT_TRUE(bytes == world.bytes()) << "but what their flags ask for";
}

}  // namespace
}  // namespace tilegrid::test
