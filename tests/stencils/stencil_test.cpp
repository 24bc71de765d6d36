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
    std::optional<FloatChannel<TypeParam>> first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            auto result = smoothedOf(world, kCorner);
            if (!first) first.emplace(result);
            EXPECT_TRUE(sameBits(*first, result, world.tree)) << threads << " threads";
        });
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
