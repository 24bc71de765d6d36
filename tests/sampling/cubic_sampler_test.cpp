#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/parallel.h"
#include "support/cubic_oracle.h"
#include "support/jobs.h"
#include "sampling/cubic_volume.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Ostara::Math::float3;
using OST::int64;

constexpr double kEpsilon = std::numeric_limits<float>::epsilon();
/// Bound of the tensor product of values up to 1: three kernels of 90 epsilon each, passed on with weights of at most 1.25.
constexpr double kNoiseBound = 90 * (1 + 1.25 + 1.5625) * kEpsilon;

template <class Tr, class T>
CubicSampler<Tr, T> cubicOver(CubicVolume<Tr, T> const& volume, CubicMode mode, bool clamp = false,
                              JumpPolicy policy = JumpPolicy::kTrilinearAtJump, int64 cache = 0)
{
    return {volume.tree, volume.topology, &volume.channel, mode, clamp, policy, nullptr, 0, cache};
}

template <class Tr> class CubicSampling : public ::testing::Test {
public:
    using Set = TileSet<Tr>;
    static constexpr int D = Tr::maxDepth;
    /// Widths of tiles of the three finest depths.
    static double coarse() { return double(Set::tileWidth(D - 2)); }
};
TYPED_TEST_SUITE(CubicSampling, Structures, StructureNames);

/// Compares one sampler with the oracle at random positions; counts those at jumps and elsewhere.
template <class Tr>
void compareWithOracle(CubicVolume<Tr> const& volume, int offset, SiteOracle<Tr>& sites, CubicMode mode, std::uint64_t seed,
                       double reach, int64 (&seen)[2])
{
    sites.offset = offset;
    CubicSamplerOracle<Tr> oracle(volume.set, sites);
    const auto sampler = cubicOver(volume, mode);
    Random random(seed);
    for (int n = 0; n < 400; ++n) {
        const float3 p = randomPosition(random, reach);
        LocatedVoxel at;
        ASSERT_TRUE(sampler.locateVoxel(p, kTileSpace, Tr::maxDepth, at));
        const TileKey key = keyOf(volume.tree.tile(at.treeIndex));
        const double expected = oracle.at(mode, key, toPlace(at.lijk), {at.frac.x, at.frac.y, at.frac.z});
        ++seen[oracle.atJump(key, toPlace(at.lijk))];
        ASSERT_NEAR(sampler.getValue(at.treeIndex, at.lijk, at.frac, Tr::maxDepth, false), expected, kNoiseBound)
            << interpolationName(mode) << " at " << p << ", offset " << offset;
        ASSERT_EQ(sampler.sampleCubic(p, Tr::maxDepth, kTileSpace),
                  sampler.getValue(at.treeIndex, at.lijk, at.frac, Tr::maxDepth, false));
    }
}

TYPED_TEST(CubicSampling, is_a_sum_of_64_voxels_or_a_linear_mix_where_one_of_eight_places_has_another_depth)
{
    const auto set = threeDepths<TypeParam>(1);
    for (int offset : {7, 0, 5}) {
        const CubicVolume<TypeParam> volume(set, noise, offset);
        SiteOracle<TypeParam> sites(set);
        int64 seen[2] = {};
        for (CubicMode mode : kCubicModes) compareWithOracle(volume, offset, sites, mode, 3, 1.4 * this->coarse(), seen);
        EXPECT_GT(seen[0], 100);
        EXPECT_GT(seen[1], 100);
    }
}

TYPED_TEST(CubicSampling, mixes_linearly_in_trees_with_jumps_of_many_depths)
{
    for (std::uint64_t seed : {5, 6}) {
        const auto set = randomSet<TypeParam>(seed, 60, false);
        const CubicVolume<TypeParam> volume(set, noise, seed == 5 ? 7 : 0);
        SiteOracle<TypeParam> sites(set);
        int64 seen[2] = {};
        compareWithOracle(volume, seed == 5 ? 7 : 0, sites, CubicMode::kCubicC1, seed, 10.0 * TypeParam::width, seen);
        compareWithOracle(volume, seed == 5 ? 7 : 0, sites, CubicMode::kCubicC0, seed, 4e8, seen);
        EXPECT_GT(seen[1], 400);
    }
}

