#include "io/level_set_from_shape.h"
#include "io/surface_tracer.h"
#include "io/volume_builder.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <numbers>

namespace tilegrid::test {
namespace {

using io::Ray;
using io::SurfaceTracer;
using Ostara::Math::double3;
using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelSignedDistance;

template <class Tr> class Tracing : public ::testing::Test {};
TYPED_TEST_SUITE(Tracing, Structures, StructureNames);

const io::Sphere kBall{{0.113, -0.207, 0.319}, 0.731};

template <class Tr> Corvid::Ptr<Ostara::Object> ball(float voxelSize, bool finer)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.structure = structureOf<Tr>();
    if (finer) options.finer = io::FinerBox{{0, -1, -1}, {1, 1, 1}, 1};
    return io::levelSetFromShape(kBall, options);
}

/// A copy whose distances went through `change`.
template <class Tr, class Change>
Corvid::Ptr<Ostara::Object> changed(Corvid::Ptr<Ostara::Object> volume, Change const& change)
{
    const auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(volume));
    auto channel = native->template extractComponent<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    const auto tree = native->template component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat)
                channel->tileData(n, depth)(flat) = change(channel->tileData(n, depth)(flat));
    native->putComponent(std::move(channel));
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

double3 randomDirection(Random& random)
{
    const double z = double(random.below(2000001)) * 1e-6 - 1.0,
                 angle = double(random.below(1000000)) * 2e-6 * std::numbers::pi;
    const double across = std::sqrt(1.0 - z * z);
    return {across * std::cos(angle), across * std::sin(angle), z};
}

/// Rays from all sides past and through the ball, against the ball itself.
/// \param coarsest  width of the widest voxels at the surface, in finest voxels
template <class Tr> void expectTheBall(Ostara::Object const& volume, double coarsest)
{
    const auto tree = treeOf<Tr>(volume);
    const auto topology = volume.native()->template component<VoxelTopology<Tr>>(sVoxelComp);
    const auto distance = channelOf<Tr>(volume);
    const SurfaceTracer<Tr> tracer(*tree, *topology, *distance);
    const double perVoxel = 1.0 / tree->voxelSize(), radius = perVoxel * kBall.radius;
    const double3 centre = perVoxel * kBall.centre;
    // A linear form between samples is off by at most h^2/8 times the sum of the second derivatives, 2 over the distance from
    // the middle. Where samples beside a coarser tile are themselves made between others, twice that.
    const double bound = 2.0 * coarsest * coarsest / 8.0 * 2.0 / (radius - 2.0 * coarsest) + 1e-3;
    Random random(17);
    int hits = 0, misses = 0;
    for (int n = 0; n < 4000; ++n) {
        const double3 from = centre + (4.0 * radius) * randomDirection(random);
        double3 to = centre + (1.3 * radius) * randomDirection(random);
        const double3 way = to - from;
        const Ray ray{from, (1.0 / length(way)) * way};
        const double nearest = length(cross(centre - from, ray.direction));
        typename SurfaceTracer<Tr>::Hit hit;
        const bool found = tracer.trace(ray, 0.0, 8.0 * radius, hit);
        double where = 0.0;
        const bool shadow = tracer.meets(ray, 0.0, 8.0 * radius, where);
        if (nearest < radius - bound) {
            ASSERT_TRUE(found) << "ray " << n << ", " << nearest / radius << " radii beside the middle";
            ASSERT_NEAR(length(hit.place - centre), radius, bound) << "ray " << n;
            // The side that looks at the ray's origin; rays that only touch the ball may end a little behind.
            const double half = std::sqrt(std::max(radius * radius - nearest * nearest, 0.0));
            if (half > std::sqrt(4.0 * radius * bound)) {
                ASSERT_LT(dot(hit.place - centre, ray.direction), 0.0) << "ray " << n;
                ASSERT_TRUE(shadow) << "ray " << n;
            }
            ++hits;
        } else if (nearest > radius + bound) {
            ASSERT_FALSE(found) << "ray " << n;
            ASSERT_FALSE(shadow) << "ray " << n;
            ++misses;
        }
    }
    EXPECT_GT(hits, 500);
    EXPECT_GT(misses, 500);
}

TYPED_TEST(Tracing, meets_a_ball_where_it_is)
{
    expectTheBall<TypeParam>(*ball<TypeParam>(0.04f, /*finer*/ false), 1.0);
}

