// What the check of a volume finds, on volumes that are broken in one known way.
#include "TilegridOps/algorithms/consistent_values.h"
#include "io/check.h"
#include "io/error.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/output.h"
#include "support/site_oracle.h"
#include "support/structures.h"
#include "support/volumes.h"

#include "TilegridOps/nodes/grading.h"
#include "TilegridOps/substrate/child_values.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/grading.h"

#include <limits>

namespace tilegrid::test {
namespace {

using io::checkVolume;
using io::VolumeCheck;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Math::float3;
using namespace OST::TileTree3D;

template <class Tr, class T> using Plain = Channel<Tr, T, Tr::width, 0>;

/// A graded tree with a finest tile at the origin.
template <class Tr> Corvid::MutablePtr<Native> gradedVolume(float voxelSize = 1.0f)
{
    return nativeVolume<Tr>(
        [](Tree<Tr>& tree) {
            tree.tileAccessor().addTile(0, 0, 0, Tr::maxDepth);
            CoreGL::TileTree3D::gradeTileTree<Tr>(tree, nullptr, nullptr, 0, Tr::maxDepth);
        },
        voxelSize);
}

/// The linear field (gradient . place) at the voxels of a tile, in tile-space units.
template <class Tr> float linearAt(TileKey const& tile, int flat, double3 const& gradient)
{
    const int3 ijk = cubeIndex(Tr::width, flat);
    double sum = 0.0;
    for (int axis = 0; axis < 3; ++axis)
        sum += gradient[axis] * (double(tile.low[axis]) + double(ijk[axis]) * Tr::voxelDataWidth(tile.depth));
    return float(sum);
}
template <class Tr> void addLinear(Native& volume, Corvid::String const& name, double3 const& gradient, float defaultValue)
{
    test::addChannel<Plain<Tr, float>>(
        volume, name, defaultValue, [&](TileKey const& tile, int flat) { return linearAt<Tr>(tile, flat, gradient); });
}

/// Changes one value of a channel: of the first voxel, tiles and voxels ascending from the finest depth, that `chosen` takes.
template <class Tr, class Chosen>
void changeOne(Native& volume, Corvid::String const& name, Chosen const& chosen, float by)
{
    const auto tree = test::treeOf<Tr>(volume);
    auto channel = volume.extractComponent<Plain<Tr, float>>(name);
    const auto change = [&] {
        for (int depth = Tr::maxDepth; depth >= 0; --depth)
            for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    if (chosen(tree->tile(n, depth), flat)) {
                        channel->tileData(n, depth)(flat) += by;
                        return true;
                    }
        return false;
    };
    EXPECT_TRUE(change());
    volume.putComponent(std::move(channel));
}
template <class Tr> bool isAboveChild(typename Tree<Tr>::Tile const& tile, int flat)
{
    const int3 ijk = cubeIndex(Tr::width, flat);
    return !tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z));
}

template <class Tr> class CheckedVolume : public ::testing::Test {};
TYPED_TEST_SUITE(CheckedVolume, Structures, StructureNames);

TYPED_TEST(CheckedVolume, with_linear_fields_over_a_graded_tree_is_good)
{
    using Tr = TypeParam;
    auto native = gradedVolume<Tr>();
    addLinear<Tr>(*native, "a", {1, -2, 0.5}, 0.0f);
    test::addChannel<Plain<Tr, float3>>(*native, "v", float3(0), [](TileKey const& tile, int flat) {
        return float3(linearAt<Tr>(tile, flat, {1, 0, 0}), linearAt<Tr>(tile, flat, {0, 1, 0}), 1.0f);
    });
    test::addChannel<Plain<Tr, int>>(*native, "n", 0, [](TileKey const&, int) { return 5; });
    const VolumeCheck check = checkVolume(*hostVolume(std::move(native)));
    EXPECT_EQ(faultsOf(check), "");
    EXPECT_TRUE(check.good());
    ASSERT_EQ(check.properties.size(), 3u);
    EXPECT_GT(check.properties[0].aboveChildren.voxels, 0);
    ASSERT_TRUE(check.properties[0].hanging);
    EXPECT_GT(check.properties[0].hanging->voxels, 0);
    EXPECT_FALSE(check.properties[1].hanging.has_value()) << "integers are not interpolated";
    EXPECT_TRUE(check.gradient.empty());
}