TYPED_TEST(CubicSampling, gives_a_voxels_own_value_at_its_position_in_all_modes)
{
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    for (CubicMode mode : kCubicModes)
        for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical}) {
            const auto sampler = cubicOver(volume, mode, false, policy);
            for (int n = -3; n < 3; ++n) {
                const int3 place(n, 1 - n, 2);
                const float expected = sampler.getVoxelValueAtTijk(place, this->D, kCorner, volume.channel, volume.tree.tileAccessor());
                EXPECT_EQ(sampler.sampleCubic(float3(place), this->D, kTileSpace), expected);
            }
        }
}

TYPED_TEST(CubicSampling, mixes_linearly_if_a_place_lacks_its_tile_that_the_stencil_does_not_touch)
{
    using Set = TileSet<TypeParam>;
    auto set = uniformBox<TypeParam>(this->D, 2);
    const TileKey own = Set::keyAt({0, 0, 0}, this->D);
    // Voxels 0 to 3 of the tile make the stencil.
    const int3 lijk(1, 1, 1);
    const float3 frac(0.5f, 0.25f, 0.75f);
    const CubicVolume<TypeParam> whole(set, noise);
    Place beyond = own.low;
    for (auto& x : beyond) x += TypeParam::width;
    set.remove(Set::keyAt(beyond, this->D));
    const CubicVolume<TypeParam> holed(set, noise);
    for (CubicMode mode : kCubicModes) {
        SiteOracle<TypeParam> sites(set);
        CubicSamplerOracle<TypeParam> oracle(set, sites);
        ASSERT_TRUE(oracle.atJump(own, {1, 1, 1}));
        const double linear = oracle.at(mode, own, {1, 1, 1}, {0.5, 0.25, 0.75});
        EXPECT_NEAR(cubicOver(holed, mode).getValue(indexOf(holed.tree, own), lijk, frac, this->D, false), linear, 8 * kEpsilon);
        EXPECT_GT(std::fabs(cubicOver(whole, mode).getValue(indexOf(whole.tree, own), lijk, frac, this->D, false) - linear), 1e-3);
    }
}

TYPED_TEST(CubicSampling, reproduces_an_affine_field_across_jumps)
{
    const double reach = 1.4 * this->coarse(), largest = 3 + 3.5 * 3 * this->coarse() / 64;
    const Field field = [](double x, double y, double z) { return 3 + (x - 2 * y + 0.5 * z) / 64; };
    const auto set = threeDepths<TypeParam>(2);
    for (int offset : {7, 0}) {
        const CubicVolume<TypeParam> volume(set, sampled<TypeParam>(field, offset), offset);
        for (CubicMode mode : kCubicModes)
            for (bool clamp : {false, true}) {
                const auto sampler = cubicOver(volume, mode, clamp);
                Random random(7);
                for (int n = 0; n < 1000; ++n) {
                    const float3 p = randomPosition(random, reach);
                    ASSERT_NEAR(sampler.sampleCubic(p, this->D, kTileSpace), field(p.x, p.y, p.z), 8 * kEpsilon * largest) << p;
                }
            }
    }
}

