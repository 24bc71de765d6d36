#include "io/mesh.h"
#include "io/polygon.h"
#include "support/structures.h"

#include <cmath>
#include <numbers>
#include <numeric>

namespace tilegrid::test {
namespace {

using io::TriangleMesh;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

struct Divided {
    TriangleMesh mesh;
    std::int64_t steps = 0;
};

Divided divide(std::vector<float3> const& places)
{
    Divided divided{{places, {}}};
    std::vector<std::int32_t> corners(places.size());
    std::iota(corners.begin(), corners.end(), 0);
    divided.steps = io::appendTriangles(places, corners, divided.mesh.triangles);
    return divided;
}

/// In any polygon there are two triangles fewer than corners, all edges cancel but the polygon's own, and the search keeps to its limit.
void expectDivided(Divided const& divided)
{
    TriangleMesh const& mesh = divided.mesh;
    const std::size_t n = mesh.vertices.size();
    ASSERT_EQ(mesh.triangles.size(), n - 2);
    EXPECT_LE(divided.steps, io::polygonStepLimit(n) + 100 * std::int64_t(n));  // the last search may pass the limit
    // A fan from the first corner the other way around has the same rim, turned: together they are closed.
    TriangleMesh both = mesh;
    for (std::size_t c = 1; c + 1 < n; ++c) both.triangles.emplace_back(0, int(c + 1), int(c));
    EXPECT_TRUE(io::meshTopology(both).closed());
}

/// A simple flat polygon: the triangles cover it without overlap exactly if none is turned and their areas add up to its area.
void expectCovered(Divided const& divided, double3 const& normal, double area)
{
    expectDivided(divided);
    double sum = 0.0;
    for (int3 const& t : divided.mesh.triangles) {
        const double3 a(divided.mesh.vertices[t.x]);
        const double signedArea = 0.5 * dot(cross(double3(divided.mesh.vertices[t.y]) - a, double3(divided.mesh.vertices[t.z]) - a), normal);
        // Coordinates are floats of size 1, so a triangle on a line has an area of some 2^-24 to either side.
        EXPECT_GE(signedArea, -0x1p-22);
        sum += signedArea;
    }
    // The area of the polygon by its corners is the same sum in another order: 2^-53 for each.
    EXPECT_NEAR(sum, area, 1e-12 * double(divided.mesh.vertices.size()));
}

double areaOf(std::vector<float3> const& places, double3 const& normal)
{
    double3 twice;
    for (std::size_t n = 0; n < places.size(); ++n) twice += cross(double3(places[n]), double3(places[(n + 1) % places.size()]));
    return 0.5 * dot(twice, normal);
}

void expectCovers(std::vector<float3> const& places)
{
    for (double3 const& normal : {double3(0, 0, 1), double3(1, 0, 0), double3(0, -1, 0)}) {
        std::vector<float3> turned;
        for (float3 const& p : places) turned.push_back(normal.z > 0 ? p : normal.x > 0 ? float3(0, p.x, p.y) : float3(p.x, 0, p.y));
        expectCovered(divide(turned), normal, areaOf(turned, normal));
    }
}

/// Polar coordinates around the origin: a simple polygon whatever the radii are.
std::vector<float3> aroundOrigin(int corners, auto radius)
{
    std::vector<float3> places;
    for (int n = 0; n < corners; ++n) {
        const double angle = 2 * std::numbers::pi * n / corners, r = radius(n);
        places.emplace_back(float(r * std::cos(angle)), float(r * std::sin(angle)), 0.0f);
    }
    return places;
}

std::vector<float3> comb(int teeth)
{
    std::vector<float3> places;
    for (int n = 0; n < 2 * teeth; ++n) places.emplace_back(float(2 * teeth - n) / float(2 * teeth), n % 2 ? 1.0f : 0.1f, 0.0f);
    places.emplace_back(0.0f, 0.0f, 0.0f);
    places.emplace_back(1.0f, 0.0f, 0.0f);
    return places;
}

/// A band that winds inward, of one side out and the other back.
std::vector<float3> spiral(int corners)
{
    std::vector<float3> places;
    for (int n = 0; n < corners; ++n) {
        const double t = double(n < corners / 2 ? n : corners - 1 - n) / (corners / 2.0);
        const double angle = 40 * t, radius = 0.1 + 0.9 * (1 - t) - (n < corners / 2 ? 0.0 : 0.03);
        places.emplace_back(float(radius * std::cos(angle)), float(radius * std::sin(angle)), 0.0f);
    }
    return places;
}

TEST(Polygon, is_covered_once_by_triangles_of_its_corners)
{
    expectCovers({{0, 0, 0}, {1, 0, 0}, {0.25f, 0.25f, 0}, {0, 1, 0}});    // a quad with a dent at its third corner
    expectCovers({{0.25f, 0.25f, 0}, {0, 1, 0}, {0, 0, 0}, {1, 0, 0}});    // and at its first
    expectCovers({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0.5f, 0.1f, 0}, {0, 1, 0}});
    expectCovers(comb(50));
    expectCovers(spiral(300));
    Random random(5);
    for (int round = 0; round < 50; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        expectCovers(aroundOrigin(int(random.between(5, 200)), [&](int) { return 0.05 + double(random.below(1000)) / 1000; }));
    }
}

TEST(Polygon, keeps_corners_on_a_line)
{
    std::vector<float3> square;
    for (int n = 0; n < 10; ++n) square.emplace_back(0.125f * n, 0.0f, 0.0f);
    for (int n = 0; n < 10; ++n) square.emplace_back(1.25f, 0.125f * n, 0.0f);
    for (int n = 0; n < 10; ++n) square.emplace_back(1.25f - 0.125f * n, 1.25f, 0.0f);
    for (int n = 0; n < 10; ++n) square.emplace_back(0.0f, 1.25f - 0.125f * n, 0.0f);
    expectCovers(square);
}

TEST(Polygon, may_have_a_hole_that_a_bridge_leads_to)
{
    // A square ring: in along the bridge, around the hole, and back.
    expectCovers({{0, 0, 0}, {3, 0, 0}, {3, 3, 0}, {0, 3, 0}, {0, 0, 0}, {1, 1, 0}, {1, 2, 0}, {2, 2, 0}, {2, 1, 0}, {1, 1, 0}});
}

TEST(Polygon, keeps_its_rim_whatever_it_is)
{
    Random random(9);
    const auto anyNumber = [&] { return float(random.below(2000)) / 1000 - 1; };
    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::vector<float3> places;
        // Crossing itself all over, bent out of its plane; in every third round on a lattice, where corners meet and lie on lines.
        for (std::int64_t n = random.between(4, 150); n > 0; --n)
            places.push_back(round % 3 ? float3(anyNumber(), anyNumber(), anyNumber())
                                       : float3(float(random.below(4)), float(random.below(4)), float(random.below(2))));
        expectDivided(divide(places));
    }
    expectDivided(divide(std::vector<float3>(50, float3(1, 2, 3))));
    std::vector<float3> line;
    for (int n = 0; n < 50; ++n) line.emplace_back(float(n % 7), 0.0f, 0.0f);
    expectDivided(divide(line));
}

