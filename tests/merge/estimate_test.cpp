// What is known of a merge's result before it is made.
#include "TilegridOps/merge/estimate.h"

#include "TilegridOps/merge/input_error.h"
#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

template <class Tr> class MergeEstimate : public ::testing::Test {};
TYPED_TEST_SUITE(MergeEstimate, Structures, StructureNames);

NativeVolumes workingVolumesOf(std::vector<HostPtr> const& volumes)
{
    NativeVolumes natives;
    for (HostPtr const& volume : volumes) natives.push_back(volume->native());
    return workingVolumes(natives, false, {});
}

template <class Tr> std::vector<HostPtr> twoBalls()
{
    return {hostVolume(levelSetAround<Tr>(sphere({0, 0, 0}, 1.0), 0.05f)), hostVolume(levelSetAround<Tr>(sphere({0.7, 0.3, 0.1}, 0.8), 0.08f))};
}

/// Bytes of a tree and of its level set.
double bytesOf(HostPtr const& merged)
{
    std::size_t used = 0, reserved = 0;
    for (Corvid::String const& name : {sVoxelTileTree, sVoxelSignedDistance})
        merged->native()->component<OST::Component>(name)->memUse(used, reserved, /*withLookup*/ false);
    return double(used);
}

TYPED_TEST(MergeEstimate, counts_the_bytes_of_a_plain_result)
{
    const auto volumes = twoBalls<TypeParam>();
    const auto working = workingVolumesOf(volumes);
    const MergeDecisions decisions = decideMerge(working, {});
    const double merged = bytesOf(merge(volumes, {}));
    // A channel has a few words of its own beside its values.
    EXPECT_NEAR(bytesOfPlainMerge(working, decisions, {}), merged, 0.002 * merged);
}

TYPED_TEST(MergeEstimate, comes_near_the_bytes_of_an_adaptive_result)
{
    const auto volumes = twoBalls<TypeParam>();
    const auto working = workingVolumesOf(volumes);
    MergeCase adaptive;
    adaptive.adaptive = true;
    adaptive.structure = TypeParam::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    for (float tolerance : {0.2f, 0.01f}) {
        adaptive.tolerance = tolerance;
        MergeParameters parameters;
        parameters.enableAdaptivity = true;
        parameters.maxRelativeError = tolerance;
        parameters.binary = TypeParam::branching == 2;
        const double merged = bytesOf(merge(volumes, adaptive));
        // A sample of 512 tiles scatters by 1 / sqrt(512) = 4 % a depth times the spread of a tile's children, about 1; some five
        // depths are sampled.
        EXPECT_NEAR(bytesOfAdaptiveMerge(working, LevelSetMode::kUnion, decideMerge(working, parameters)), merged, 0.25 * merged);
    }
}

TEST(MergeEstimateOfAdaptiveResults, ends_soon_whatever_it_counts_and_is_the_same_for_any_number_of_threads)
{
    const std::vector<HostPtr> volumes{hostVolume(levelSetAround<BinaryTraits>(sphere({0, 0, 0}, 1.0), 0.1f)),
                                       hostVolume(levelSetAround<BinaryTraits>(sphere({3, 0, 0}, 1e-3), 1e-4f))};
    const auto working = workingVolumesOf(volumes);
    MergeParameters parameters;
    parameters.enableAdaptivity = true;
    parameters.maxError = 1e-9f;
    std::set<double> found;
    for (int threads : {1, 2, 8})
        pollsOf(threads, [&] { found.insert(bytesOfAdaptiveMerge(working, LevelSetMode::kUnion, decideMerge(working, parameters))); });
    ASSERT_EQ(found.size(), 1u);
    // A band of at least two voxels on an area of 4 pi, in voxels of 1e-4.
    EXPECT_GT(*found.begin(), 2 * 4 * 3.14 / 1e-8 * sizeof(float));
}

TYPED_TEST(MergeEstimate, takes_the_error_of_interpolation_from_second_differences)
{
    // On a sphere the second derivatives of the distance add up to 2 / r, and h^2 / 8 of that is missed. Voxels lie up to one voxel
    // from the surface, at radii from r - h to r + h, and the third differences that second ones contain are smaller still.
    const double radius = 2, voxel = 0.1, exact = voxel * voxel / (4 * radius);
    const auto ball = levelSetAround<TypeParam>(sphere({0.03, 0.01, 0.02}, radius), float(voxel));
    EXPECT_NEAR(interpolationError(*ball), exact, exact * 2 * voxel / radius);
    // A box is interpolated exactly but at its edges.
    const auto cube = levelSetAround<TypeParam>(box({-1, -1, -1}, {1, 1, 1}), float(voxel));
    EXPECT_GT(interpolationError(*cube), 0.01 * voxel);
    EXPECT_LT(interpolationError(*cube), 0.3 * voxel);
    EXPECT_EQ(interpolationError(*volumeAround<TypeParam>(sphere({0, 0, 0}, radius), float(voxel))), 0.0) << "no level set";
}

}  // namespace
}  // namespace tilegrid::test
