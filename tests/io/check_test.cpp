// What the check of a volume finds, on volumes that are broken in one known way.
#include "io/check.h"
#include "io/error.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"
#include "support/volumes.h"

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
    const auto changed = [&](char const* name, float by) {
        Native copy(*native);
        Corvid::Ptr<OST::Component> removed;
        copy.removeComponent("dofs", removed);
        changeOne<Tr>(copy, name, hangs, by);
        return checkVolume(*Ostara::Geometry::move_ost_volume_to_object(copy));
    };
    const VolumeCheck plain = changed("a", 1.0f);
    EXPECT_TRUE(contains(faultsOf(plain), "'a' has 1 hanging")) << faultsOf(plain);
    // The finest hanging voxels lie between samples B apart, so a true distance may be off by the root of one half of that.
    const float bound = std::sqrt(0.5f) * Tr::branching;
    EXPECT_EQ(faultsOf(changed(sVoxelSignedDistance.str().c_str(), 0.95f * bound)), "");
    EXPECT_TRUE(contains(faultsOf(changed(sVoxelSignedDistance.str().c_str(), 1.05f * bound)), "1 hanging"));
}

TYPED_TEST(CheckedVolume, that_is_not_graded_or_whose_parts_have_other_sizes_is_wrong)
{
    using Tr = TypeParam;
    // The finest tile in the corner of its parent touches what the parent's neighbour would cover: there is none, so that is two
    // levels coarser or more.
    auto ungraded = nativeVolume<Tr>([](Tree<Tr>& tree) {
        auto accessor = tree.tileAccessor();
        const int3 corner = tree.tile(accessor.addTile(1000, 1000, 1000, Tr::maxDepth - 1)).tijk();
        accessor.addTile(corner.x, corner.y, corner.z, Tr::maxDepth);
    });
    EXPECT_FALSE(checkVolume(*hostVolume(std::move(ungraded))).graded);

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