/// Dividing these corner by corner would take 10^10 looks and more; the steps are counted against n log n.
TEST(Polygon, of_a_hundred_thousand_corners_takes_steps_in_proportion_to_n_log_n)
{
    constexpr int kCorners = 100000;
    expectDivided(divide(aroundOrigin(kCorners, [](int) { return 1.0; })));
    expectDivided(divide(aroundOrigin(kCorners, [](int n) { return n % 2 ? 1.0 : 0.7; })));
    expectDivided(divide(comb(kCorners / 2)));
    expectDivided(divide(spiral(kCorners)));
    Random random(3);
    expectDivided(divide(aroundOrigin(kCorners, [&](int) { return 0.05 + double(random.below(1000)) / 1000; })));
    std::vector<float3> anywhere;
    for (int n = 0; n < kCorners; ++n) anywhere.emplace_back(float(random.below(1000)), float(random.below(1000)), float(random.below(1000)));
    expectDivided(divide(anywhere));
}

/// Halving by halving, not as a fan: of n corners on a circle the triangles then have a total length of n log n, not n^2, and
/// searches for near triangles find few.
TEST(Polygon, is_divided_into_compact_triangles_where_there_is_a_choice)
{
    constexpr int kCorners = 4096;
    const Divided divided = divide(aroundOrigin(kCorners, [](int) { return 1.0; }));
    double longest = 0.0;
    for (int3 const& t : divided.mesh.triangles)
        for (int c = 0; c < 3; ++c) longest += length(double3(divided.mesh.vertices[t[c]]) - double3(divided.mesh.vertices[t[(c + 1) % 3]]));
    // Every halving has diagonals of the length of the circle, twice; there are 12 of them.
    EXPECT_LE(longest, 2 * 2 * std::numbers::pi * 13);
}

}  // namespace
}  // namespace tilegrid::test
