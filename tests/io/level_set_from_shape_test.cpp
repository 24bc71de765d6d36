#include "io/error.h"
#include "io/level_set_from_shape.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <array>
#include <cmath>
#include <functional>
#include <numbers>

namespace tilegrid::test {
namespace {

using io::Box;
using io::InputError;
using io::LevelSetOptions;
using io::Shape;
using io::Sphere;
using io::Torus;
using Ostara::Math::double3;
using Ostara::Math::int3;

using Real = long double;
using Place = std::array<Real, 3>;

Real lengthOf(Place const& v) { return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]); }
Place between(double3 const& from, Place const& to) { return {to[0] - from.x, to[1] - from.y, to[2] - from.z}; }

Real oracleOf(Sphere const& sphere, Place const& p) { return lengthOf(between(sphere.centre, p)) - sphere.radius; }

/// Outside the way to the nearest place of the box, inside the way to the nearest of its six faces.
Real oracleOf(Box const& box, Place const& p)
{
    Place to;
    Real nearestFace = std::numeric_limits<Real>::infinity();
    bool inside = true;
    for (int axis = 0; axis < 3; ++axis) {
        const Real low = box.low[axis], high = box.high[axis];
        to[axis] = p[axis] < low ? low - p[axis] : p[axis] > high ? p[axis] - high : 0;
        inside = inside && to[axis] == 0;
        nearestFace = std::min({nearestFace, std::abs(p[axis] - low), std::abs(high - p[axis])});
    }
    return inside ? -nearestFace : lengthOf(to);
}

/// From the nearest place of the circle that the tube follows.
Real oracleOf(Torus const& torus, Place const& p)
{
    Place from = between(torus.centre, p), along = from;
    along[torus.axis] = 0;
    const Real away = lengthOf(along);
    if (away == 0) along[(torus.axis + 1) % 3] = torus.radius;
    for (Real& v : along) v *= away == 0 ? 1 : torus.radius / away;
    for (int axis = 0; axis < 3; ++axis) from[axis] -= along[axis];
    return lengthOf(from) - torus.tube;
}

struct NamedShape {
    char const* name;
    Shape shape;
};
/// Off the lattice, so that distances are no round numbers.
const NamedShape kShapes[] = {
    {"sphere", Sphere{{0.113, -0.207, 0.319}, 0.731}},
    {"thin box", Box{{-0.513, -0.307, 0.211}, {0.377, 0.419, 0.303}}},
    {"torus around x", Torus{{0.1, 0.2, 0.3}, 0.6, 0.17, 0}},
    {"torus around y", Torus{{-0.1, 0.02, 0.003}, 0.6, 0.17, 1}},
    {"torus around z", Torus{{0.01, -0.2, 0.3}, 0.6, 0.17, 2}},
};

Real oracleOf(Shape const& shape, Place const& p)
{
    return std::visit([&p](auto const& s) { return oracleOf(s, p); }, shape);
}

template <class Tr> LevelSetOptions optionsOf(float voxelSize, float band = 3.0f)
{
    LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.bandVoxels = band;
    options.structure = structureOf<Tr>();
    return options;
}

template <class Tr> class LevelSetFromShape : public ::testing::Test {};
TYPED_TEST_SUITE(LevelSetFromShape, Structures, StructureNames);

/// Distances are computed in double and rounded to float once (2^-24 of them); places and sums in double are good to some
/// units of 2^-53 of the coordinates, for which 2^-47 leaves room.
template <class Tr>
void expectTrueDistances(Ostara::Object const& volume, std::function<Real(Place const&)> const& oracle)
{
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, flat);
                Place place;
                Real coordinates = 1;
                for (int axis = 0; axis < 3; ++axis) {
                    place[axis] =
                        (Real(tree->tile(n, depth).tijk()[axis]) + Real(ijk[axis]) * Tr::voxelDataWidth(depth))
                        * tree->voxelSize();
                    coordinates += std::abs(place[axis]);
                }
                const Real wanted = oracle(place);
                ASSERT_NEAR(values->tileData(n, depth)(flat), wanted,
                            0x1p-24L * std::abs(wanted) + 0x1p-47L * coordinates)
                    << "depth " << depth << ", tile " << n << ", voxel " << ijk;
            }
}

TYPED_TEST(LevelSetFromShape, holds_the_true_distance_at_every_voxel_of_every_depth)
{
    for (NamedShape const& named : kShapes) {
        SCOPED_TRACE(named.name);
        const auto volume = io::levelSetFromShape(named.shape, optionsOf<TypeParam>(0.043f));
        expectTrueDistances<TypeParam>(*volume, [&](Place const& p) { return oracleOf(named.shape, p); });
    }
}

