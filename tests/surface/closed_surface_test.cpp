#include "TilegridOps/substrate/grading.h"
#include "support/surface_checks.h"

#include <gtest/gtest.h>

namespace tilegrid::test {
namespace {

template <class Tr> class ClosedSurface : public ::testing::Test {};
TYPED_TEST_SUITE(ClosedSurface, Structures, StructureNames);

/// Random tiles of the deepest few depths, of all depths, or around one place, so that tiny cells meet huge ones.
template <class Tr> void growRandomly(Tree<Tr>& tree, Random& random, int tiles)
{
    auto accessor = tree.tileAccessor();
    const int kind = int(random.below(3));
    const int spread = (kind == 0 ? 3 : 12) * Tr::tileVoxelWidth(Tr::maxDepth);
    for (int n = 0; n < tiles; ++n) {
        const int depth = kind == 1 ? int(random.between(0, Tr::maxDepth)) : Tr::maxDepth - int(random.below(4));
        const Place p = kind == 1 ? randomPlace<Tr>(random, spread)
                                  : Place{random.between(-spread, spread), random.between(-spread, spread), random.between(-spread, spread)};
        accessor.addTile(int(p[0]), int(p[1]), int(p[2]), depth);
    }
}

void expectClosed(Surface const& mesh)
{
    const EdgeCensus census = censusOf(mesh);
    EXPECT_EQ(census.open, 0);
    EXPECT_EQ(census.degenerate, 0);
    for (int3 const& t : mesh.triangles)
        for (int n = 0; n < 3; ++n) ASSERT_TRUE(t[n] >= 0 && t[n] < std::int64_t(mesh.vertices.size()));
}

TYPED_TEST(ClosedSurface, of_noise_on_random_trees)
{
    using Tr = TypeParam;
    std::int64_t edges = 0, shared = 0;
    for (int seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random{std::uint64_t(seed)};
        SurfaceVolume<Tr> volume;
        growRandomly(volume.tree, random, 1 + int(random.below(120)));
        if (random.oneIn(3)) CoreGL::TileTree3D::gradeTileTree<Tr>(volume.tree, nullptr, nullptr, 0, Tr::maxDepth);
        volume.fill(NoiseField{random.next()});
        const Surface mesh = volume.extract();
        ASSERT_FALSE(mesh.triangles.empty());
        expectClosed(mesh);
        const EdgeCensus census = censusOf(mesh);
        edges += census.edges;
        shared += census.shared;
    }
    std::cout << "edges of more than two triangles on noise: " << shared << " of " << edges << "\n";
}

}  // namespace
}  // namespace tilegrid::test
