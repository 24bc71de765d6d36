#include "io/error.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/paths.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::InputError;
using io::LevelSetOptions;
using io::TriangleMesh;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Math::float3;
using Ostara::Math::int3;

const std::string kBunny = exampleFile("bunny.obj");

template <class Tr> class LevelSetFromMesh : public ::testing::Test {};
TYPED_TEST_SUITE(LevelSetFromMesh, Structures, StructureNames);

/// Sample (i,j,k) of a tile in world space.
template <class Tr, class Tile> BruteSurface::Vec placeOf(Tile const& tile, int3 const& ijk, float voxelSize)
{
    BruteSurface::Vec place;
    for (int axis = 0; axis < 3; ++axis)
        place[axis] =
            (static_cast<long double>(tile.tijk()[axis]) + ijk[axis] * Tr::voxelDataWidth(tile.depth())) * voxelSize;
    return place;
}

/// The contract is half a voxel of the depth. Distances are exact up to the arithmetic: a float result (2^-24 of it),
/// and places in double, whose rounding (2^-53) is relative to the coordinates; 2^-45 leaves room for the sums of a
/// triangle's dozen products.
template <class Tr>
void expectTrueDistances(Ostara::Object const& volume, BruteSurface const& surface, int samplesPerDepth,
                         std::uint64_t seed)
{
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume);
    Random random(seed);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (int n = 0; n < samplesPerDepth; ++n) {
            auto const& tile = tree->tile(random.below(tree->tileCount(depth)), depth);
            const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, static_cast<int>(random.below(Tr::voxelCount)));
            const auto place = placeOf<Tr>(tile, ijk, tree->voxelSize());
            const long double wanted = surface.signedDistance(place);
            const long double coordinates = std::abs(place[0]) + std::abs(place[1]) + std::abs(place[2]) + 100.0L;
            ASSERT_NEAR(values->tileData(tile.treeIndex())(ijk), wanted,
                        0x1p-23L * std::abs(wanted) + 0x1p-45L * coordinates)
                << "depth " << depth << ", tile " << tile.tijk() << ", voxel " << ijk << ", seed " << seed;
        }
}

TYPED_TEST(LevelSetFromMesh, holds_the_true_distance_of_the_bunny_at_every_depth)
{
    const TriangleMesh bunny = io::readMesh(kBunny, 0, {});
    const auto volume = levelSetOf<TypeParam>(bunny, 0.0387f);  // 256 voxels across
    expectTrueDistances<TypeParam>(*volume, BruteSurface(bunny), 60, 7);
}

TYPED_TEST(LevelSetFromMesh, has_the_tiles_with_a_voxel_in_the_band_and_their_ancestors_and_no_others)
{
    using Tr = TypeParam;
    constexpr float kBand = 2.5f;
    // Rotated by nothing, but off the lattice, so that distances are no round numbers; thin, so that both sides meet.
    const TriangleMesh mesh =
        joined(boxMesh({-0.513f, -0.307f, 0.211f}, {0.377f, 0.419f, 0.303f}), sphereMesh(0.2f, 1, {0.9f, 0.1f, -0.2f}));
    const float h = 0.05f;
    const auto volume = levelSetOf<Tr>(mesh, h, kBand);
    const auto tree = treeOf<Tr>(*volume);
    EXPECT_TRUE(checkTree(*tree).empty());

    const BruteSurface surface(mesh);
    const OST::TileTree3D::ConstTileAccessor<Tr> accessor(*tree);
    const int W = Tr::width, low = -20, high = 28;  // voxels; the mesh and its band lie within
    OST::int64 found = 0;
    const auto aligned = [&](int v) { return Tr::rangeMin + static_cast<int>((OST::int64(v) - Tr::rangeMin) / W) * W; };
    for (int k = aligned(low); k <= high; k += W)
        for (int j = aligned(low); j <= high; j += W)
            for (int i = aligned(low); i <= high; i += W) {
                long double nearest = std::numeric_limits<long double>::infinity();
                for (int n = 0; n < Tr::voxelCount; ++n) {
                    const int3 p = int3(i, j, k) + OST::TileTree3D::cubeIndex(W, n);
                    nearest = std::min(
                        nearest, surface.distance({p.x * (long double)h, p.y * (long double)h, p.z * (long double)h}));
                }
                const bool has = accessor.find(i, j, k, Tr::maxDepth).depth == Tr::maxDepth;
                ASSERT_EQ(has, nearest <= (long double)kBand * h)
                    << "tile at " << int3(i, j, k) << ", " << (double)(nearest / h) << " voxels away";
                found += has;
            }
    EXPECT_EQ(tree->tileCount(Tr::maxDepth), found);
    for (int depth = 0; depth < Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n) ASSERT_FALSE(tree->tile(n, depth).isLeaf());
}