TYPED_TEST(CheckedVolume, names_a_value_above_a_child_that_is_not_the_childs)
{
    using Tr = TypeParam;
    for (const float by : {1.0f, std::numeric_limits<float>::quiet_NaN()}) {
        auto native = gradedVolume<Tr>();
        addLinear<Tr>(*native, "a", {1, -2, 0.5}, 0.0f);
        changeOne<Tr>(*native, "a", isAboveChild<Tr>, by);
        const VolumeCheck check = checkVolume(*hostVolume(std::move(native)));
        EXPECT_FALSE(check.good());
        EXPECT_GE(check.properties[0].aboveChildren.wrong, 1);
        // The voxel itself, and that of its parent if there is one at the same place.
        EXPECT_LE(check.properties[0].aboveChildren.wrong, 2);
        EXPECT_TRUE(contains(faultsOf(check), "'a'")) << faultsOf(check);
        EXPECT_TRUE(contains(toText(check), "verdict     wrong")) << toText(check);
        EXPECT_TRUE(contains(toJson(check), "\"good\": false")) << toJson(check);
    }
}

TYPED_TEST(CheckedVolume, names_a_hanging_value_that_is_not_interpolated)
{
    using Tr = TypeParam;
    auto native = gradedVolume<Tr>();
    addLinear<Tr>(*native, "a", {1, -2, 0.5}, 0.0f);
    addLinear<Tr>(*native, sVoxelSignedDistance, {0, 0, 1}, 3.0f);
    createDofs<Tr>("dofs", *native);
    const auto dofs = native->template component<DofChannel<Tr>>("dofs");
    const auto hangs = [&](auto const& tile, int flat) {
        return (std::as_const(*dofs).tileData(tile.treeIndex())(flat) & kDofHanging) != 0 && flat % Tr::branching != 0;
    };
    // A hanging voxel beside one that does not hang at the same height: a distance can differ by one voxel from that.
    const auto hangsAlone = [&](auto const& tile, int flat) {
        const int3 at = cubeIndex(Tr::width, flat);
        return hangs(tile, flat) && at.y == 0 && at.x != 0 && at.z != 0;
    };
    const auto changed = [&](Corvid::String const& name, float by, auto const& chosen) {
        Native copy(*native);
        Corvid::Ptr<OST::Component> removed;
        copy.removeComponent("dofs", removed);
        changeOne<Tr>(copy, name, chosen, by);
        return checkVolume(*Ostara::Geometry::move_ost_volume_to_object(copy));
    };
    const VolumeCheck plain = changed("a", 1.0f, hangs);
    EXPECT_TRUE(contains(faultsOf(plain), "'a' has 1 hanging")) << faultsOf(plain);
    // The finest hanging voxels lie between samples B apart, so a true distance may be off by the root of one half of that.
    const float bound = std::sqrt(0.5f) * Tr::branching;
    EXPECT_EQ(faultsOf(changed(sVoxelSignedDistance, 0.95f * bound, hangsAlone)), "");
    EXPECT_TRUE(contains(faultsOf(changed(sVoxelSignedDistance, 1.05f * bound, hangsAlone)), "1 hanging"));
    EXPECT_TRUE(contains(faultsOf(changed(sVoxelSignedDistance, std::numeric_limits<float>::quiet_NaN(), hangsAlone)), "1 hanging"));
}

/// Hanging voxels of the two finest depths that are further from their interpolation than the width of the voxels around, which
/// no function of slope 1 is from a bilinear mix of its own values.
template <class Tr> std::vector<std::pair<TreeIndex, int>> farFromInterpolation(Native& volume)
{
    createDofs<Tr>("dofs", volume);
    const auto tree = test::treeOf<Tr>(volume);
    const auto dofs = volume.extractComponent<DofChannel<Tr>>("dofs");
    // What lies across two depths and more does not follow, and is no fault.
    keepFarHanging(*tree, *dofs);
    const auto is = volume.component<Plain<Tr, float>>(sVoxelSignedDistance);
    std::vector<std::pair<TreeIndex, int>> far;
    for (int depth = Tr::maxDepth; depth > Tr::maxDepth - 2; --depth) {
        Plain<Tr, float> wanted(*is);
        setNonDOFValues(depth, depth, *tree, wanted, *dofs, 0);
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat)
                if (!(std::as_const(*dofs).tileData(n, depth)(flat) & kDofKeep)
                    && std::abs(wanted.tileData(n, depth)(flat) - std::as_const(*is).tileData(n, depth)(flat))
                    > tree->voxelSize() * float(Tr::voxelDataWidth(depth - 1)))
                    far.push_back({{n, depth}, flat});
    }
    return far;
}

