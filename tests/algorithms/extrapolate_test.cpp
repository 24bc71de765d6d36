#include "TilegridOps/algorithms/extrapolate.h"
#include "TilegridOps/algorithms/volume_depth.h"
#include "field_errors.h"
#include "level_set_volume.h"
#include "support/clusters.h"

/// Continuing a field into voxels where it is not known, and depths below a surface. Lengths in finest voxels.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using VolumeGL::TileTree3D::LevelSet::ExtrapolationType;
using Tr = BinaryTraits;
using Marker = Channel<Tr, unsigned char, 4, 0>;

const Point kCentre = {0.31, -0.17, 0.23};

struct World {
    Redistanced<Tr> field;
    Marker marker;

    explicit World(TileSet<Tr> const& set)
        : field(set, Tr::maxDepth), marker("marker", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth)
    {
        marker.updateTilesAdded(field.topology);
    }
    /// The field where it is known, and nonsense elsewhere.
    void fill(Field const& value, std::function<int(Point const&)> const& mark)
    {
        field.fill(value);
        field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
            marker.tileData(t)(v) = static_cast<unsigned char>(mark(p));
            if (!mark(p)) field.at(t, v) = -77;
        });
    }
    void run(ExtrapolationType type = ExtrapolationType::kSignedDistance, Redistanced<Tr>::Floats const* order = nullptr, bool clamp = false, bool dofs = true)
    {
        VolumeGL::TileTree3D::LevelSet::extrapolateChannel<Tr, float>(type, field.tree, field.topology, marker, *field.values, order,
                                                                      dofs ? &*field.dofs : nullptr, 0, Tr::maxDepth, clamp);
    }
    /// The bytes of all markers.
    std::string markers() const
    {
        std::string all;
        for (OST::int64 n = 0; n < field.tree.tileCount(-1); ++n) {
            const auto data = marker.tileData(field.tree.tile(n).treeIndex());
            all.append(reinterpret_cast<char const*>(data.data()), std::size_t(data.size()));
        }
        return all;
    }
};

TileSet<Tr> jump(int half)
{
    TileSet<Tr> set;
    set.addBox({-half, -half, -half}, {-1, half - 1, half - 1}, Tr::maxDepth);
    set.addBox({0, -half, -half}, {half - 1, half - 1, half - 1}, Tr::maxDepth - 1);
    return gradedClosure(set, 0, Tr::maxDepth);
}

TEST(ExtrapolateChannel, continues_linear_data_exactly_also_across_jumps)
{
    // The values of the first field are floats; those of the second are rounded. Half a unit in the last place, 1e-6 in the box of fine
    // tiles, makes slopes wrong by up to 4e-6 at its border, and each of some twenty layers takes that on: 1.1e-5 was measured.
    // Further out, up to forty layers round values that are as large as their place is far.
    struct { Point slope; double inBox, byTerms; } const cases[] = {{{0.25, -0.125, 0.5}, 0, 0}, {{0.3, -0.2, 0.5}, 2e-5, 40 * 6e-8}};
    for (auto const& [slope, boundInBox, boundByTerms] : cases)
        for (bool withJump : {false, true}) {
            const Field linear = [s = slope](Point const& p) { return s[0] * p[0] + s[1] * p[1] + s[2] * p[2] + 1; };
            World world(withJump ? jump(16) : gradedClosure(cubeOfTiles<Tr>(Tr::maxDepth, -16, 16), 0, Tr::maxDepth));
            world.fill(linear, [](Point const& p) { return p[2] <= 0.4 * p[0] ? 1 : 0; });
            world.run(ExtrapolationType::kLinear);
            Errors fine, byTerms;
            world.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
                // Also at the ends of finer tiles, where a known voxel may have its only known neighbours in coarser ones. Far out, where a
                // depth has a few voxels, one may be known that has none at all.
                if (std::max({std::abs(p[0]), std::abs(p[1]), std::abs(p[2])}) > 1000 || !world.field.isLeafVoxel(t, v)) return;
                const double error = world.field.at(t, v) - linear(p);
                byTerms.add(error / (std::abs(slope[0] * p[0]) + std::abs(slope[1] * p[1]) + std::abs(slope[2] * p[2]) + 1));
                if (t.depth == Tr::maxDepth) fine.add(error);
                EXPECT_EQ(world.marker.tileData(t)(v), p[2] <= 0.4 * p[0] ? 1 : world.field.at(t, v) < 0 ? 1 : 2);
            });
            EXPECT_TRUE(areWithin(fine, boundInBox, 15000)) << withJump;
            EXPECT_TRUE(areWithin(byTerms, boundByTerms, 40000)) << withJump;
        }
}

