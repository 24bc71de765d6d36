#include "TilegridOps/stencils/kernels.h"
#include "TilegridOps/stencils/pass.h"
#include "support/halo_world.h"
#include "support/jobs.h"

#include <cstring>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using stencils::Reach;
using stencils::StencilBlock;

template <class Tr> using FloatChannel = Channel<Tr, float, Tr::width, 0>;

template <class Tr> FloatChannel<Tr> laplacianOf(World<Tr, float> const& world, VoxelOffsetType offset)
{
    FloatChannel<Tr> out = *world.channel;
    const auto combine = [](auto& result, auto& c, auto& x0, auto& x1, auto& y0, auto& y1, auto& z0, auto& z1) {
        result = ((x0 + x1) + (y0 + y1)) + (z0 + z1) - c * 6.0f;
    };
    stencils::stencilPass<Tr>(world.tree, *world.channel, out, Reach::kFaces, offset, 0, Tr::maxDepth,
                              [&](auto const&, StencilBlock<Tr> const& block, float* values) {
                                  stencils::sevenPoint<Tr>(block, values, combine);
                              });
    return out;
}

template <class Tr> FloatChannel<Tr> smoothedOf(World<Tr, float> const& world, VoxelOffsetType offset)
{
    FloatChannel<Tr> out = *world.channel;
    stencils::stencilPass<Tr>(world.tree, *world.channel, out, Reach::kFacesEdgesCorners, offset, 0, Tr::maxDepth,
                              [](auto const&, StencilBlock<Tr> const& block, float* values) {
                                  stencils::separable3<Tr>(block, values, 0.25f, 0.5f);
                              });
    return out;
}

/// The same stencil written out as a sum over 27 weights, in double, over what the oracle finds at the sites.
template <class Tr>
std::string faults(World<Tr, float> const& world, FloatChannel<Tr> const& result, int offset, double (*weight)(int, int, int))
{
    auto oracle = world.oracle(noise, offset, false);
    std::ostringstream text;
    for (TreeIndex const& index : someTiles(world.tree, 60)) {
        const TileKey key = keyOf(world.tree.tile(index));
        const auto values = result.tileData(index);
        if (!values) continue;
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(Tr::width, v);
            double sum = 0, tolerance = 0;
            for (int n = 0; n < 27; ++n) {
                const int3 step = cubeIndex(3, n) - int3(1, 1, 1);
                const double w = weight(step.x, step.y, step.z);
                if (w == 0) continue;
                Place cell = key.low;
                for (int a = 0; a < 3; ++a) cell[a] += (at[a] + step[a]) * TileSet<Tr>::voxelWidth(key.depth);
                const auto site = oracle.at(cell, key.depth);
                sum += w * site.value;
                // The halo's own rounding, and up to eight roundings of sums no larger than 12.
                tolerance += std::abs(w) * (site.levels * kMixError + 8 * 3 * kUnit);
            }
            if (!(std::abs(values(v) - sum) <= tolerance) && text.tellp() < 400)
                text << "voxel " << v << " of " << key << ": " << values(v) << " instead of " << sum << "\n";
        }
    }
    return text.str();
}

double laplacianWeight(int i, int j, int k)
{
    const int distance = i * i + j * j + k * k;
    return distance == 0 ? -6 : distance == 1 ? 1 : 0;
}
double smoothingWeight(int i, int j, int k)
{
    return (i ? 0.25 : 0.5) * (j ? 0.25 : 0.5) * (k ? 0.25 : 0.5);
}

template <class Tr> bool sameBits(FloatChannel<Tr> const& a, FloatChannel<Tr> const& b, Tree<Tr> const& tree)
{
    for (OST::int64 n = 0; n < tree.tileCount(-1); ++n) {
        const auto x = a.tileData(tree.tile(n).treeIndex()), y = b.tileData(tree.tile(n).treeIndex());
        if (x.size() != y.size() || std::memcmp(x.data(), y.data(), std::size_t(x.size()) * sizeof(float)) != 0) return false;
    }
    return true;
}