TYPED_TEST(CubicSampling, clamps_into_the_eight_voxels_around_the_position)
{
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 3), noise);
    const auto accessor = volume.tree.tileAccessor();
    int moved = 0;
    for (CubicMode mode : kCubicModes) {
        const auto free = cubicOver(volume, mode), clamped = cubicOver(volume, mode, true);
        Random random(8);
        for (int n = 0; n < 500; ++n) {
            const float3 p = randomPosition(random, 7);
            float low = 2, high = -2;
            for (int c = 0; c < 8; ++c) {
                const int3 voxel(int(std::floor(p.x)) + (c & 1), int(std::floor(p.y)) + (c >> 1 & 1), int(std::floor(p.z)) + (c >> 2));
                const float v = free.getVoxelValueAtTijk(voxel, this->D, kCorner, volume.channel, accessor);
                low = std::min(low, v);
                high = std::max(high, v);
            }
            const float value = free.sampleCubic(p, this->D, kTileSpace);
            EXPECT_EQ(clamped.sampleCubic(p, this->D, kTileSpace), std::clamp(value, low, high));
            moved += value < low || value > high;
        }
    }
    EXPECT_GT(moved, 20);
}

TYPED_TEST(CubicSampling, from_the_cache_is_the_same_on_uniform_stretches_and_for_every_size_of_the_cache)
{
    const auto set = threeDepths<TypeParam>(3);
    const CubicVolume<TypeParam> volume(set, noise);
    SiteOracle<TypeParam> sites(set);
    const CubicSamplerOracle<TypeParam> oracle(set, sites);
    const auto plain = cubicOver(volume, CubicMode::kCubicC1);
    const auto one = cubicOver(volume, CubicMode::kCubicC1, false, JumpPolicy::kTrilinearAtJump, 1);
    const auto three = cubicOver(volume, CubicMode::kCubicC1, false, JumpPolicy::kTrilinearAtJump, 3);
    const auto many = cubicOver(volume, CubicMode::kCubicC1, false, JumpPolicy::kTrilinearAtJump, 5000);
    Random random(9);
    int uniform = 0;
    for (int n = 0; n < 2000; ++n) {
        // Often near the last position, so that tiles come back from every place of the list.
        const float3 p = randomPosition(random, (random.oneIn(3) ? 1.4 : 0.2) * this->coarse());
        LocatedVoxel at;
        ASSERT_TRUE(plain.locateVoxel(p, kTileSpace, this->D, at));
        const float cached = one.getValue(at.treeIndex, at.lijk, at.frac, this->D, false);
        ASSERT_EQ(three.getValue(at.treeIndex, at.lijk, at.frac, this->D, false), cached);
        ASSERT_EQ(many.getValue(at.treeIndex, at.lijk, at.frac, this->D, false), cached);
        if (oracle.atJump(keyOf(volume.tree.tile(at.treeIndex)), toPlace(at.lijk))) continue;
        ++uniform;
        ASSERT_EQ(plain.getValue(at.treeIndex, at.lijk, at.frac, this->D, false), cached);
    }
    EXPECT_GT(uniform, 100);
}

TYPED_TEST(CubicSampling, keeps_the_tiles_used_last)
{
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 3), [](auto const&, int, int, int) { return 1.0; });
    const auto sampler = cubicOver(volume, CubicMode::kCubicC1, false, JumpPolicy::kTrilinearAtJump, 2);
    const auto at = [&](int tile) {
        return sampler.sampleCubic(float3(float(tile * TypeParam::width) + 1.5f, 1.5f, 1.5f), this->D, kTileSpace);
    };
    EXPECT_EQ(at(0), 1);
    EXPECT_EQ(at(1), 1);
    EXPECT_EQ(at(0), 1);
    // A kept tile does not see what is written now, which tells which ones are kept.
    for (int64 n = 0; n < volume.tree.tileCount(this->D); ++n) volume.channel.tileData(n, this->D).set(2.0f);
    EXPECT_EQ(at(0), 1);
    EXPECT_EQ(at(-1), 2) << "takes the place of tile 1";
    EXPECT_EQ(at(0), 1);
    EXPECT_EQ(at(1), 2);
    EXPECT_EQ(at(0), 1);
    const auto copy = sampler;
    EXPECT_EQ(copy.sampleCubic(float3(1.5f, 1.5f, 1.5f), this->D, kTileSpace), 2) << "a copy starts empty";
}

