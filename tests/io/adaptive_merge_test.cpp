// Adaptive merging of volumes that come from a mesh.
#include "io/mesh.h"
#include "merge/plain_growth.h"
#include "support/level_sets.h"
#include "support/paths.h"

namespace tilegrid::test {
namespace {

const std::string kBunny = exampleFile("bunny.obj");

template <class Tr> class AdaptiveMergeOfMeshes : public ::testing::Test {};
TYPED_TEST_SUITE(AdaptiveMergeOfMeshes, Structures, StructureNames);

TYPED_TEST(AdaptiveMergeOfMeshes, has_the_tiles_of_the_plain_rule_for_the_bunny)
{
    constexpr float size = 0.125f;  // 80 voxels across; the scene is longer than 1, so that the tolerance is relative to the voxel alone
    const HostPtr bunny = levelSetOf<TypeParam>(io::readMesh(kBunny, 0, {}), size);
    // A ball that cuts into the bunny's back.
    const HostPtr ball = hostVolume(levelSetAround<TypeParam>(sphere({0.6, 1.4, 0.5}, 2.0), size));
    for (auto const& [other, tolerance, mode] : {std::tuple(bunny, 0.3f, LevelSetMode::kUnion), std::tuple(bunny, 0.02f, LevelSetMode::kUnion),
                                                 std::tuple(ball, 0.1f, LevelSetMode::kDifference)}) {
        const std::vector<HostPtr> volumes{bunny, other};
        const Combination field(volumes, mode);
        const auto expected = Rule<TypeParam>(field, size, tolerance * size).grow();
        EXPECT_GT(expected.count(TypeParam::maxDepth), 100);
        MergeCase adaptive;
        adaptive.adaptive = true;
        adaptive.tolerance = tolerance;
        adaptive.levelSet = mode;
        adaptive.structure = TypeParam::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
        EXPECT_EQ(difference(tilesOf<TypeParam>(merge(volumes, adaptive)), expected.tiles()), "") << "tolerance " << tolerance;
    }
}

}  // namespace
}  // namespace tilegrid::test
