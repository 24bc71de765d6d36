// Samples in the middle of voxels where a fine tile ends at a coarse one: both sides see one field.
#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/substrate/halo.h"
#include "sampling/sampled_volume.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

/// Values are up to 1, so this is some 16 roundings.
constexpr double kSame = 1e-6;

/// A tile and the direction of a face neighbour that is one depth coarser.
struct Jump {
    TreeIndex tile;
    int axis, side;
};
template <class Tr> std::vector<Jump> jumpsOf(Tree<Tr> const& tree)
{
    std::vector<Jump> jumps;
    const auto accessor = tree.tileAccessor();
    for (OST::int64 n = 0; n < tree.tileCount(-1); ++n) {
        auto const& tile = tree.tile(n);
        // Close enough to the origin that floats hold all positions that are used.
        if (tile.depth() < Tr::maxDepth - 2) continue;
        for (int axis = 0; axis < 3; ++axis)
            for (int side : {-1, 1}) {
                int3 step(0);
                step[axis] = side;
                auto const& beside = accessor.tileNeighbor(tile, neighborDirection(step.x, step.y, step.z));
                if (beside.valid() && beside.depth() == tile.depth() - 1) jumps.push_back({tile.treeIndex(), axis, side});
            }
    }
    return jumps;
}

/// Position of the sample of voxel `ijk` of a tile (from -1 to W per axis).
template <class Tr> float3 siteOf(typename Tree<Tr>::Tile const& tile, int3 const& ijk)
{
    const double w = tile.voxelDataWidth();
    float3 p;
    for (int a = 0; a < 3; ++a) p[a] = float(double(tile.tijk()[a]) + w * (ijk[a] + 0.5));
    return p;
}

/// Calls `visit(ijk)` for the W x W voxels beside the face that have `depthwise` along its axis.
template <class Tr, class Visit> void forFace(Jump const& jump, int depthwise, Visit const& visit)
{
    for (int v = 0; v < Tr::width; ++v)
        for (int u = 0; u < Tr::width; ++u) {
            int3 ijk;
            ijk[jump.axis] = depthwise;
            ijk[(jump.axis + 1) % 3] = u;
            ijk[(jump.axis + 2) % 3] = v;
            visit(ijk);
        }
}

template <class Tr> class CentreJumps : public ::testing::Test {};
TYPED_TEST_SUITE(CentreJumps, Structures, StructureNames);

TYPED_TEST(CentreJumps, hold_in_the_halo_of_the_fine_tile_what_samplers_read_in_the_coarse_one)
{
    using Tr = TypeParam;
    using Cubic = VoxelSamplerCubic<Tr, float, float, float3, 0, 0>;
    constexpr int W = Tr::width;
    for (std::uint64_t seed : {1, 2}) {
        const SampledVolume<Tr> volume(refinedBox<Tr>(seed, true), kCenter, noise);
        const auto sampler = volume.sampler();
        const auto accessor = volume.tree.tileAccessor();
        HaloCache<Tr, float> cache(1);
        OST::uint64 query = 0;
        TileData<float, W, 1> halo((W + 2) * (W + 2) * (W + 2));
        int compared = 0;
        for (Jump const& jump : jumpsOf(volume.tree)) {
            auto const& tile = volume.tree.tile(jump.tile);
            setHaloTile<Tr, float, 0, 1, 0, 0>(jump.tile, *volume.channel, kHaloLinear, kHaloAll, accessor, halo, 0.0f, 1.0f, kCenter);
            float const* layer = cache.fetch(jump.tile, ++query, {*volume.channel, volume.tree, kCenter});
            forFace<Tr>(jump, jump.side < 0 ? -1 : W, [&](int3 const& ijk) {
                const float3 p = siteOf<Tr>(tile, ijk);
                LocatedVoxel at;
                ASSERT_TRUE(sampler.locateVoxel(p, kTileSpace, Tr::maxDepth, at));
                // A finer tile may lie in a part of the coarse one.
                if (at.treeIndex.depth != jump.tile.depth - 1) return;
                ++compared;
                const double coarse = sampler.sampleLinear(p, Tr::maxDepth, kTileSpace);
                ASSERT_NEAR(halo(ijk.x, ijk.y, ijk.z), coarse, kSame) << p;
                ASSERT_NEAR(layer[flatIndex(W + 2, ijk.x + 1, ijk.y + 1, ijk.z + 1)], coarse, kSame) << p;
                const int3 place = tile.tijk() + tile.voxelDataWidth() * ijk;
                ASSERT_NEAR(Cubic::getVoxelValueAtTijk(place, jump.tile.depth, kCenter, *volume.channel, accessor), coarse, kSame) << p;
            });
        }
        EXPECT_GT(compared, 1000);
    }
}

TYPED_TEST(CentreJumps, are_crossed_without_a_step_where_fine_tiles_hold_no_more_detail_than_the_coarse_ones)
{
    using Tr = TypeParam;
    using Set = TileSet<Tr>;
    const Set set = refinedBox<Tr>(3, true);
    // Only the tiles of the coarsest depth of the box have values of their own; the others hold what is mixed from there.
    constexpr int D = Tr::maxDepth, coarse = D - (Tr::branching == 2 ? 4 : 2);
    SiteOracle<Tr> sites(set);
    sites.offset = kCenter;
    sites.maxDepth = coarse;
    sites.stepwise = true;
    VoxelFunction const voxel = [&](TileKey const& key, int i, int j, int k) {
        if (key.depth <= coarse) return noise(key, i, j, k);
        const std::int64_t w = Set::voxelWidth(key.depth);
        return sites.at({key.low[0] + i * w, key.low[1] + j * w, key.low[2] + k * w}, key.depth).value;
    };
    const SampledVolume<Tr> volume(set, kCenter, voxel);
    const auto sampler = volume.sampler();
    int crossed = 0;
    for (Jump const& jump : jumpsOf(volume.tree)) {
        if (jump.tile.depth <= coarse) continue;
        auto const& tile = volume.tree.tile(jump.tile);
        forFace<Tr>(jump, 0, [&](int3 const& ijk) {
            // At the samples of the face, so that only the axis across it mixes on the fine side.
            float3 high = siteOf<Tr>(tile, ijk);
            high[jump.axis] = float(tile.tijk()[jump.axis] + (jump.side < 0 ? 0 : tile.tileVoxelWidth()));
            float3 low = high;
            low[jump.axis] = std::nextafter(high[jump.axis], -INFINITY);
            LocatedVoxel above, below;
            ASSERT_TRUE(sampler.locateVoxel(high, kTileSpace, D, above));
            ASSERT_TRUE(sampler.locateVoxel(low, kTileSpace, D, below));
            LocatedVoxel const &fine = jump.side < 0 ? above : below, &other = jump.side < 0 ? below : above;
            if (fine.treeIndex != jump.tile || other.treeIndex.depth != jump.tile.depth - 1) return;
            ++crossed;
            // The positions lie a rounding apart, with a slope of up to 2 per coarse voxel.
            const double apart = (double(high[jump.axis]) - double(low[jump.axis])) * 2 / (Tr::branching * tile.voxelDataWidth());
            ASSERT_NEAR(sampler.sampleLinear(low, D, kTileSpace), sampler.sampleLinear(high, D, kTileSpace), kSame + apart)
                << high << ", axis " << jump.axis << ", side " << jump.side;
        });
    }
    EXPECT_GT(crossed, 500);
}

}  // namespace
}  // namespace tilegrid::test
