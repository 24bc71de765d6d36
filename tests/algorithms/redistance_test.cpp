#include "redistance_world.h"
#include "support/clusters.h"

/// How near redistanced fields come to the exact distance. Lengths are in voxels of the finest depth present.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// A centre off all lattices.
const Point kCentre = {0.31, -0.17, 0.23};

template <class Tr> class Redistancing : public ::testing::Test {
public:
    static constexpr int fine = Tr::maxDepth;
    static Redistanced<Tr> cube(Field const& field, int half = 32)
    {
        Redistanced<Tr> world(cubeOfTiles<Tr>(fine, -half, half), fine);
        world.fill(field);
        return world;
    }
};
TYPED_TEST_SUITE(Redistancing, Structures, StructureNames);

/// Redistances the sphere `exact` 20 times and looks at the first and the last result.
template <class Tr> void expectSphereStays(Redistanced<Tr> world, Field const& exact)
{
    const double volume = volumeOf(world);
    world.redistance();
    EXPECT_LE(errorsOf<Tr>(world, exact, 5).largest, 0.005);
    EXPECT_LE(errorsOf<Tr>(world, exact, 1).largest, 0.001) << "drift of the surface";
    EXPECT_LE(slopeErrors<Tr>(world, exact, 5).largest, 0.005);
    for (int call = 1; call < 20; ++call) world.redistance();
    EXPECT_LE(errorsOf<Tr>(world, exact, 5).largest, 0.005) << "drift in 20 calls";
    EXPECT_LE(std::abs(volumeOf(world) / volume - 1), 2e-4);
}

// Distances to the paraboloid through a surface point are third order; 0.005 is what a sphere of 20 voxels leaves of it.
TYPED_TEST(Redistancing, of_a_sphere_keeps_distance_surface_and_volume)
{
    const Field exact = sphere(kCentre, 20);
    expectSphereStays<TypeParam>(this->cube(exact), exact);
}

TYPED_TEST(Redistancing, undoes_a_distortion)
{
    const Field exact = sphere(kCentre, 20);
    auto world = this->cube([&](Point const& p) { return exact(p) * 0.7 * (1 + 0.5 * std::sin(0.2 * p[0]) * std::cos(0.15 * p[1])); });
    world.redistance();
    EXPECT_LE(errorsOf<TypeParam>(world, exact, 5).largest, 0.01);
    EXPECT_LE(slopeErrors<TypeParam>(world, exact, 5).largest, 0.01);
}

TYPED_TEST(Redistancing, reads_nothing_beyond_two_and_a_half_voxels)
{
    const Field exact = sphere(kCentre, 20);
    expectSphereStays<TypeParam>(this->cube([&](Point const& p) { return std::clamp(exact(p), -2.5, 2.5); }), exact);
    auto narrow = this->cube([&](Point const& p) { return std::clamp(exact(p), -1.2, 1.2); });
    narrow.redistance();
    EXPECT_LE(errorsOf<TypeParam>(narrow, exact, 1).largest, 0.03);
}

TYPED_TEST(Redistancing, of_a_plane_is_exact)
{
    const Field exact = [](Point const& p) { return 0.48 * p[0] + 0.6 * p[1] + 0.64 * p[2] - 0.37; };
    auto world = this->cube([&](Point const& p) { return 3 * exact(p); });
    world.redistance();
    // Where the foot of the voxel lies well inside the fine tiles.
    const auto within = [&](Point const& p) {
        const double d = exact(p);
        if (std::max({std::abs(p[0]), std::abs(p[1]), std::abs(p[2])}) > 31) return false;
        return std::max({std::abs(p[0] - 0.48 * d), std::abs(p[1] - 0.6 * d), std::abs(p[2] - 0.64 * d)}) <= 26;
    };
    EXPECT_LE(errorsOf<TypeParam>(world, exact, 100, within).largest, 1e-4);
    EXPECT_LE(errorsOf<TypeParam>(world, exact, 1, within).largest, 1e-5);
}

TYPED_TEST(Redistancing, gets_better_with_the_square_of_the_radius)
{
    std::vector<double> largest;
    for (double radius : {8.0, 12.0, 16.0, 24.0}) {
        auto world = this->cube(sphere(kCentre, radius));
        world.redistance();
        largest.push_back(errorsOf<TypeParam>(world, sphere(kCentre, radius), 3).largest);
        if (radius == 8) {
            EXPECT_LE(slopeErrors<TypeParam>(world, sphere(kCentre, radius), 3).largest, 0.02);
        }
    }
    EXPECT_LE(largest[1], largest[0] * std::pow(12.0 / 8.0, -1.7));
    EXPECT_LE(largest[2], largest[0] * std::pow(16.0 / 8.0, -1.7));
    EXPECT_LE(largest[3], largest[0] * std::pow(24.0 / 8.0, -1.7));
}

