#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

constexpr float kSize = 0.125f;

template <class Tr> class MergedByCubic : public ::testing::Test {};
TYPED_TEST_SUITE(MergedByCubic, Structures, StructureNames);

/// A level set with noise, so that kernels show.
template <class Tr> HostPtr rough(float voxelSize)
{
    auto volume = volumeAround<Tr>(sphere({0, 0, 0}, 1.0), voxelSize);
    addField<Tr, float>(*volume, sVoxelSignedDistance, 3 * voxelSize, [](World const& p) {
        return float(sphere({0, 0, 0}, 1.0)(p) + 0.1 * std::sin(31 * p[0]) * std::sin(29 * p[1]) * std::sin(23 * p[2]));
    });
    return hostVolume(std::move(volume));
}

/// Voxels of a merge of `other`, which has no properties, and `volume` that are not what the cubic sampler reads of the latter.
/// \param exact  to the last bit; else as places up to 4 are rounded, by 8 epsilon, at a slope of at most 1 + 0.1 * (31 + 29 + 23)
template <class Tr, class Out>
std::pair<int, int> compare(HostPtr const& volume, HostPtr const& other, Interpolation interpolation, bool exact)
{
    MergeCase c;
    c.interpolation = interpolation;
    c.structure = Out::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    const HostPtr result = merge({other, volume}, c);
    const auto source = treeIn<Tr>(volume);
    const auto topology = volume->native()->component<VoxelTopology<Tr>>(sVoxelComp);
    const auto values = channelIn<Tr>(volume);
    const auto mode = OST::TileTree3D::cubicMode(OST::TileTree3D::interpolationMode(interpolation));
    const OST::TileTree3D::CubicSampler<Tr, float> sampler(*source, *topology, values.get(), mode, true,
                                                           OST::TileTree3D::JumpPolicy::kTrilinearAtJump, nullptr, 0, 0);
    const auto tree = treeIn<Out>(result);
    const auto merged = channelIn<Out>(result);
    int wrong = 0, compared = 0;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        for (int flat = 0; flat < Out::voxelCount; ++flat) {
            const int3 voxel = OST::TileTree3D::cubeIndex(Out::width, flat);
            const float w = float(tile.voxelDataWidth()) * tree->voxelSize(), h = tree->voxelSize();
            const float3 p(float(voxel.x) * w + float(tile.tijk().x) * h, float(voxel.y) * w + float(tile.tijk().y) * h,
                           float(voxel.z) * w + float(tile.tijk().z) * h);
            // Around the surface, where a rounded place and the voxel have the same stencil.
            if (!exact && std::abs(p.x) + std::abs(p.y) + std::abs(p.z) > 4) continue;
            ++compared;
            const float expected = sampler.sampleCubic(p), found = merged->tileData(tile.treeIndex())(flat);
            const double allowed = exact ? 0.0 : 8 * 1.1920929e-7 * 4 * (1 + 0.1 * (31 + 29 + 23));
            wrong += !(std::abs(double(expected) - double(found)) <= allowed);
        }
    }
    return {wrong, compared};
}

TYPED_TEST(MergedByCubic, are_the_voxels_themselves_on_an_equal_lattice)
{
    const HostPtr volume = rough<TypeParam>(kSize), empty = hostVolume(nativeVolume<TypeParam>([](Tree<TypeParam>&) {}, kSize));
    for (int mode = 1; mode <= 4; ++mode) {
        const auto [wrong, compared] = compare<TypeParam, TypeParam>(volume, empty, Interpolation(mode), TypeParam::branching == 2);
        EXPECT_EQ(wrong, 0) << "mode " << mode;
        EXPECT_GT(compared, 1000);
        MergeCase c;
        c.interpolation = Interpolation(mode);
        EXPECT_EQ(bitDifference(valuesByTile<TypeParam>(merge({empty, volume}, c)), valuesByTile<TypeParam>(volume)), "");
    }
}

