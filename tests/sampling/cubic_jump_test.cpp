#include "TilegridOps/sampling/cubic_diagnostics.h"
#include "TilegridOps/sampling/cubic_kernels.h"
#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/substrate/dofs.h"
#include "support/cubic_oracle.h"
#include "support/output.h"
#include "sampling/cubic_volume.h"
#include "support/text_match.h"

/// The walk across spacings: `JumpPolicy::kHierarchical`.
namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Ostara::Math::float3;
using OST::int64;

constexpr double kEpsilon = std::numeric_limits<float>::epsilon();

template <class Tr>
CubicSampler<Tr, float> walking(CubicVolume<Tr> const& volume, CubicMode mode, bool clamp = false, DofFlags<Tr> dofs = nullptr,
                                int mask = 0)
{
    return {volume.tree, volume.topology, &volume.channel, mode, clamp, JumpPolicy::kHierarchical, dofs, mask, 0};
}

/// Flags of all voxels of a tree, 0 to begin with.
template <class Tr> DofChannel<Tr> flagsOf(Tree<Tr> const& tree)
{
    const short none = 0;
    DofChannel<Tr> flags("flags", &none, kInitializeNone, false, true, 0, Tr::maxDepth);
    flags.updateTilesAdded(tree);
    return flags;
}

template <class Tr> class CubicJumps : public ::testing::Test {
public:
    using Set = TileSet<Tr>;
    static constexpr int D = Tr::maxDepth, W = Tr::width;
    static double coarse() { return double(Set::tileWidth(D - 2)); }
    /// Positions where no stencil leaves the box of three depths.
    static double reach() { return 1.4 * coarse(); }
};
TYPED_TEST_SUITE(CubicJumps, Structures, StructureNames);

TYPED_TEST(CubicJumps, are_none_for_the_uniform_kernel_at_the_deepest_level)
{
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 3), noise);
    for (CubicMode mode : kCubicModes) {
        const auto sampler = walking(volume, mode);
        const CubicSampler<TypeParam, float> uniform(volume.tree, volume.topology, &volume.channel, mode, false,
                                                     JumpPolicy::kTrilinearAtJump, nullptr, 0, 0);
        Random random(1);
        for (int n = 0; n < 300; ++n) {
            float3 p = randomPosition(random, 6);
            for (int a = 0; a < 3; ++a) p[a] = std::floor(p[a]) + 0.015625f * float(random.between(1, 63));
            ASSERT_EQ(sampler.sampleCubic(p, this->D, kTileSpace), uniform.sampleCubic(p, this->D, kTileSpace)) << p;
            // Along two axes the same kernels in another order, which only the limiter minds, without that at fraction 0.
            p.x = std::floor(p.x);
            if (mode == CubicMode::kCubicC1Monotonic) continue;
            ASSERT_NEAR(sampler.sampleCubic(p, this->D, kTileSpace), uniform.sampleCubic(p, this->D, kTileSpace), 700 * kEpsilon)
                << p;
        }
    }
}

TYPED_TEST(CubicJumps, are_crossed_with_the_degree_of_the_mode)
{
    const double scale = 1 / (1.5 * this->coarse());
    const Field affine = [](double x, double y, double z) { return 0.3 + x - 2 * y + 0.5 * z; };
    const Field quadratic = [affine](double x, double y, double z) { return affine(x, y, z) + x * x - y * z + 0.7 * z * z * x * x; };
    const Field cubic = [quadratic](double x, double y, double z) { return quadratic(x, y, z) + x * x * x - z * z * z * y * x + y * y * y; };
    const std::pair<CubicMode, Field> fields[] = {{CubicMode::kQuadraticC0Averaged, quadratic},
                                                  {CubicMode::kCubicC0, cubic},
                                                  {CubicMode::kCubicC1, quadratic},
                                                  {CubicMode::kCubicC1Monotonic, affine}};
    const auto set = threeDepths<TypeParam>(2);
    for (auto const& [mode, field] : fields) {
        const Field scaled = [field, scale](double x, double y, double z) { return field(x * scale, y * scale, z * scale); };
        const CubicVolume<TypeParam> volume(set, sampled<TypeParam>(scaled));
        const auto sampler = walking(volume, mode);
        Random random(3);
        double worst = 0;
        for (int n = 0; n < 2000; ++n) {
            const float3 p = randomPosition(random, this->reach());
            const double error = std::fabs(sampler.sampleCubic(p, this->D, kTileSpace) - scaled(p.x, p.y, p.z));
            worst = std::max(worst, error);
            // Values up to 20 in the stencils; three axes of kernels of 15 roundings, the weights of each of which add up to
            // less than 3 over the spacings that a jump makes.
            ASSERT_LE(error, 20 * 15 * (1 + 3 + 9) * kEpsilon) << interpolationName(mode) << " at " << p;
        }
        this->RecordProperty(interpolationName(mode), std::to_string(worst / kEpsilon));
    }
}