TYPED_TEST(CubicSampling, reads_no_deeper_than_the_channel_nor_than_asked)
{
    const auto set = threeDepths<TypeParam>(4);
    const CubicVolume<TypeParam> whole(set, noise), shallow(set, noise, 7, 0, 0, this->D - 1);
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical}) {
        const auto a = cubicOver(whole, CubicMode::kCubicC0, false, policy), b = cubicOver(shallow, CubicMode::kCubicC0, false, policy);
        Random random(10);
        for (int n = 0; n < 500; ++n) {
            const float3 p = randomPosition(random, this->coarse());
            ASSERT_EQ(b.sampleCubic(p, this->D, kTileSpace), a.sampleCubic(p, this->D - 1, kTileSpace));
        }
    }
}

TYPED_TEST(CubicSampling, gives_the_default_where_there_is_nothing)
{
    const float fallback = -7;
    const TileSet<TypeParam> none;
    const CubicVolume<TypeParam> empty(none, noise, 7, fallback), deep(uniformBox<TypeParam>(this->D, 1), noise, 7, fallback, this->D);
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical}) {
        const auto overEmpty = cubicOver(empty, CubicMode::kCubicC1, false, policy);
        EXPECT_EQ(overEmpty.sampleCubic(float3(1, 2, 3)), fallback);
        EXPECT_EQ(overEmpty.getValue({0, 0}, int3(0), float3(0), 0, false), fallback);
        const auto sampler = cubicOver(deep, CubicMode::kCubicC1, false, policy);
        EXPECT_EQ(sampler.sampleCubic(float3(1000, 0, 0), this->D, kTileSpace), fallback) << "only above minDepth";
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const TreeIndex own = indexOf(deep.tree, TileSet<TypeParam>::keyAt({0, 0, 0}, this->D));
        for (TreeIndex wrong : {TreeIndex{}, TreeIndex{-1, this->D}, TreeIndex{0, -1}, TreeIndex{1 << 20, this->D}, TreeIndex{0, 99},
                                TreeIndex{0, this->D - 1}})
            EXPECT_EQ(sampler.getValue(wrong, int3(1), float3(0.5f), this->D, false), fallback);
        for (int wrong : {-2, -1000000000, int(TypeParam::width), 2000000000})
            EXPECT_EQ(sampler.getValue(own, int3(1, wrong, 1), float3(0.5f), this->D, false), fallback);
        for (float wrong : {nan, -0.5f, 2.0f, 1e30f, -std::numeric_limits<float>::infinity()})
            EXPECT_EQ(sampler.getValue(own, int3(1), float3(0.5f, 0.5f, wrong), this->D, false), fallback);
        EXPECT_EQ(sampler.sampleCubic(float3(nan, 0, 0)), fallback);
        const CubicSampler<TypeParam, float> nothing(deep.tree, deep.topology, nullptr, CubicMode::kCubicC1, true, policy, nullptr, 0, 2);
        EXPECT_EQ(nothing.sampleCubic(float3(1, 1, 1)), 0);
    }
}

TYPED_TEST(CubicSampling, gives_the_default_for_positions_that_are_no_place)
{
    const float fallback = -7;
    CubicVolume<TypeParam> volume(threeDepths<TypeParam>(14), noise, 7, fallback);
    volume.tree.setVoxelSize(0.5f);
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical})
        for (int64 cache : {0, 2}) {
            const auto sampler = cubicOver(volume, CubicMode::kCubicC1, true, policy, cache);
            for (float bad : {float(NAN), INFINITY, -INFINITY, 3e38f, -3e38f, 1e10f, -1e10f})
                for (int a = 0; a < 3; ++a)
                    for (int space : {int(kTileSpace), int(kWorldSpace)}) {
                        float3 p(0.5f);
                        p[a] = bad;
                        EXPECT_EQ(sampler.sampleCubic(p, this->D, space), fallback) << p;
                    }
        }
}