TYPED_TEST(CheckedVolume, of_true_distances_is_good_graded_or_not_however_far_they_are_from_interpolation)
{
    using Tr = TypeParam;
    // Two slabs: half way between them the distance has a ridge, over which coarse voxels mix.
    const auto mesh = joined(boxMesh({-1, -1, -1}, {0, 1, 1}), boxMesh({2, -1, -1}, {3, 1, 1}));
    for (const bool graded : {false, true}) {
        HostPtr volume = levelSetOf<Tr>(mesh, 0.05f);
        if (graded) Geometry::Volume::grade_volume(volume, {});
        const VolumeCheck check = checkVolume(*volume);
        EXPECT_EQ(check.graded, graded);
        EXPECT_EQ(faultsOf(check), "") << "true distances, and what was mixed from them";
        EXPECT_TRUE(contains(toText(check), graded ? "verdict     good\n" : "verdict     good, but not graded\n")) << toText(check);

        auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(volume));
        const auto far = farFromInterpolation<Tr>(*native);
        // Without grading, those that are far may all lie across two depths.
        if (!graded && far.empty()) continue;
        ASSERT_GT(far.size(), 0u) << "the case that this is about";
        // Such a voxel that is no distance either is wrong: two voxels off what lies beside it.
        changeOne<Tr>(*native, sVoxelSignedDistance,
                      [&](auto const& tile, int flat) { return tile.treeIndex() == far.front().first && flat == far.front().second; }, 10.0f);
        EXPECT_TRUE(contains(faultsOf(checkVolume(*hostVolume(std::move(native)))), "1 hanging voxels far from"));
    }
}

TYPED_TEST(CheckedVolume, that_was_graded_passes_also_if_it_was_in_step_before)
{
    using Tr = TypeParam;
    // A field of no slope in particular, in step in a tree that is not graded.
    auto native = nativeVolume<Tr>([](Tree<Tr>& tree) {
        const int w = Tr::tileVoxelWidth(Tr::maxDepth - 3);
        tree.tileAccessor().addTiles(int3(-2 * w), int3(2 * w), Tr::maxDepth - 3);
        tree.tileAccessor().addTile(0, 0, 0, Tr::maxDepth);
    });
    test::addChannel<Plain<Tr, float>>(*native, "a", 0.0f, [](TileKey const& key, int flat) {
        const int3 ijk = cubeIndex(Tr::width, flat);
        return float(noise(key, ijk.x, ijk.y, ijk.z));
    });
    createDofs<Tr>("dofs", *native);
    auto channel = native->template extractComponent<Plain<Tr, float>>("a");
    setNonDOFValues(0, Tr::maxDepth, *test::treeOf<Tr>(*native), *channel, *native->template component<DofChannel<Tr>>("dofs"), kNonDofCopy);
    setNonLeafValueToChildValue(*channel, *test::treeOf<Tr>(*native), kCorner, 0, Tr::maxDepth);
    native->putComponent(std::move(channel));
    Corvid::Ptr<OST::Component> removed;
    native->removeComponent("dofs", removed);
    HostPtr volume = hostVolume(std::move(native));
    EXPECT_FALSE(checkVolume(*volume).graded);
    EXPECT_EQ(faultsOf(checkVolume(*volume)), "");
    Geometry::Volume::grade_volume(volume, {});
    EXPECT_TRUE(checkVolume(*volume).graded);
    EXPECT_EQ(faultsOf(checkVolume(*volume, io::GradingRule::kRequired)), "");
}

