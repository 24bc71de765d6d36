#include "sampling/sampled_volume.h"

#include "TilegridOps/substrate/halo.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> struct LinearSampling : ::testing::Test {};
TYPED_TEST_SUITE(LinearSampling, Structures, StructureNames);

constexpr VoxelOffsetType kAllOffsets[] = {kCenter, kFaceX, kFaceY, kEdgeZ, kFaceZ, kEdgeY, kEdgeX, kCorner};

/// Half the width of `refinedBox` less a coarse voxel: closer to its end stencils meet places without a tile.
template <class Tr> double reachOfBox()
{
    constexpr int coarse = Tr::maxDepth - (Tr::branching == 2 ? 4 : 2);
    return double(TileSet<Tr>::tileWidth(coarse) - 2 * TileSet<Tr>::voxelWidth(coarse));
}
/// Largest size of a linear field in reach of the sites of `refinedBox`.
template <class Tr> double largestInBox(LinearField const& f)
{
    constexpr int coarse = Tr::maxDepth - (Tr::branching == 2 ? 4 : 2);
    const double end = double(TileSet<Tr>::tileWidth(coarse));
    return std::fabs(f.atOrigin) + end * (std::fabs(f.gradient[0]) + std::fabs(f.gradient[1]) + std::fabs(f.gradient[2]));
}

TYPED_TEST(LinearSampling, reproduces_a_linear_field_with_its_gradient_across_jumps)
{
    using Tr = TypeParam;
    const LinearField field;
    // What is left is rounding in some products of the field's size.
    const double tolerance = 8 * double(kEpsilon) * largestInBox<Tr>(field);
    for (bool graded : {true, false}) {
        const auto set = refinedBox<Tr>(graded ? 1 : 2, graded);
        const auto positions = positionsIn<Tr>(set, 3, 4000, Tr::maxDepth - 3, reachOfBox<Tr>());
        for (VoxelOffsetType offset : kAllOffsets) {
            const SampledVolume<Tr> volume(set, offset, field.voxels<Tr>(offset));
            const auto sampler = volume.sampler();
            double worst = 0, worstGradient = 0;
            for (float3 const& p : positions) {
                worst = std::max(worst, std::fabs(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace) - field(toPoint(p))));
                float3 gradient;
                const float value = sampler.sampleLinearWithGradient(p, Tr::maxDepth, kTileSpace, gradient);
                ASSERT_TRUE(sameBits(value, sampler.sampleLinear(p, Tr::maxDepth, kTileSpace)));
                for (int a = 0; a < 3; ++a) worstGradient = std::max(worstGradient, std::fabs(gradient[a] - field.gradient[a]));
            }
            EXPECT_LE(worst, tolerance) << (graded ? "graded" : "ungraded") << ", offset " << offset;
            // A difference of two values, over a voxel at least 1 wide.
            EXPECT_LE(worstGradient, 2 * tolerance) << (graded ? "graded" : "ungraded") << ", offset " << offset;
        }
    }
}

TYPED_TEST(LinearSampling, agrees_with_a_brute_force_reader_in_double)
{
    using Tr = TypeParam;
    for (bool graded : {true, false})
        for (VoxelOffsetType offset : {kCorner, kCenter, kFaceX, kEdgeY}) {
            const auto set = refinedBox<Tr>(graded ? 11 : 12, graded);
            const SampledVolume<Tr> volume(set, offset, noise);
            const auto sampler = volume.sampler();
            SampleOracle<Tr> oracle(set, offset);
            int compared = 0;
            for (float3 const& p : positionsIn<Tr>(set, 13, 1500, Tr::maxDepth - 4, 1e9)) {
                const auto expected = oracle.at(toPoint(p));
                if (std::isnan(expected.value)) continue;
                ++compared;
                // Per axis a difference of up to 2 times a fraction that three roundings of up to W made; then the mixes.
                const double tolerance = kEpsilon * (3 * 2 * 1.5 * Tr::width + 9 * (expected.levels + 1));
                ASSERT_NEAR(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace), expected.value, tolerance) << p << " offset " << offset;
            }
            EXPECT_GT(compared, 1000);
        }
}