template <class Tr> class Stencil : public ::testing::Test {
public:
};
TYPED_TEST_SUITE(Stencil, Structures, StructureNames);

TYPED_TEST(Stencil, of_seven_points_agrees_with_the_oracle)
{
    for (bool graded : {false, true})
        for (int offset : {7, 0, 5}) {
            const World<TypeParam, float> world(randomSet<TypeParam>(graded ? 11 : 12, 40, graded), noise);
            const auto result = laplacianOf(world, VoxelOffsetType(offset));
            EXPECT_EQ(faults(world, result, offset, laplacianWeight), "") << "offset " << offset << (graded ? ", graded" : "");
        }
}

TYPED_TEST(Stencil, of_three_factors_agrees_with_the_oracle)
{
    for (bool graded : {false, true})
        for (int offset : {7, 0, 5}) {
            const World<TypeParam, float> world(randomSet<TypeParam>(graded ? 13 : 14, 40, graded), noise);
            const auto result = smoothedOf(world, VoxelOffsetType(offset));
            EXPECT_EQ(faults(world, result, offset, smoothingWeight), "") << "offset " << offset << (graded ? ", graded" : "");
        }
}

/// Positions around tiles where a block does not hold the bits of `setHaloTile`, of those that the reach covers.
template <class Tr> std::string blockFaults(World<Tr, float> const& world, Reach reach, VoxelOffsetType offset, int& acrossJumps)
{
    constexpr int W = Tr::width;
    stencils::BlockReader<Tr> reader(world.tree, *world.channel, reach, offset);
    const auto accessor = world.tree.tileAccessor();
    TileData<float, W, 1> halo((W + 2) * (W + 2) * (W + 2));
    std::ostringstream text;
    for (TreeIndex const& index : someTiles(world.tree, 400)) {
        auto const& tile = world.tree.tile(index);
        if (!world.channel->tileData(index)) continue;
        StencilBlock<Tr> const& block = reader.read(tile);
        setHaloTile<Tr, float, 0, 1, 0, 0>(index, *world.channel, kHaloLinear, kHaloAll, accessor, halo, kFill, 1.0f, offset);
        for (int n = 0; n < halo.size(); ++n) {
            const int3 at = cubeIndex(W + 2, n) - int3(1);
            const int3 side((at.x >= W) - (at.x < 0), (at.y >= W) - (at.y < 0), (at.z >= W) - (at.z < 0));
            const int outside = std::abs(side.x) + std::abs(side.y) + std::abs(side.z);
            if (reach == Reach::kFaces && outside > 1) continue;
            const float is = block.row(side.x, at.y, at.z)[at.x - side.x * W], wanted = halo(at.x, at.y, at.z);
            acrossJumps += outside > 0 && accessor.tileNeighbor(tile, neighborDirection(side.x, side.y, side.z)).depth() != index.depth;
            if (std::memcmp(&is, &wanted, sizeof is) != 0 && text.tellp() < 400)
                text << at << " of " << keyOf(tile) << ": " << is << " instead of " << wanted << "\n";
        }
    }
    return text.str();
}

TYPED_TEST(Stencil, reads_the_bits_of_the_linear_halo_across_jumps)
{
    constexpr int D = TypeParam::maxDepth;
    for (bool graded : {true, false})
        for (auto const& [low, high] : {std::pair(0, D), std::pair(D - 2, D), std::pair(0, D - 1)}) {
            World<TypeParam, float> world(randomSet<TypeParam>(graded ? 21 : 22, 60, graded), noise, low, high);
            for (bool table : {false, true}) {
                if (table) world.tree.precomputeTileNeighbors();
                for (int offset : {7, 0, 5})
                    for (Reach reach : {Reach::kFaces, Reach::kFacesEdgesCorners}) {
                        int acrossJumps = 0;
                        EXPECT_EQ(blockFaults(world, reach, VoxelOffsetType(offset), acrossJumps), "")
                            << (graded ? "graded" : "not graded") << ", offset " << offset << ", depths " << low << " to " << high;
                        EXPECT_GT(acrossJumps, 500);
                    }
            }
        }
}