TYPED_TEST(CubicSampling, reads_the_origin_everywhere_for_a_voxel_size_of_zero)
{
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    volume.tree.setVoxelSize(0.0f);
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical}) {
        const auto sampler = cubicOver(volume, CubicMode::kCubicC1, true, policy);
        const float origin = sampler.sampleCubic(float3(0), this->D, kTileSpace);
        for (float3 const& p : {float3(0), float3(5, -1e20f, 3), float3(-7)}) EXPECT_EQ(sampler.sampleCubic(p), origin) << p;
    }
}

TYPED_TEST(CubicSampling, clamped_keeps_the_surface_of_a_level_set_within_its_voxels)
{
    // A sphere whose distances were cut off close to the surface, which makes unclamped kernels overshoot.
    const Field field = [](double x, double y, double z) { return std::clamp(std::sqrt(x * x + y * y + z * z) - 4.3, -0.8, 0.8); };
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 3), sampled<TypeParam>(field));
    const auto accessor = volume.tree.tileAccessor();
    for (CubicMode mode : kCubicModes) {
        const auto sampler = cubicOver(volume, mode, true);
        Random random(15);
        int oneSided = 0;
        for (int n = 0; n < 2000; ++n) {
            const float3 p = randomPosition(random, 7);
            int inside = 0;
            for (int c = 0; c < 8; ++c) {
                const int3 voxel(int(std::floor(p.x)) + (c & 1), int(std::floor(p.y)) + (c >> 1 & 1), int(std::floor(p.z)) + (c >> 2));
                inside += sampler.getVoxelValueAtTijk(voxel, this->D, kCorner, volume.channel, accessor) < 0;
            }
            if (inside % 8 != 0) continue;
            ++oneSided;
            EXPECT_EQ(sampler.sampleCubic(p, this->D, kTileSpace) < 0, inside == 8) << interpolationName(mode) << " at " << p;
        }
        EXPECT_GT(oneSided, 1000);
    }
}

TYPED_TEST(CubicSampling, works_at_every_depth_and_at_the_border_of_tile_space)
{
    using Set = TileSet<TypeParam>;
    TileSet<TypeParam> set;
    set.add({Set::rangeMin, Set::rangeMin, Set::rangeMin}, this->D);
    set.add({Set::rangeMax, Set::rangeMax, Set::rangeMax}, this->D);
    for (int offset : {7, 0}) {
        const CubicVolume<TypeParam> volume(set, [](auto const&, int, int, int) { return 4.0; }, offset, 4.0f);
        for (CubicMode mode : kCubicModes)
            for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical})
                for (int64 cache : {0, 2}) {
                    const auto sampler = cubicOver(volume, mode, true, policy, cache);
                    const bool outsideIsZero = cache > 0 && policy == JumpPolicy::kTrilinearAtJump && offset == 7;
                    for (int64 n = 0; n < volume.tree.tileCount(-1); ++n)
                        for (int i = -1; i < TypeParam::width; ++i) {
                            if (i < 0 && offset == 7) continue;
                            const float v = sampler.getValue(volume.tree.tile(n).treeIndex(), int3(i, 1, TypeParam::width - 1),
                                                             float3(0.5f, 0, 0.75f), this->D, false);
                            // The cache fills with 0, not the default, where there is nothing.
                            if (outsideIsZero)
                                EXPECT_TRUE(v >= 0 && v <= 4) << v;
                            else
                                EXPECT_EQ(v, 4);
                        }
                }
    }
}

TYPED_TEST(CubicSampling, reads_a_tree_of_one_root_tile)
{
    TileSet<TypeParam> set;
    set.add({0, 0, 0}, 0);
    const CubicVolume<TypeParam> volume(set, noise, 7, 0.5f);
    SiteOracle<TypeParam> sites(set);
    sites.outside = 0.5;
    int64 seen[2] = {};
    compareWithOracle(volume, 7, sites, CubicMode::kCubicC1, 4, 5e8, seen);
    EXPECT_EQ(seen[0], 0);
}

