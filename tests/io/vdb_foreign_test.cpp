// Files as other programs write them: made with OpenVDB here, read with our reader.
#include "io/error.h"
#include "io/vdb.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/LevelSetSphere.h>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::readVdb;
using io::VdbOptions;
using Ostara::Geometry::sVoxelSignedDistance;
using namespace OST::TileTree3D;

void writeGrids(std::string const& path, std::vector<openvdb::GridBase::Ptr> const& grids)
{
    openvdb::initialize();
    openvdb::io::File file(path);
    file.write(openvdb::GridCPtrVec(grids.begin(), grids.end()));
    file.close();
}

template <class Tr>
std::vector<io::NamedVolume> readAll(std::string const& path, Corvid::RuntimeServices const& services,
                                     std::uint64_t maxBytes = 0)
{
    VdbOptions options;
    options.structure = structureOf<Tr>();
    options.maxBytes = maxBytes;
    return readVdb(path, options, services);
}

openvdb::FloatGrid::Ptr fog(std::string const& name, double h, openvdb::Vec3d const& shift)
{
    auto grid = openvdb::FloatGrid::create(0.0f);
    grid->setName(name);
    auto transform = openvdb::math::Transform::createLinearTransform(h);
    transform->postTranslate(shift);
    grid->setTransform(transform);
    grid->tree().setValueOn({1, 2, 3}, 4.0f);
    return grid;
}

/// The value of a property in the finest tile at a place of tile space.
template <class Tr, class T = float>
T valueAt(Ostara::Object const& volume, Corvid::String const& name, int3 const& place)
{
    const auto tree = treeOf<Tr>(volume);
    const ConstTileAccessor<Tr> accessor(*tree);
    auto const& tile = accessor.tileImpl(place.x, place.y, place.z, Tr::maxDepth);
    const int w = tile.voxelDataWidth();
    const int3 local = place - tile.tijk();
    return channelOf<Tr, T>(volume, name)->tileData(tile.treeIndex())(int3(local.x / w, local.y / w, local.z / w));
}

template <class Tr> class ForeignVdb : public ::testing::Test {};
TYPED_TEST_SUITE(ForeignVdb, Structures, StructureNames);

TYPED_TEST(ForeignVdb, level_set_keeps_its_band_bit_for_bit_and_true_distances_beyond)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const float h = 0.1f, radius = 2.0f;
    const openvdb::Vec3f centre(0.33f, -0.21f, 0.57f);
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(radius, centre, h, 3.0f);
    grid->setName("ball");
    writeGrids(folder.file("a.vdb"), {grid});
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), {});
    ASSERT_EQ(volumes.size(), 1u);
    EXPECT_EQ(volumes.front().name, "ball");
    Ostara::Object const& volume = *volumes.front().volume;
    EXPECT_EQ(channelOf<Tr>(volume)->defaultValue(), grid->background());
    openvdb::Index64 active = 0;
    for (auto voxel = grid->cbeginValueOn(); voxel; ++voxel, ++active) {
        const openvdb::Coord c = voxel.getCoord();
        ASSERT_EQ((valueAt<Tr>(volume, sVoxelSignedDistance, {c.x(), c.y(), c.z()})), *voxel);
    }
    EXPECT_GT(active, 1000u);
    const auto tree = treeOf<Tr>(volume);
    // The tiles: those with an active voxel.
    for (OST::int64 n = 0; n < tree->tileCount(Tr::maxDepth); ++n) {
        bool any = false;
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const int3 p = tree->tile(n, Tr::maxDepth).tijk() + cubeIndex(Tr::width, flat);
            any = any || grid->tree().isValueOn({p.x, p.y, p.z});
        }
        ASSERT_TRUE(any);
    }
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const float3 p =
                    h * float3(tree->tile(n, depth).tijk() + Tr::voxelDataWidth(depth) * cubeIndex(Tr::width, flat));
                const double wanted = length(double3(p) - double3(centre[0], centre[1], centre[2])) - radius;
                // Half a finest voxel, the least that any depth may be off.
                ASSERT_NEAR(channelOf<Tr>(volume)->tileData(n, depth)(flat), wanted,
                            0.5 * h + 0x1p-22 * std::abs(wanted));
            }
}