TYPED_TEST(LevelSetFromMesh, is_a_level_set_with_the_band_as_default_and_samples_at_corners)
{
    using Tr = TypeParam;
    const auto volume = levelSetOf<Tr>(sphereMesh(1.0f, 2), 0.125f, 4.0f);
    EXPECT_TRUE(Ostara::Object::isA(*volume, *Ostara::Geometry::getLevelSetPrototype()));
    EXPECT_EQ(channelOf<Tr>(*volume)->defaultValue(), 0.5f);
    const auto topology =
        volume->native()->template component<OST::TileTree3D::VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    ASSERT_TRUE(topology);
    EXPECT_EQ(topology->offsetType(), OST::TileTree3D::kCorner);
    EXPECT_EQ(treeOf<Tr>(*volume)->voxelSize(), 0.125f);
}

TYPED_TEST(LevelSetFromMesh, gives_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    const TriangleMesh mesh = sphereMesh(1.0f, 3, {0.3f, 0.2f, 0.1f});
    Corvid::Ptr<Ostara::Object> first;
    for (int threads : kThreadCounts) {
        Corvid::Ptr<Ostara::Object> volume;
        parallel::runJob(nullptr, threads, [&] { volume = levelSetOf<Tr>(mesh, 0.03f); });
        if (!first) first = volume;
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            ASSERT_EQ(differencesAt<Tr>(depth, *first, *volume), "") << threads << " threads";
    }
}

TYPED_TEST(LevelSetFromMesh, takes_what_parts_overlap_for_inside)
{
    using Tr = TypeParam;
    // Two boxes: the middle of their overlap is wound around twice, and the face of one inside the other is no surface
    // of the whole.
    const TriangleMesh mesh = joined(boxMesh({0.01f, 0, 0}, {1.01f, 1, 1}), boxMesh({0.51f, 0, 0}, {1.51f, 1, 1}));
    const float h = 0.05f;
    const auto volume = levelSetOf<Tr>(mesh, h);
    const auto tree = treeOf<Tr>(*volume);
    const auto values = channelOf<Tr>(*volume);
    OST::int64 inside = 0;
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n)
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const int3 p = tree->tile(n, Tr::maxDepth).tijk() + OST::TileTree3D::cubeIndex(Tr::width, flat);
            const float3 world = h * float3(p);
            const float margin = 1e-3f;  // a place on a face has no side
            const bool within = world > float3(0.01f + margin, margin, margin)
                && world < float3(1.51f - margin, 1 - margin, 1 - margin);
            const bool beyond = !(world >= float3(0.01f - margin, -margin, -margin)
                                  && world <= float3(1.51f + margin, 1 + margin, 1 + margin));
            const float value = values->tileData(n, Tr::maxDepth)(flat);
            ASSERT_FALSE(within && value > 0.0f) << world;
            ASSERT_FALSE(beyond && value <= 0.0f) << world;
            inside += within;
        }
    EXPECT_GT(inside, 0);
}