TYPED_TEST(CubicSampling, takes_world_positions)
{
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    volume.tree.setVoxelSize(0.25f);
    const auto sampler = cubicOver(volume, CubicMode::kCubicC1);
    EXPECT_EQ(sampler.sampleCubic(float3(0.125f, 0.25f, -0.5f)), sampler.sampleCubic(float3(0.5f, 1, -2), this->D, kTileSpace));
}

TYPED_TEST(CubicSampling, names_its_mode)
{
    const CubicVolume<TypeParam> volume(TileSet<TypeParam>{}, noise);
    const char* const names[] = {"kQuadraticC0Averaged", "kCubicC0", "kCubicC1", "kCubicC1Monotonic"};
    Corvid::String name;
    for (int n = 0; n < 4; ++n) {
        cubicOver(volume, kCubicModes[n]).interpolationModeName(name);
        EXPECT_EQ(name, names[n]);
    }
    cubicOver(volume, kNoCubicMode).interpolationModeName(name);
    EXPECT_EQ(name, "kError");
}

TYPED_TEST(CubicSampling, with_a_number_without_a_mode_gives_zero_away_from_jumps)
{
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    EXPECT_EQ(cubicOver(volume, kNoCubicMode).sampleCubic(float3(0.5f, 0.5f, 0.5f), this->D, kTileSpace), 0);
}

TYPED_TEST(CubicSampling, follows_the_tree_when_it_has_grown)
{
    using Set = TileSet<TypeParam>;
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 1), noise, 7, 9.0f);
    const auto sampler = cubicOver(volume, CubicMode::kCubicC1);
    const float3 p(TypeParam::width - 0.5f, 0.5f, 0.5f);
    const float before = sampler.sampleCubic(p, this->D, kTileSpace);
    const Place origin = Set::keyAt({0, 0, 0}, this->D).low;
    auto accessor = volume.tree.tileAccessor();
    const int w = TypeParam::width;
    accessor.addTiles(toInt3(origin) - int3(2 * w), toInt3(origin) + int3(3 * w), this->D);
    volume.channel.updateTilesAdded(volume.tree);
    const float after = sampler.sampleCubic(p, this->D, kTileSpace);
    EXPECT_NE(before, after);
    EXPECT_EQ(after, cubicOver(volume, CubicMode::kCubicC1).sampleCubic(p, this->D, kTileSpace));
}

TYPED_TEST(CubicSampling, at_sites_agrees_with_a_linear_halo)
{
    const auto set = threeDepths<TypeParam>(5);
    for (int offset : {7, 0, 6}) {
        const CubicVolume<TypeParam> volume(set, noise, offset, 0.5f);
        const auto accessor = volume.tree.tileAccessor();
        const auto type = static_cast<VoxelOffsetType>(offset);
        constexpr int W = TypeParam::width;
        TileData<float, W, 1> halo((W + 2) * (W + 2) * (W + 2));
        for (int64 n = 0; n < volume.tree.tileCount(-1); n += 7) {
            auto const& tile = volume.tree.tile(n);
            setHaloTile<TypeParam, float, 0, 1, 0, 0>(tile.treeIndex(), volume.channel, kHaloLinear, kHaloAll, accessor, halo, 0.5f, 1, type);
            for (int e = 0; e < halo.size(); e += 3) {
                const int3 voxel = cubeIndex(W + 2, e) - int3(1);
                const int3 place = tile.tijk() + tile.voxelDataWidth() * voxel;
                ASSERT_EQ((CubicSampler<TypeParam, float>::getVoxelValueAtTijk(place, tile.depth(), type, volume.channel, accessor)), halo(e));
            }
        }
    }
}

