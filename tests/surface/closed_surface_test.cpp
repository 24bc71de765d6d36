#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/parallel.h"
#include "support/surface_checks.h"

#include <gtest/gtest.h>

#include <limits>

namespace tilegrid::test {
namespace {

template <class Tr> class ClosedSurface : public ::testing::Test {};
TYPED_TEST_SUITE(ClosedSurface, Structures, StructureNames);

/// Random tiles of the deepest few depths, of all depths, or around one place, so that tiny cells meet huge ones.
template <class Tr> void growRandomly(Tree<Tr>& tree, Random& random, int tiles)
{
    auto accessor = tree.tileAccessor();
    const int kind = int(random.below(3));
    const int spread = (kind == 0 ? 3 : 12) * Tr::tileVoxelWidth(Tr::maxDepth);
    for (int n = 0; n < tiles; ++n) {
        const int depth = kind == 1 ? int(random.between(0, Tr::maxDepth)) : Tr::maxDepth - int(random.below(4));
        const Place p = kind == 1 ? randomPlace<Tr>(random, spread)
                                  : Place{random.between(-spread, spread), random.between(-spread, spread), random.between(-spread, spread)};
        accessor.addTile(int(p[0]), int(p[1]), int(p[2]), depth);
    }
}

void expectClosed(Surface const& mesh)
{
    const EdgeCensus census = censusOf(mesh);
    EXPECT_EQ(census.open, 0);
    EXPECT_EQ(census.degenerate, 0);
    for (int3 const& t : mesh.triangles)
        for (int n = 0; n < 3; ++n) ASSERT_TRUE(t[n] >= 0 && t[n] < std::int64_t(mesh.vertices.size()));
}

/// A tree with at most one depth between neighbours in a third of the cases, else with any.
template <class Tr> void growTrial(SurfaceVolume<Tr>& volume, Random& random)
{
    growRandomly(volume.tree, random, 1 + int(random.below(50)));
    if (random.oneIn(3)) CoreGL::TileTree3D::gradeTileTree<Tr>(volume.tree, nullptr, nullptr, 0, Tr::maxDepth);
}

TYPED_TEST(ClosedSurface, of_noise_on_random_trees)
{
    using Tr = TypeParam;
    std::int64_t edges = 0, shared = 0;
    for (int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growTrial(volume, random);
        volume.fill(NoiseField{random.next()});
        const Surface mesh = volume.extract();
        ASSERT_FALSE(mesh.triangles.empty());
        expectClosed(mesh);
        const EdgeCensus census = censusOf(mesh);
        edges += census.edges;
        shared += census.shared;
    }
    std::cout << "edges of more than two triangles on noise: " << shared << " of " << edges << "\n";
}

TYPED_TEST(ClosedSurface, of_smooth_random_fields_is_a_manifold)
{
    using Tr = TypeParam;
    for (int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growTrial(volume, random);
        // Waves of about 15 to 60 finest voxels: each has several samples at the depths where most tiles are.
        struct Wave {
            double3 slope;
            double phase;
        };
        std::vector<Wave> waves(12);
        const auto unit = [&random] { return double(random.between(-1000, 1000)) / 1000; };
        for (Wave& wave : waves) wave = {{0.25 * unit(), 0.25 * unit(), 0.25 * unit()}, 3.2 * unit()};
        volume.fill([&waves](double3 const& p, int) {
            double sum = 0.3;
            for (Wave const& w : waves) sum += std::sin(w.slope.x * p.x + w.slope.y * p.y + w.slope.z * p.z + w.phase);
            return float(sum);
        });
        const Surface mesh = volume.extract();
        ASSERT_FALSE(mesh.triangles.empty());
        expectClosed(mesh);
        EXPECT_EQ(censusOf(mesh).shared, 0);
    }
}

/// Where exact values meet zero, mixes at hanging nodes come out on either side by rounding.
TYPED_TEST(ClosedSurface, of_values_that_are_zero_up_to_rounding)
{
    using Tr = TypeParam;
    for (int seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growTrial(volume, random);
        const double3 slope(double(random.between(-3, 3)), double(random.between(-3, 3)), 1.0);
        const auto scale = float(random.between(1, 100)) / 7;
        volume.fill([&](double3 const& p, int) {
            return scale * float(std::remainder(slope.x * p.x + slope.y * p.y + slope.z * p.z, 4.0 * Tr::width));
        });
        expectClosed(volume.extract());
    }
}

TYPED_TEST(ClosedSurface, of_values_that_are_no_numbers)
{
    using Tr = TypeParam;
    const float kBad[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                          -std::numeric_limits<float>::infinity(), std::numeric_limits<float>::max(),
                          std::numeric_limits<float>::lowest(), std::numeric_limits<float>::denorm_min(),
                          -std::numeric_limits<float>::denorm_min(), 0.0f, -0.0f};
    for (int seed = 1; seed <= 12; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growTrial(volume, random);
        const NoiseField noise{random.next()};
        volume.fill([&](double3 const& p, int depth) {
            const float value = noise(p, depth);
            return random.oneIn(3) ? kBad[random.below(std::size(kBad))] : value;
        });
        const Surface mesh = volume.extract();
        expectClosed(mesh);
        for (float3 const& v : mesh.vertices) ASSERT_TRUE(std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z));
        for (float3 const& n : mesh.normals) ASSERT_TRUE(std::isfinite(n.x) && std::isfinite(n.y) && std::isfinite(n.z));
    }
}

TYPED_TEST(ClosedSurface, of_channels_that_lack_depths)
{
    using Tr = TypeParam;
    for (int seed = 1; seed <= 10; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growTrial(volume, random);
        const int first = Tr::maxDepth - 3 + int(random.below(3));
        volume.fill(NoiseField{random.next()}, random.oneIn(2) ? 1.0f : -1.0f, first, std::min(Tr::maxDepth, first + int(random.below(3))));
        expectClosed(volume.extract());
    }
}

TYPED_TEST(ClosedSurface, keeps_vertices_in_their_cells)
{
    using Tr = TypeParam;
    Random random{7};
    SurfaceVolume<Tr> volume;
    auto accessor = volume.tree.tileAccessor();
    for (int n = 0; n < 20; ++n)
        accessor.addTile(int(random.between(-40, 40)), int(random.between(-40, 40)), int(random.between(-40, 40)), Tr::maxDepth);
    volume.fill([noise = NoiseField{3}](double3 const& p, int depth) { return depth == Tr::maxDepth ? noise(p, depth) : 1.0f; });
    const Surface mesh = volume.extract();
    ASSERT_GT(mesh.vertices.size(), 1000u);
    // No surface further than a voxel of the depth above from a finest tile: its nodes are outside.
    const auto reader = volume.tree.tileAccessor();
    const double reach = Tr::branching;
    for (float3 const& v : mesh.vertices) {
        bool near = false;
        for (int n = 0; n < 8 && !near; ++n)
            near = reader.find(int(std::floor(v.x + (n & 1 ? reach : -reach))), int(std::floor(v.y + (n & 2 ? reach : -reach))),
                               int(std::floor(v.z + (n & 4 ? reach : -reach))), Tr::maxDepth).depth == Tr::maxDepth;
        near = near || reader.find(int(std::floor(v.x)), int(std::floor(v.y)), int(std::floor(v.z)), Tr::maxDepth).depth == Tr::maxDepth;
        EXPECT_TRUE(near) << v.x << " " << v.y << " " << v.z;
    }
}

TYPED_TEST(ClosedSurface, has_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    Random random{11};
    SurfaceVolume<Tr> volume;
    growRandomly(volume.tree, random, 80);
    growAll(volume.tree, SphereBand<Tr>(Tr::maxDepth), nullptr);
    volume.fill(NoiseField{5});
    Surface first;
    for (int threads : {1, 2, 8})
        parallel::runJob(nullptr, threads, [&] {
            const Surface mesh = volume.extract();
            if (first.vertices.empty()) first = mesh;
            EXPECT_TRUE(sameBytes(first, mesh)) << threads << " threads";
        });
    EXPECT_GT(first.triangles.size(), 1000u);
}

TYPED_TEST(ClosedSurface, is_empty_without_a_change_of_sign)
{
    using Tr = TypeParam;
    SurfaceVolume<Tr> volume;
    volume.fill([](double3 const&, int) { return 1.0f; });
    EXPECT_TRUE(volume.extract().vertices.empty()) << "no tiles";
    auto accessor = volume.tree.tileAccessor();
    accessor.addTile(3, 4, 5, Tr::maxDepth);
    for (float value : {1.0f, -1.0f, 0.0f, std::numeric_limits<float>::quiet_NaN()}) {
        volume.fill([value](double3 const&, int) { return value; });
        const Surface mesh = volume.extract();
        EXPECT_TRUE(mesh.vertices.empty() && mesh.normals.empty() && mesh.triangles.empty()) << value;
    }
}

TYPED_TEST(ClosedSurface, of_a_level_set_that_is_inside_out_is_the_same_turned_round)
{
    using Tr = TypeParam;
    SurfaceVolume<Tr> volume, turned;
    for (auto* v : {&volume, &turned}) {
        auto accessor = v->tree.tileAccessor();
        for (int n = 0; n < 8; ++n)
            accessor.addTile((n & 1) * Tr::width, (n >> 1 & 1) * Tr::width, (n >> 2) * Tr::width, Tr::maxDepth);
    }
    const double3 centre(2.3, 2.6, 2.9);
    const auto distance = [centre](double3 const& p, int) {
        const double3 d = p - centre;
        return float(std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z) - 1.7);
    };
    volume.fill(distance);
    turned.fill([&](double3 const& p, int depth) { return -distance(p, depth); });
    const Surface a = volume.extract(), b = turned.extract();
    ASSERT_EQ(a.vertices.size(), b.vertices.size());
    EXPECT_NEAR(volumeOf(a), -volumeOf(b), 1e-4);
    EXPECT_EQ(censusOf(b).open, 0);
}

TYPED_TEST(ClosedSurface, refuses_a_channel_of_another_tree)
{
    using Tr = TypeParam;
    SurfaceVolume<Tr> volume;
    volume.fill([](double3 const&, int) { return 1.0f; });
    volume.tree.tileAccessor().addTile(0, 0, 0, Tr::maxDepth);
    EXPECT_THROW(volume.extract(), std::invalid_argument);
}

}  // namespace
}  // namespace tilegrid::test