TEST(ExtrapolateChannel, continues_a_sphere_with_the_error_of_its_curvature)
{
    const Field exact = sphere(kCentre, 20);
    World world(cubeOfTiles<Tr>(Tr::maxDepth, -32, 32));
    world.fill(exact, [&](Point const& p) { return exact(p) < 0 ? 1 : 0; });
    const auto before = world.field;
    world.run();
    Errors first, third;
    bool kept = true;
    /// Steps across faces to the nearest voxel inside, up to 3.
    const auto layerOf = [&](Point const& p) {
        int least = 4;
        for (int n = 0; n < 343; ++n) {
            const int3 d = cubeIndex(7, n) - int3(3);
            const int steps = std::abs(d.x) + std::abs(d.y) + std::abs(d.z);
            if (steps < least && exact({p[0] + d.x, p[1] + d.y, p[2] + d.z}) < 0) least = steps;
        }
        return least;
    };
    world.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (exact(p) < 0) kept &= before.at(t, v) == world.field.at(t, v);
        if (t.depth != Tr::maxDepth || exact(p) < 0 || exact(p) > 4) return;
        const int layer = layerOf(p);
        if (layer == 1) first.add(world.field.at(t, v) - exact(p));
        if (layer == 3) third.add(world.field.at(t, v) - exact(p));
    });
    EXPECT_TRUE(kept);
    EXPECT_TRUE(areWithin(first, 0.03, 4000));
    EXPECT_TRUE(areWithin(third, 0.15, 4500));
}

TEST(ExtrapolateChannel, a_plateau_gets_its_surface_two_voxels_outside)
{
    World world(cubeOfTiles<Tr>(Tr::maxDepth, -16, 16));
    world.fill([](Point const&) { return -2.0; }, [](Point const& p) { return p[1] <= 0 ? 1 : 0; });
    world.run();
    Errors errors;
    world.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth == Tr::maxDepth && p[1] > 0 && p[1] < 6 && std::max(std::abs(p[0]), std::abs(p[2])) < 10) errors.add(world.field.at(t, v) - (p[1] - 2));
    });
    EXPECT_TRUE(areWithin(errors, 0.1, 19 * 19 * 5));
}

// Air is unknown, liquid and solids are known, and solids hold -2.
TEST(ExtrapolateChannel, the_free_surface_of_a_pool_stays_where_it_is)
{
    const double surface = -2.4;
    World world(cubeOfTiles<Tr>(Tr::maxDepth, -16, 16));
    const auto isSolid = [](Point const& p) { return std::abs(p[0]) > 10 || p[1] < -12; };
    world.fill([&](Point const& p) { return isSolid(p) ? -2.0 : p[1] - surface; }, [&](Point const& p) { return isSolid(p) || p[1] < surface ? 1 : 0; });
    world.run();
    // Between the walls, less one voxel for each layer that their level has come in by.
    Errors layers[8];
    world.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        const int n = int(std::floor(p[1] - surface));
        if (t.depth == Tr::maxDepth && n >= 0 && n < 8 && std::abs(p[0]) < 9 - n && std::abs(p[2]) < 15) layers[n].add(world.field.at(t, v) - (p[1] - surface));
    });
    for (Errors const& errors : layers) EXPECT_TRUE(areWithin(errors, 0.02, 29));
}

TEST(ExtrapolateChannel, obeys_order_clamp_and_what_is_not_finite)
{
    const Field linear = [](Point const& p) { return p[1]; };
    World clamped(cubeOfTiles<Tr>(Tr::maxDepth, -8, 8)), none(cubeOfTiles<Tr>(Tr::maxDepth, -8, 8)), holes(cubeOfTiles<Tr>(Tr::maxDepth, -8, 8));
    clamped.fill(linear, [](Point const& p) { return p[1] <= 0 ? 1 : 0; });
    clamped.run(ExtrapolationType::kLinear, nullptr, /*clamp*/ true);
    clamped.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth == Tr::maxDepth && p[1] > 0 && clamped.field.at(t, v) > 0) {
            EXPECT_LE(clamped.field.at(t, v), 0);
        }
    });
    none.fill(linear, [](Point const&) { return 0; });
    const std::string before = none.field.bytes();
    none.run();
    EXPECT_TRUE(before == none.field.bytes()) << "nothing known, nothing changed";
    holes.fill(linear, [](Point const& p) { return p[1] <= 0 ? 1 : 0; });
    holes.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (p == Point{2, -2, 2}) holes.field.at(t, v) = std::numeric_limits<float>::quiet_NaN();
    });
    holes.run(ExtrapolationType::kSignedDistance, nullptr, false, /*dofs*/ false);
    holes.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth == Tr::maxDepth) {
            EXPECT_EQ(std::isnan(holes.field.at(t, v)), (p == Point{2, -2, 2}));
        }
    });
    // With an order that rises downward nothing above the known half may be filled.
    World ordered(cubeOfTiles<Tr>(Tr::maxDepth, -8, 8));
    ordered.fill(linear, [](Point const& p) { return p[1] <= 0 ? 1 : 0; });
    auto order = *ordered.field.values;
    ordered.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) { order.tileData(t)(v) = float(1000 - p[1]); });
    ordered.run(ExtrapolationType::kSignedDistance, &order);
    ordered.field.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (t.depth == Tr::maxDepth && p[1] > 0) {
            EXPECT_EQ(ordered.marker.tileData(t)(v), 0);
        }
    });
}