TYPED_TEST(LinearSampling, agrees_with_brute_force_on_random_trees_up_to_the_border_of_tile_space)
{
    using Tr = TypeParam;
    const auto set = randomSet<Tr>(21, 40, false);
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        const SampledVolume<Tr> volume(set, offset, noise);
        const auto sampler = volume.sampler();
        SampleOracle<Tr> oracle(set, offset);
        int compared = 0;
        for (float3 const& p : positionsIn<Tr>(set, 22, 800, 0, 1e9)) {
            const auto expected = oracle.at(toPoint(p));
            if (std::isnan(expected.value)) continue;
            ++compared;
            const double tolerance = kEpsilon * (3 * 2 * 1.5 * Tr::width + 9 * (expected.levels + 1));
            ASSERT_NEAR(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace), expected.value, tolerance) << p;
        }
        EXPECT_GT(compared, 500);
    }
}

TYPED_TEST(LinearSampling, gives_the_gradient_that_central_differences_of_a_brute_force_reader_give)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(31, true);
    constexpr float kVoxelSize = 0.125f;
    for (VoxelOffsetType offset : {kCorner, kCenter, kEdgeZ}) {
        const SampledVolume<Tr> volume(set, offset, noise, 0.0f, 0, Tr::maxDepth, kVoxelSize);
        const auto sampler = volume.sampler();
        SampleOracle<Tr> oracle(set, offset);
        int compared = 0;
        for (float3 const& p : positionsIn<Tr>(set, 32, 1500, Tr::maxDepth - 3, reachOfBox<Tr>())) {
            const auto here = oracle.at(toPoint(p));
            // Within one cell of one tile the form is linear along an axis: the difference is exact. Tiles meet where a fraction
            // is 0, or 0.5 for cell-centred samples.
            bool inside = !std::isnan(here.value);
            for (double f : here.fraction) inside = inside && f > 0.1 && f < 0.9 && std::fabs(f - 0.5) > 0.1;
            if (!inside) continue;
            ++compared;
            const double w = double(TileSet<Tr>::voxelWidth(here.tile->depth)), h = 0.05 * w;
            float3 gradient;
            sampler.sampleLinearWithGradient(kVoxelSize * p, Tr::maxDepth, kWorldSpace, gradient);
            for (int a = 0; a < 3; ++a) {
                Point low = toPoint(p), high = low;
                low[a] -= h;
                high[a] += h;
                const double expected = (oracle.at(high).value - oracle.at(low).value) / (2 * h * kVoxelSize);
                // Differences of up to 2 in place of values up to 1, mixed twice.
                const double tolerance = kEpsilon * (2 * 4 * 1.5 * Tr::width + 18 * (here.levels + 2)) / (w * kVoxelSize);
                ASSERT_NEAR(gradient[a], expected, tolerance) << p << " axis " << a << " offset " << offset;
            }
        }
        EXPECT_GT(compared, 100);
    }
}

