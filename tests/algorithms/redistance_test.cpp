#include "redistance_world.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// A centre off all lattices.
const Point kCentre = {0.31, -0.17, 0.23};

struct Errors {
    double mean = 0, largest = 0;
    std::int64_t count = 0;
};

/// Of the voxels of depth `fine` within `band` of the surface, against the exact distance.
template <class Tr> Errors errorsOf(Redistanced<Tr> const& world, Field const& exact, double band)
{
    Errors e;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth != world.fine || std::abs(exact(p)) > band) return;
        const double error = std::abs(world.length(world.at(t, v)) - exact(p));
        e.mean += error;
        e.largest = std::max(e.largest, error);
        ++e.count;
    });
    e.mean /= double(std::max<std::int64_t>(e.count, 1));
    return e;
}

template <class Tr> class Redistancing : public ::testing::Test {};
TYPED_TEST_SUITE(Redistancing, Structures, StructureNames);

TYPED_TEST(Redistancing, a_sphere_keeps_its_distances)
{
    constexpr int fine = TypeParam::maxDepth;
    Redistanced<TypeParam> world(cubeOfTiles<TypeParam>(fine, -32, 32), fine);
    world.fill(sphere(kCentre, 20));
    world.redistance();
    const Errors near = errorsOf<TypeParam>(world, sphere(kCentre, 20), 5), all = errorsOf<TypeParam>(world, sphere(kCentre, 20), 100);
    int shown = 0;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth != world.fine) return;
        const double error = world.length(world.at(t, v)) - sphere(kCentre, 20)(p);
        if (std::abs(error) > 0.1 && shown++ < 20) printf("%d at %g %g %g: %g error %g\n", int(t.index), p[0], p[1], p[2], sphere(kCentre, 20)(p), error);
    });
    printf("%d near mean %g max %g, all mean %g max %g\n", shown, near.mean, near.largest, all.mean, all.largest);
    EXPECT_GT(near.count, 1000);
    EXPECT_LE(near.largest, 0.005);
}

}  // namespace
}  // namespace tilegrid::test