TYPED_TEST(Tracing, meets_it_on_both_sides_of_a_jump)
{
    expectTheBall<TypeParam>(*ball<TypeParam>(0.08f, /*finer*/ true), TypeParam::branching);
}

TYPED_TEST(Tracing, meets_it_where_distances_end_with_the_band)
{
    using Tr = TypeParam;
    const auto volume =
        changed<Tr>(ball<Tr>(0.04f, /*finer*/ false), [](float d) { return std::clamp(d, -0.12f, 0.12f); });
    expectTheBall<Tr>(*volume, 1.0);
}

TYPED_TEST(Tracing, goes_past_values_that_are_no_numbers)
{
    using Tr = TypeParam;
    // Beyond the outer rim of the band.
    const auto volume = changed<Tr>(ball<Tr>(0.04f, /*finer*/ false),
                                    [](float d) { return d > 0.25f ? std::numeric_limits<float>::quiet_NaN() : d; });
    const auto topology = volume->native()->template component<VoxelTopology<Tr>>(sVoxelComp);
    const SurfaceTracer<Tr> tracer(*treeOf<Tr>(*volume), *topology, *channelOf<Tr>(*volume));
    const double3 centre = 25.0 * kBall.centre;
    typename SurfaceTracer<Tr>::Hit hit;
    ASSERT_TRUE(tracer.trace({centre + double3(0, 0, 40), {0, 0, -1}}, 0.0, 80.0, hit));
    EXPECT_NEAR(hit.place.z - centre.z, 25.0 * kBall.radius, 0.05);
}

TYPED_TEST(Tracing, hits_at_once_from_inside)
{
    using Tr = TypeParam;
    const auto volume = ball<Tr>(0.04f, /*finer*/ false);
    const auto topology = volume->native()->template component<VoxelTopology<Tr>>(sVoxelComp);
    const SurfaceTracer<Tr> tracer(*treeOf<Tr>(*volume), *topology, *channelOf<Tr>(*volume));
    typename SurfaceTracer<Tr>::Hit hit;
    ASSERT_TRUE(tracer.trace({25.0 * kBall.centre, {1, 0, 0}}, 2.0, 5.0, hit));
    EXPECT_EQ(hit.t, 2.0);
}

TYPED_TEST(Tracing, finds_the_normal_of_a_ball_on_both_sides_of_a_jump)
{
    using Tr = TypeParam;
    const auto volume = ball<Tr>(0.08f, /*finer*/ true);
    const auto tree = treeOf<Tr>(*volume);
    const auto topology = volume->native()->template component<VoxelTopology<Tr>>(sVoxelComp);
    const SurfaceTracer<Tr> tracer(*tree, *topology, *channelOf<Tr>(*volume));
    const double radius = kBall.radius / tree->voxelSize();
    const double3 centre = (1.0 / tree->voxelSize()) * kBall.centre;
    Random random(23);
    int coarse = 0, fine = 0;
    for (int n = 0; n < 1000; ++n) {
        const double3 direction = randomDirection(random), place = centre + radius * direction;
        typename SurfaceTracer<Tr>::Hit hit;
        ASSERT_TRUE(tracer.trace({centre + (2.0 * radius) * direction, -direction}, 0.0, 2.0 * radius, hit));
        ASSERT_LT(length(hit.place - place), 0.1 * Tr::branching);
        const double3 normal = tracer.normalAt(hit.place, hit.voxelWidth, {});
        // Each value is off by at most 2 h^2/(8 R') * 2, and the difference spans 2 h; the symmetric difference itself is off
        // by h^2/6 times a third derivative of at most 3/R'^2; R' is the radius less the reach of the stencil. Three axes.
        const double h = Tr::branching, least = radius - 2.0 * h;
        const double bound = std::numbers::sqrt3
            * (2.0 * (2.0 * h * h / (4.0 * least)) / (2.0 * h) + h * h / 6.0 * 3.0 / (least * least));
        ASSERT_LT(length(normal - direction), bound) << direction;
        ++(hit.depth == Tr::maxDepth ? fine : coarse);
    }
    EXPECT_GT(coarse, 200);
    EXPECT_GT(fine, 200);
}

}  // namespace
}  // namespace tilegrid::test
