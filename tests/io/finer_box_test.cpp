// Level sets that are finer inside a box.
#include "io/check.h"
#include "io/error.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

#include "TilegridOps/substrate/grading.h"

#include <set>
#include <tuple>

namespace tilegrid::test {
namespace {

using io::InputError;
using namespace OST::TileTree3D;

constexpr float kVoxel = 0.125f;

template <class Tr> constexpr int levelsOf() { return Tr::branching == 2 ? 2 : 1; }

template <class Tr> io::LevelSetOptions finerOptions()
{
    io::LevelSetOptions options;
    options.voxelSize = kVoxel;
    options.structure = structureOf<Tr>();
    options.finer = io::FinerBox{{0.3, -2, -2}, {2, 0.2, 2}, levelsOf<Tr>()};
    return options;
}
io::TriangleMesh sphere() { return sphereMesh(1.0f, 3, {0.05f, 0.02f, -0.03f}); }

using Places = std::set<std::tuple<int, int, int>>;

/// The tiles of the finest depth of a band without a box, that meet the box, if asked.
template <class Tr> Places bandTiles(float voxel, io::FinerBox const* box)
{
    Places places;
    const auto tree = treeOf<Tr>(*levelSetOf<Tr>(sphere(), voxel));
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n) {
        const int3 low = tree->tile(n, Tr::maxDepth).tijk();
        bool meets = true;
        for (int axis = 0; box && axis < 3; ++axis)
            meets = meets && double(low[axis] + Tr::width) * voxel > box->low[axis] && double(low[axis]) * voxel <= box->high[axis];
        if (meets) places.emplace(low.x, low.y, low.z);
    }
    return places;
}

template <class Tr> class FinerBoxes : public ::testing::Test {};
TYPED_TEST_SUITE(FinerBoxes, Structures, StructureNames);

TYPED_TEST(FinerBoxes, hold_the_band_of_the_finer_voxels_and_the_rest_that_of_the_others)
{
    using Tr = TypeParam;
    const auto options = finerOptions<Tr>();
    const auto volume = io::levelSetFromMesh(sphere(), options, {});
    const auto tree = treeOf<Tr>(*volume);
    const float fine = static_cast<float>(kVoxel / std::pow(Tr::branching, levelsOf<Tr>()));
    EXPECT_EQ(tree->voxelSize(), fine);
    EXPECT_EQ(channelOf<Tr>(*volume)->defaultValue(), 3 * kVoxel);
    EXPECT_TRUE(checkTree(*tree).empty());
    EXPECT_TRUE(CoreGL::TileTree3D::isGraded(*tree, 0, Tr::maxDepth));

    Places finest;
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n) {
        const int3 low = tree->tile(n, Tr::maxDepth).tijk();
        finest.emplace(low.x, low.y, low.z);
    }
    // Grading adds no tile of the finest depth.
    EXPECT_TRUE((finest == bandTiles<Tr>(fine, &*options.finer)));
    // Every voxel of the coarser band lies in a tile of its depth or a finer one.
    const int depth = Tr::maxDepth - levelsOf<Tr>(), width = Tr::voxelDataWidth(depth);
    const ConstTileAccessor<Tr> accessor(*tree);
    for (auto const& [x, y, z] : bandTiles<Tr>(kVoxel, nullptr))
        for (int n = 0; n < Tr::voxelCount; ++n) {
            const int3 voxel = int3(x, y, z) + cubeIndex(Tr::width, n);
            const double place = length(double(kVoxel) * double3(voxel) - double3(0.05, 0.02, -0.03));
            if (std::abs(place - 1.0) > 2.5 * kVoxel) continue;  // the mesh lies within its sphere by less than half a voxel
            ASSERT_EQ(accessor.find(voxel.x * width, voxel.y * width, voxel.z * width, depth).depth, depth);
        }
}

TYPED_TEST(FinerBoxes, hold_true_distances_at_every_depth)
{
    using Tr = TypeParam;
    const auto volume = io::levelSetFromMesh(sphere(), finerOptions<Tr>(), {});
    const auto tree = treeOf<Tr>(*volume);
    const auto values = channelOf<Tr>(*volume);
    const BruteSurface exact(sphere());
    Random random(11);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (int n = 0; n < 40 && tree->tileCount(depth) > 0; ++n) {
            const OST::int64 tile = random.below(tree->tileCount(depth));
            const int flat = static_cast<int>(random.below(Tr::voxelCount));
            const double3 place = double(tree->voxelSize())
                * double3(tree->tile(tile, depth).tijk() + Tr::voxelDataWidth(depth) * cubeIndex(Tr::width, flat));
            const double is = values->tileData(tile, depth)(flat), wanted = double(exact.distance({place.x, place.y, place.z}));
            // One rounding to float, and that of the voxel size.
            ASSERT_NEAR(std::abs(is), wanted, 2e-7 * (1.0 + wanted)) << "depth " << depth;
            const double side = length(place - double3(0.05, 0.02, -0.03)) - 1.0;
            if (std::abs(side) > 0.05) {
                ASSERT_EQ(is < 0.0, side < 0.0);
            }
        }
}