TYPED_TEST(CubicJumps, leave_an_affine_field_as_it_is_also_clamped)
{
    const Field field = [](double x, double y, double z) { return 3 + (x - 2 * y + 0.5 * z) / 64; };
    const double largest = 3 + 3.5 * 3 * this->coarse() / 64;
    const auto set = threeDepths<TypeParam>(4);
    const CubicVolume<TypeParam> volume(set, sampled<TypeParam>(field));
    for (CubicMode mode : kCubicModes)
        for (bool clamp : {false, true}) {
            const auto sampler = walking(volume, mode, clamp);
            Random random(5);
            for (int n = 0; n < 1000; ++n) {
                const float3 p = randomPosition(random, this->reach());
                ASSERT_NEAR(sampler.sampleCubic(p, this->D, kTileSpace), field(p.x, p.y, p.z), 8 * kEpsilon * largest)
                    << interpolationName(mode) << " at " << p << (clamp ? ", clamped" : "");
            }
        }
}

TYPED_TEST(CubicJumps, from_fine_to_coarse_along_an_axis_use_the_positions_found)
{
    using Set = TileSet<TypeParam>;
    // Fine tiles for x below the border, coarse ones above it.
    TileSet<TypeParam> set = uniformBox<TypeParam>(this->D - 1, 2);
    const Place origin = Set::keyAt({0, 0, 0}, this->D - 1).low;
    const std::int64_t coarse = Set::tileWidth(this->D - 1);
    set.addBox({origin[0] - 2 * coarse, origin[1] - 2 * coarse, origin[2] - 2 * coarse},
               {origin[0] - 1, origin[1] + 2 * coarse - 1, origin[2] + 2 * coarse - 1}, this->D);
    const CubicVolume<TypeParam> volume(set, noise);
    const auto accessor = volume.tree.tileAccessor();
    const auto at = [&](std::int64_t x, int depth) {
        return CubicSampler<TypeParam, float>::getVoxelValueAtTijk(toInt3({origin[0] + x, origin[1], origin[2]}), depth, kCorner,
                                                                   volume.channel, accessor);
    };
    const float B = TypeParam::branching;
    for (CubicMode mode : kCubicModes) {
        const auto sampler = walking(volume, mode);
        const float3 p(toInt3(origin));
        // The last fine voxel: its right neighbours are coarse.
        const std::array<float, 4> f = {at(-2, this->D), at(-1, this->D), at(0, this->D - 1), at(std::int64_t(B), this->D - 1)};
        EXPECT_NEAR(sampler.sampleCubic(p + float3(-0.25f, 0, 0), this->D, kTileSpace),
                    interpolateNonUniform(mode, f, {-2, -1, 0, B}, -0.25f), 100 * kEpsilon);
        // The first coarse voxel: its left neighbour is fine.
        const std::array<float, 4> g = {at(-1, this->D), at(0, this->D - 1), at(std::int64_t(B), this->D - 1),
                                        at(std::int64_t(2 * B), this->D - 1)};
        EXPECT_NEAR(sampler.sampleCubic(p + float3(0.5f, 0, 0), this->D, kTileSpace),
                    interpolateNonUniform(mode, g, {-1, 0, B, 2 * B}, 0.5f), 100 * kEpsilon);
    }
}

TYPED_TEST(CubicJumps, to_nothing_continue_at_the_last_spacing_with_the_default)
{
    const float fallback = 0.25f;
    // Only the finest tiles have values, so that there are none beside the box.
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 1), noise, 7, fallback, this->D);
    const Place low = TileSet<TypeParam>::keyAt({0, 0, 0}, this->D).low;
    const int W = TypeParam::width;
    const auto at = [&](int x) {
        return CubicSampler<TypeParam, float>::getVoxelValueAtTijk(toInt3(low) + int3(x, 0, 0), this->D, kCorner, volume.channel,
                                                                   volume.tree.tileAccessor());
    };
    const float3 p(toInt3(low));
    // The coarser tiles beside the box read as the default at their own voxels, the nearest of which lies at the border.
    const float B = TypeParam::branching;
    const auto sampler = walking(volume, CubicMode::kCubicC0);
    const std::array<float, 4> right = {at(W - 2), at(W - 1), fallback, fallback};
    EXPECT_NEAR(sampler.sampleCubic(p + float3(float(W) - 0.5f, 0, 0), this->D, kTileSpace),
                interpolateNonUniform(CubicMode::kCubicC0, right, {-1, 0, 1, 1 + B}, 0.5f), 50 * kEpsilon);
}

