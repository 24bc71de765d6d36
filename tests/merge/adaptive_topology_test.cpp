#include "merge_volumes.h"
#include "plain_growth.h"

namespace tilegrid::test {
namespace {

constexpr float kSize = 0.125f;

template <class Tr> AutoSubdivisionStructure structureFor()
{
    return Tr::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
}

template <class Tr> MergeCase adaptiveCase(float tolerance, LevelSetMode mode = LevelSetMode::kUnion)
{
    MergeCase c;
    c.adaptive = true;
    c.tolerance = tolerance;
    c.levelSet = mode;
    c.structure = structureFor<Tr>();
    return c;
}

std::string countsOf(std::set<TileKey> const& tiles)
{
    std::map<int, int> counts;
    for (TileKey const& key : tiles) ++counts[key.depth];
    std::ostringstream out;
    for (auto const& [depth, count] : counts) out << depth << ":" << count << " ";
    return out.str();
}

template <class Tr> class AdaptiveTopology : public ::testing::Test {};
TYPED_TEST_SUITE(AdaptiveTopology, Structures, StructureNames);

/// The scenes here are larger than 1, so that the tolerance is relative to the voxel alone.
constexpr float maxErrorOf(float tolerance) { return tolerance * kSize; }

template <class Tr> void checkAgainstRule(std::vector<HostPtr> const& volumes, float tolerance, LevelSetMode mode)
{
    const Combination field(volumes, mode);
    const auto expected = Rule<Tr>(field, kSize, maxErrorOf(tolerance)).grow();
    EXPECT_GT(expected.tiles().size(), 50u);
    EXPECT_EQ(difference(tilesOf<Tr>(merge(volumes, adaptiveCase<Tr>(tolerance, mode))), expected.tiles()), "");
}

template <class Tr> HostPtr ball(World const& centre = {0.1, 0.2, 0.3}, double radius = 1.0, float voxelSize = kSize)
{
    return hostVolume(levelSetAround<Tr>(sphere(centre, radius), voxelSize));
}
template <class Tr> HostPtr slab(float voxelSize = kSize)
{
    return hostVolume(levelSetAround<Tr>(box({-0.3, -1.1, -0.4}, {1.3, 0.2, 0.5}), voxelSize));
}

TYPED_TEST(AdaptiveTopology, is_that_of_the_plain_rule_tile_by_tile)
{
    using Other = std::conditional_t<TypeParam::branching == 2, QuinaryTraits, BinaryTraits>;
    const HostPtr round = ball<TypeParam>(), flat = slab<TypeParam>(), coarser = slab<Other>(1.3f * kSize);
    checkAgainstRule<TypeParam>({round, round}, 0.05f, LevelSetMode::kUnion);
    checkAgainstRule<TypeParam>({round, flat}, 0.5f, LevelSetMode::kUnion);
    checkAgainstRule<TypeParam>({round, flat}, 0.05f, LevelSetMode::kDifference);
    checkAgainstRule<TypeParam>({flat, round}, 0.2f, LevelSetMode::kIntersection);
    if (TypeParam::branching == 2)  // a quinary result reaches further than a binary input, which the plain rule does not know
        checkAgainstRule<TypeParam>({round, coarser}, 0.1f, LevelSetMode::kUnion);
}

TYPED_TEST(AdaptiveTopology, leaves_no_cell_whose_voxels_miss_the_level_sets_by_more_than_the_tolerance)
{
    const std::vector<HostPtr> volumes{ball<TypeParam>(), slab<TypeParam>()};
    const Combination field(volumes, LevelSetMode::kUnion);
    for (float tolerance : {0.5f, 0.05f}) {
        const float maxError = maxErrorOf(tolerance);
        const Rule<TypeParam> rule(field, kSize, maxError);
        const HostPtr result = merge(volumes, adaptiveCase<TypeParam>(tolerance));
        const auto tree = treeIn<TypeParam>(result);
        int cells = 0, atFinest = 0;
        for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
            auto const& tile = tree->tile(n);
            for (int cell = 0; cell < TypeParam::childCount; ++cell) {
                if (!tile.isLeaf(cell)) continue;
                if (tile.depth() == TypeParam::maxDepth) {
                    ++atFinest;
                    continue;
                }
                if (rule.atBorder(keyOf(tile), cell) || !rule.isNear(keyOf(tile), cell)) continue;
                ++cells;
                EXPECT_LE(rule.error(keyOf(tile), cell), maxError) << keyOf(tile) << " cell " << cell;
            }
        }
        EXPECT_GT(cells, 10);
        EXPECT_GT(atFinest, 0);
    }
}

TYPED_TEST(AdaptiveTopology, grows_with_a_smaller_tolerance)
{
    const std::vector<HostPtr> volumes{ball<TypeParam>(), slab<TypeParam>()};
    std::set<TileKey> before;
    for (float tolerance : {2.0f, 0.5f, 0.1f, 0.02f, 0.0f}) {
        const auto tiles = tilesOf<TypeParam>(merge(volumes, adaptiveCase<TypeParam>(tolerance)));
        EXPECT_GE(tiles.size(), before.size());
        EXPECT_TRUE(std::includes(tiles.begin(), tiles.end(), before.begin(), before.end())) << tolerance;
        before = tiles;
    }
}

TYPED_TEST(AdaptiveTopology, of_tolerance_0_refines_every_near_cell_that_is_not_exact)
{
    checkAgainstRule<TypeParam>({ball<TypeParam>(), ball<TypeParam>()}, 0.0f, LevelSetMode::kUnion);
    // A constant is exact in the coarsest tiles already. The first depth is exempt from the rule for borders.
    auto half = levelSetAround<TypeParam>(sphere({0, 0, 0}, 0.5), kSize);
    addField<TypeParam, float>(*half, sVoxelSignedDistance, 1.0f, [](World const&) { return 1.0f; });
    const HostPtr constant = hostVolume(std::move(half));
    EXPECT_LE(tilesOf<TypeParam>(merge({constant, constant}, adaptiveCase<TypeParam>(0.0f))).size(), 1u + TypeParam::childCount);
}

TYPED_TEST(AdaptiveTopology, keeps_a_small_ball_far_from_the_origin)
{
    // Large enough for its finest tiles and no more, a hundred thousand voxels away.
    const World centre{-9000.3, 7000.1, 12000.7};
    const double radius = 6 * kSize;
    const HostPtr small = ball<TypeParam>(centre, radius), large = ball<TypeParam>();
    for (auto const& volumes : {std::vector<HostPtr>{large, small}, std::vector<HostPtr>{small, large}}) {
        const HostPtr result = merge(volumes, adaptiveCase<TypeParam>(0.1f));
        const auto channel = channelIn<TypeParam>(result);
        int inside = 0;
        for (auto const& [key, values] : valuesByTile<TypeParam>(result))
            for (int flat = 0; key.depth == TypeParam::maxDepth && flat < TypeParam::voxelCount; ++flat)
                inside += values[std::size_t(flat)] < 0 && sphere(centre, radius)(placeOf<TypeParam>(key, flat, kSize, 7)) < 0;
        EXPECT_GT(inside, 300) << "a ball of 6 voxels radius has about 900 voxels; its middle may stay coarse";
    }
}

TYPED_TEST(AdaptiveTopology, does_not_grow_along_the_border_of_tile_space)
{
    const HostPtr binary = ball<BinaryTraits>(), quinary = ball<QuinaryTraits>();
    ASSERT_EQ(channelIn<BinaryTraits>(binary)->defaultValue(), 3 * kSize);
    constexpr std::int64_t kFar = std::int64_t(1) << 26;  // nothing is within an eighth of the way to the border
    for (float scale : {1.0f, 2.0f, 3.0f})  // the result's tile space reaches further than the inputs' above 1
        for (auto const& volumes : {std::vector<HostPtr>{binary, binary}, {quinary, quinary}, {binary, quinary}}) {
            MergeCase c = adaptiveCase<TypeParam>(0.01f);
            c.scale = scale;
            const auto tiles = tilesOf<TypeParam>(merge(volumes, c));
            int far = 0;
            for (TileKey const& key : tiles) {
                std::int64_t nearest = 0;
                for (std::int64_t low : key.low) nearest = std::max({nearest, low, -(low + TileSet<TypeParam>::tileWidth(key.depth))});
                far += nearest > kFar;
                EXPECT_TRUE(key.depth < 5 || nearest < kFar) << key;
            }
            EXPECT_LE(far, 125) << "scale " << scale << ": " << countsOf(tiles);
            EXPECT_EQ(tiles.rbegin()->depth, TypeParam::maxDepth) << "the scene is there";
        }
}

TYPED_TEST(AdaptiveTopology, follows_the_only_volume_that_has_a_level_set)
{
    auto fog = volumeAround<TypeParam>(sphere({40, 0, 0}, 2.0), kSize);
    addField<TypeParam, float>(*fog, sVoxelFogDensity, 0.0f, [](World const&) { return 1.0f; });
    const HostPtr cloud = hostVolume(std::move(fog)), round = ball<TypeParam>();
    const auto alone = tilesOf<TypeParam>(merge({round, round}, adaptiveCase<TypeParam>(0.05f)));
    EXPECT_EQ(difference(tilesOf<TypeParam>(merge({round, cloud}, adaptiveCase<TypeParam>(0.05f))), alone), "");
    EXPECT_EQ(difference(tilesOf<TypeParam>(merge({cloud, round}, adaptiveCase<TypeParam>(0.05f))), alone), "");
}

TYPED_TEST(AdaptiveTopology, without_any_level_set_is_that_of_all_tiles)
{
    auto fog = volumeAround<TypeParam>(sphere({0, 0, 0}, 1.0), kSize);
    addField<TypeParam, float>(*fog, sVoxelFogDensity, 0.0f, [](World const&) { return 1.0f; });
    const HostPtr cloud = hostVolume(std::move(fog));
    EXPECT_EQ(difference(tilesOf<TypeParam>(merge({cloud, cloud}, adaptiveCase<TypeParam>(0.05f))), tilesOf<TypeParam>(cloud)), "");
}

TYPED_TEST(AdaptiveTopology, ends_at_the_finest_depth)
{
    const HostPtr result = merge({ball<TypeParam>(), slab<TypeParam>()}, adaptiveCase<TypeParam>(0.0f));
    EXPECT_EQ(treeIn<TypeParam>(result)->deepestDepth(), TypeParam::maxDepth);
    EXPECT_TRUE(checkTree(*treeIn<TypeParam>(result)).empty());
}

TYPED_TEST(AdaptiveTopology, reads_level_sets_that_are_there_in_compressed_halo_form_only)
{
    auto native = levelSetAround<TypeParam>(sphere({0.1, 0.2, 0.3}, 1.0), kSize);
    useCompressedHalo<TypeParam>(*native, sVoxelSignedDistance);
    const HostPtr halo = hostVolume(std::move(native)), plain = ball<TypeParam>(), flat = slab<TypeParam>();
    for (bool adaptive : {false, true})
        for (auto interpolation : {Interpolation::kLinear, Interpolation::kCubicC1}) {
            MergeCase c = adaptiveCase<TypeParam>(0.05f);
            c.adaptive = adaptive;
            c.interpolation = interpolation;
            const auto expected = valuesByTile<TypeParam>(merge({plain, flat}, c));
            const HostPtr result = merge({halo, flat}, c);
            EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(result), expected), "") << adaptive;
            EXPECT_EQ(channelIn<TypeParam>(result)->defaultValue(), 3 * kSize);
        }
    EXPECT_TRUE((halo->native()->hasComponentFromName<CompressedHalo<TypeParam>>(sVoxelSignedDistance))) << "the input keeps its form";
}

}  // namespace
}  // namespace tilegrid::test