TYPED_TEST(LevelSetFromShape, holds_the_true_distance_with_a_finer_box_too)
{
    using Tr = TypeParam;
    const Sphere sphere{{0.1, 0.2, 0.3}, 0.7};
    LevelSetOptions options = optionsOf<Tr>(0.1f);
    options.finer = io::FinerBox{{0, 0, 0}, {1, 1, 1}, 1};
    const auto volume = io::levelSetFromShape(sphere, options);
    const auto tree = treeOf<Tr>(*volume);
    EXPECT_EQ(tree->voxelSize(), 0.1f / float(Tr::branching));
    expectTrueDistances<Tr>(*volume, [&](Place const& p) { return oracleOf(sphere, p); });
}

TYPED_TEST(LevelSetFromShape, has_the_tiles_with_a_voxel_in_the_band_and_their_ancestors_and_no_others)
{
    using Tr = TypeParam;
    constexpr float kBand = 2.5f;
    const float h = 0.061f;
    for (NamedShape const& named : kShapes) {
        SCOPED_TRACE(named.name);
        const auto volume = io::levelSetFromShape(named.shape, optionsOf<Tr>(h, kBand));
        const auto tree = treeOf<Tr>(*volume);
        EXPECT_TRUE(checkTree(*tree).empty());
        const OST::TileTree3D::ConstTileAccessor<Tr> accessor(*tree);
        const int W = Tr::width, reach = 24;  // voxels; the shapes and their bands lie within
        const auto aligned = [&](int v) {
            return Tr::rangeMin + static_cast<int>((OST::int64(v) - Tr::rangeMin) / W) * W;
        };
        OST::int64 found = 0;
        for (int k = aligned(-reach); k <= reach; k += W)
            for (int j = aligned(-reach); j <= reach; j += W)
                for (int i = aligned(-reach); i <= reach; i += W) {
                    Real nearest = std::numeric_limits<Real>::infinity();
                    for (int n = 0; n < Tr::voxelCount; ++n) {
                        const int3 p = int3(i, j, k) + OST::TileTree3D::cubeIndex(W, n);
                        nearest = std::min(
                            nearest, std::abs(oracleOf(named.shape, {p.x * Real(h), p.y * Real(h), p.z * Real(h)})));
                    }
                    const bool has = accessor.find(i, j, k, Tr::maxDepth).depth == Tr::maxDepth;
                    ASSERT_EQ(has, nearest <= Real(kBand) * h) << "tile at " << int3(i, j, k);
                    found += has;
                }
        EXPECT_EQ(tree->tileCount(Tr::maxDepth), found);
        for (int depth = 0; depth < Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree->tileCount(depth); ++n) ASSERT_FALSE(tree->tile(n, depth).isLeaf());
    }
}

TYPED_TEST(LevelSetFromShape, is_a_level_set_with_the_band_as_default_and_samples_at_corners)
{
    using Tr = TypeParam;
    const auto volume = io::levelSetFromShape(Sphere{{}, 1.0}, optionsOf<Tr>(0.125f, 4.0f));
    EXPECT_TRUE(Ostara::Object::isA(*volume, *Ostara::Geometry::getLevelSetPrototype()));
    EXPECT_EQ(channelOf<Tr>(*volume)->defaultValue(), 0.5f);
    const auto topology =
        volume->native()->template component<OST::TileTree3D::VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    ASSERT_TRUE(topology);
    EXPECT_EQ(topology->offsetType(), OST::TileTree3D::kCorner);
    EXPECT_EQ(treeOf<Tr>(*volume)->voxelSize(), 0.125f);
}

TYPED_TEST(LevelSetFromShape, gives_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    Corvid::Ptr<Ostara::Object> first;
    for (int threads : kThreadCounts) {
        Corvid::Ptr<Ostara::Object> volume;
        parallel::runJob(nullptr, threads, [&] {
            volume = io::levelSetFromShape(Torus{{}, 1.0, 0.3, 1}, optionsOf<Tr>(0.04f));
        });
        if (!first) first = volume;
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            ASSERT_EQ(differencesAt<Tr>(depth, *first, *volume), "") << threads << " threads";
    }
}

TYPED_TEST(LevelSetFromShape, refuses_shapes_and_sizes_that_make_no_sense)
{
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN(),
                     kInfinity = std::numeric_limits<double>::infinity();
    const auto complaint = [](Shape const& shape, float voxelSize = 0.1f) {
        return errorOf<InputError>([&] { io::levelSetFromShape(shape, optionsOf<TypeParam>(voxelSize)); });
    };
    for (double bad : {0.0, -1.0, kNan, kInfinity}) {
        EXPECT_TRUE(contains(complaint(Sphere{{}, bad}), "radius of the sphere"));
        EXPECT_TRUE(contains(complaint(Torus{{}, bad, 0.1, 0}), "radius of the torus"));
        EXPECT_TRUE(contains(complaint(Torus{{}, 1.0, bad, 0}), "tube of the torus"));
        EXPECT_TRUE(contains(complaint(Box{{0, 0, 0}, {1, bad, 1}}), "along y")) << bad;
    }
    EXPECT_TRUE(contains(complaint(Sphere{{kNan, 0, 0}, 1}), "centre of the sphere"));
    EXPECT_TRUE(contains(complaint(Torus{{0, kInfinity, 0}, 1, 0.1, 0}), "centre of the torus"));
    EXPECT_TRUE(contains(complaint(Torus{{}, 1, 0.1, 3}), "axis"));
    EXPECT_TRUE(contains(complaint(Sphere{{}, 1}, 2.1f), "larger than the sphere"));
    EXPECT_TRUE(contains(complaint(Sphere{{}, 1}, 0.0f), "positive number"));
    EXPECT_TRUE(contains(complaint(Sphere{{}, 1}, 1e-12f), "the tree reaches"));
    EXPECT_TRUE(contains(complaint(Box{{1e9, 0, 0}, {1e9 + 1, 1, 1}}), "move the box to the origin"));
}

