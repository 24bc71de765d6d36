#include "io/winding_rows.h"
#include "support/brute_surface.h"
#include "support/jobs.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <cmath>
#include <numbers>

namespace tilegrid::test {
namespace {

using io::TriangleMesh;
using io::WindingRows;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

std::vector<double3> placesOf(TriangleMesh const& mesh)
{
    std::vector<double3> places;
    for (float3 const& v : mesh.vertices) places.emplace_back(v);
    return places;
}

bool insideAt(WindingRows const& rows, int3 const& place)
{
    bool inside = false;
    rows.findInside(place, 1, 1, &inside);
    return inside;
}

TEST(WindingRows, know_the_inside_of_a_ball_at_every_place_of_the_lattice)
{
    const TriangleMesh ball = sphereMesh(9.3f, 3, {0.3f, -1.2f, 100.7f});
    const WindingRows rows(placesOf(ball), ball.triangles);
    const BruteSurface surface(ball);
    for (int z = 90; z <= 111; ++z)
        for (int y = -12; y <= 10; ++y)
            for (int x = -11; x <= 11; ++x)
                ASSERT_EQ(insideAt(rows, {x, y, z}), surface.inside({(long double)x, (long double)y, (long double)z})) << int3(x, y, z);
}

TEST(WindingRows, may_pass_through_edges_and_vertices_of_the_mesh)
{
    // All vertices, edges and faces of these boxes lie on the lattice. A face belongs to one of its sides.
    const TriangleMesh boxes = joined(boxMesh({-3, -3, -3}, {3, 3, 3}), boxMesh({0, 0, 0}, {5, 4, 6}));
    const WindingRows rows(placesOf(boxes), boxes.triangles);
    for (int z = -5; z <= 8; ++z)
        for (int y = -5; y <= 8; ++y)
            for (int x = -5; x <= 8; ++x) {
                const auto within = [&](int low, int highX, int highY, int highZ) {
                    return x >= low && y >= low && z >= low && x < highX && y < highY && z < highZ;
                };
                ASSERT_EQ(insideAt(rows, {x, y, z}), within(-3, 3, 3, 3) || within(0, 5, 4, 6)) << int3(x, y, z);
            }
}

TEST(WindingRows, leave_cavities_outside_and_see_what_looks_inward)
{
    const TriangleMesh hollow = joined(sphereMesh(9.0f, 3), turnedInsideOut(sphereMesh(5.0f, 3)));
    const WindingRows rows(placesOf(hollow), hollow.triangles);
    EXPECT_FALSE(insideAt(rows, {0, 0, 0}));
    EXPECT_TRUE(insideAt(rows, {7, 0, 0}));
    const TriangleMesh inward = turnedInsideOut(sphereMesh(9.0f, 3));
    EXPECT_TRUE(insideAt(WindingRows(placesOf(inward), inward.triangles), {0, 0, 0}));
}

/// Every place inside would be asked of every copy: 10^5 copies of a ball have the crossings of one, and their number decides what
/// a question costs.
TEST(WindingRows, keep_as_many_crossings_for_copies_of_a_mesh_as_for_one)
{
    const TriangleMesh ball = sphereMesh(5.3f, 1);
    TriangleMesh many = ball;
    for (int n = 0; n < 2000; ++n) many.triangles.insert(many.triangles.end(), ball.triangles.begin(), ball.triangles.end());
    const WindingRows one(placesOf(ball), ball.triangles), all(placesOf(many), many.triangles);
    EXPECT_EQ(one.crossings(), all.crossings());
    EXPECT_TRUE(insideAt(all, {0, 0, 0}));
    // Lines that meet a ball cross it twice, and those at most fill the disc that it is seen as.
    EXPECT_LE(one.crossings(), 2 * 3.15 * 5.8 * 5.8);
}

TEST(WindingRows, are_the_same_on_any_number_of_threads)
{
    const TriangleMesh ball = sphereMesh(40.3f, 3);
    std::vector<char> first;
    for (int threads : kThreadCounts) {
        std::vector<char> inside;
        parallel::runJob(nullptr, threads, [&] {
            const WindingRows rows(placesOf(ball), ball.triangles);
            for (int z = -42; z <= 42; ++z)
                for (int y = -42; y <= 42; ++y)
                    for (int x = -42; x <= 42; ++x) inside.push_back(insideAt(rows, {x, y, z}));
        });
        if (first.empty()) first = inside;
        ASSERT_EQ(inside, first) << threads;
    }
}

}  // namespace
}  // namespace tilegrid::test
