#include "sampling/sampled_volume.h"

#include "TilegridOps/sampling/field_sampler.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

template <class Tr> struct SamplerLimits : ::testing::Test {};
TYPED_TEST_SUITE(SamplerLimits, Structures, StructureNames);

template <class Tr> float3 cornerOf(TileKey const& key) { return {float(key.low[0]), float(key.low[1]), float(key.low[2])}; }

TYPED_TEST(SamplerLimits, a_request_deeper_than_the_channel_reads_the_deepest_depth_it_has)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(1, true);
    const int last = Tr::maxDepth - 1;
    const SampledVolume<Tr> whole(set, kCorner, noise), cut(set, kCorner, noise, 0.0f, 0, last);
    const auto wholeSampler = whole.sampler(), cutSampler = cut.sampler();
    int finer = 0;
    for (float3 const& p : positionsIn<Tr>(set, 2, 1000, Tr::maxDepth, 1e9)) {
        const float expected = wholeSampler.sampleLinear(p, last, kTileSpace);
        for (int depth : {last, last + 1, Tr::maxDepth, 1000}) ASSERT_TRUE(sameBits(cutSampler.sampleLinear(p, depth, kTileSpace), expected));
        finer += !sameBits(wholeSampler.sampleLinear(p, Tr::maxDepth, kTileSpace), expected);
    }
    EXPECT_GT(finer, 100) << "the deepest depth matters";
    if constexpr (Tr::branching == 2) {
        TileSet<Tr> deep;
        deep.add({0, 0, 0}, 28);
        const SampledVolume<Tr> to20(deep, kCorner, [](TileKey const& key, int, int, int) { return key.depth; }, -1.0f, 0, 20);
        // Half a voxel of depth 20 from the face, so that no neighbour of another depth takes part.
        EXPECT_EQ(to20.sampler().sampleLinear(float3(100, 100, 100), 28, kTileSpace), 20.0f);
    }
}

TYPED_TEST(SamplerLimits, a_tile_above_the_lowest_depth_gives_the_default_and_no_coarser_value)
{
    using Tr = TypeParam;
    constexpr int D = Tr::maxDepth;
    TileSet<Tr> set;
    set.add({0, 0, 0}, D);
    const SampledVolume<Tr> volume(set, kCorner, [](TileKey const&, int, int, int) { return 1.0; }, 7.5f, D - 1, D);
    const auto sampler = volume.sampler();
    const float3 middle = cornerOf<Tr>(TileSet<Tr>::keyAt({0, 0, 0}, D)) + float3(0.5f);
    float3 gradient(3.0f);
    EXPECT_EQ(sampler.sampleLinear(middle, D, kTileSpace), 1.0f);
    EXPECT_EQ(sampler.sampleLinear(middle, D - 2, kTileSpace), 7.5f);
    EXPECT_EQ(sampler.sampleLinear(middle, -1, kTileSpace), 7.5f);
    EXPECT_EQ(sampler.sampleLinear(middle, -100, kTileSpace), 7.5f);
    EXPECT_EQ(sampler.sampleLinearWithGradient(middle, D - 2, kTileSpace, gradient), 7.5f);
    EXPECT_TRUE(gradient == float3(0));
    const float far = float(10 * TileSet<Tr>::tileWidth(D - 2));
    EXPECT_EQ(sampler.sampleLinear(float3(far), D, kTileSpace), 7.5f) << "only coarser tiles there";
}

/// Single finest tiles without neighbours, two tiles of two depths above apart.
template <class Tr> TileSet<Tr> singleTiles(int count)
{
    TileSet<Tr> set;
    for (int n = 0; n < count; ++n) set.add({2 * n * TileSet<Tr>::tileWidth(Tr::maxDepth - 2), 0, 0}, Tr::maxDepth);
    return set;
}
/// A position whose stencil leaves the n-th of them, and its tile.
template <class Tr> float3 atEdgeOf(int n)
{
    const TileKey key = TileSet<Tr>::keyAt({2 * n * TileSet<Tr>::tileWidth(Tr::maxDepth - 2), 0, 0}, Tr::maxDepth);
    return cornerOf<Tr>(key) + float3(Tr::width - 0.5f, 0.5f, 0.5f);
}

