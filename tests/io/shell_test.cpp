#include "io/error.h"
#include "io/mesh_clean.h"
#include "io/mesh_info.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::InputError;
using io::LevelSetOptions;
using io::TriangleMesh;
using io::TwinRule;
using Ostara::Math::float3;
using Ostara::Math::int3;

/// A sheet of two triangles, bent along its diagonal.
TriangleMesh sheet() { return {{{-1, 0, -1}, {1, 0.2f, -1}, {1, 0, 1}, {-1, 0.3f, 1}}, {{0, 1, 2}, {0, 2, 3}}}; }

template <class Tr> LevelSetOptions shellOptions(float voxelSize, double thickness)
{
    LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.structure = structureOf<Tr>();
    options.thickness = thickness;
    return options;
}

template <class Tr> class Shell : public ::testing::Test {};
TYPED_TEST_SUITE(Shell, Structures, StructureNames);

/// As `LevelSetFromMesh` derives it: a float result, and places in double.
template <class Tr> void expectShellDistances(Ostara::Object const& volume, TriangleMesh const& mesh, double thickness, std::uint64_t seed)
{
    const BruteSurface surface(mesh);
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume);
    Random random(seed);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (int n = 0; n < 60; ++n) {
            auto const& tile = tree->tile(random.below(tree->tileCount(depth)), depth);
            const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, static_cast<int>(random.below(Tr::voxelCount)));
            BruteSurface::Vec place;
            for (int axis = 0; axis < 3; ++axis)
                place[axis] = ((long double)tile.tijk()[axis] + ijk[axis] * Tr::voxelDataWidth(depth)) * (long double)tree->voxelSize();
            const long double wanted = surface.distance(place) - 0.5L * thickness;
            const long double coordinates = std::abs(place[0]) + std::abs(place[1]) + std::abs(place[2]) + 100.0L;
            ASSERT_NEAR(values->tileData(tile.treeIndex())(ijk), wanted, 0x1p-23L * std::abs(wanted) + 0x1p-45L * coordinates)
                << "depth " << depth << ", tile " << tile.tijk() << ", voxel " << ijk << ", seed " << seed;
        }
}

TYPED_TEST(Shell, of_an_open_mesh_is_its_distance_less_half_the_thickness_at_every_depth)
{
    KeptMessages messages;
    const auto volume = io::levelSetFromMesh(sheet(), shellOptions<TypeParam>(0.05f, 0.15), messages.services());
    EXPECT_TRUE(messages.texts().empty());  // nothing is assumed
    expectShellDistances<TypeParam>(*volume, sheet(), 0.15, 3);
    // Thick against the band: its middle lies beyond the tiles of the band.
    expectShellDistances<TypeParam>(*io::levelSetFromMesh(sheet(), shellOptions<TypeParam>(0.05f, 0.8), {}), sheet(), 0.8, 5);
}

TYPED_TEST(Shell, of_a_closed_mesh_has_an_inner_side)
{
    const TriangleMesh sphere = sphereMesh(1.0f, 3);
    const auto volume = io::levelSetFromMesh(sphere, shellOptions<TypeParam>(0.05f, 0.2), {});
    expectShellDistances<TypeParam>(*volume, sphere, 0.2, 7);
}