TYPED_TEST(LevelSetFromMesh, does_not_mind_triangles_that_look_inward)
{
    using Tr = TypeParam;
    const TriangleMesh mesh = sphereMesh(1.0f, 2, {0.1f, 0.2f, 0.3f});
    const auto outward = levelSetOf<Tr>(mesh, 0.07f), inward = levelSetOf<Tr>(turnedInsideOut(mesh), 0.07f);
    const auto tree = treeOf<Tr>(*outward);
    const auto a = channelOf<Tr>(*outward), b = channelOf<Tr>(*inward);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const float va = a->tileData(n, depth)(flat), vb = b->tileData(n, depth)(flat);
                // Distances agree up to the rounding of the turned triangles, a few units of double below a float.
                ASSERT_NEAR(va, vb, 0x1p-23f * std::abs(va) + 1e-12f) << "depth " << depth;
            }
}

TYPED_TEST(LevelSetFromMesh, leaves_a_cavity_outside)
{
    using Tr = TypeParam;
    const TriangleMesh mesh = joined(sphereMesh(1.0f, 3), turnedInsideOut(sphereMesh(0.5f, 3)));
    const auto volume = levelSetOf<Tr>(mesh, 0.05f);
    expectTrueDistances<Tr>(*volume, BruteSurface(mesh), 60, 11);
}

TYPED_TEST(LevelSetFromMesh, takes_holes_for_covered_and_says_so)
{
    using Tr = TypeParam;
    TriangleMesh box = boxMesh({-1, -1, -1}, {1, 1, 1});
    box.triangles.erase(box.triangles.begin() + 2, box.triangles.begin() + 4);  // no lid at z = 1
    KeptMessages messages;
    LevelSetOptions options;
    options.voxelSize = 0.1f;
    options.structure = structureOf<Tr>();
    const auto volume = io::levelSetFromMesh(box, options, messages.services());
    ASSERT_EQ(messages.texts().size(), 1u);
    EXPECT_TRUE(messages.mention("warning: the mesh is not closed: 4 of 17 edges are open (24%)") && messages.mention("winds around"));
    const auto tree = treeOf<Tr>(*volume);
    const auto values = channelOf<Tr>(*volume);
    // Next to the walls and far from the hole the sides are those of the closed box.
    const OST::TileTree3D::ConstTileAccessor<Tr> accessor(*tree);
    const auto valueAt = [&](int3 const& p) {
        auto const& tile = accessor.tileImpl(p.x, p.y, p.z, Tr::maxDepth);
        return values->tileData(tile.treeIndex())(p - tile.tijk());
    };
    for (int i = -8; i <= 8; ++i) {
        EXPECT_NEAR(valueAt({i, 0, -9}), -0.1f, 1e-6f);
        EXPECT_NEAR(valueAt({i, 0, -11}), 0.1f, 1e-6f);
        EXPECT_NEAR(valueAt({-9, i, -5}), -0.1f, 1e-6f);
        EXPECT_NEAR(valueAt({-11, i, -5}), 0.1f, 1e-6f);
    }
}

TYPED_TEST(LevelSetFromMesh, refuses_voxel_sizes_that_make_no_sense)
{
    const TriangleMesh mesh = sphereMesh(1.0f, 2);
    LevelSetOptions options;
    options.structure = structureOf<TypeParam>();
    const auto complaint = [&](float voxelSize) {
        options.voxelSize = voxelSize;
        return errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); });
    };
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN(), kInfinity = std::numeric_limits<float>::infinity();
    for (float bad : {0.0f, -0.0f, -1.0f, kNan, kInfinity, -kInfinity})
        EXPECT_TRUE(contains(complaint(bad), "positive number")) << bad;
    EXPECT_TRUE(contains(complaint(2.1f), "larger than the mesh"));
    EXPECT_TRUE(contains(complaint(1e-12f), "the tree reaches"));
    EXPECT_TRUE(contains(complaint(1e-40f), "the tree reaches"));
    for (float band : {0.0f, -3.0f, kNan, 1e9f}) {
        options.bandVoxels = band;
        EXPECT_TRUE(contains(complaint(0.1f), "band")) << band;
    }
}