TYPED_TEST(CubicJumps, out_of_tile_space_continue_at_the_last_spacing_with_the_default)
{
    using Set = TileSet<TypeParam>;
    TileSet<TypeParam> set;
    const Place low = {Set::rangeMin, Set::rangeMin, Set::rangeMin};
    set.addBox(low, {low[0] + 3 * Set::tileWidth(this->D) - 1, low[1] + 3 * Set::tileWidth(this->D) - 1, low[2]}, this->D);
    const float fallback = 0.25f;
    const CubicVolume<TypeParam> volume(set, noise, 7, fallback);
    const TreeIndex first = indexOf(volume.tree, {this->D, low});
    auto const* v = volume.channel.tileData(first).data();
    const auto sampler = walking(volume, CubicMode::kCubicC0);
    EXPECT_NEAR(sampler.getValue(first, int3(0), float3(0.5f, 0, 0), this->D, false),
                interpolateNonUniform<float>(CubicMode::kCubicC0, {fallback, v[0], v[1], v[2]}, {-1, 0, 1, 2}, 0.5f), 50 * kEpsilon);
}

TYPED_TEST(CubicJumps, of_trees_that_are_not_graded_keep_a_constant)
{
    for (std::uint64_t seed : {6, 7, 8}) {
        const auto set = randomSet<TypeParam>(seed, 60, false);
        const CubicVolume<TypeParam> volume(set, [](auto const&, int, int, int) { return 0.75; }, 7, 0.75f);
        for (CubicMode mode : kCubicModes) {
            const auto sampler = walking(volume, mode);
            Random random(seed);
            for (int n = 0; n < 300; ++n) {
                const float3 p = randomPosition(random, n % 2 ? 12.0 * this->W : 5e8);
                // The weights of Lagrange's form add up to 1 within the ratio of neighbouring gaps, which jumps of many depths
                // make huge; three axes.
                ASSERT_NEAR(sampler.sampleCubic(p, this->D, kTileSpace), 0.75f, 1e-4) << interpolationName(mode) << " at " << p;
            }
        }
    }
}

TYPED_TEST(CubicJumps, read_voxels_that_are_not_free_from_the_tile_above)
{
    using Set = TileSet<TypeParam>;
    const CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    auto flags = flagsOf<TypeParam>(volume.tree);
    const TileKey key = Set::keyAt({0, 0, 0}, this->D);
    const TreeIndex tile = indexOf(volume.tree, key);
    // Voxel (B', 0, 0) of the tile coincides with a voxel of its parent.
    const int stride = TypeParam::childStride, x = this->W == 4 ? stride : 0;
    const auto sampler = walking<TypeParam>(volume, CubicMode::kCubicC1, false, &flags, 4);
    const float own = sampler.getValue(tile, int3(x, 0, 0), float3(0), this->D, false);
    EXPECT_EQ(own, volume.channel.tileData(tile)(x, 0, 0));
    flags.tileData(tile)(x, 0, 0) = 4;
    const auto& parent = volume.tree.tile(volume.tree.tile(tile).parentTreeIndex());
    const int3 place = volume.tree.tile(tile).tijk() + int3(x, 0, 0), rel = place - parent.tijk();
    const int w = parent.voxelDataWidth();
    EXPECT_EQ(sampler.getValue(tile, int3(x, 0, 0), float3(0), this->D, false),
              volume.channel.tileData(parent.treeIndex())(rel.x / w, rel.y / w, rel.z / w));
    flags.tileData(tile)(x, 0, 0) = 2;
    EXPECT_EQ(sampler.getValue(tile, int3(x, 0, 0), float3(0), this->D, false), own) << "another flag";
}