TYPED_TEST(SamplerLimits, of_ten_ways_free_entries_go_first_and_then_the_one_with_the_oldest_stamp)
{
    using Tr = TypeParam;
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        const SampledVolume<Tr> volume(singleTiles<Tr>(12), offset, noise);
        const auto sampler = volume.template sampler<10>();
        const auto tile = [&](int n) {
            LocatedVoxel at;
            EXPECT_TRUE(sampler.locateVoxel(atEdgeOf<Tr>(n), kTileSpace, Tr::maxDepth, at));
            EXPECT_EQ(at.treeIndex.depth, Tr::maxDepth);
            return at.treeIndex;
        };
        const auto ask = [&](int n) { sampler.sampleLinear(atEdgeOf<Tr>(n) + float3(0.25f, 0, 0), Tr::maxDepth, kTileSpace); };
        const auto held = [&] {
            std::vector<int> list;
            for (int n = 0; n < 12; ++n)
                if (sampler.holdsHalo(tile(n))) list.push_back(n);
            return list;
        };
        using List = std::vector<int>;
        EXPECT_EQ(held(), List());
        for (int n = 0; n < 10; ++n) ask(n);
        EXPECT_EQ(held(), (List{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
        ask(0);  // now the youngest
        ask(2);
        ask(10);
        EXPECT_EQ(held(), (List{0, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
        ask(11);
        EXPECT_EQ(held(), (List{0, 2, 4, 5, 6, 7, 8, 9, 10, 11}));
        ask(1);
        EXPECT_EQ(held(), (List{0, 1, 2, 5, 6, 7, 8, 9, 10, 11}));
        const auto copy = sampler;
        for (int n = 0; n < 12; ++n) EXPECT_FALSE(copy.holdsHalo(tile(n))) << "a copy starts empty";
    }
}

TYPED_TEST(SamplerLimits, of_one_way_the_last_tile_stays)
{
    using Tr = TypeParam;
    const SampledVolume<Tr> volume(singleTiles<Tr>(3), kCorner, noise);
    const auto sampler = volume.sampler();
    for (int n : {0, 1, 2, 2, 0}) {
        sampler.sampleLinear(atEdgeOf<Tr>(n), Tr::maxDepth, kTileSpace);
        for (int m = 0; m < 3; ++m) {
            LocatedVoxel at;
            ASSERT_TRUE(sampler.locateVoxel(atEdgeOf<Tr>(m), kTileSpace, Tr::maxDepth, at));
            EXPECT_EQ(sampler.holdsHalo(at.treeIndex), m == n);
        }
    }
}

TYPED_TEST(SamplerLimits, no_halo_is_made_for_stencils_within_tiles_of_one_depth)
{
    using Tr = TypeParam;
    using Set = TileSet<Tr>;
    const std::int64_t w = Set::tileWidth(Tr::maxDepth);
    Set set;
    set.addBox({-2 * w, -2 * w, -2 * w}, {2 * w, 2 * w, 2 * w}, Tr::maxDepth);
    for (VoxelOffsetType offset : {kCorner, kCenter, kEdgeY}) {
        const SampledVolume<Tr> volume(set, offset, noise);
        const auto sampler = volume.sampler();
        Random random(4);
        for (int n = 0; n < 1000; ++n) {
            float3 p;
            for (int a = 0; a < 3; ++a) p[a] = float(random.between(-1000 * w, 1000 * w)) / 1000;
            if (n % 4 == 0) p[random.below(3)] = std::nextafter(0.0f, n % 8 ? -1.0f : 1.0f);
            sampler.sampleLinear(p, Tr::maxDepth, kTileSpace);
        }
        // 1e-6 below the low corner of a tile.
        const TileKey key = Set::keyAt({0, 0, 0}, Tr::maxDepth);
        const float corner = float(key.low[0]);
        const float below = sampler.sampleLinear(float3(corner - 1e-6f, corner, corner), Tr::maxDepth, kTileSpace);
        const float at = sampler.sampleLinear(float3(corner), Tr::maxDepth, kTileSpace);
        EXPECT_NEAR(below, at, 2 * 1e-6 + 3 * 2 * 1.5 * Tr::width * kEpsilon);
        for (OST::int64 n = 0; n < volume.tree.tileCount(-1); ++n) ASSERT_FALSE(sampler.holdsHalo(volume.tree.tile(n).treeIndex()));
    }
}

TYPED_TEST(SamplerLimits, positions_that_are_no_place_give_the_default_and_no_gradient)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(5, true);
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        const SampledVolume<Tr> volume(set, offset, noise, -3.5f);
        const auto sampler = volume.sampler();
        std::vector<float3> positions;
        for (float bad : {NAN, INFINITY, -INFINITY, 3e38f, -3e38f, 1e10f, -1e10f})
            for (int a = 0; a < 3; ++a) {
                float3 p(0.5f);
                p[a] = bad;
                positions.push_back(p);
            }
        std::vector<float> batch(positions.size());
        sampler.sampleLinearBatch(positions.data(), positions.size(), Tr::maxDepth, kWorldSpace, batch.data());
        for (std::size_t n = 0; n < positions.size(); ++n) {
            float3 gradient(1.0f);
            EXPECT_EQ(sampler.sampleLinear(positions[n]), -3.5f);
            EXPECT_EQ(sampler.sampleLinearWithGradient(positions[n], Tr::maxDepth, kTileSpace, gradient), -3.5f);
            EXPECT_TRUE(gradient == float3(0));
            EXPECT_EQ(batch[n], -3.5f);
        }
    }
}

TYPED_TEST(SamplerLimits, values_that_are_no_numbers_reach_only_stencils_that_hold_them)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(6, true);
    const VoxelFunction one = [](TileKey const&, int, int, int) { return 1.0; };
    SampledVolume<Tr> volume(set, kCorner, one);
    const TreeIndex tile{0, Tr::maxDepth};
    volume.channel->tileData(tile)(1, 1, 1) = NAN;
    const float3 corner = cornerOf<Tr>(keyOf(volume.tree.tile(tile)));
    const auto sampler = volume.sampler();
    EXPECT_TRUE(std::isnan(sampler.sampleLinear(corner + float3(1.25f), Tr::maxDepth, kTileSpace)));
    EXPECT_EQ(sampler.sampleLinear(corner + float3(2.25f), Tr::maxDepth, kTileSpace), 1.0f);
}

TYPED_TEST(SamplerLimits, a_voxel_size_of_zero_reads_the_origin_and_has_no_gradient)
{
    using Tr = TypeParam;
    TileSet<Tr> set;
    set.add({0, 0, 0}, Tr::maxDepth);
    const SampledVolume<Tr> volume(set, kCorner, noise, 0.0f, 0, Tr::maxDepth, 0.0f);
    const auto sampler = volume.sampler();
    const float expected = sampler.sampleLinear(float3(0), Tr::maxDepth, kTileSpace);
    for (float3 const& p : {float3(0), float3(5, -1e20f, 3), float3(-7)}) {
        float3 gradient(1.0f);
        EXPECT_EQ(sampler.sampleLinear(p), expected);
        EXPECT_EQ(sampler.sampleLinearWithGradient(p, Tr::maxDepth, kWorldSpace, gradient), expected);
        EXPECT_TRUE(gradient == float3(0));
    }
    for (float size : {-1.0f, float(NAN), float(INFINITY), 1e-45f}) {
        const SampledVolume<Tr> odd(set, kCorner, noise, 0.0f, 0, Tr::maxDepth, size);
        odd.sampler().sampleLinear(float3(1, 2, 3));  // anything, but it ends
    }
}

TYPED_TEST(SamplerLimits, an_empty_tree_a_null_channel_and_no_volume_at_all_give_the_default)
{
    using Tr = TypeParam;
    const SampledVolume<Tr> empty(TileSet<Tr>(), kCorner, noise, 2.5f);
    EXPECT_EQ(empty.sampler().sampleLinear(float3(0)), 2.5f);
    const auto set = refinedBox<Tr>(7, true);
    const SampledVolume<Tr> volume(set, kCenter, noise, 2.5f);
    const LinearSampler<Tr> noSource(volume.tree, volume.topology, static_cast<typename LinearSampler<Tr>::SourceChannel const*>(nullptr));
    const LinearSampler<Tr> noHalo(volume.tree, volume.topology, static_cast<typename LinearSampler<Tr>::HaloChannel const*>(nullptr));
    LinearSampler<Tr> none;
    LinearSampler<Tr> const* const withoutChannel[] = {&noSource, &noHalo, &none};
    for (auto const* sampler : withoutChannel) {
        float3 gradient(1.0f);
        EXPECT_EQ(sampler->sampleLinear(float3(1, 2, 3)), 0.0f);
        EXPECT_EQ(sampler->sampleLinearWithGradient(float3(1, 2, 3), Tr::maxDepth, kTileSpace, gradient), 0.0f);
        EXPECT_TRUE(gradient == float3(0));
    }
    none = volume.sampler();
    EXPECT_TRUE(sameBits(none.sampleLinear(float3(1, 2, 3)), volume.sampler().sampleLinear(float3(1, 2, 3))));
}

TYPED_TEST(SamplerLimits, a_channel_that_was_not_told_of_new_tiles_gives_the_default_there)
{
    using Tr = TypeParam;
    TileSet<Tr> set;
    set.add({0, 0, 0}, Tr::maxDepth);
    SampledVolume<Tr> volume(set, kCorner, noise, 2.5f);
    const float far = 4.5f * float(TileSet<Tr>::tileWidth(Tr::maxDepth));
    volume.tree.tileAccessor().addTile(int(far), 0, 0, Tr::maxDepth);
    EXPECT_EQ(volume.sampler().sampleLinear(float3(far, 0.5f, 0.5f)), 2.5f);
}

TYPED_TEST(SamplerLimits, a_tree_of_its_root_reaches_the_default_at_its_end)
{
    using Tr = TypeParam;
    TileSet<Tr> set;
    set.add({0, 0, 0}, 0);
    const VoxelFunction one = [](TileKey const&, int, int, int) { return 1.0; };
    const SampledVolume<Tr> corner(set, kCorner, one, 3.0f);
    const float low = float(TileSet<Tr>::rangeMin), w = float(TileSet<Tr>::voxelWidth(0));
    EXPECT_EQ(corner.sampler().sampleLinear(float3(0.5f * w), Tr::maxDepth, kTileSpace), 1.0f);
    // Half way from the last sample to the end of tile space.
    EXPECT_NEAR(corner.sampler().sampleLinear(float3(low + (Tr::width - 0.5f) * w, 0, 0), Tr::maxDepth, kTileSpace), 2.0f, 32 * kEpsilon);
}

TYPED_TEST(SamplerLimits, cell_centred_samples_meet_the_default_at_the_low_faces_of_a_lone_tile)
{
    using Tr = TypeParam;
    constexpr int D = Tr::maxDepth;
    TileSet<Tr> set;
    set.add({0, 0, 0}, D);
    // No parent is used at the lowest depth of the channel.
    const SampledVolume<Tr> volume(set, kCenter, noise, 0.75f, D, D);
    const auto sampler = volume.sampler();
    const float3 low = cornerOf<Tr>(TileSet<Tr>::keyAt({0, 0, 0}, D));
    Random random(8);
    for (int faces = 1; faces < 8; ++faces)
        for (int n = 0; n < 20; ++n) {
            float3 p = low;
            for (int a = 0; a < 3; ++a)
                if (!(faces >> a & 1)) p[a] += float(random.between(0, 64 * Tr::width - 1)) / 64;
            // The mean of a value and 1.5 - value.
            EXPECT_NEAR(sampler.sampleLinear(p, D, kTileSpace), 0.75, 16 * kEpsilon) << p;
        }
}

TYPED_TEST(SamplerLimits, face_samples_take_the_default_beyond_a_lone_tile_on_the_axis_at_low_corners)
{
    using Tr = TypeParam;
    constexpr int D = Tr::maxDepth, W = Tr::width;
    TileSet<Tr> set;
    set.add({0, 0, 0}, D);
    const SampledVolume<Tr> volume(set, kFaceX, [](TileKey const&, int, int, int) { return 1.0; }, 3.0f, D, D);
    const auto sampler = volume.sampler();
    const float3 low = cornerOf<Tr>(TileSet<Tr>::keyAt({0, 0, 0}, D));
    EXPECT_EQ(sampler.sampleLinear(low + float3(1.25f, 1.75f, 1.5f), D, kTileSpace), 1.0f);
    EXPECT_EQ(sampler.sampleLinear(low + float3(W - 0.5f, 1.75f, 1.5f), D, kTileSpace), 2.0f);
    EXPECT_EQ(sampler.sampleLinear(low + float3(W - 0.75f, 1.75f, 1.5f), D, kTileSpace), 1.5f);
    EXPECT_EQ(sampler.sampleLinear(low + float3(1.25f, 0, 1.5f), D, kTileSpace), 3.0f) << "2 * 3 - 1 and 1, half way";
}

TYPED_TEST(SamplerLimits, the_lowest_depth_of_a_channel_still_reads_its_neighbours)
{
    using Tr = TypeParam;
    constexpr int D = Tr::maxDepth;
    const auto set = refinedBox<Tr>(9, true);
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        const SampledVolume<Tr> volume(set, offset, noise, 0.0f, D, D);
        SampleOracle<Tr> oracle(set, offset);
        oracle.sites.minDepth = D;
        int compared = 0;
        const auto sampler = volume.sampler();
        for (float3 const& p : positionsIn<Tr>(set, 10, 2000, D, 1e9)) {
            const auto expected = oracle.at(toPoint(p));
            if (std::isnan(expected.value)) continue;
            ++compared;
            ASSERT_NEAR(sampler.sampleLinear(p, D, kTileSpace), expected.value, kEpsilon * (9 * Tr::width + 9)) << p;
        }
        EXPECT_GT(compared, 200);
    }
}

/// A sampler of a composite type gives in each component what a channel of that component alone gives.
template <class Tr, class T> std::string wrongComponents()
{
    using Element = Ostara::Math::ElementTraits<T>;
    using Scalar = typename Element::Scalar;
    const auto set = refinedBox<Tr>(11, true);
    std::ostringstream out;
    for (VoxelOffsetType offset : {kCorner, kCenter}) {
        SampledVolume<Tr, T> volume(set, offset, noise);
        std::vector<std::unique_ptr<SampledVolume<Tr, Scalar>>> single;
        for (int c = 0; c < Element::components; ++c) single.push_back(std::make_unique<SampledVolume<Tr, Scalar>>(set, offset, noise));
        for (int d = 0; d < Tr::levels; ++d)
            for (OST::int64 n = 0; n < volume.tree.tileCount(d); ++n) {
                const auto data = volume.channel->tileData(n, d);
                for (int e = 0; e < data.size(); ++e)
                    for (int c = 0; c < Element::components; ++c) {
                        Element::at(data(e), c) += Scalar(0.37) * Scalar(c) * Element::at(data(e), c);
                        single[std::size_t(c)]->channel->tileData(n, d)(e) = Element::at(data(e), c);
                    }
            }
        const auto sampler = volume.sampler();
        const auto positions = positionsIn<Tr>(set, 12, 200, 0, 1e9);
        std::vector<T> values, batch(positions.size());
        std::vector<typename LinearSampler<Tr, T>::Gradient> gradients(positions.size());
        for (std::size_t n = 0; n < positions.size(); ++n)
            values.push_back(sampler.sampleLinearWithGradient(positions[n], Tr::maxDepth, kTileSpace, gradients[n]));
        sampler.sampleLinearBatch(positions.data(), positions.size(), Tr::maxDepth, kTileSpace, batch.data());
        for (int c = 0; c < Element::components; ++c) {
            const auto alone = single[std::size_t(c)]->sampler();
            for (std::size_t n = 0; n < positions.size(); ++n) {
                typename LinearSampler<Tr, Scalar>::Gradient gradient;
                const Scalar expected = alone.sampleLinearWithGradient(positions[n], Tr::maxDepth, kTileSpace, gradient);
                bool right = Element::at(values[n], c) == expected && Element::at(batch[n], c) == expected;
                for (int a = 0; a < 3; ++a) {
                    const T& along = reinterpret_cast<T const*>(&gradients[n])[a];
                    right = right && Element::at(along, c) == gradient[a];
                }
                if (!right) out << "component " << c << " at " << positions[n] << ", offset " << offset << "\n";
            }
        }
    }
    return out.str().substr(0, 300);
}

TYPED_TEST(SamplerLimits, composite_types_are_read_component_by_component)
{
    using namespace Ostara::Math;
    EXPECT_EQ((wrongComponents<TypeParam, float2>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, float3>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, float4>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, float3x3>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, float4x2>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, float4x4>()), "");
    EXPECT_EQ((wrongComponents<TypeParam, double3>()), "");
}

TYPED_TEST(SamplerLimits, doubles_are_mixed_in_double)
{
    using Tr = TypeParam;
    const auto set = refinedBox<Tr>(13, true);
    // The differences drown in single precision.
    const VoxelFunction fine = [](TileKey const& key, int i, int j, int k) { return 1.0 + 1e-9 * noise(key, i, j, k); };
    const SampledVolume<Tr, double> volume(set, kCorner, fine);
    const auto sampler = volume.sampler();
    SampleOracle<Tr> oracle(set, kCorner, fine);
    int compared = 0;
    for (float3 const& p : positionsIn<Tr>(set, 14, 500, Tr::maxDepth - 3, 1e9)) {
        const auto expected = oracle.at(toPoint(p));
        if (std::isnan(expected.value)) continue;
        ++compared;
        ASSERT_NEAR(sampler.sampleLinear(p, Tr::maxDepth, kTileSpace), expected.value, 1e-9 * kEpsilon * (9 * Tr::width) + 32 * 2.3e-16);
    }
    EXPECT_GT(compared, 300);
}

TYPED_TEST(SamplerLimits, samplers_tell_their_interpolation)
{
    using Tr = TypeParam;
    const Tree<Tr> tree("tree");
    const VoxelTopology<Tr> topology("voxels", kCorner);
    const VoxelSampler<Tr, float, float3> base(tree, topology);
    const LinearSampler<Tr> linear;
    const VoxelSampler<Tr, float, float3>* samplers[] = {&base, &linear};
    Corvid::String name;
    samplers[0]->interpolationModeName(name);
    EXPECT_EQ(name, "kNone");
    samplers[1]->interpolationModeName(name);
    EXPECT_EQ(name, "kLinear");
}

struct RampField : Core::Fields::ScalarField {
    Corvid::String name() const override { return "ramp"; }
    float value(float3 const& world, int index) const override { return world.x + 10 * world.y + 100 * world.z + 1000 * float(index); }
};

TEST(FieldSampler, asks_the_field_for_a_position_alone)
{
    const Corvid::Ptr<Core::Fields::ScalarField> field = Corvid::makeMutable<RampField>();
    int calls = 0;
    Geometry::Volume::withFieldSampler(field, [&](Geometry::Volume::Sampler<float> const& sampler) {
        ++calls;
        EXPECT_EQ(sampler.sample(float3(1, 2, 3)), 321.0f - 1000.0f);
        EXPECT_EQ(sampler.sample(float3(0)), -1000.0f);
    });
    EXPECT_EQ(calls, 1);
    Geometry::Volume::withFieldSampler({}, [](Geometry::Volume::Sampler<float> const& sampler) { EXPECT_EQ(sampler.sample(float3(1)), 0.0f); });
}

}  // namespace
}  // namespace tilegrid::test
