#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

constexpr float kSize = 0.125f;  // a power of two: places are exact

template <class Tr> HostPtr ball(World const& centre, double radius, float voxelSize = kSize)
{
    return hostVolume(levelSetAround<Tr>(sphere(centre, radius), voxelSize));
}

template <class Out> float3 placeOfVoxel(typename Tree<Out>::Tile const& tile, int flat, float voxelSize)
{
    const int3 voxel = OST::TileTree3D::cubeIndex(Out::width, flat);
    const float w = float(tile.voxelDataWidth()) * voxelSize;
    return {float(voxel.x) * w + float(tile.tijk().x) * voxelSize, float(voxel.y) * w + float(tile.tijk().y) * voxelSize,
            float(voxel.z) * w + float(tile.tijk().z) * voxelSize};
}

/// A volume's level set through the linear sampler.
template <class Tr> class Reading {
public:
    explicit Reading(HostPtr const& volume)
        : tree_(treeIn<Tr>(volume)), topology_(volume->native()->component<VoxelTopology<Tr>>(sVoxelComp)), channel_(channelIn<Tr>(volume)),
          sampler_(*tree_, *topology_, channel_.get())
    {
    }
    float operator()(float3 const& p) const { return sampler_.sampleLinear(p); }
    /// The tile that the sampler reads.
    TreeIndex tileAt(float3 const& p) const
    {
        OST::TileTree3D::LocatedVoxel at;
        sampler_.locateVoxel(p, OST::TileTree3D::kWorldSpace, Tr::maxDepth, at);
        return at.treeIndex;
    }
    Tree<Tr> const& tree() const { return *tree_; }

private:
    Corvid::Ptr<Tree<Tr>> tree_;
    Corvid::Ptr<VoxelTopology<Tr>> topology_;
    Corvid::Ptr<Plain<Tr>> channel_;
    OST::TileTree3D::VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0> sampler_;
};

/// How far apart a voxel and the sample at its place may lie where the place is rounded: 8 epsilon max(1, |p| / h) voxels, times
/// the slope, which for trilinear distances is at most the square root of 3.
double roundingOf(float3 const& p, float voxelSize)
{
    const double reach = std::max({std::abs(double(p.x)), std::abs(double(p.y)), std::abs(double(p.z)), double(voxelSize)});
    return 8 * 1.1920929e-7 * reach * 1.7320508;
}

template <class Tr> class MergedLevelSets : public ::testing::Test {};
TYPED_TEST_SUITE(MergedLevelSets, Structures, StructureNames);

/// Voxels of a result that are not the combination of the inputs' own samples. A binary tree's voxels are found exactly, since
/// all widths and places are powers of two and short sums of them; a fifth is rounded.
template <class Tr, class In, class Combine> int mismatches(HostPtr const& result, HostPtr const& a, HostPtr const& b, Combine combine)
{
    const auto tree = treeIn<Tr>(result);
    const auto channel = channelIn<Tr>(result);
    const Reading<Tr> first(a);
    const Reading<In> second(b);
    int wrong = 0;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        const auto values = channel->tileData(tile.treeIndex());
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const float3 p = placeOfVoxel<Tr>(tile, flat, tree->voxelSize());
            const float expected = combine(first(p), second(p));
            const double allowed = Tr::branching == 2 ? 0.0 : roundingOf(p, tree->voxelSize());
            wrong += !(std::abs(double(expected) - double(values(flat))) <= allowed);
        }
    }
    return wrong;
}

TYPED_TEST(MergedLevelSets, are_the_combination_of_the_inputs_own_samples_to_the_last_bit)
{
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0), b = ball<TypeParam>({0.7, 0.3, -0.2}, 0.8);
    MergeCase c;
    EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, [](float x, float y) { return std::min(x, y); })), 0);
    c.levelSet = LevelSetMode::kIntersection;
    EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, [](float x, float y) { return std::max(x, y); })), 0);
    c.levelSet = LevelSetMode::kDifference;
    EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, [](float x, float y) { return std::max(x, -y); })), 0);
}