TYPED_TEST(Redistancing, of_a_torus)
{
    const Field exact = [](Point const& p) {
        const double ring = std::hypot(p[0] - kCentre[0], p[1] - kCentre[1]) - 16;
        return std::hypot(ring, p[2] - kCentre[2]) - 6;
    };
    auto world = this->cube(exact);
    world.redistance();
    EXPECT_LE(errorsOf<TypeParam>(world, exact, 3).largest, 0.02);
    EXPECT_LE(slopeErrors<TypeParam>(world, exact, 3).largest, 0.03);
}

/// A box around `kCentre` with half edges `half`; `fromEdge` receives how far the foot is from the nearest edge.
double boxDistance(Point const& p, Point const& half, double* fromEdge = nullptr)
{
    Point q;
    double outside = 0, inside = -1e9;
    for (std::size_t a = 0; a < 3; ++a) {
        q[a] = std::abs(p[a] - kCentre[a]) - half[a];
        outside += std::max(q[a], 0.0) * std::max(q[a], 0.0);
        inside = std::max(inside, q[a]);
    }
    if (fromEdge) {
        // The foot lies on the face of the largest q; the nearest edge is as far as the next largest falls short.
        Point sorted = q;
        std::sort(sorted.begin(), sorted.end());
        *fromEdge = sorted[1] >= 0 ? 0 : -sorted[1];
    }
    return outside > 0 ? std::sqrt(outside) : inside;
}

/// How far the crossings of voxel edges moved that lie within a voxel of an edge of the box: by linear interpolation.
template <class Tr> Errors shiftAtEdges(Redistanced<Tr> const& before, Redistanced<Tr> const& after, Point const& half)
{
    Errors shift;
    const auto accessor = before.tree.tileAccessor();
    before.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth != before.fine) return;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            Point q = p;
            q[axis] += 1;
            int3 next;
            for (std::size_t b = 0; b < 3; ++b) next[int(b)] = int(q[b]);
            const auto b1 = before.freeValue(accessor, next, t.depth), a1 = after.freeValue(accessor, next, t.depth);
            const double b0 = before.at(t, v), a0 = after.at(t, v);
            if (!b1 || !a1 || (b0 < 0) == (*b1 < 0)) continue;
            q[axis] = p[axis] + b0 / (b0 - *b1);
            double fromEdge;
            boxDistance(q, half, &fromEdge);
            if (fromEdge <= 1) shift.add(b0 / (b0 - *b1) - a0 / (a0 - *a1));
        }
    });
    EXPECT_GT(shift.count, 300);
    return shift;
}

TYPED_TEST(Redistancing, of_a_box_is_exact_off_its_edges)
{
    const Point half = {15.3, 12.2, 10.1};
    auto world = this->cube([&](Point const& p) { return boxDistance(p, half); });
    std::vector<bool> inside;
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) { inside.push_back(world.at(t, v) < 0); });
    // A crease moves only by what samples cannot hold of it: by 0.01 in the mean over the voxel edges cut beside it, where these are
    // taken as cubics throughout by 0.035; a few move by 0.2.
    for (int call = 0; call < 3; ++call) {
        const auto before = world;
        world.redistance();
        const Errors shift = shiftAtEdges(before, world, half);
        EXPECT_LE(shift.mean, 0.02) << "call " << call;
        EXPECT_LE(shift.largest, 0.25) << "call " << call;
    }
    Errors faces;
    std::size_t n = 0;
    bool signsKept = true;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        signsKept &= inside[n] == (world.at(t, v) < 0);
        ++n;
        if (t.depth != world.fine || !world.isFree(t, v)) return;
        double fromEdge;
        const double exact = boxDistance(p, half, &fromEdge);
        if (fromEdge >= 3) faces.add(world.length(world.at(t, v)) - exact);
    });
    EXPECT_TRUE(signsKept);
    EXPECT_GT(faces.count, 1000);
    EXPECT_LE(faces.largest, 1e-3);
}

}  // namespace
}  // namespace tilegrid::test