TYPED_TEST(LinearSampling, of_corner_samples_is_continuous_where_a_fine_tile_ends_at_a_coarse_one)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(41, true);
    // Voxels with finer tiles hold what their descendants hold at the same place.
    VoxelFunction synced = [&](TileKey const& key, int i, int j, int k) {
        const std::int64_t w = TileSet<Tr>::voxelWidth(key.depth);
        const Place low{key.low[0] + i * w, key.low[1] + j * w, key.low[2] + k * w};
        const auto finest = set.find(low, Tr::maxDepth);
        std::array<int, 3> v;
        for (int a = 0; a < 3; ++a) v[a] = static_cast<int>((low[a] - finest->low[a]) / TileSet<Tr>::voxelWidth(finest->depth));
        return noise(*finest, v[0], v[1], v[2]);
    };
    const SampledVolume<Tr> volume(set, kCorner, synced);
    const auto sampler = volume.sampler();
    auto const& tree = volume.tree;
    const auto accessor = tree.tileAccessor();
    Random random(42);
    int faces = 0;
    for (OST::int64 n = 0; n < tree.tileCount(-1); ++n) {
        auto const& tile = tree.tile(n);
        if (tile.depth() < Tr::maxDepth - 2) continue;
        for (int a = 0; a < 3; ++a) {
            auto const& neighbor = accessor.tileNeighbor(tile, neighborDirection(a == 0, a == 1, a == 2));
            if (!neighbor.valid() || neighbor.depth() != tile.depth() - 1) continue;
            // Away from the tile's other high faces, where voxels of other fine tiles take part that hang on the coarse ones.
            float3 onFace;
            for (int b = 0; b < 3; ++b)
                onFace[b] = float(tile.tijk()[b]) + float(random.between(0, 64)) / 64 * float((Tr::width - 1) * tile.voxelDataWidth());
            onFace[a] = float(tile.tijk()[a] + tile.tileVoxelWidth());
            float3 below = onFace;
            below[a] = std::nextafter(onFace[a], -INFINITY);
            LocatedVoxel fine, coarse;
            ASSERT_TRUE(sampler.locateVoxel(below, kTileSpace, Tr::maxDepth, fine));
            ASSERT_TRUE(sampler.locateVoxel(onFace, kTileSpace, Tr::maxDepth, coarse));
            if (fine.treeIndex != tile.treeIndex() || coarse.treeIndex.depth != tile.depth() - 1) continue;
            ++faces;
            // The positions lie a rounding apart, with a slope of up to 2 per voxel.
            const double apart = double(onFace[a]) - double(below[a]);
            ASSERT_NEAR(sampler.sampleLinear(below, Tr::maxDepth, kTileSpace), sampler.sampleLinear(onFace, Tr::maxDepth, kTileSpace),
                        2 * apart + 3 * 2 * 1.5 * Tr::width * kEpsilon)
                << onFace << " axis " << a;
        }
    }
    EXPECT_GT(faces, 20);
}

TYPED_TEST(LinearSampling, does_not_depend_on_earlier_queries_ways_copies_or_batches)
{
    using Tr = TypeParam;
    for (VoxelOffsetType offset : {kCorner, kCenter, kFaceZ}) {
        const auto set = refinedBox<Tr>(51, false);
        const SampledVolume<Tr> volume(set, offset, noise, 0.25f);
        const auto positions = positionsIn<Tr>(set, 52, 1501, Tr::maxDepth - 4, 1e9);
        const auto one = volume.sampler();
        const auto ten = volume.template sampler<10>();
        LinearSampler<Tr> assigned;
        std::vector<float> batch(positions.size()), expected(positions.size());
        for (std::size_t n = 0; n < positions.size(); ++n) expected[n] = one.sampleLinear(positions[n], Tr::maxDepth, kTileSpace);
        volume.sampler().sampleLinearBatch(positions.data(), positions.size(), Tr::maxDepth, kTileSpace, batch.data());
        for (std::size_t n = positions.size(); n-- > 0;) {
            SCOPED_TRACE(n);
            ASSERT_TRUE(sameBits(volume.sampler().sampleLinear(positions[n], Tr::maxDepth, kTileSpace), expected[n])) << "fresh";
            ASSERT_TRUE(sameBits(one.sampleLinear(positions[n], Tr::maxDepth, kTileSpace), expected[n])) << "backwards";
            ASSERT_TRUE(sameBits(ten.sampleLinear(positions[n], Tr::maxDepth, kTileSpace), expected[n])) << "ten ways";
            const LinearSampler<Tr> copy(one);
            ASSERT_TRUE(sameBits(copy.sampleLinear(positions[n], Tr::maxDepth, kTileSpace), expected[n])) << "copy";
            if (n % 64 == 0 || n + 1 == positions.size()) assigned = one;
            ASSERT_TRUE(sameBits(assigned.sampleLinear(positions[n], Tr::maxDepth, kTileSpace), expected[n])) << "assigned";
            ASSERT_TRUE(sameBits(batch[n], expected[n])) << "batch";
        }
    }
}