TYPED_TEST(ForeignVdb, level_set_with_samples_at_centres_is_true_at_every_depth)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const float h = 0.1f, radius = 1.5f;
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(radius, openvdb::Vec3f(0.0f), h, 3.0f);
    grid->transform().postTranslate(openvdb::Vec3d(0.5 * double(h)));
    writeGrids(folder.file("a.vdb"), {grid});
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), {});
    Ostara::Object const& volume = *volumes.front().volume;
    EXPECT_EQ(volume.native()->template component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp)->offsetType(),
              kCenter);
    const auto tree = treeOf<Tr>(volume);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const double w = Tr::voxelDataWidth(depth);
                const double3 p = double(h)
                    * (double3(tree->tile(n, depth).tijk()) + w * (double3(cubeIndex(Tr::width, flat)) + double3(0.5)));
                const double wanted = length(p - double3(0.5 * double(h))) - radius;
                ASSERT_NEAR(channelOf<Tr>(volume)->tileData(n, depth)(flat), wanted,
                            0.5 * h + 0x1p-22 * std::abs(wanted))
                    << "depth " << depth;
            }
}

TYPED_TEST(ForeignVdb, shift_by_whole_voxels_moves_the_tiles)
{
    using Tr = TypeParam;
    const TestFolder folder;
    writeGrids(folder.file("a.vdb"), {fog("density", 0.5, {-50.0, 0.5, 1000.0})});
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), {});
    Ostara::Object const& volume = *volumes.front().volume;
    EXPECT_EQ((valueAt<Tr>(volume, "density", {-99, 3, 2003})), 4.0f);
    EXPECT_EQ(treeOf<Tr>(volume)->tileCount(Tr::maxDepth), 1);
}

TYPED_TEST(ForeignVdb, grids_of_one_lattice_share_a_volume_and_others_are_named)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto velocity = openvdb::Vec3SGrid::create(openvdb::Vec3s(0.0f));
    velocity->setName("velocity");
    velocity->setTransform(openvdb::math::Transform::createLinearTransform(0.5));
    velocity->tree().setValueOn({-5, 0, 9}, openvdb::Vec3s(1, 2, 3));
    auto mask = openvdb::MaskGrid::create();
    mask->setName("mask");
    writeGrids(folder.file("a.vdb"),
               {fog("density", 0.5, {0, 0, 0}), fog("heat", 0.5, {0.25, 0.25, 0.25}), velocity,
                fog("coarse", 1.0, {0, 0, 0}), mask, fog("density", 0.5, {0, 0, 0})});
    KeptMessages messages;
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), messages.services());
    ASSERT_EQ(volumes.size(), 4u);
    EXPECT_EQ(volumes[0].name, "density");
    EXPECT_EQ((valueAt<Tr>(*volumes[0].volume, "density", {1, 2, 3})), 4.0f);
    EXPECT_EQ((valueAt<Tr, float3>(*volumes[0].volume, "velocity", {-5, 0, 9})), float3(1, 2, 3));
    EXPECT_EQ((valueAt<Tr, float3>(*volumes[0].volume, "velocity", {1, 2, 3})), float3(0, 0, 0));
    EXPECT_EQ(volumes[1].name, "heat");
    EXPECT_EQ(volumes[2].name, "coarse");
    EXPECT_EQ(volumes[3].name, "density");  // the name is taken in the first
    EXPECT_TRUE(messages.mention("'mask' is left out"));
    EXPECT_TRUE(messages.mention("'density', 'velocity'") && messages.mention("4 volumes"));
}