TYPED_TEST(MergedByCubic, are_the_samplers_values_bit_for_bit_on_any_other_lattice)
{
    const HostPtr volume = rough<TypeParam>(kSize);
    const HostPtr finer = hostVolume(volumeAround<TypeParam>(sphere({0, 0, 0}, 1.0), kSize * 0.75f));
    for (int mode = 1; mode <= 4; ++mode) {
        EXPECT_EQ((compare<TypeParam, BinaryTraits>(volume, finer, Interpolation(mode), true).first), 0) << "mode " << mode;
        EXPECT_EQ((compare<TypeParam, QuinaryTraits>(volume, finer, Interpolation(mode), true).first), 0) << "mode " << mode;
    }
}

TYPED_TEST(MergedByCubic, differ_by_mode_and_a_mode_without_a_name_is_linear)
{
    const HostPtr volume = rough<TypeParam>(kSize);
    const HostPtr finer = hostVolume(volumeAround<TypeParam>(sphere({0, 0, 0}, 1.0), kSize * 0.75f));
    std::vector<std::map<TileKey, std::vector<float>>> results;
    for (int mode = 0; mode <= 5; ++mode) {
        MergeCase c;
        c.interpolation = Interpolation(mode);
        results.push_back(valuesByTile<TypeParam>(merge({finer, volume}, c)));
    }
    for (int a = 0; a < 5; ++a)
        for (int b = 0; b < a; ++b) EXPECT_NE(bitDifference(results[std::size_t(a)], results[std::size_t(b)]), "") << a << " and " << b;
    EXPECT_EQ(bitDifference(results[5], results[0]), "");
}

/// Enclosed volume: each leaf voxel of the finest depth as a cell around its sample whose part inside follows from the
/// distance; larger leaf cells by their sign. Second order in the voxel size, and the same for all four level sets.
template <class Tr> double enclosed(HostPtr const& volume)
{
    const auto tree = treeIn<Tr>(volume);
    const auto values = channelIn<Tr>(volume);
    double sum = 0;
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        const double w = double(tile.voxelDataWidth()) * tree->voxelSize();
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const int3 ijk = OST::TileTree3D::cubeIndex(Tr::width, flat);
            if (!tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z))) continue;
            sum += std::clamp(0.5 - double(values->tileData(tile.treeIndex())(flat)) / w, 0.0, 1.0) * w * w * w;
        }
    }
    return sum;
}

template <class Tr> class MergedSolids : public ::testing::Test {};
TYPED_TEST_SUITE(MergedSolids, Structures, StructureNames);

TYPED_TEST(MergedSolids, unite_and_intersect_to_the_sum_of_their_volumes)
{
    // One set of tiles for all, so that the same cells are summed.
    const auto part = [](Distance const& distance) {
        auto volume = volumeAround<TypeParam>(box({-1.2, -1.2, -1.2}, {1.7, 1.3, 1.2}), 1.0f / 32, 100);
        addField<TypeParam, float>(*volume, sVoxelSignedDistance, 0.1f, [&](World const& p) { return float(distance(p)); });
        return hostVolume(std::move(volume));
    };
    const HostPtr a = part(sphere({0, 0, 0}, 1.0)), b = part(sphere({0.7, 0.1, -0.05}, 0.8));
    MergeCase c;
    const double united = enclosed<TypeParam>(merge({a, b}, c));
    c.levelSet = LevelSetMode::kIntersection;
    const double common = enclosed<TypeParam>(merge({a, b}, c));
    c.levelSet = LevelSetMode::kDifference;
    const double rest = enclosed<TypeParam>(merge({a, b}, c));
    const double first = enclosed<TypeParam>(a), second = enclosed<TypeParam>(b), pi = 3.14159265358979;
    EXPECT_NEAR(united + common, first + second, 1e-3 * (first + second));
    EXPECT_NEAR(rest + common, first, 1e-3 * first);
    EXPECT_NEAR(first, 4.0 / 3 * pi, 1e-3 * first) << "the measure itself";
    // Two caps: the lens of two spheres of radii 1 and 0.8 whose centres lie d apart.
    const double d = std::sqrt(0.49 + 0.01 + 0.0025), r = 1.0, s = 0.8;
    const double lens = pi * (r + s - d) * (r + s - d) * (d * d + 2 * d * (r + s) - 3 * (r - s) * (r - s)) / (12 * d);
    EXPECT_NEAR(common, lens, 2e-3 * lens);
}

}  // namespace
}  // namespace tilegrid::test
