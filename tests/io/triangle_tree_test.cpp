#include "io/triangle_tree.h"
#include "support/brute_surface.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <cmath>
#include <numbers>

namespace tilegrid::test {
namespace {

using io::TriangleMesh;
using io::TriangleTree;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

constexpr int kMany = 20000;

/// Askew, so that no box along the axes of the world fits.
float3 askew(double x, double y, double z)
{
    const double c = std::cos(0.7), s = std::sin(0.7);
    const double u = c * x - s * y, v = s * x + c * y;
    return {float(c * u - s * z), float(c * v - s * (s * u + c * z)), float(s * v + c * (s * u + c * z))};
}

/// A disc of needles around its middle.
TriangleMesh fan()
{
    TriangleMesh mesh;
    mesh.vertices.push_back(askew(0, 0, 0));
    for (int n = 0; n < kMany; ++n) {
        const double angle = 2 * std::numbers::pi * n / kMany;
        mesh.vertices.push_back(askew(100 * std::cos(angle), 100 * std::sin(angle), 0));
        mesh.triangles.emplace_back(0, n + 1, (n + 1) % kMany + 1);
    }
    return mesh;
}

/// Triangles that nearly lie on each other.
TriangleMesh stack()
{
    TriangleMesh mesh;
    Random random(11);
    const auto shake = [&] { return double(random.below(2001) - 1000) / 2000; };
    for (int n = 0; n < kMany; ++n) {
        for (double3 const& corner : {double3(0, 0, 0), double3(100, 20, 10), double3(10, 90, 60)})
            mesh.vertices.emplace_back(float(corner.x + shake()), float(corner.y + shake()), float(corner.z + shake()));
        mesh.triangles.emplace_back(3 * n, 3 * n + 1, 3 * n + 2);
    }
    return mesh;
}

TriangleTree treeOver(TriangleMesh const& mesh)
{
    return TriangleTree(std::vector<double3>(mesh.vertices.begin(), mesh.vertices.end()), mesh.triangles);
}

double3 anyPlace(Random& random)
{
    return {double(random.below(2400)) / 10 - 120, double(random.below(2400)) / 10 - 120, double(random.below(2400)) / 10 - 120};
}

TEST(TriangleTree, finds_the_nearest_of_many_needles_in_few_steps)
{
    const TriangleMesh mesh = fan();
    const TriangleTree tree = treeOver(mesh);
    const BruteSurface surface(mesh);
    Random random(1);
    std::int64_t steps = 0;
    for (int n = 0; n < 200; ++n) {
        const double3 place = anyPlace(random);
        TriangleTree::SearchEffort effort{1 << 30};
        const auto found = tree.nearest(place, 0, &effort);
        EXPECT_EQ(found.least, 1.0);
        steps += effort.steps;
        if (n < 40) {
            const long double wanted = surface.distance({place.x, place.y, place.z});
            EXPECT_NEAR(std::sqrt(found.squaredDistance), wanted, 1e-9);  // products of 10^2 in double, far apart
        }
    }
    // On average over places, of which those at the middle of the disc have all needles equally near. Boxes along the axes of the world
    // hold the place of a quarter of the needles.
    EXPECT_LE(steps, 200 * kMany / 50);
}

TEST(TriangleTree, ends_where_triangles_are_equally_near_and_knows_how_far_it_is_off)
{
    const TriangleMesh mesh = stack();
    const TriangleTree tree = treeOver(mesh);
    const BruteSurface surface(mesh);
    Random random(2);
    for (int n = 0; n < 60; ++n) {
        const double3 place = anyPlace(random);
        TriangleTree::SearchEffort effort{500};
        const auto found = tree.nearest(place, 0, &effort);
        EXPECT_LE(effort.steps, 500 + 21 * TriangleTree::kStepsPerDoubling);
        const double wanted = double(surface.distance({place.x, place.y, place.z})), distance = std::sqrt(found.squaredDistance);
        EXPECT_GE(distance, wanted * (1 - 1e-9));
        EXPECT_LE(std::sqrt(found.leastSquaredDistance()), wanted * (1 + 1e-9));
        // Corners are shaken by half a unit along each axis: any triangle is at most sqrt(3) farther than another.
        EXPECT_LE(distance, wanted + std::sqrt(3.0));
    }
}

TEST(TriangleTree, sums_winding_numbers_in_a_number_of_steps_that_has_a_limit)
{
    for (TriangleMesh const& mesh : {fan(), stack()}) {
        const TriangleTree tree = treeOver(mesh);
        TriangleTree::WindingEffort effort{5000};
        Random random(3);
        for (int n = 0; n < 64; ++n) {
            const double winding = tree.windingNumber(anyPlace(random), effort);
            EXPECT_TRUE(std::isfinite(winding));
        }
        // What is exact at first, and then for each place as many times 256 as the factor can be halved, and once more.
        EXPECT_LE(effort.steps, 5000 + 64 * 256 + 9 * 261);
    }
}

TEST(TriangleTree, sums_winding_numbers_as_before_where_there_is_time)
{
    const TriangleMesh ball = sphereMesh(10.0f, 3);
    const TriangleTree tree = treeOver(ball);
    TriangleTree::WindingEffort effort;
    Random random(4);
    for (int n = 0; n < 100; ++n) {
        const double3 place = 0.1 * anyPlace(random);
        EXPECT_EQ(tree.windingNumber(place, effort), tree.windingNumber(place));
    }
    EXPECT_EQ(effort.farFactor, TriangleTree::kFarFactor);
}

}  // namespace
}  // namespace tilegrid::test