TYPED_TEST(ForeignVdb, constant_regions_become_the_largest_tiles_that_fit)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto grid = openvdb::FloatGrid::create(0.0f);
    grid->setName("density");
    // One constant node of 128^3 and one of 8^3.
    grid->tree().addTile(2, openvdb::Coord(0, 0, 0), 0.5f, true);
    grid->tree().addTile(1, openvdb::Coord(-8, -8, -8), 0.25f, true);
    writeGrids(folder.file("a.vdb"), {grid});
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), {});
    Ostara::Object const& volume = *volumes.front().volume;
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume, "density");
    EXPECT_TRUE(checkTree(*tree).empty());
    double mass = 0.0;
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const int3 ijk = cubeIndex(Tr::width, flat);
                if (tree->tile(n, depth).isLeaf(tree->tile(n, depth).voxelChildIJK(ijk.x, ijk.y, ijk.z)))
                    mass += values->tileData(n, depth)(flat) * std::pow(Tr::voxelDataWidth(depth), 3);
            }
    EXPECT_DOUBLE_EQ(mass, 0.5 * 128 * 128 * 128 + 0.25 * 8 * 8 * 8);
    if (Tr::branching == 2) {
        // Both are aligned with tiles of their width, so that each is one tile: 4 voxels of 32, and of 2.
        EXPECT_EQ(tree->tileCount(Tr::maxDepth), 0);
        EXPECT_EQ(tree->deepestDepth(), Tr::maxDepth - 1);
        EXPECT_EQ((valueAt<Tr>(volume, "density", {127, 127, 127})), 0.5f);
    } else {
        EXPECT_LT(tree->tileCount(-1) * Tr::voxelCount, 128 * 128 * 128);  // the inside is coarse
    }
}

TYPED_TEST(ForeignVdb, constant_regions_are_counted_before_they_are_made)
{
    const TestFolder folder;
    auto grid = openvdb::FloatGrid::create(0.0f);
    grid->setName("density");
    grid->tree().addTile(3, openvdb::Coord(0, 0, 0), 0.5f, true);  // 4096^3, shifted off every lattice of tiles
    auto transform = openvdb::math::Transform::createLinearTransform(1.0);
    transform->postTranslate(openvdb::Vec3d(1.0));
    grid->setTransform(transform);
    writeGrids(folder.file("a.vdb"), {grid});
    const std::string text = errorOf<InputError>([&] { readAll<TypeParam>(folder.file("a.vdb"), {}, 50 << 20); });
    EXPECT_TRUE(contains(text, "would take more than") && contains(text, "50.0 MiB")) << text;
}

TYPED_TEST(ForeignVdb, active_constant_nodes_of_a_level_set_are_no_band)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(20.0f, openvdb::Vec3f(0.0f), 1.0f, 3.0f);
    const auto before = readAll<Tr>((writeGrids(folder.file("a.vdb"), {grid}), folder.file("a.vdb")), {});
    grid->tree().addTile(1, openvdb::Coord(0, 0, 0), -3.0f, true);
    const auto after = readAll<Tr>((writeGrids(folder.file("b.vdb"), {grid}), folder.file("b.vdb")), {});
    EXPECT_EQ(differencesAt<Tr>(Tr::maxDepth, *before.front().volume, *after.front().volume), "");
}

TYPED_TEST(ForeignVdb, level_set_without_a_surface_keeps_its_background_and_says_so)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto grid = openvdb::FloatGrid::create(3.0f);
    grid->setGridClass(openvdb::GRID_LEVEL_SET);
    grid->setName("nothing");
    grid->tree().setValueOn({0, 0, 0}, 2.5f);
    writeGrids(folder.file("a.vdb"), {grid});
    KeptMessages messages;
    const auto volumes = readAll<Tr>(folder.file("a.vdb"), messages.services());
    EXPECT_TRUE(messages.mention("'nothing' has no surface"));
    EXPECT_EQ((valueAt<Tr>(*volumes.front().volume, sVoxelSignedDistance, {0, 0, 0})), 2.5f);
    EXPECT_EQ((valueAt<Tr>(*volumes.front().volume, sVoxelSignedDistance, {1, 0, 0})), 3.0f);
}

TYPED_TEST(ForeignVdb, grids_beyond_tile_space_are_refused)
{
    const TestFolder folder;
    writeGrids(folder.file("a.vdb"), {fog("density", 1.0, {700e6, 0, 0})});
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readAll<TypeParam>(folder.file("a.vdb"), {}); }),
                         "reaches beyond the tree"));
    writeGrids(folder.file("b.vdb"), {fog("density", 0.01, {7e8, 0, 0})});
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readAll<TypeParam>(folder.file("b.vdb"), {}); }),
                         "too far from the origin"));
}