TYPED_TEST(FinerBoxes, are_not_needed_for_a_graded_tree_of_true_distances)
{
    using Tr = TypeParam;
    auto options = finerOptions<Tr>();
    options.finer.reset();
    const auto plain = io::levelSetFromMesh(sphere(), options, {});
    options.graded = true;
    const auto graded = io::levelSetFromMesh(sphere(), options, {});
    const auto tree = treeOf<Tr>(*graded);
    EXPECT_FALSE(io::checkVolume(*plain).graded);
    EXPECT_TRUE(CoreGL::TileTree3D::isGraded(*tree, 0, Tr::maxDepth));
    EXPECT_EQ(differencesAt<Tr>(Tr::maxDepth, *plain, *graded), "") << "the band is the same";
    const auto before = treeOf<Tr>(*plain);
    const auto values = channelOf<Tr>(*graded);
    const BruteSurface exact(sphere());
    int added = 0;
    for (int depth = 1; depth < Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth) && added < 200; ++n) {
            const int3 low = tree->tile(n, depth).tijk();
            if (before->find(low.x, low.y, low.z, depth).depth == depth) continue;
            ++added;
            const int flat = int(n * 7 % Tr::voxelCount);
            const double3 place = double(tree->voxelSize()) * double3(low + Tr::voxelDataWidth(depth) * cubeIndex(Tr::width, flat));
            const double wanted = double(exact.distance({place.x, place.y, place.z}));
            ASSERT_NEAR(std::abs(values->tileData(n, depth)(flat)), wanted, 2e-7 * (1.0 + wanted)) << "depth " << depth;
        }
    EXPECT_GT(added, 0);
}

TYPED_TEST(FinerBoxes, make_volumes_that_the_check_finds_good)
{
    using Tr = TypeParam;
    const auto check = io::checkVolume(*io::levelSetFromMesh(sphere(), finerOptions<Tr>(), {}));
    EXPECT_EQ(faultsOf(check), "");
    ASSERT_TRUE(check.properties[0].hanging);
    EXPECT_GT(check.properties[0].hanging->voxels, 0);
    EXPECT_GT(check.properties[0].aboveChildren.voxels, 0);
    std::set<int> depths;
    for (auto const& depth : check.gradient) {
        depths.insert(depth.depth);
        // Central differences of the distance to a sphere of radius 1, less the band: the error of second order is w^2 / 4 or
        // so; facets of the mesh add their angle. The mean stays far below that of a field that is no distance.
        if (depth.depth > Tr::maxDepth - levelsOf<Tr>()) {
            EXPECT_LT(depth.mean, 0.02) << depth.depth;
        }
    }
    EXPECT_TRUE(depths.contains(Tr::maxDepth));
    EXPECT_TRUE(depths.contains(Tr::maxDepth - levelsOf<Tr>()));
}

TYPED_TEST(FinerBoxes, give_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    Corvid::Ptr<Ostara::Object> first;
    std::string report;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            const auto volume = io::levelSetFromMesh(sphere(), finerOptions<Tr>(), {});
            if (!first) first = volume, report = toJson(io::checkVolume(*volume));
            for (int depth = 0; depth <= Tr::maxDepth; ++depth) EXPECT_EQ(differencesAt<Tr>(depth, *first, *volume), "") << threads;
            EXPECT_EQ(toJson(io::checkVolume(*volume)), report);
        });
}

TYPED_TEST(FinerBoxes, that_make_no_sense_or_take_too_much_are_refused)
{
    using Tr = TypeParam;
    const auto says = [](std::string const& what, auto const& change) {
        auto options = finerOptions<Tr>();
        options.maxBytes = 1 << 28;
        change(options);
        const std::string text = errorOf<InputError>([&] { io::levelSetFromMesh(sphere(), options, {}); });
        EXPECT_TRUE(contains(text, what)) << text;
    };
    using Options = io::LevelSetOptions;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    for (const int levels : {0, -1, Tr::maxDepth - 1, std::numeric_limits<int>::max()})
        says("levels finer: give 1 to", [&](Options& options) { options.finer->levels = levels; });
    says("low corner first", [](Options& options) { options.finer->low.y = 0.2; });
    says("low corner first", [](Options& options) { options.finer->low.x = 5; });
    says("low corner first", [&](Options& options) { options.finer->high.z = nan; });
    says("low corner first", [](Options& options) { options.finer->high.x = std::numeric_limits<double>::infinity(); });
    says("nothing of it would be finer", [](Options& options) { options.finer->low.x = 1.9; });
    says("the limit is", [](Options& options) { options.maxBytes = 1 << 16; });
    says("the tree reaches", [](Options& options) {
        options.voxelSize = 0.01f;
        options.finer->levels = Tr::maxDepth - 2;
    });
    // Between the estimate and what grading makes of it there is no gap: a limit is kept, or the volume is refused.
    auto options = finerOptions<Tr>();
    for (options.maxBytes = 1 << 20; options.maxBytes < (1 << 27); options.maxBytes *= 2) {
        try {
            const auto volume = io::levelSetFromMesh(sphere(), options, {});
            std::size_t used = 0, reserved = 0;
            treeOf<Tr>(*volume)->memUse(used, reserved, false);
            channelOf<Tr>(*volume)->memUse(used, reserved, false);
            EXPECT_LE(used, options.maxBytes);
        } catch (InputError const&) {
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