TYPED_TEST(Shell, has_the_tiles_with_a_voxel_in_the_band_of_either_side)
{
    using Tr = TypeParam;
    const float h = 0.05f;
    const auto volume = io::levelSetFromMesh(sheet(), shellOptions<Tr>(h, 0.6), {});
    const auto tree = treeOf<Tr>(*volume);
    const BruteSurface surface(sheet());
    const OST::TileTree3D::ConstTileAccessor<Tr> accessor(*tree);
    const int W = Tr::width;
    const auto aligned = [&](int v) { return Tr::rangeMin + static_cast<int>((OST::int64(v) - Tr::rangeMin) / W) * W; };
    OST::int64 found = 0;
    for (int k = aligned(-33); k <= 33; k += W)
        for (int j = aligned(-15); j <= 20; j += W)
            for (int i = aligned(-33); i <= 33; i += W) {
                bool wanted = false;
                for (int n = 0; n < Tr::voxelCount && !wanted; ++n) {
                    const int3 p = int3(i, j, k) + OST::TileTree3D::cubeIndex(W, n);
                    wanted = std::abs(surface.distance({p.x * (long double)h, p.y * (long double)h, p.z * (long double)h}) - 0.3L) <= 3.0L * h;
                }
                const bool has = accessor.find(i, j, k, Tr::maxDepth).depth == Tr::maxDepth;
                ASSERT_EQ(has, wanted) << int3(i, j, k);
                found += has;
            }
    EXPECT_EQ(tree->tileCount(Tr::maxDepth), found);
}

TYPED_TEST(Shell, gives_the_same_bytes_on_any_number_of_threads)
{
    Corvid::Ptr<Ostara::Object> first;
    for (int threads : kThreadCounts) {
        Corvid::Ptr<Ostara::Object> volume;
        parallel::runJob(nullptr, threads, [&] { volume = io::levelSetFromMesh(sheet(), shellOptions<TypeParam>(0.02f, 0.1), {}); });
        if (!first) first = volume;
        for (int depth = 0; depth <= TypeParam::maxDepth; ++depth) ASSERT_EQ(differencesAt<TypeParam>(depth, *first, *volume), "") << threads;
    }
}

TYPED_TEST(Shell, is_refused_where_voxels_would_leave_holes_in_it)
{
    const auto complaint = [](double thickness) {
        return errorOf<InputError>([&] { io::levelSetFromMesh(sheet(), shellOptions<TypeParam>(0.05f, thickness), {}); });
    };
    EXPECT_TRUE(contains(complaint(0.099), "1.98 voxels thick"));
    EXPECT_NO_THROW(io::levelSetFromMesh(sheet(), shellOptions<TypeParam>(0.05f, 0.1), {}));
    for (double bad : {-1.0, std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()})
        EXPECT_TRUE(contains(complaint(bad), "positive number")) << bad;
}

TYPED_TEST(Shell, is_the_remedy_that_the_error_names_where_a_mesh_has_no_inside)
{
    const auto complaint = [](TriangleMesh const& mesh) {
        KeptMessages messages;
        const std::string text =
            errorOf<InputError>([&] { io::levelSetFromMesh(mesh, shellOptions<TypeParam>(0.05f, 0.0), messages.services()); });
        EXPECT_TRUE(messages.texts().empty());
        return text;
    };
    // Flat, and off the samples: a bent sheet winds around what lies close to its hollow side by more than one half.
    const TriangleMesh flat{{{-1, 0.01f, -1}, {1, 0.01f, -1}, {1, 0.01f, 1}, {-1, 0.01f, 1}}, {{0, 1, 2}, {0, 2, 3}}};
    const std::string open = complaint(flat);
    EXPECT_TRUE(contains(open, "thickness=") && contains(open, "4 of 5 edges are open (80%)")) << open;
    // A leaf of two sides over the same vertices: closed, and nothing between them.
    TriangleMesh sides = sheet();
    for (int3 const& t : turnedInsideOut(sheet()).triangles) sides.triangles.push_back(t);
    const std::string leaf = complaint(sides);
    EXPECT_TRUE(contains(leaf, "thickness=")) << leaf;
    // A plate thinner than the voxels, between two layers of samples.
    const std::string plate = complaint(boxMesh({-1, 0.01f, -1}, {1, 0.02f, 1}));
    EXPECT_TRUE(contains(plate, "thinner than the voxels")) << plate;
}