TEST(ForeignVdbTransform, is_refused_with_a_hint_unless_it_is_a_uniform_scale)
{
    const TestFolder folder;
    const auto complaint = [&](openvdb::math::Transform::Ptr const& transform) {
        auto grid = fog("density", 1.0, {0, 0, 0});
        grid->setTransform(transform);
        writeGrids(folder.file("a.vdb"), {grid});
        const std::string text = errorOf<InputError>([&] { readVdb(folder.file("a.vdb"), {}, {}); });
        EXPECT_TRUE(contains(text, "'density'") && contains(text, "resample")) << text;
        return text;
    };
    auto rotated = openvdb::math::Transform::createLinearTransform(0.5);
    rotated->postRotate(0.3, openvdb::math::Z_AXIS);
    EXPECT_TRUE(contains(complaint(rotated), "rotated"));
    auto uneven = openvdb::math::Transform::createLinearTransform(0.5);
    uneven->postScale(openvdb::Vec3d(1, 1, 2));
    EXPECT_TRUE(contains(complaint(uneven), "scaled by axes"));
    auto mirrored = openvdb::math::Transform::createLinearTransform(0.5);
    mirrored->postScale(openvdb::Vec3d(-1));
    EXPECT_TRUE(contains(complaint(mirrored), "voxel size -0.5"));
    auto third = openvdb::math::Transform::createLinearTransform(0.5);
    third->postTranslate(openvdb::Vec3d(0.2, 0, 0));
    EXPECT_TRUE(contains(complaint(third), "shifted by 0.4 voxels"));
    auto staggered = openvdb::math::Transform::createLinearTransform(0.5);
    staggered->postTranslate(openvdb::Vec3d(0.25, 0, 0));
    EXPECT_TRUE(contains(complaint(staggered), "some axes only"));
    EXPECT_TRUE(contains(complaint(openvdb::math::Transform::createFrustumTransform(
                             openvdb::BBoxd(openvdb::Vec3d(0), openvdb::Vec3d(10)), 0.5, 5.0)),
                         "frustum"));
}

TEST(ForeignVdbNames, that_volumes_need_for_themselves_are_refused)
{
    const TestFolder folder;
    for (Corvid::String const& name :
         {Ostara::Geometry::sVoxelTileTree, Ostara::Geometry::sVoxelComp, sVoxelSignedDistance}) {
        writeGrids(folder.file("a.vdb"), {fog(name.str(), 1.0, {0, 0, 0})});
        EXPECT_TRUE(contains(errorOf<InputError>([&] { readVdb(folder.file("a.vdb"), {}, {}); }), name.str()));
    }
    writeGrids(folder.file("a.vdb"), {openvdb::MaskGrid::create()});
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readVdb(folder.file("a.vdb"), {}, {}); }), "no float"));
}

/// Damage ends in an error or in a volume, never in a crash.
TEST(ForeignVdbDamage, is_survived)
{
    const TestFolder folder;
    auto grid = openvdb::tools::createLevelSetSphere<openvdb::FloatGrid>(3.0f, openvdb::Vec3f(0.0f), 1.0f, 3.0f);
    writeGrids(folder.file("a.vdb"), {grid, fog("density", 1.0, {0, 0, 0})});
    const std::string whole = folder.read("a.vdb");
    constexpr std::uint64_t kSeed = 99;
    Random random(kSeed);
    int refused = 0;
    for (int round = 0; round < 120; ++round) {
        SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(kSeed));
        std::string content = whole;
        for (int n = 0; n < 3; ++n)
            content[static_cast<std::size_t>(random.below(static_cast<std::int64_t>(content.size())))] =
                static_cast<char>(random.below(256));
        KeptMessages messages;
        VdbOptions options;
        options.maxBytes = 64 << 20;
        try {
            readVdb(folder.write("damaged.vdb", content), options, messages.services());
        } catch (InputError const&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, 0);
}

}  // namespace
}  // namespace tilegrid::test