TYPED_TEST(LevelSetFromMesh, refuses_a_mesh_outside_tile_space_and_names_the_reach)
{
    const TriangleMesh mesh = sphereMesh(1.0f, 2, {1e6f, 0, 0});
    LevelSetOptions options;
    options.structure = structureOf<TypeParam>();
    options.voxelSize = 1e-3f;
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); }), "move the mesh to the origin"));
    options.voxelSize = 0.1f;
    EXPECT_NO_THROW(io::levelSetFromMesh(mesh, options, {}));
}

TYPED_TEST(LevelSetFromMesh, estimates_its_size_before_it_works)
{
    using Tr = TypeParam;
    const TriangleMesh mesh = sphereMesh(1.0f, 4);
    LevelSetOptions options;
    options.structure = structureOf<Tr>();
    options.voxelSize = 0.01f;
    const auto volume = io::levelSetFromMesh(mesh, options, {});
    std::size_t used = 0, reserved = 0;
    for (Corvid::String const& name : volume->native()->componentRange())
        volume->native()->template component<OST::Component>(name)->memUse(used, reserved, false);
    // The estimate counts mean layers of tiles; a quarter is what the choice of whole tiles leaves open.
    options.maxBytes = used * 3 / 4;
    const std::string text = errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); });
    EXPECT_TRUE(contains(text, "would take about") && contains(text, "MiB")) << text;
    options.maxBytes = used * 5 / 4;
    EXPECT_NO_THROW(io::levelSetFromMesh(mesh, options, {}));
    // Far beyond any memory: the answer comes at once.
    options.voxelSize = 1e-8f;
    options.maxBytes = std::uint64_t(1) << 40;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); }), "would take about"));
}

TYPED_TEST(LevelSetFromMesh, refuses_meshes_that_no_reader_makes)
{
    LevelSetOptions options;
    options.structure = structureOf<TypeParam>();
    options.voxelSize = 0.1f;
    TriangleMesh mesh = boxMesh({0, 0, 0}, {1, 1, 1});
    mesh.triangles[3].y = 8;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); }), "not there"));
    mesh = boxMesh({0, 0, 0}, {1, 1, 1});
    mesh.vertices[2].z = std::numeric_limits<float>::infinity();
    EXPECT_TRUE(contains(errorOf<InputError>([&] { io::levelSetFromMesh(mesh, options, {}); }), "finite"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { io::levelSetFromMesh({}, options, {}); }), "no triangle"));
}

TYPED_TEST(LevelSetFromMesh, survives_triangles_without_area)
{
    using Tr = TypeParam;
    TriangleMesh mesh = boxMesh({0, 0, 0}, {1, 1, 1});
    // A sliver along an edge: three places on a line, so it adds nothing to any distance.
    mesh.vertices.push_back({0.5f, 0.0f, 0.0f});
    mesh.triangles.push_back({0, 8, 1});
    const auto volume = levelSetOf<Tr>(mesh, 0.1f);
    const auto whole = levelSetOf<Tr>(boxMesh({0, 0, 0}, {1, 1, 1}), 0.1f);
    const auto tree = treeOf<Tr>(*volume);
    ASSERT_EQ(tree->tileCount(-1), treeOf<Tr>(*whole)->tileCount(-1));
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const float wanted = channelOf<Tr>(*whole)->tileData(n, depth)(flat);
                ASSERT_NEAR(channelOf<Tr>(*volume)->tileData(n, depth)(flat), wanted,
                            0x1p-23f * std::abs(wanted) + 1e-12f);
            }
}

TYPED_TEST(LevelSetFromMesh, stops_when_its_job_is_cancelled)
{
    const TriangleMesh mesh = sphereMesh(1.0f, 2);
    const auto work = [&] { levelSetOf<TypeParam>(mesh, 0.02f); };
    cancelAtEveryPoll([] {}, work, [] {});
}

}  // namespace
}  // namespace tilegrid::test