TYPED_TEST(LinearSampling, takes_shortcuts_that_give_the_bits_of_the_halo)
{
    using Tr = TypeParam;
    constexpr int W = Tr::width;
    for (VoxelOffsetType offset : {kCorner, kCenter, kEdgeX}) {
        const auto set = refinedBox<Tr>(61, true);
        const SampledVolume<Tr> volume(set, offset, noise);
        const auto sampler = volume.sampler();
        HaloCache<Tr, float> cache(1);
        OST::uint64 query = 0;
        int across = 0;
        for (float3 const& p : positionsIn<Tr>(set, 62, 2000, Tr::maxDepth - 3, 1e9)) {
            LocatedVoxel at;
            ASSERT_TRUE(sampler.locateVoxel(p, kTileSpace, Tr::maxDepth, at));
            float const* halo = cache.fetch(at.treeIndex, ++query, {*volume.channel, volume.tree, offset});
            const int row = offset == kCorner ? W + 1 : W + 2, low = offset == kCorner ? 0 : 1;
            const detail::Trilinear<float> mix(
                [&](int n) {
                    return halo[flatIndex(row, at.lijk.x + low + (n & 1), at.lijk.y + low + (n >> 1 & 1), at.lijk.z + low + (n >> 2))];
                },
                at.frac);
            ASSERT_TRUE(sameBits(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace), mix.value(at.frac))) << p << " offset " << offset;
            across += std::max({at.lijk.x, at.lijk.y, at.lijk.z}) == W - 1 && !sampler.holdsHalo(at.treeIndex);
        }
        EXPECT_GT(across, 50) << "the read across tiles was taken";
    }
}

TYPED_TEST(LinearSampling, of_a_compressed_halo_channel_gives_the_bits_of_the_source)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(71, true);
    const SampledVolume<Tr> volume(set, kCorner, noise, 0.5f);
    using Halo = Channel<Tr, float, Tr::width + 1, 0>;
    const float value = 0.5f;
    Halo halo("halo", &value, kInitializeNone, false, true, 0, Tr::maxDepth);
    halo.updateTilesAdded(volume.tree);
    computeHalo<Tr, float, 0, 0, 1, 0>(*volume.channel, volume.tree, halo, -1, -1);
    const auto source = volume.sampler();
    const LinearSampler<Tr> compressed(volume.tree, volume.topology, &halo);
    const auto positions = positionsIn<Tr>(set, 72, 2001, 0, 1e9);
    std::vector<float> batch(positions.size());
    compressed.sampleLinearBatch(positions.data(), positions.size(), Tr::maxDepth, kTileSpace, batch.data());
    for (std::size_t n = 0; n < positions.size(); ++n) {
        float3 a, b;
        const float expected = source.sampleLinearWithGradient(positions[n], Tr::maxDepth, kTileSpace, a);
        ASSERT_TRUE(sameBits(compressed.sampleLinearWithGradient(positions[n], Tr::maxDepth, kTileSpace, b), expected)) << positions[n];
        ASSERT_TRUE(sameBits(batch[n], expected)) << positions[n];
        ASSERT_TRUE(a == b);
    }
}