TYPED_TEST(MergedLevelSets, are_the_combination_of_samples_for_another_voxel_size_and_structure_too)
{
    using Other = std::conditional_t<TypeParam::branching == 2, QuinaryTraits, BinaryTraits>;
    MergeCase c;
    c.structure = TypeParam::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0);
    const auto smaller = [](float x, float y) { return std::min(x, y); };
    for (float size : {kSize * 1.3f, kSize * 2.0f}) {
        const HostPtr b = ball<TypeParam>({0.7, 0.3, -0.2}, 0.8, size), other = ball<Other>({0.7, 0.3, -0.2}, 0.8, size);
        EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, smaller)), 0);
        EXPECT_EQ((mismatches<TypeParam, Other>(merge({a, other}, c), a, other, smaller)), 0);
    }
}

TYPED_TEST(MergedLevelSets, of_a_voxel_size_that_is_no_power_of_two_differ_from_samples_by_rounding_only)
{
    const float size = 0.1f;
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0, size);
    const HostPtr result = merge({a, a});
    const Reading<TypeParam> reading(a);
    const auto tree = treeIn<TypeParam>(result);
    const auto channel = channelIn<TypeParam>(result);
    const auto accessor = reading.tree().tileAccessor();
    int compared = 0, moved = 0;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        const auto values = channel->tileData(tile.treeIndex());
        for (int flat = 0; flat < TypeParam::voxelCount; ++flat) {
            const float3 p = placeOfVoxel<TypeParam>(tile, flat, size);
            const int3 place = tile.tijk() + tile.voxelDataWidth() * OST::TileTree3D::cubeIndex(TypeParam::width, flat);
            if (!(accessor.find(place.x, place.y, place.z, TypeParam::maxDepth) == reading.tileAt(p))) continue;
            ++compared;
            moved += reading(p) != values(flat);
            EXPECT_NEAR(reading(p), values(flat), roundingOf(p, size)) << tile.tijk() << " voxel " << flat;
        }
    }
    EXPECT_GT(compared, 1000);
    EXPECT_GT(moved, 0) << "places are rounded indeed";
}

TYPED_TEST(MergedLevelSets, read_voxels_above_finer_tiles_from_the_finest_ones)
{
    // Coarse copies are spoiled: only leaves show the volume.
    auto volume = levelSetAround<TypeParam>(sphere({0, 0, 0}, 1.0), kSize);
    const HostPtr clean = hostVolume(levelSetAround<TypeParam>(sphere({0, 0, 0}, 1.0), kSize));
    auto channel = volume->template extractComponent<Plain<TypeParam>>(sVoxelSignedDistance);
    const auto tree = treeOf<TypeParam>(*volume);
    int spoiled = 0;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        for (int flat = 0; flat < TypeParam::voxelCount; ++flat) {
            const int3 ijk = OST::TileTree3D::cubeIndex(TypeParam::width, flat);
            if (tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
            channel->tileData(tile.treeIndex())(flat) = 12345.0f;
            ++spoiled;
        }
    }
    ASSERT_GT(spoiled, 10);
    volume->putComponent(std::move(channel));
    const HostPtr a = hostVolume(std::move(volume));
    EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(merge({a, a})), valuesByTile<TypeParam>(clean)), "");
}

TYPED_TEST(MergedLevelSets, unions_and_intersections_commute_bit_for_bit_on_equal_lattices)
{
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0), b = ball<TypeParam>({0.7, 0.3, -0.2}, 0.8);
    for (LevelSetMode mode : {LevelSetMode::kUnion, LevelSetMode::kIntersection}) {
        MergeCase c;
        c.levelSet = mode;
        const auto ab = valuesByTile<TypeParam>(merge({a, b}, c)), ba = valuesByTile<TypeParam>(merge({b, a}, c));
        EXPECT_FALSE(ab.empty());
        EXPECT_EQ(bitDifference(ab, ba), "");
        c.invertOrder = true;
        EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(merge({b, a}, c)), ba), "");
    }
}

TYPED_TEST(MergedLevelSets, a_volume_with_itself_keeps_its_tiles_and_values)
{
    const HostPtr a = ball<TypeParam>({0.1, 0.2, 0.3}, 1.0);
    for (LevelSetMode mode : {LevelSetMode::kUnion, LevelSetMode::kIntersection}) {
        MergeCase c;
        c.levelSet = mode;
        EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(merge({a, a}, c)), valuesByTile<TypeParam>(a)), "");
        EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(merge({a, a, a}, c)), valuesByTile<TypeParam>(a)), "");
    }
}

