#include "io/error.h"
#include "io/mesh_transform.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <numbers>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::MeshTransform;
using io::TriangleMesh;
using Ostara::Math::double3;
using Ostara::Math::float3;

TEST(MeshTransform, turns_quarters_exactly_around_one_axis_after_the_other)
{
    const double3 p(1, 2, 3);
    EXPECT_EQ((MeshTransform{double3(1.0), {90, 0, 0}, {}}(p)), double3(1, -3, 2));
    EXPECT_EQ((MeshTransform{double3(1.0), {0, 90, 0}, {}}(p)), double3(3, 2, -1));
    EXPECT_EQ((MeshTransform{double3(1.0), {0, 0, 90}, {}}(p)), double3(-2, 1, 3));
    EXPECT_EQ((MeshTransform{double3(1.0), {0, 0, -270}, {}}(p)), double3(-2, 1, 3));
    EXPECT_EQ((MeshTransform{double3(1.0), {0, 180, 0}, {}}(p)), double3(-1, 2, -3));
    EXPECT_EQ((MeshTransform{double3(1.0), {360, -720, 3600}, {}}(p)), p);
    // Around x: (1,-3,2). Then around z: (3,1,2).
    EXPECT_EQ((MeshTransform{double3(1.0), {90, 0, 90}, {}}(p)), double3(3, 1, 2));
}

TEST(MeshTransform, scales_first_then_turns_then_moves)
{
    const MeshTransform placed{{2, 3, 4}, {0, 0, 90}, {10, 20, 30}};
    EXPECT_EQ(placed({1, 1, 1}), double3(-3 + 10, 2 + 20, 4 + 30));
}

TEST(MeshTransform, keeps_lengths_and_handedness_when_it_turns)
{
    const MeshTransform turned{double3(1.0), {31, -47, 113}, {}};
    const double3 x = turned({1, 0, 0}), y = turned({0, 1, 0}), z = turned({0, 0, 1});
    for (double3 const& v : {x, y, z}) EXPECT_NEAR(length(v), 1.0, 4e-16 * 2);
    EXPECT_NEAR(dot(cross(x, y), z), 1.0, 1e-15);
    // An angle about x alone, against its definition.
    const double a = 31.0 * std::numbers::pi / 180.0;
    const double3 p = MeshTransform{double3(1.0), {31, 0, 0}, {}}({0, 1, 0});
    EXPECT_NEAR(p.y, std::cos(a), 1e-15);
    EXPECT_NEAR(p.z, std::sin(a), 1e-15);
}

TEST(MeshTransform, leaves_a_mesh_alone_that_stays_where_it_is)
{
    TriangleMesh mesh = sphereMesh(1.0f, 2, {0.1f, 0.2f, 0.3f});
    const TriangleMesh before = mesh;
    transformMesh(mesh, {});
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) EXPECT_EQ(mesh.vertices[n], before.vertices[n]);
}

TEST(MeshTransform, refuses_what_is_not_positive_finite_or_too_far)
{
    TriangleMesh mesh = boxMesh({0, 0, 0}, {1, 1, 1});
    constexpr double kNan = std::numeric_limits<double>::quiet_NaN(),
                     kInfinity = std::numeric_limits<double>::infinity();
    for (double bad : {0.0, -1.0, kNan, kInfinity})
        EXPECT_TRUE(contains(errorOf<InputError>([&] { transformMesh(mesh, {{1, bad, 1}, {}, {}}); }), "scaled by"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             transformMesh(mesh, {double3(1.0), {0, kNan, 0}, {}});
                         }),
                         "not finite"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             transformMesh(mesh, {double3(1.0), {}, {kInfinity, 0, 0}});
                         }),
                         "not finite"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             transformMesh(mesh, {double3(1e300), {}, {}});
                         }),
                         "farther than a float"));
}

template <class Tr> class MovedMesh : public ::testing::Test {};
TYPED_TEST_SUITE(MovedMesh, Structures, StructureNames);

TYPED_TEST(MovedMesh, has_the_distances_of_the_moved_turned_and_scaled_cube)
{
    using Tr = TypeParam;
    const MeshTransform placed{{1.5, 0.7, 1.1}, {20, 35, -50}, {0.3, -0.4, 0.9}};
    TriangleMesh mesh = boxMesh({-0.5f, -0.5f, -0.5f}, {0.5f, 0.5f, 0.5f});
    transformMesh(mesh, placed);
    const auto volume = levelSetOf<Tr>(mesh, 0.05f);
    const auto tree = treeOf<Tr>(*volume);
    const auto values = channelOf<Tr>(*volume);
    // The same box by its middle, axes and half sides: a rotation matrix written out, and the distance in its own frame.
    const double rad = std::numbers::pi / 180.0;
    const double cx = std::cos(20 * rad), sx = std::sin(20 * rad), cy = std::cos(35 * rad), sy = std::sin(35 * rad);
    const double cz = std::cos(-50 * rad), sz = std::sin(-50 * rad);
    const double3 axes[3] = {{cz * cy, sz * cy, -sy},
                             {cz * sy * sx - sz * cx, sz * sy * sx + cz * cx, cy * sx},
                             {cz * sy * cx + sz * sx, sz * sy * cx - cz * sx, cy * cx}};
    const double half[3] = {0.75, 0.35, 0.55};
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n)
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const auto p = tree->tile(n, Tr::maxDepth).tijk() + OST::TileTree3D::cubeIndex(Tr::width, flat);
            const double3 from = double(tree->voxelSize()) * double3(p) - double3(0.3, -0.4, 0.9);
            double outside = 0.0, most = -1e30;
            for (int axis = 0; axis < 3; ++axis) {
                const double beyond = std::abs(dot(from, axes[axis])) - half[axis];
                outside += beyond > 0 ? beyond * beyond : 0.0;
                most = std::max(most, beyond);
            }
            // Vertices are floats of size 2 at most: each coordinate is off by 2^-24.
            ASSERT_NEAR(values->tileData(n, Tr::maxDepth)(flat), most < 0 ? most : std::sqrt(outside), 4 * 0x1p-24);
        }
}

}  // namespace
}  // namespace tilegrid::test