TYPED_TEST(LinearSampling, of_a_compressed_halo_channel_never_reads_below_a_tile)
{
    using Tr = TypeParam;
    TileSet<Tr> set;
    set.add({0, 0, 0}, Tr::maxDepth);
    const SampledVolume<Tr> volume(set, kCenter, [](TileKey const&, int i, int j, int k) { return 1 + i + 10 * j + 100 * k; });
    Channel<Tr, float, Tr::width + 1, 0> halo("halo", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    halo.updateTilesAdded(volume.tree);
    computeHalo<Tr, float, 0, 0, 1, 0>(*volume.channel, volume.tree, halo, -1, -1);
    const LinearSampler<Tr> sampler(volume.tree, volume.topology, &halo);
    const TileKey key = TileSet<Tr>::keyAt({0, 0, 0}, Tr::maxDepth);
    const float3 low(float(key.low[0]), float(key.low[1]), float(key.low[2]));
    EXPECT_EQ(sampler.sampleLinear(low, Tr::maxDepth, kTileSpace), 1.0f);
    EXPECT_EQ(sampler.sampleLinear(low + float3(1.0f, 0.25f, 0.5f), Tr::maxDepth, kTileSpace), 1.5f);
}

TYPED_TEST(LinearSampling, of_a_one_layer_channel_gives_the_bits_of_the_source)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(81, true);
    for (VoxelOffsetType offset : {kCenter, kFaceY}) {
        const SampledVolume<Tr> volume(set, offset, noise, 0.5f);
        const float outside = 0.5f;
        Channel<Tr, float, Tr::width, 1> halo("halo", &outside, kInitializeNone, false, true, 0, Tr::maxDepth);
        halo.updateTilesAdded(volume.tree);
        HaloCache<Tr, float> cache(1);
        for (OST::int64 n = 0; n < volume.tree.tileCount(-1); ++n) {
            const TreeIndex tile = volume.tree.tile(n).treeIndex();
            const auto to = halo.tileData(tile);
            std::copy_n(cache.fetch(tile, OST::uint64(n), {*volume.channel, volume.tree, offset}), to.size(), to.begin());
        }
        const auto source = volume.sampler();
        const OneLayerSampler<Tr> layered(volume.tree, volume.topology, &halo);
        const OneLayerSampler<Tr> layeredOnSource(volume.tree, volume.topology, volume.channel.get());
        for (float3 const& p : positionsIn<Tr>(set, 82, 2000, 0, 1e9)) {
            const float expected = source.sampleLinear(p, Tr::maxDepth, kTileSpace);
            ASSERT_TRUE(sameBits(layered.sampleLinear(p, Tr::maxDepth, kTileSpace), expected)) << p;
            ASSERT_TRUE(sameBits(layeredOnSource.sampleLinear(p, Tr::maxDepth, kTileSpace), expected)) << p;
        }
    }
}

TYPED_TEST(LinearSampling, gives_the_same_bytes_on_1_2_and_8_threads)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(91, false);
    const auto positions = positionsIn<Tr>(set, 92, 4000, 0, 1e9);
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        const SampledVolume<Tr> volume(set, offset, noise);
        const auto prototype = volume.sampler();
        const auto run = [&](int threads) {
            std::vector<std::array<std::uint32_t, 5>> bits(positions.size());
            parallel::runJob(nullptr, threads, [&] {
                parallel::forRanges(0, std::int64_t(positions.size()), 64, [&](std::int64_t begin, std::int64_t end) {
                    const auto sampler = prototype;
                    for (std::int64_t n = begin; n < end; ++n) {
                        float3 const& p = positions[std::size_t(n)];
                        float3 g;
                        const float value = sampler.sampleLinear(p, Tr::maxDepth, kTileSpace);
                        const float again = sampler.sampleLinearWithGradient(p, Tr::maxDepth, kTileSpace, g);
                        for (int c = 0; float v : {value, again, g.x, g.y, g.z}) bits[std::size_t(n)][c++] = std::bit_cast<std::uint32_t>(v);
                    }
                });
            });
            return bits;
        };
        const auto expected = run(1);
        for (int threads : {2, 8}) EXPECT_EQ(run(threads), expected) << threads << " threads, offset " << offset;
    }
}

}  // namespace
}  // namespace tilegrid::test