TYPED_TEST(MergedLevelSets, are_associative_bit_for_bit_if_all_have_one_set_of_tiles)
{
    // Each holds its own distance on the tiles of all.
    const Distance all = [](World const& p) { return sphere({0, 0, 0}, 1.2)(p); };
    const auto part = [&](Distance const& distance) {
        auto volume = volumeAround<TypeParam>(all, kSize, 6);
        addField<TypeParam, float>(*volume, sVoxelSignedDistance, 3 * kSize, [&](World const& p) { return float(distance(p)); });
        return hostVolume(std::move(volume));
    };
    const HostPtr a = part(sphere({0.5, 0, 0}, 0.7)), b = part(sphere({-0.5, 0.1, 0}, 0.6)), c = part(box({-0.4, -1, -0.3}, {0.4, 0.9, 0.5}));
    for (LevelSetMode mode : {LevelSetMode::kUnion, LevelSetMode::kIntersection}) {
        MergeCase m;
        m.levelSet = mode;
        const auto left = valuesByTile<TypeParam>(merge({merge({a, b}, m), c}, m));
        const auto right = valuesByTile<TypeParam>(merge({a, merge({b, c}, m)}, m));
        EXPECT_EQ(bitDifference(left, right), "");
        EXPECT_EQ(bitDifference(left, valuesByTile<TypeParam>(merge({a, b, c}, m))), "");
    }
}

TYPED_TEST(MergedLevelSets, the_union_of_two_narrow_bands_is_positive_outside_both)
{
    const HostPtr result = merge({ball<TypeParam>({0, 0, 0}, 0.5), ball<TypeParam>({3, 0, 0}, 0.5)});
    const auto tree = treeIn<TypeParam>(result);
    const auto channel = channelIn<TypeParam>(result);
    EXPECT_EQ(channel->defaultValue(), 3 * kSize);
    int outside = 0;
    for (auto const& [key, values] : valuesByTile<TypeParam>(result))
        for (int flat = 0; flat < TypeParam::voxelCount; ++flat) {
            const World p = placeOf<TypeParam>(key, flat, kSize, 7);
            const double distance = std::min(sphere({0, 0, 0}, 0.5)(p), sphere({3, 0, 0}, 0.5)(p));
            if (distance < 2 * kSize) continue;
            ++outside;
            EXPECT_GT(values[std::size_t(flat)], 0.0f) << key << " voxel " << flat;
        }
    EXPECT_GT(outside, 1000);
}

TYPED_TEST(MergedLevelSets, a_difference_takes_the_later_volumes_from_the_first_and_the_order_may_be_inverted)
{
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0), b = ball<TypeParam>({0.7, 0, 0}, 0.8);
    MergeCase c;
    c.levelSet = LevelSetMode::kDifference;
    const auto aMinusB = [](float x, float y) { return std::max(x, -y); };
    const auto bMinusA = [](float x, float y) { return std::max(y, -x); };
    EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, aMinusB)), 0);
    c.invertOrder = true;
    EXPECT_EQ((mismatches<TypeParam, TypeParam>(merge({a, b}, c), a, b, bMinusA)), 0);
}

TYPED_TEST(MergedLevelSets, have_the_same_bytes_for_any_number_of_threads)
{
    const HostPtr a = ball<TypeParam>({0, 0, 0}, 1.0), b = ball<TypeParam>({0.7, 0.3, -0.2}, 0.8, kSize * 1.3f);
    for (bool adaptive : {false, true}) {
        std::map<TileKey, std::vector<float>> first;
        std::vector<std::vector<TileKey>> order;
        for (int threads : kThreadCounts) {
            HostPtr result;
            parallel::runJob(nullptr, threads, [&] {
                MergeCase c;
                c.adaptive = adaptive;
                result = merge({a, b}, c);
            });
            const auto values = adaptive ? valuesByTile<BinaryTraits>(result) : valuesByTile<TypeParam>(result);
            const auto tiles = adaptive ? orderOf(*treeIn<BinaryTraits>(result)) : orderOf(*treeIn<TypeParam>(result));
            if (first.empty()) first = values, order = tiles;
            EXPECT_FALSE(values.empty());
            EXPECT_EQ(bitDifference(values, first), "") << threads << " threads";
            EXPECT_TRUE(tiles == order) << threads << " threads";
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