TYPED_TEST(CheckedVolume, that_is_not_graded_is_wrong_only_if_it_must_be_and_the_first_tiles_are_named)
{
    using Tr = TypeParam;
    // Of two tiles of depth 3 along the low border, the first has only a tile of depth 1 before it. The second is there so that
    // those of depth 2 touch no tile of depth 0.
    constexpr int B = Tr::branching, low = Tr::rangeMin, place = low + B * Tr::tileVoxelWidth(3);
    auto ungraded = nativeVolume<Tr>([&](Tree<Tr>& tree) {
        tree.tileAccessor().addTile(place, low, low, 3);
        tree.tileAccessor().addTile(place + B * B * Tr::tileVoxelWidth(3), low, low, 3);
    });
    const HostPtr volume = hostVolume(std::move(ungraded));
    const CapturedStream errors(std::cerr);
    const VolumeCheck reported = checkVolume(*volume), required = checkVolume(*volume, io::GradingRule::kRequired);
    EXPECT_EQ(errors.text(), "");
    EXPECT_FALSE(reported.graded || required.graded);
    EXPECT_TRUE(reported.good());
    EXPECT_FALSE(required.good());
    EXPECT_TRUE(contains(faultsOf(required), "grade_volume adds the missing ones"));
    const std::string at = std::to_string(low), rest = ", " + at + ", " + at + ")";
    EXPECT_EQ(reported.gradingFault, "the tile of depth 3 at (" + std::to_string(place) + rest + " and the tile of depth 1 at (" + at + rest);
    EXPECT_TRUE(contains(toText(reported), "first " + reported.gradingFault)) << toText(reported);
    EXPECT_TRUE(contains(toJson(reported), "\"grading_fault\": \"" + reported.gradingFault + "\"")) << toJson(reported);
}

TYPED_TEST(CheckedVolume, whose_parts_have_other_sizes_is_wrong)
{
    using Tr = TypeParam;

    auto native = gradedVolume<Tr>();
    addLinear<Tr>(*native, "a", {1, 1, 1}, 0.0f);
    auto tree = native->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    tree->tileAccessor().addTile(Tr::width, 0, 0, Tr::maxDepth);
    tree->tileAccessor().addTile(-Tr::width, 0, 0, Tr::maxDepth);
    native->putComponent(std::move(tree));
    const VolumeCheck check = checkVolume(*hostVolume(std::move(native)));
    EXPECT_GE(check.tree.size(), 2u);
    EXPECT_TRUE(contains(toText(check), "property 'a' has")) << toText(check);
    EXPECT_TRUE(contains(toText(check), "the topology counts")) << toText(check);
    EXPECT_THROW(checkVolume(Ostara::Object()), io::InputError);
}

TYPED_TEST(CheckedVolume, measures_the_slope_of_linear_distances_exactly)
{
    using Tr = TypeParam;
    for (const double slope : {1.0, 2.0}) {
        const float h = 0.25f;
        auto native = gradedVolume<Tr>(h);
        // Distances in world units: the band is as wide as the 5 coarsest voxels around the plane that are still exact.
        const float band = h * float(2 * Tr::voxelDataWidth(Tr::maxDepth - 3));
        addLinear<Tr>(*native, sVoxelSignedDistance, {0, 0, slope * h}, band);
        const VolumeCheck check = checkVolume(*hostVolume(std::move(native)));
        ASSERT_FALSE(check.gradient.empty());
        for (io::GradientCheck const& depth : check.gradient) {
            EXPECT_GT(depth.voxels, 0);
            // Multiples of a quarter below 2^20 have no rounding.
            EXPECT_EQ(depth.mean, slope - 1.0) << depth.depth;
            EXPECT_EQ(depth.largest, slope - 1.0) << depth.depth;
        }
    }
}