/// All values at 3000 positions, by copies of one sampler.
template <class Tr> std::vector<float> sampleAll(CubicSampler<Tr, float> const& prototype, double reach)
{
    constexpr int kCount = 3000;
    std::vector<float> values(kCount);
    parallel::forRanges(0, kCount, 64, [&](int64 begin, int64 end) {
        const auto sampler = prototype;
        for (int64 n = begin; n < end; ++n) {
            Random random(static_cast<std::uint64_t>(n));
            values[static_cast<std::size_t>(n)] = sampler.sampleCubic(randomPosition(random, reach), Tr::maxDepth, kTileSpace);
        }
    });
    return values;
}

TYPED_TEST(CubicSampling, gives_the_same_bytes_on_any_number_of_threads)
{
    const CubicVolume<TypeParam> volume(threeDepths<TypeParam>(6), noise);
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical})
        for (int64 cache : {0, 4}) {
            const auto prototype = cubicOver(volume, CubicMode::kCubicC1, true, policy, cache);
            std::vector<float> first;
            for (int threads : kThreadCounts)
                parallel::runJob(nullptr, threads, [&] {
                    const auto values = sampleAll(prototype, 1.4 * this->coarse());
                    if (first.empty()) first = values;
                    EXPECT_EQ(std::memcmp(values.data(), first.data(), first.size() * sizeof(float)), 0) << threads;
                });
        }
}

/// Every component is read as a channel of its own would be: the same bits for floats.
template <class Tr, class T> void compareComponents(TileSet<Tr> const& set, double reach)
{
    using Element = Ostara::Math::ElementTraits<T>;
    using S = typename Element::Scalar;
    CubicVolume<Tr, T> volume(set, noise);
    const CubicVolume<Tr, S> plain(set, noise);
    // Component c holds c + 1 times the noise, halved often enough to stay exact: powers of two.
    for (int d = 0; d <= Tr::maxDepth; ++d)
        for (int64 n = 0; n < volume.tree.tileCount(d); ++n)
            for (T& v : volume.channel.tileData(n, d).vector())
                for (int c = 0; c < Element::components; ++c) Element::at(v, c) *= S(1 << (c % 4));
    for (JumpPolicy policy : {JumpPolicy::kTrilinearAtJump, JumpPolicy::kHierarchical})
        for (CubicMode mode : kCubicModes) {
            const auto sampler = cubicOver(volume, mode, true, policy);
            const auto scalar = cubicOver(plain, mode, true, policy);
            Random random(11);
            for (int n = 0; n < 100; ++n) {
                const float3 p = randomPosition(random, reach);
                const T value = sampler.sampleCubic(p, Tr::maxDepth, kTileSpace);
                const S expected = scalar.sampleCubic(p, Tr::maxDepth, kTileSpace);
                for (int c = 0; c < Element::components; ++c)
                    ASSERT_EQ(Element::at(value, c), expected * S(1 << (c % 4))) << elementTypeName<T>() << " " << c;
            }
        }
}

TYPED_TEST(CubicSampling, reads_all_element_types)
{
    const auto set = threeDepths<TypeParam>(7);
    const double reach = 1.4 * this->coarse();
    [&]<class... Ts>(TypeList<Ts...>) {
        (compareComponents<TypeParam, Ts>(set, reach), ...);
    }(TypeList<double, Ostara::Math::double3, Ostara::Math::float2, float3, Ostara::Math::float3x3, Ostara::Math::float4,
               Ostara::Math::float4x2, Ostara::Math::float4x4>());
    // A double keeps more digits than a float; the fractions are floats in both.
    const CubicVolume<TypeParam, double> fine(set, noise);
    const CubicVolume<TypeParam> plain(set, noise);
    Random random(12);
    for (int n = 0; n < 200; ++n) {
        const float3 p = randomPosition(random, reach);
        EXPECT_NEAR(cubicOver(fine, CubicMode::kCubicC0).sampleCubic(p, this->D, kTileSpace),
                    cubicOver(plain, CubicMode::kCubicC0).sampleCubic(p, this->D, kTileSpace), kNoiseBound);
    }
}

}  // namespace
}  // namespace tilegrid::test