TYPED_TEST(LevelSetFromShape, estimates_its_size_before_it_works)
{
    for (NamedShape const& named : kShapes) {
        SCOPED_TRACE(named.name);
        LevelSetOptions options = optionsOf<TypeParam>(0.01f);
        const auto volume = io::levelSetFromShape(named.shape, options);
        std::size_t used = 0, reserved = 0;
        for (Corvid::String const& name : volume->native()->componentRange())
            volume->native()->template component<OST::Component>(name)->memUse(used, reserved, false);
        // The estimate counts mean layers of tiles, and those of both sides of a thin body apart: it may be twice as much.
        options.maxBytes = used * 3 / 4;
        EXPECT_TRUE(
            contains(errorOf<InputError>([&] { io::levelSetFromShape(named.shape, options); }), "would take about"));
        options.maxBytes = used * 2;
        EXPECT_NO_THROW(io::levelSetFromShape(named.shape, options));
    }
    // Far beyond any memory: the answer comes at once.
    LevelSetOptions options = optionsOf<TypeParam>(1e-8f);
    options.maxBytes = std::uint64_t(1) << 40;
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             io::levelSetFromShape(Sphere{{}, 1}, options);
                         }),
                         "would take about"));
}

/// A solid whose tube is wider than its circle, by brute force: the way to the nearest of many places on the arc that turns
/// around the axis. \return the distance, at most half of `gap` too large
Real wideTorus(double radius, double tube, Real away, Real height, Real& gap)
{
    constexpr int kPlaces = 5000;
    const Real end = std::acos(-Real(radius) / tube);
    gap = 2 * end * tube / kPlaces;
    Real nearest = std::numeric_limits<Real>::infinity();
    for (int n = 0; n <= kPlaces; ++n) {
        const Real angle = end * (2 * Real(n) / kPlaces - 1);
        nearest =
            std::min(nearest, std::hypot(radius + tube * std::cos(angle) - away, tube * std::sin(angle) - height));
    }
    return std::hypot(away - radius, height) < tube ? -nearest : nearest;
}

TEST(TorusDistance, is_true_where_the_tube_is_wider_than_the_circle)
{
    Random random(3);
    const auto coordinate = [&random](double reach) { return reach * (double(random.below(2000001)) * 1e-6 - 1.0); };
    int corners = 0, outside = 0;
    for (const auto& [radius, tube] : {std::pair{1.0, 1.3}, std::pair{0.3, 1.0}, std::pair{1.0, 1.0}})
        for (int n = 0; n < 200; ++n) {
            // Half of the places near the axis, where the corners are.
            const double3 place(coordinate(n % 2 ? 0.3 : 2.5), coordinate(1.6), coordinate(n % 2 ? 0.3 : 2.5));
            Real gap = 0;
            const Real wanted = wideTorus(radius, tube, std::hypot(Real(place.x), Real(place.z)), place.y, gap);
            const double found = io::signedDistance(Torus{{}, radius, tube, 1}, place);
            ASSERT_NEAR(found, wanted, 0.5L * gap) << place << ", radius " << radius << ", tube " << tube;
            // Farther inside than any rim: a corner is the nearest place.
            corners +=
                wanted < 0 && -wanted > 1.01L * (tube - std::hypot(std::hypot(place.x, place.z) - radius, place.y));
            outside += wanted > 0;
        }
    EXPECT_GT(corners, 20);
    EXPECT_GT(outside, 50);
}

TEST(TorusDistance, ends_at_the_corner_on_the_axis_not_beyond_it)
{
    // On the axis, half way up to the corner at height sqrt(1.3^2 - 1^2): nearer to the corner than any rim.
    const double corner = std::sqrt(1.3 * 1.3 - 1.0);
    EXPECT_NEAR(io::signedDistance(Torus{{}, 1.0, 1.3, 2}, {0, 0, 0.5 * corner}), -0.5 * corner, 1e-15);
    EXPECT_NEAR(io::signedDistance(Torus{{}, 1.0, 1.3, 2}, {0, 0, corner}), 0.0, 1e-15);
}

}  // namespace
}  // namespace tilegrid::test
