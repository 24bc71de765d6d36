#include "TilegridOps/sampling/linear_grid.h"
#include "sampling/sampled_volume.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> struct LinearGridReading : ::testing::Test {};
TYPED_TEST_SUITE(LinearGridReading, Structures, StructureNames);

/// Values without order, so that a wrong voxel shows.
template <class Tr> VoxelFunction noise()
{
    return [](TileKey const& key, int i, int j, int k) {
        std::uint64_t seed = std::uint64_t(std::uint32_t(key.low[0])) << 32 | std::uint32_t(key.low[1]);
        seed = Random::mixed(seed ^ Random::mixed(std::uint32_t(key.low[2]) + 64 * std::uint64_t(key.depth)));
        return double(Random::mixed(seed + std::uint64_t(i + 8 * j + 64 * k)) >> 40) * 0x1p-20 - 8.0;
    };
}

TYPED_TEST(LinearGridReading, gives_the_bits_of_single_places_across_jumps_and_above_the_lowest_depth)
{
    using Tr = TypeParam;
    constexpr float kOutside = 77.0f, kVoxel = 0.37f;
    for (bool graded : {true, false})
        for (int minDepth : {0, Tr::maxDepth - 1}) {
            const auto set = refinedBox<Tr>(graded ? 1 : 2, graded);
            const SampledVolume<Tr> volume(set, kCorner, noise<Tr>(), kOutside, minDepth, Tr::maxDepth, kVoxel);
            const auto sampler = volume.sampler();
            LinearGrid<Tr, float> grid(volume.tree, *volume.channel);
            Random random(5);
            const auto reach = 2 * TileSet<Tr>::tileWidth(Tr::maxDepth - (Tr::branching == 2 ? 4 : 2));
            int read = 0, outside = 0;
            for (int n = 0; n < 3000; ++n) {
                const int count = int(random.between(1, 5));
                const float step = kVoxel * float(random.between(1, 120)) / 100.0f;
                float3 low, along[5];
                for (int a = 0; a < 3; ++a) low[a] = kVoxel * (float(random.between(-reach, reach)) + float(random.below(64)) / 64.0f);
                for (int k = 0; k < count; ++k) along[k] = low + step * float3(float(k));
                float out[125];
                if (!grid.read(along, count, out)) continue;
                ++read;
                for (int flat = 0; flat < count * count * count; ++flat) {
                    const int3 at = cubeIndex(count, flat);
                    const float single = sampler.sampleLinear(float3(along[at.x].x, along[at.y].y, along[at.z].z));
                    outside += single == kOutside;
                    ASSERT_TRUE(sameBits(out[flat], single)) << single << " but " << out[flat];
                }
            }
            EXPECT_GT(read, 2000);
            EXPECT_GT(outside, minDepth > 0 ? 100 : -1);  // with all depths some tile, if only the root, has every place
        }
}

TYPED_TEST(LinearGridReading, declines_grids_that_are_too_wide_or_reach_out_of_tile_space)
{
    using Tr = TypeParam;
    const SampledVolume<Tr> volume(refinedBox<Tr>(1, true), kCorner, noise<Tr>());
    LinearGrid<Tr, float> grid(volume.tree, *volume.channel);
    float out[125];
    const auto reads = [&](float low, float step) {
        float3 along[3];
        for (int n = 0; n < 3; ++n) along[n] = float3(low + step * float(n));
        return grid.read(along, 3, out);
    };
    EXPECT_TRUE(reads(0.5f, 1.0f));
    EXPECT_FALSE(reads(0.5f, float(Tr::width)));
    EXPECT_FALSE(reads(2.0f * float(Tr::rangeMax), 1.0f));
    EXPECT_FALSE(reads(std::numeric_limits<float>::quiet_NaN(), 1.0f));
}

}  // namespace
}  // namespace tilegrid::test