TEST(ExtrapolateChannel, same_bytes_for_any_number_of_threads)
{
    std::string first;
    for (int threads : kThreadCounts) {
        World world(jump(16));
        const Field exact = sphere(kCentre, 8);
        world.fill(exact, [&](Point const& p) { return exact(p) < 0 ? 1 : 0; });
        parallel::runJob(nullptr, threads, [&] { world.run(); });
        const std::string bytes = world.field.bytes() + world.markers();
        if (first.empty()) first = bytes;
        EXPECT_TRUE(first == bytes) << threads << " threads";
    }
}

TEST(ComputeVolumeDepth, of_a_ball_is_its_radius_in_the_middle_and_nothing_outside)
{
    // Finest tiles everywhere inside, and a band of narrow values: only the crossing counts.
    const Field exact = sphere({0, 0, 0}, 20);
    auto volume = levelSetVolume<Tr>(cubeOfTiles<Tr>(Tr::maxDepth, -28, 28), [&](Point const& p) { return std::clamp(exact(p), -3.0, 3.0); }, 0.5f);
    const auto depthOf = [&](float low, float high, int passes) {
        const auto tree = volume->component<Tree<Tr>>(sVoxelTileTree);
        const auto topology = volume->component<VoxelTopology<Tr>>(sVoxelComp);
        const auto channel = volume->component<Channel<Tr, float, 4, 0>>(Ostara::Geometry::sVoxelSignedDistance);
        VolumeGL::TileTree3D::LevelSet::computeVolumeDepth<Tr>(low, high, passes, *tree, *topology, *channel, *volume);
        std::map<Point, double> depths;
        forFreeVoxels<Tr>(*volume, "voxel_depth", [&](int depth, Point const& p, double value) {
            if (depth == Tr::maxDepth) depths[p] = value;
        });
        return depths;
    };
    auto depths = depthOf(0, 0, 0);
    EXPECT_NEAR((depths[{0, 0, 0}]), 20, 0.05);
    EXPECT_NEAR((depths[{10, 0, 0}]), 10, 0.05);
    EXPECT_EQ((depths[{22, 0, 0}]), 0);
    // Bounds are world lengths: 2 and 4 voxels.
    depths = depthOf(1, 2, 0);
    EXPECT_EQ((depths[{0, 0, 0}]), 4);
    EXPECT_EQ((depths[{22, 0, 0}]), 2);
    // One pass over a linear stretch changes nothing; at the middle it rounds the tip.
    depths = depthOf(0, 0, 1);
    EXPECT_NEAR((depths[{10, 0, 0}]), 10, 0.06);
    EXPECT_LT((depths[{0, 0, 0}]), 19.5);
    EXPECT_EQ((depths[{22, 0, 0}]), 0);
}

TEST(ComputeVolumeDepth, same_bytes_for_any_number_of_threads)
{
    // Off the lattice and across a jump; with passes, which read what others write.
    const Field exact = sphere(kCentre, 11);
    std::string first;
    for (int threads : kThreadCounts) {
        auto volume = levelSetVolume<Tr>(jump(16), exact, 0.5f);
        const auto tree = volume->component<Tree<Tr>>(sVoxelTileTree);
        const auto topology = volume->component<VoxelTopology<Tr>>(sVoxelComp);
        const auto channel = volume->component<Channel<Tr, float, 4, 0>>(Ostara::Geometry::sVoxelSignedDistance);
        parallel::runJob(nullptr, threads, [&] {
            VolumeGL::TileTree3D::LevelSet::computeVolumeDepth<Tr>(0.3f, 4.0f, 3, *tree, *topology, *channel, *volume);
        });
        const auto depths = volume->component<Channel<Tr, float, 4, 0>>("voxel_depth");
        std::string bytes;
        for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
            const auto values = depths->tileData(tree->tile(n).treeIndex());
            bytes.append(reinterpret_cast<char const*>(values.data()), sizeof(float) * Tr::voxelCount);
        }
        if (first.empty()) first = bytes;
        EXPECT_TRUE(first == bytes) << threads << " threads";
    }
}

}  // namespace
}  // namespace tilegrid::test