TYPED_TEST(CubicJumps, with_voxels_that_are_not_free_reproduce_the_degree_of_the_mode)
{
    const double scale = 1 / (1.5 * this->coarse());
    const Field field = [scale](double x, double y, double z) {
        x *= scale, y *= scale, z *= scale;
        return 0.3 + x * x * x - 2 * y * z + z * z * y - x;
    };
    const auto set = threeDepths<TypeParam>(9);
    CubicVolume<TypeParam> volume(set, sampled<TypeParam>(field));
    auto flags = flagsOf<TypeParam>(volume.tree);
    computeDofs(volume.tree, flags);
    // What hangs holds nonsense: only its flag keeps it out.
    int64 hanging = 0;
    for (int64 n = 0; n < volume.tree.tileCount(-1); ++n) {
        const TreeIndex tile = volume.tree.tile(n).treeIndex();
        const auto marks = flags.tileData(tile);
        const auto values = volume.channel.tileData(tile);
        if (tile.depth >= this->D - 1)
            for (int e = 0; e < marks.size(); ++e)
                if (marks(e) & kDofHanging) {
                    values(e) = 1000;
                    ++hanging;
                }
    }
    ASSERT_GT(hanging, 500);
    const auto sampler = walking<TypeParam>(volume, CubicMode::kCubicC0, false, &flags, kDofHanging);
    Random random(10);
    for (int n = 0; n < 2000; ++n) {
        float3 p = randomPosition(random, this->reach());
        // The uniform kernel does not look at flags, so none of the finest voxels may come to it.
        p.z = std::floor(p.z);
        ASSERT_NEAR(sampler.sampleCubic(p, this->D, kTileSpace), field(p.x, p.y, p.z), 20 * 15 * (1 + 3 + 9) * kEpsilon) << p;
    }
}

TYPED_TEST(CubicJumps, keep_their_step_at_a_flagged_voxel_without_a_parent)
{
    TileSet<TypeParam> set;
    set.add({0, 0, 0}, 0);
    const float fallback = -3;
    const CubicVolume<TypeParam> volume(set, noise, 7, fallback);
    auto flags = flagsOf<TypeParam>(volume.tree);
    flags.tileData(TreeIndex{0, 0})(2, 1, 0) = 1;
    const auto sampler = walking<TypeParam>(volume, CubicMode::kCubicC0, false, &flags, 1);
    EXPECT_EQ(sampler.getValue({0, 0}, int3(2, 1, 0), float3(0), 0, false), fallback);
    const auto data = volume.channel.tileData(TreeIndex{0, 0});
    const std::array<float, 4> f = {data(0, 1, 0), data(1, 1, 0), fallback, data(3, 1, 0)};
    EXPECT_NEAR(sampler.getValue({0, 0}, int3(1, 1, 0), float3(0.5f, 0, 0), 0, false),
                interpolateUniform(CubicMode::kCubicC0, f, 0.5f), 3 * 50 * kEpsilon);
}

TYPED_TEST(CubicJumps, of_a_flag_channel_with_a_halo_read_the_same_flags)
{
    const CubicVolume<TypeParam> volume(threeDepths<TypeParam>(11), noise);
    auto plain = flagsOf<TypeParam>(volume.tree);
    computeDofs(volume.tree, plain);
    const short none = 0;
    Channel<TypeParam, short, TypeParam::width, 1> haloed("flags", &none, kInitializeNone, false, true, 0, this->D);
    haloed.updateTilesAdded(volume.tree);
    for (int64 n = 0; n < volume.tree.tileCount(-1); ++n) {
        const TreeIndex tile = volume.tree.tile(n).treeIndex();
        for (int e = 0; e < TypeParam::voxelCount; ++e) {
            const int3 voxel = cubeIndex(this->W, e);
            haloed.tileData(tile)(voxel) = plain.tileData(tile)(voxel);
        }
    }
    const auto a = walking<TypeParam>(volume, CubicMode::kCubicC1, false, &plain, kDofHanging);
    const auto b = walking<TypeParam>(volume, CubicMode::kCubicC1, false, &haloed, kDofHanging);
    const auto c = walking<TypeParam>(volume, CubicMode::kCubicC1);
    Random random(12);
    int differ = 0;
    for (int n = 0; n < 500; ++n) {
        const float3 p = randomPosition(random, this->reach());
        ASSERT_EQ(a.sampleCubic(p, this->D, kTileSpace), b.sampleCubic(p, this->D, kTileSpace));
        differ += a.sampleCubic(p, this->D, kTileSpace) != c.sampleCubic(p, this->D, kTileSpace);
    }
    EXPECT_GT(differ, 20);
}

/// Sets the diagnostics back at the end.
struct DiagnosticsGuard {
    CubicDiagnostics before = cubicDiagnostics();
    ~DiagnosticsGuard() { cubicDiagnostics() = before; }
};