TYPED_TEST(CheckedVolume, finds_the_voxels_of_a_ridge_and_how_far_they_lie_from_the_crease)
{
    using Tr = TypeParam;
    // The larger of x and z, at one depth only: exact but for the voxels with x = z, which see one half of either slope. Where
    // these are within a voxel of 0 they lie on the crease.
    auto native = nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTiles({-20, 0, -20}, {19, 19, 19}, Tr::maxDepth); });
    test::addChannel<Plain<Tr, float>>(*native, sVoxelSignedDistance, 8.0f, [](TileKey const& tile, int flat) {
        return std::max(linearAt<Tr>(tile, flat, {1, 0, 0}), linearAt<Tr>(tile, flat, {0, 0, 1}));
    }, Tr::maxDepth);
    const io::SlopeReport report = io::measureSlope(*hostVolume(std::move(native)));
    io::GradientCheck const& finest = report.gradient.back();
    ASSERT_EQ(finest.depth, Tr::maxDepth);
    EXPECT_EQ(finest.median, 0.0);
    EXPECT_DOUBLE_EQ(finest.largest, 1 - std::sqrt(0.5));
    // x = z from -7 to 7, and as many y for each.
    EXPECT_EQ(finest.steep.voxels % 15, 0);
    EXPECT_GT(finest.steep.voxels, 15 * 8);
    EXPECT_EQ(finest.steep.nearKink, finest.steep.voxels);
    // The crease holds -1, 0 and 1: the others are up to 6 diagonals away, in the median 3.
    EXPECT_DOUBLE_EQ(finest.steep.largestToCrease, 6 * std::sqrt(2.0));
    EXPECT_DOUBLE_EQ(finest.steep.medianToCrease, 3 * std::sqrt(2.0));
    EXPECT_TRUE(contains(toText(report), "100 % of these within 2 voxels of a kink, 4.24264 voxels from a crease in the median, 8.48528 at most")) << toText(report);
}

TYPED_TEST(CheckedVolume, without_creases_says_so)
{
    using Tr = TypeParam;
    auto native = gradedVolume<Tr>();
    addLinear<Tr>(*native, sVoxelSignedDistance, {0, 0, 2}, 8.0f);
    const io::SlopeReport report = io::measureSlope(*hostVolume(std::move(native)));
    for (io::GradientCheck const& depth : report.gradient) {
        EXPECT_EQ(depth.median, 1.0);
        EXPECT_EQ(depth.steep.voxels, depth.voxels);
        EXPECT_EQ(depth.steep.nearKink, 0);
    }
    EXPECT_TRUE(contains(toText(report), "0 % of these within 2 voxels of a kink, and no crease anywhere")) << toText(report);
    EXPECT_TRUE(contains(toJson(report), "\"median_to_crease\": null")) << toJson(report);
    EXPECT_THROW(io::measureSlope(*hostVolume(gradedVolume<Tr>())), io::InputError);
}

TYPED_TEST(CheckedVolume, of_an_edited_level_file_is_reported_when_it_is_read_too)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto native = gradedVolume<Tr>();
    addLinear<Tr>(*native, "a", {1, -2, 0.5}, 0.0f);
    changeOne<Tr>(*native, "a", isAboveChild<Tr>, 2.0f);
    io::writeVdb(folder.file("a.vdb"), *hostVolume(std::move(native)), {}, io::VdbLayout::kLevels);
    KeptMessages messages;
    const auto read = io::readVdb(folder.file("a.vdb"), {}, messages.services());
    EXPECT_TRUE(messages.mention("voxels above children that do not hold the child's value"));
    EXPECT_FALSE(checkVolume(*read.front().volume).good());
}

TYPED_TEST(CheckedVolume, of_means_at_centres_is_good_if_they_are_means)
{
    using Tr = TypeParam;
    auto native = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, 1.0f, kCenter);
    auto tree = native->template extractComponent<Tree<Tr>>(sVoxelTileTree);
    auto topology = native->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    tree->tileAccessor().addTile(0, 0, 0, 2);
    topology->update(*tree);
    native->putComponent(std::move(tree));
    native->putComponent(std::move(topology));
    // Constant: its means are itself. A constant that is changed in a child is no longer the mean above it.
    test::addChannel<Plain<Tr, float>>(*native, "a", 0.0f, [](TileKey const&, int) { return 1.5f; });
    Native copy(*native);
    EXPECT_EQ(checkVolume(*Ostara::Geometry::move_ost_volume_to_object(copy)).properties[0].aboveChildren.wrong, 0);
    changeOne<Tr>(*native, "a", [](auto const& tile, int) { return tile.depth() == 2; }, 1.0f);
    EXPECT_EQ(checkVolume(*hostVolume(std::move(native))).properties[0].aboveChildren.wrong, 1);
}

}  // namespace
}  // namespace tilegrid::test