TYPED_TEST(Stencil, at_the_border_of_tile_space_and_at_the_finest_depth_takes_the_default_beyond)
{
    using Set = TileSet<TypeParam>;
    Set set;
    for (std::int64_t x : {Set::rangeMin, Set::rangeMax})
        for (std::int64_t y : {Set::rangeMin, Set::rangeMax})
            for (std::int64_t z : {Set::rangeMin, Set::rangeMax}) set.add({x, y, z}, Set::maxDepth);
    gradeSet(set);
    const World<TypeParam, float> world(set, noise);
    for (int offset : {7, 0}) {
        int acrossJumps = 0;
        for (Reach reach : {Reach::kFaces, Reach::kFacesEdgesCorners})
            EXPECT_EQ(blockFaults(world, reach, VoxelOffsetType(offset), acrossJumps), "") << "offset " << offset;
    }
    stencils::BlockReader<TypeParam> reader(world.tree, *world.channel, Reach::kFacesEdgesCorners, kCorner);
    const auto accessor = world.tree.tileAccessor();
    auto const& last = world.tree.tile(accessor.find(int(Set::rangeMax), int(Set::rangeMax), int(Set::rangeMax), Set::maxDepth));
    ASSERT_EQ(last.depth(), Set::maxDepth);
    auto const& block = reader.read(last);
    for (int k = 0; k < TypeParam::width; ++k)
        for (int j = 0; j < TypeParam::width; ++j) EXPECT_EQ(block.row(1, j, k)[0], kFill);
    EXPECT_EQ(block.row(1, TypeParam::width, TypeParam::width)[0], kFill);
}

TYPED_TEST(Stencil, keeps_to_the_depths_of_the_channel)
{
    constexpr int D = TypeParam::maxDepth;
    const World<TypeParam, float> world(randomSet<TypeParam>(15, 40, true), noise, D - 2, D);
    EXPECT_EQ(faults(world, laplacianOf(world, kCorner), 7, laplacianWeight), "");
}

TYPED_TEST(Stencil, gives_the_same_bits_with_and_without_a_neighbour_table)
{
    World<TypeParam, float> world(randomSet<TypeParam>(16, 60, true), noise);
    const auto seven = laplacianOf(world, kCorner), smooth = smoothedOf(world, kCorner);
    world.tree.precomputeTileNeighbors();
    EXPECT_TRUE(sameBits(seven, laplacianOf(world, kCorner), world.tree));
    EXPECT_TRUE(sameBits(smooth, smoothedOf(world, kCorner), world.tree));
}

TYPED_TEST(Stencil, gives_the_same_bits_on_any_number_of_threads)
{
    World<TypeParam, float> world(randomSet<TypeParam>(17, 400, true), noise);
    for (int offset : {7, 0}) {
        const auto type = VoxelOffsetType(offset);
        std::optional<FloatChannel<TypeParam>> smooth, seven;
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                auto result = smoothedOf(world, type), faces = laplacianOf(world, type);
                if (!smooth) smooth.emplace(result), seven.emplace(faces);
                EXPECT_TRUE(sameBits(*smooth, result, world.tree)) << threads << " threads";
                EXPECT_TRUE(sameBits(*seven, faces, world.tree)) << threads << " threads";
            });
    }
}

TYPED_TEST(Stencil, leaves_an_empty_tree_and_a_lone_root_in_peace)
{
    const World<TypeParam, float> empty(TileSet<TypeParam>(), noise);
    laplacianOf(empty, kCorner);
    TileSet<TypeParam> root;
    root.add({0, 0, 0}, 0);
    const World<TypeParam, float> world(root, noise);
    EXPECT_EQ(faults(world, laplacianOf(world, kCorner), 7, laplacianWeight), "");
}

TYPED_TEST(Stencil, can_be_cancelled_at_every_stage)
{
    const World<TypeParam, float> world(randomSet<TypeParam>(18, 20, true), noise);
    cancelAtEveryPoll([] {}, [&] { laplacianOf(world, kCorner); }, [] {});
}

}  // namespace
}  // namespace tilegrid::test