TYPED_TEST(CubicJumps, with_nan_give_zero_and_a_report)
{
    DiagnosticsGuard guard;
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    const TreeIndex tile = indexOf(volume.tree, TileSet<TypeParam>::keyAt({0, 0, 0}, this->D));
    volume.channel.tileData(tile)(1, 1, 1) = std::numeric_limits<float>::quiet_NaN();
    const auto sampler = walking(volume, CubicMode::kCubicC1);
    const auto value = [&](float fx) { return sampler.getValue(tile, int3(1), float3(fx, 0, 0), this->D, false); };
    {
        const CapturedStream out;
        EXPECT_EQ(value(0.5f), 0);
        const auto lines = out.lines();
        ASSERT_EQ(lines.size(), 21u);
        EXPECT_EQ(lines[0], "DEBUG BEGIN");
        EXPECT_EQ(lines[1], "VoxelSamplerCubic.nanInfo 'voxelSamplerCubic: output is NAN'");
        char const* const starts[] = {"in_depth = ", "in_tijk = ", "llc = ", "in_lijk = (1, 1, 1)", "in_frac = (0.5, 0, 0)",
                                      "vdw = 1", "tdw = ", "tvw = ", "dofIsValid = 0", "origin = ", "Tile(0,0,0) = (", "Tile(1,0,0) = (",
                                      "Tile(0,1,0) = nullptr"};
        for (std::size_t n = 0; n < std::size(starts); ++n) EXPECT_EQ(lines[n + 2].rfind(starts[n], 0), 0u) << lines[n + 2];
        EXPECT_NE(lines[12].find(", depth = " + std::to_string(this->D)), std::string::npos);
        EXPECT_EQ(lines[20], "DEBUG END");
    }
    cubicDiagnostics().silent = true;
    const CapturedStream out;
    EXPECT_EQ(value(0.5f), 0);
    EXPECT_EQ(value(0), 0);
    EXPECT_EQ(out.text(), "");
    const CubicSampler<TypeParam, float> linear(volume.tree, volume.topology, &volume.channel, CubicMode::kCubicC1, true,
                                                JumpPolicy::kTrilinearAtJump, nullptr, 0, 0);
    EXPECT_TRUE(std::isnan(linear.getValue(tile, int3(1), float3(0.5f, 0, 0), this->D, false)));
}

TYPED_TEST(CubicJumps, with_checks_on_report_where_nan_comes_from)
{
    DiagnosticsGuard guard;
    cubicDiagnostics().checks = true;
    CubicVolume<TypeParam> volume(uniformBox<TypeParam>(this->D, 2), noise);
    const TreeIndex tile = indexOf(volume.tree, TileSet<TypeParam>::keyAt({0, 0, 0}, this->D));
    const auto sampler = walking(volume, CubicMode::kCubicC1);
    const auto value = [&] { return sampler.getValue(tile, int3(1), float3(0.5f, 0, 0), this->D, false); };
    auto const* row = &volume.channel.tileData(tile)(0, 1, 1);
    float& second = volume.channel.tileData(tile)(1, 1, 1);
    {
        const CapturedStream out;
        second = std::numeric_limits<float>::quiet_NaN();
        const float f3 = row[3];
        EXPECT_EQ(value(), interpolateUniform<float>(CubicMode::kCubicC1, {row[0], 0, row[2], f3}, 0.5f)) << "NaN counts as 0";
        EXPECT_NE(out.text().find("getValue.case3 = nan"), std::string::npos);
        EXPECT_NE(out.text().find("'getValue.case3 output is NAN'"), std::string::npos);
    }
    {
        const CapturedStream out;
        second = std::numeric_limits<float>::infinity();
        EXPECT_EQ(value(), 0);
        EXPECT_NE(out.text().find("positions = -1 0 1 2\nvalues = "), std::string::npos);
        EXPECT_NE(out.text().find("atResolutionJump = 0\nsamplePosition = 0.5\n"), std::string::npos);
        EXPECT_NE(out.text().find("'interpolateValues1D output is NAN'"), std::string::npos);
    }
}

TYPED_TEST(CubicJumps, with_traces_on_tell_their_steps)
{
    DiagnosticsGuard guard;
    cubicDiagnostics().traces = true;
    const CubicVolume<TypeParam> volume(threeDepths<TypeParam>(13), noise);
    const auto sampler = walking(volume, CubicMode::kCubicC1);
    const CapturedStream out;
    Random random(14);
    for (int n = 0; n < 20; ++n) sampler.sampleCubic(randomPosition(random, this->coarse()), this->D, kTileSpace);
    for (char const* line : {"fetchTiles.begin()", "fetchTiles.end()", "getValue1D.begin()", "getValue2D.begin()", "getTile:",
                             "GETVALUE():", "getCoarserValue.begin()", "getCoarserValue.end()", "case: tile.depth() < depth",
                             "case: neighbor refined", "isLeaf = true ", "getIncrementAndPosition2D.begin() ",
                             "calling recursively to fetch values"})
        EXPECT_NE(out.text().find(line), std::string::npos) << line;
}

}  // namespace
}  // namespace tilegrid::test
