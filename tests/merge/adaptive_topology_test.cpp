#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

constexpr float kSize = 0.125f;

/// A level set as its own linear samples, in either structure.
class Field {
public:
    explicit Field(HostPtr const& volume) { open<BinaryTraits>(volume) || open<QuinaryTraits>(volume); }
    float operator()(float3 const& p) const { return read_(p); }

private:
    template <class Tr> bool open(HostPtr const& volume)
    {
        using Sampler = OST::TileTree3D::VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0>;
        const auto tree = treeIn<Tr>(volume);
        if (!tree) return false;
        const auto topology = volume->native()->component<VoxelTopology<Tr>>(sVoxelComp);
        const auto channel = channelIn<Tr>(volume);
        auto sampler = std::make_shared<Sampler>(*tree, *topology, channel.get());
        read_ = [tree, topology, channel, sampler](float3 const& p) { return sampler->sampleLinear(p); };
        return true;
    }
    std::function<float(float3 const&)> read_;
};

class Combination {
public:
    Combination(std::vector<HostPtr> const& volumes, LevelSetMode mode) : mode_(mode)
    {
        for (HostPtr const& volume : volumes) fields_.emplace_back(volume);
    }
    float operator()(float3 const& p) const
    {
        float result = fields_[0](p);
        for (std::size_t n = 1; n < fields_.size(); ++n) {
            const float v = fields_[n](p);
            result = mode_ == LevelSetMode::kUnion ? std::min(result, v) : std::max(result, mode_ == LevelSetMode::kDifference ? -v : v);
        }
        return result;
    }

private:
    std::vector<Field> fields_;
    LevelSetMode mode_;
};

/// The rule of growth, written down plainly for one lattice: nodes at low corners of voxels.
template <class Tr> class Rule {
public:
    using Set = TileSet<Tr>;
    Rule(Combination const& field, float size, float tolerance) : field_(field), size_(size), tolerance_(tolerance) {}

    bool isNear(TileKey const& tile, int cell) const
    {
        const TileKey child = Set::childOf(tile, cell);
        const float half = float(Set::cellWidth(tile.depth)) / 2 * size_;
        const float3 low = world(child.low);
        return 1.914f * size_ * float(Set::cellWidth(tile.depth)) > std::abs(field_({low.x + half, low.y + half, low.z + half}));
    }
    /// The largest difference between the tile's trilinear voxels and the field at the nodes of the child, or the first one above
    /// `enough`.
    float error(TileKey const& tile, int cell, float enough = std::numeric_limits<float>::max()) const
    {
        const TileKey child = Set::childOf(tile, cell);
        constexpr int steps = Tr::branching, voxels = Tr::cellVoxels;  // nodes of the child per voxel of the tile; its voxels in the cell
        const std::int64_t fine = Set::voxelWidth(child.depth), coarse = Set::voxelWidth(tile.depth);
        float corner[voxels + 1][voxels + 1][voxels + 1];
        for (int z = 0; z <= voxels; ++z)
            for (int y = 0; y <= voxels; ++y)
                for (int x = 0; x <= voxels; ++x)
                    corner[z][y][x] = field_(world({child.low[0] + x * coarse, child.low[1] + y * coarse, child.low[2] + z * coarse}));
        float largest = 0;
        for (int z = 0; z <= voxels * steps; ++z)
            for (int y = 0; y <= voxels * steps; ++y)
                for (int x = 0; x <= voxels * steps; ++x) {
                    const int i = std::min(x / steps, voxels - 1), j = std::min(y / steps, voxels - 1), k = std::min(z / steps, voxels - 1);
                    const float u = part(x - i * steps), v = part(y - j * steps), w = part(z - k * steps);
                    const auto row = [&](int b, int c) { return mixed(corner[k + c][j + b][i], corner[k + c][j + b][i + 1], u); };
                    const float value = mixed(mixed(row(0, 0), row(1, 0), v), mixed(row(0, 1), row(1, 1), v), w);
                    const Place node{child.low[0] + x * fine, child.low[1] + y * fine, child.low[2] + z * fine};
                    largest = std::max(largest, std::abs(value - field_(world(node))));
                    if (largest > enough) return largest;
                }
        return largest;
    }
    /// At the border, and where the root's last voxel reaches over it. Volumes of the same structure and size.
    bool atBorder(TileKey const& tile, int cell) const
    {
        const TileKey child = Set::childOf(tile, cell);
        for (int a = 0; a < 3; ++a)
            if (child.low[a] <= Set::rangeMin || child.low[a] + Set::tileWidth(child.depth) > Set::rangeMax + 1 - Set::voxelWidth(0)) return true;
        return false;
    }
    bool operator()(TileKey const& tile, int cell) const
    {
        if (tile.depth + 1 >= 2 && atBorder(tile, cell)) return false;
        return isNear(tile, cell) && error(tile, cell, tolerance_) > tolerance_;
    }
    Set grow() const
    {
        Set set;
        set.add({0, 0, 0}, 0);
        set.grow(Set::keyAt({0, 0, 0}, 0), *this, Tr::maxDepth);
        return set;
    }

private:
    float3 world(Place const& p) const { return {float(p[0]) * size_, float(p[1]) * size_, float(p[2]) * size_}; }
    static float part(int step) { return float(step) * (1.0f / float(Tr::branching)); }
    static float mixed(float a, float b, float t) { return (b - a) * t + a; }
    Combination const& field_;
    float size_, tolerance_;
};

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

/// Tiles that one of two sets lacks.
std::string difference(std::set<TileKey> const& a, std::set<TileKey> const& b)
{
    std::ostringstream out;
    int shown = 0;
    for (TileKey const& key : a)
        if (!b.count(key) && ++shown < 8) out << "only the first has " << key << "\n";
    for (TileKey const& key : b)
        if (!a.count(key) && ++shown < 16) out << "only the second has " << key << "\n";
    return out.str();
}

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