TEST(RepeatedTriangles, count_once_and_cancel_where_they_face_each_other)
{
    const TriangleMesh box = boxMesh({0, 0, 0}, {1, 1, 1});
    TriangleMesh mesh = box;
    for (int n = 0; n < 5; ++n) mesh.triangles.push_back({box.triangles[3].y, box.triangles[3].z, box.triangles[3].x});
    mesh.triangles.push_back({0, 0, 1});
    TriangleMesh once = mesh;
    EXPECT_EQ(io::dropRepeatedTriangles(once, TwinRule::kCancel), 6);
    EXPECT_EQ(once.triangles, box.triangles);
    // Six that face one way and one that faces the other: the way of the greater number stays.
    mesh.triangles.insert(mesh.triangles.begin(), {box.triangles[3].y, box.triangles[3].x, box.triangles[3].z});
    once = mesh;
    EXPECT_EQ(io::dropRepeatedTriangles(once, TwinRule::kCancel), 7);
    EXPECT_EQ(once.triangles, box.triangles);
    TriangleMesh twins = joined(box, {});
    twins.triangles.push_back({box.triangles[3].y, box.triangles[3].x, box.triangles[3].z});
    once = twins;
    EXPECT_EQ(io::dropRepeatedTriangles(once, TwinRule::kCancel), 2);
    once = twins;
    EXPECT_EQ(io::dropRepeatedTriangles(once, TwinRule::kKeepOne), 1);
    EXPECT_EQ(once.triangles, box.triangles);
}

/// A list of all of them at every voxel would be looked at some 10^10 times: the test would not end in any time.
TYPED_TEST(Shell, of_one_triangle_three_hundred_thousand_times_is_the_shell_of_one)
{
    using Tr = TypeParam;
    const TriangleMesh one{{{0, 0, 0}, {1, 0.2f, 0.1f}, {0.1f, 0.9f, 0.6f}}, {{0, 1, 2}}};
    TriangleMesh many = one;
    many.triangles.resize(300000, one.triangles[0]);
    const auto a = io::levelSetFromMesh(one, shellOptions<Tr>(0.01f, 0.05), {}), b = io::levelSetFromMesh(many, shellOptions<Tr>(0.01f, 0.05), {});
    for (int depth = 0; depth <= Tr::maxDepth; ++depth) ASSERT_EQ(differencesAt<Tr>(depth, *a, *b), "");
    const TriangleMesh box = boxMesh({0, 0, 0}, {1, 1, 1});
    TriangleMesh boxes = box;
    for (int n = 0; n < 25000; ++n) boxes.triangles.insert(boxes.triangles.end(), box.triangles.begin(), box.triangles.end());
    const auto c = levelSetOf<Tr>(box, 0.02f), d = levelSetOf<Tr>(boxes, 0.02f);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth) ASSERT_EQ(differencesAt<Tr>(depth, *c, *d), "");
}

TEST(MeshInfo, tells_counts_bounds_parts_and_what_is_enclosed)
{
    TriangleMesh mesh = joined(boxMesh({0, 0, 0}, {1, 2, 3}), boxMesh({5, 0, 0}, {6, 1, 1}));
    mesh.triangles.push_back(mesh.triangles.front());
    io::MeshInfo info = io::describeMesh(mesh);
    EXPECT_EQ(info.vertices, 16);
    EXPECT_EQ(info.triangles, 25);
    EXPECT_EQ(info.repeatedTriangles, 1);
    EXPECT_EQ(info.parts, 2);
    EXPECT_EQ(info.boundsMin, float3(0, 0, 0));
    EXPECT_EQ(info.boundsMax, float3(6, 2, 3));
    EXPECT_EQ(info.longestSide, 6.0);
    EXPECT_EQ(info.edges.openEdges, 3);  // of the triangle that is there twice
    mesh.triangles.pop_back();
    info = io::describeMesh(mesh);
    EXPECT_TRUE(info.edges.closed());
    EXPECT_DOUBLE_EQ(info.volume, 7.0);
    EXPECT_DOUBLE_EQ(info.area, 22.0 + 6.0);
}

}  // namespace
}  // namespace tilegrid::test
