#include "TilegridOps/algorithms/wave.h"
#include "support/halo_world.h"
#include "support/jobs.h"

#include <cmath>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// Points at random places of a cube of `extent` voxels of depth `depth` around the origin, and a wave from them.
template <class Tr> struct WaveWorld {
    Tree<Tr> tree{"tree"};
    std::vector<WavePoint> points;
    std::optional<Wave<Tr>> wave;

    WaveWorld(TileSet<Tr> const& set, int depth, int extent, int count, int roundsToCoarse, int roundsToFine)
    {
        addAll(set, tree);
        Random random(5);
        const double w = double(TileSet<Tr>::voxelWidth(depth));
        const auto anywhere = [&] { return (double(random.below(1 << 20)) / (1 << 20) - 0.5) * extent * w; };
        // So far apart that each is the nearest to some voxel: of a point that is not nothing can be known.
        const double apart = 2.0 * Tr::branching * w;
        while (int(points.size()) < count) {
            const double x = anywhere(), y = anywhere(), z = anywhere();
            const auto tooNear = [&](WavePoint const& p) { return std::hypot(p.x - x, p.y - y, p.z - z) < apart; };
            if (std::none_of(points.begin(), points.end(), tooNear)) points.push_back({x, y, z});
        }
        wave.emplace(tree, float3(), WaveLimits{0, Tr::maxDepth, roundsToCoarse, roundsToFine});
        wave->setPoints(points.data());
        auto accessor = tree.tileAccessor();
        for (int n = 0; n < count; ++n) seed(accessor, n);
        wave->run();
    }
    /// Tells the eight voxels around a point, of the tile that holds it, of the point.
    void seed(TileAccessor<Tr> const& accessor, int n)
    {
        WavePoint const& p = points[std::size_t(n)];
        auto const& tile = accessor.tileImpl(int(std::floor(p.x)), int(std::floor(p.y)), int(std::floor(p.z)), Tr::maxDepth);
        ASSERT_TRUE(tile.valid());
        const int w = tile.voxelDataWidth();
        const int3 at(int(std::floor((p.x - tile.tijk().x) / w)), int(std::floor((p.y - tile.tijk().y) / w)), int(std::floor((p.z - tile.tijk().z) / w)));
        for (int corner = 0; corner < 8; ++corner) {
            const int3 v = at + cubeIndex(2, corner);
            if (v.x >= Tr::width || v.y >= Tr::width || v.z >= Tr::width) continue;
            std::int32_t& own = wave->payloads(tile.index(), tile.depth())[flatIndex(Tr::width, v.x, v.y, v.z)];
            if (own == Wave<Tr>::kNone || distance(tile.treeIndex(), v, n) < distance(tile.treeIndex(), v, own)) own = n;
        }
    }
    /// In voxels of the tile.
    double distance(TreeIndex const& index, int3 const& v, int n) const
    {
        auto const& tile = tree.tile(index);
        const double w = tile.voxelDataWidth();
        WavePoint const& p = points[std::size_t(n)];
        return std::hypot(p.x - tile.tijk().x - v.x * w, p.y - tile.tijk().y - v.y * w, p.z - tile.tijk().z - v.z * w) / w;
    }
    /// Over all voxels of a depth: the largest excess over the true distance, and the share of voxels with the true nearest point.
    std::pair<double, double> compare(int depth) const
    {
        double worst = 0;
        std::int64_t right = 0, all = 0;
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(Tr::width, v);
                const std::int32_t known = wave->payloads(n, depth)[v];
                if (known == Wave<Tr>::kNone) return {1e30, 0};
                double least = 1e30;
                for (std::size_t p = 0; p < points.size(); ++p) least = std::min(least, distance({n, depth}, at, int(p)));
                const double own = distance({n, depth}, at, known);
                worst = std::max(worst, own - least);
                right += own <= least + 1e-6 * (1 + least);
                ++all;
            }
        return {worst, double(right) / double(std::max<std::int64_t>(all, 1))};
    }
};

/// The finest depths of a cube around the origin; those with x >= 0 one depth coarser.
template <class Tr> TileSet<Tr> cube(int fine, int half, bool jump)
{
    TileSet<Tr> set;
    const std::int64_t w = TileSet<Tr>::voxelWidth(fine), h = half * w;
    set.addBox({-h, -h, -h}, {jump ? -1 : h - 1, h - 1, h - 1}, fine);
    if (jump) set.addBox({0, -h, -h}, {h - 1, h - 1, h - 1}, fine - 1);
    return set;
}

template <class Tr> class WaveTest : public ::testing::Test {};
TYPED_TEST_SUITE(WaveTest, Structures, StructureNames);

// Neighbours hand on what is nearest to them, so a voxel may miss a point that is nearest to none of its neighbours.
TYPED_TEST(WaveTest, brings_the_nearest_point_to_nearly_every_voxel)
{
    constexpr int fine = TypeParam::maxDepth;
    const WaveWorld<TypeParam> world(cube<TypeParam>(fine, 32, false), fine, 60, 120, -1, -1);
    const auto [worst, right] = world.compare(fine);
    EXPECT_LE(worst, 0.05);
    EXPECT_GE(right, 0.99);
}

TYPED_TEST(WaveTest, crosses_jumps_of_depth)
{
    constexpr int fine = TypeParam::maxDepth;
    const WaveWorld<TypeParam> world(cube<TypeParam>(fine, 32, true), fine, 60, 60, -1, -1);
    for (int depth : {fine, fine - 1}) {
        const auto [worst, right] = world.compare(depth);
        EXPECT_LE(worst, 0.05) << "depth " << depth;
        EXPECT_GE(right, 0.99) << "depth " << depth;
    }
}

TYPED_TEST(WaveTest, is_near_already_after_two_rounds)
{
    constexpr int fine = TypeParam::maxDepth;
    for (bool jump : {false, true}) {
        const WaveWorld<TypeParam> world(cube<TypeParam>(fine, 32, jump), fine, 60, jump ? 60 : 120, 0, 0);
        for (int depth = fine; depth >= fine - jump; --depth) EXPECT_LE(world.compare(depth).first, 0.25) << (jump ? "jump" : "uniform");
    }
}

TYPED_TEST(WaveTest, knows_the_same_for_any_number_of_threads)
{
    constexpr int fine = TypeParam::maxDepth;
    std::vector<std::int32_t> first;
    for (int threads : kThreadCounts) {
        std::vector<std::int32_t> all;
        parallel::runJob(nullptr, threads, [&] {
            const WaveWorld<TypeParam> world(cube<TypeParam>(fine, 32, true), fine, 60, 60, 3, 3);
            for (int depth = 0; depth <= fine; ++depth)
                for (OST::int64 n = 0; n < world.tree.tileCount(depth); ++n)
                    all.insert(all.end(), world.wave->payloads(n, depth), world.wave->payloads(n, depth) + TypeParam::voxelCount);
        });
        if (first.empty()) first = all;
        EXPECT_TRUE(first == all) << threads << " threads";
    }
}

}  // namespace
}  // namespace tilegrid::test
