// Fog and other properties in flat files, beside a level set and without one.
#include "io/flat_vdb.h"

#include "io/error.h"
#include "io/fog.h"

namespace tilegrid::test {
namespace {

using io::InputError;
using io::VdbWriteOptions;
using io::writeVdb;
using Ostara::Geometry::sVoxelFogDensity, Ostara::Geometry::sVoxelSignedDistance;
using namespace OST::TileTree3D;

constexpr float kWidth = 0.3f;  // of the fog, in world units

template <class Tr> Corvid::Ptr<Ostara::Object> ball()
{
    io::LevelSetOptions options;
    options.voxelSize = 0.05f;
    options.structure = structureOf<Tr>();
    return io::levelSetFromShape(io::Sphere{{0.02, 0.01, -0.03}, 1.0}, options);
}

/// Adds a channel whose values follow from the world position of their samples.
template <class Tr, class T, class At>
Corvid::Ptr<Ostara::Object> withProperty(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& name,
                                         T const& background, At const& at)
{
    auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(volume));
    io::addChannel<Tr>(*native, name, background, [&](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, depth)(flat) =
                        at(double(tree.voxelSize())
                           * (double3(tree.tile(n, depth).tijk())
                              + double(Tr::voxelDataWidth(depth)) * double3(cubeIndex(Tr::width, flat))));
    });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

/// A volume of tiles of the finest depth at multiples of their width along x, without properties.
template <class Tr> Corvid::Ptr<Ostara::Object> emptyVolume(std::vector<int> const& tiles = {0})
{
    std::vector<VoxelCoord> places;
    for (const int n : tiles) places.emplace_back(n * Tr::width, 0, 0, Tr::maxDepth);
    return Ostara::Geometry::move_ost_volume_to_object(*io::makeVolume<Tr>(places, 1.0f, kCorner));
}

template <class Tr> class FlatProperty : public ::testing::Test {};
TYPED_TEST_SUITE(FlatProperty, Structures, StructureNames);

TYPED_TEST(FlatProperty, of_fog_is_as_dense_in_the_file_as_in_memory_from_the_surface_to_the_middle)
{
    using Tr = TypeParam;
    for (const bool keep : {true, false}) {
        const auto levelSet = ball<Tr>();
        const auto fog = io::fogFromLevelSet(levelSet, kWidth, keep, {});
        const auto grid = flatGrid(*fog, "density");
        ASSERT_TRUE(grid);
        EXPECT_EQ(openvdb::tools::checkFogVolume(*grid, 6), "");
        const FlatOracle<Tr> density(*fog, sVoxelFogDensity), distance(*ball<Tr>());
        const auto accessor = grid->getConstAccessor();
        int full = 0;
        const double band = 3 * 0.05f;
        for (int k = -24; k <= 24; ++k)
            for (int j = -24; j <= 24; ++j)
                for (int i = -24; i <= 24; ++i) {
                    const openvdb::Coord at(i, j, k);
                    ASSERT_EQ(accessor.getValue(at), density.at(at)) << at;
                    ASSERT_EQ(accessor.isValueOn(at), keep ? double(distance.at(at)) < band : density.at(at) != 0)
                        << at;
                    full += accessor.getValue(at) == 1.0f;
                }
        // What lies deeper than the width: a ball of radius 0.7, 14 voxels. A coarse voxel with a sample outside of it is not
        // full, and reaches as far in as its diagonal.
        const auto voxelsOfBall = [](double radius) { return 4.0 / 3 * 3.14159265 * radius * radius * radius; };
        EXPECT_GT(full, voxelsOfBall(14 - std::sqrt(3.0) * Tr::branching));
        EXPECT_LT(full, voxelsOfBall(15));
        // Constant leaf voxels are constant nodes.
        EXPECT_GT(grid->tree().activeTileCount(), 0u);
    }
}

TYPED_TEST(FlatProperty, of_fog_comes_back_under_its_own_name)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto fog = io::fogFromLevelSet(ball<Tr>(), kWidth, /*keep*/ false, {});
    for (std::string const name : {"", "smoke"}) {
        VdbWriteOptions options;
        options.name = name;
        writeVdb(folder.file("a.vdb"), *fog, {}, options);
        const auto read = io::readVdb(folder.file("a.vdb"), {structureOf<Tr>(), 0}, {});
        ASSERT_EQ(read.size(), 1u);
        EXPECT_EQ(read.front().name, name.empty() ? "density" : name);
        ASSERT_TRUE(channelOf<Tr>(*read.front().volume, sVoxelFogDensity));
        const FlatOracle<Tr> before(*fog, sVoxelFogDensity), after(*read.front().volume, sVoxelFogDensity);
        // The middle, a place below the surface, and the outside.
        for (openvdb::Coord const& at : {openvdb::Coord(0, 0, 0), openvdb::Coord(17, 0, 0), openvdb::Coord(0, -23, 0)})
            EXPECT_EQ(after.at(at), before.at(at)) << at;
    }
    // Another program gave it another name: that is what it has then.
    auto grids = gridsIn(folder.file("a.vdb"));
    grids.front()->setName("steam");
    openvdb::io::File file(folder.file("b.vdb"));
    file.write(grids);
    file.close();
    EXPECT_TRUE(channelOf<Tr>(*io::readVdb(folder.file("b.vdb"), {structureOf<Tr>(), 0}, {}).front().volume, "steam"));
}

TYPED_TEST(FlatProperty, beside_a_level_set_is_active_where_that_is_negative_or_in_its_band)
{
    using Tr = TypeParam;
    auto volume =
        withProperty<Tr>(ballOfTwoDepths<Tr>(), "heat", 2.0, [](double3 const& p) { return 3.0 + p.x - 2 * p.y; });
    volume = withProperty<Tr>(volume, "velocity", float3(0),
                              [](double3 const& p) { return float3(float(p.y), 1.5f, float(p.z)); });
    volume = withProperty<Tr>(volume, "id", 0, [](double3 const& p) { return p.x < 0.1 ? 7 : 9; });
    const FlatOracle<Tr> distance(*volume);
    const FlatOracle<Tr, double> heat(*volume, "heat");
    const FlatOracle<Tr, float3> velocity(*volume, "velocity");
    const auto heats = flatGrid<openvdb::DoubleGrid>(*volume, "heat");
    const auto velocities = flatGrid<openvdb::Vec3SGrid>(*volume, "velocity");
    const auto ids = flatGrid<openvdb::Int32Grid>(*volume, "id");
    ASSERT_TRUE(heats && velocities && ids);
    const double band = 3 * distance.voxelSize();
    const int reach = Tr::branching == 2 ? 26 : 32;
    for (int k = -reach; k <= reach; ++k)
        for (int j = -reach; j <= reach; ++j)
            for (int i = -reach; i <= reach; ++i) {
                const openvdb::Coord at(i, j, k);
                const bool active = double(distance.at(at)) < band;
                ASSERT_EQ(heats->tree().isValueOn(at), active) << at;
                ASSERT_EQ(velocities->tree().isValueOn(at), active) << at;
                ASSERT_EQ(ids->tree().isValueOn(at), active) << at;
                ASSERT_EQ(heats->tree().getValue(at), active ? heat.at(at) : 2.0) << at;
                const float3 expected = active ? velocity.at(at) : float3(0);
                ASSERT_EQ(velocities->tree().getValue(at), openvdb::Vec3s(expected.x, expected.y, expected.z)) << at;
                ASSERT_TRUE(!active || ids->tree().getValue(at) == 7 || ids->tree().getValue(at) == 9) << at;
            }
    EXPECT_EQ(heats->getGridClass(), openvdb::GRID_UNKNOWN);
}

TYPED_TEST(FlatProperty, without_a_level_set_is_active_where_it_differs_from_its_default_near_the_fine_tiles)
{
    using Tr = TypeParam;
    // 5 in all of tile space, which has 2^58 voxels of the file and more; the default below z = 0.
    const auto volume =
        withProperty<Tr>(emptyVolume<Tr>({0, 3}), "heat", 1.0f, [](double3 const& p) { return p.z < 0 ? 1.0f : 5.0f; });
    VdbWriteOptions options;
    options.maxBytes = 64 << 20;
    const auto grid = flatGrid(*volume, "heat", options);
    ASSERT_TRUE(grid);
    const FlatOracle<Tr> oracle(*volume, "heat");
    const auto tree = treeOf<Tr>(*volume);
    const io::DepthLattice<Tr> lattice(Tr::maxDepth);
    const auto inBounds = [&](openvdb::Coord const& at) {
        int3 low(1 << 30), high(-(1 << 30));
        for (int depth = Tr::maxDepth - 1; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
                for (int axis = 0; axis < 3; ++axis) {
                    low[axis] = std::min(low[axis], tree->tile(n, depth).tijk()[axis]);
                    high[axis] = std::max(high[axis], tree->tile(n, depth).tijk()[axis] + Tr::tileVoxelWidth(depth));
                }
        const int3 place = lattice.placeOf({at.x(), at.y(), at.z()});
        return place.x >= low.x && place.y >= low.y && place.z >= low.z && place.x < high.x && place.y < high.y
            && place.z < high.z;
    };
    for (int k = -30; k <= 30; ++k)
        for (int j = -30; j <= 30; ++j)
            for (int i = -30; i <= 30; ++i) {
                const openvdb::Coord at(i, j, k);
                const bool active = oracle.at(at) != 1.0f && inBounds(at);
                ASSERT_EQ(grid->tree().isValueOn(at), active) << at;
                ASSERT_EQ(grid->tree().getValue(at), active ? oracle.at(at) : 1.0f) << at;
            }
}

TYPED_TEST(FlatProperty, is_a_fog_volume_only_with_all_values_from_0_to_1_and_a_default_of_0)
{
    using Tr = TypeParam;
    const auto classOf = [](float background, float value) {
        const auto volume = withProperty<Tr>(emptyVolume<Tr>(), "smoke", background,
                                             [&](double3 const& p) { return p.x == 1 ? value : 0.25f; });
        const auto grid = flatGrid(*volume, "smoke");
        EXPECT_EQ(openvdb::tools::checkFogVolume(*grid, 6).empty(), grid->getGridClass() == openvdb::GRID_FOG_VOLUME);
        return grid->getGridClass();
    };
    EXPECT_EQ(classOf(0, 1), openvdb::GRID_FOG_VOLUME);
    EXPECT_EQ(classOf(0, 1.0001f), openvdb::GRID_UNKNOWN);
    EXPECT_EQ(classOf(0, -1e-6f), openvdb::GRID_UNKNOWN);
    EXPECT_EQ(classOf(0, std::nanf("")), openvdb::GRID_UNKNOWN);
    EXPECT_EQ(classOf(0.5f, 1), openvdb::GRID_UNKNOWN);
}

TYPED_TEST(FlatProperty, beside_a_level_set_is_refused_with_figures_where_its_inside_is_larger_than_the_limit)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto linear = [](double3 const& p) { return p.x + p.y; };
    const auto varying = withProperty<Tr>(ball<Tr>(), "heat", 0.0, linear);
    VdbWriteOptions options;
    // The inside has 33,500 voxels and the band 15,000: at 8 bytes 0.4 MiB, in whole blocks more.
    options.maxBytes = 300 << 10;
    const std::string text = errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), *varying, {}, options); });
    EXPECT_TRUE(contains(text, "would take about") && contains(text, "300 KiB")) << text;
    options.maxBytes = 8 << 20;
    EXPECT_NO_THROW(writeVdb(folder.file("a.vdb"), *varying, {}, options));
}

TYPED_TEST(FlatProperty, has_a_name_of_its_own_in_the_file)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto namesOf = [&](Ostara::Object const& volume, std::string const& name) {
        VdbWriteOptions options;
        options.name = name;
        writeVdb(folder.file("a.vdb"), volume, {}, options);
        std::vector<std::string> names;
        for (auto const& grid : gridsIn(folder.file("a.vdb"))) names.push_back(grid->getName());
        std::ranges::sort(names);
        return names;
    };
    using Names = std::vector<std::string>;
    const auto both = io::fogFromLevelSet(ball<Tr>(), kWidth, /*keep*/ true, {});
    EXPECT_EQ(namesOf(*both, ""), (Names{"density", "surface"}));
    EXPECT_EQ(namesOf(*both, "hull"), (Names{"density", "hull"}));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { namesOf(*both, "density"); }), "another grid"));
    // A property that has the usual name keeps it.
    const auto taken = withProperty<Tr>(io::fogFromLevelSet(ball<Tr>(), kWidth, true, {}), "density", 0.0f,
                                        [](double3 const&) { return 3.0f; });
    EXPECT_EQ(namesOf(*taken, ""), (Names{"density", "surface", "voxel_fog_density"}));
    const auto one = [](double3 const&) { return 1.0f; };
    const auto single = withProperty<Tr>(emptyVolume<Tr>(), "heat", 0.0f, one);
    EXPECT_EQ(namesOf(*single, "warmth"), (Names{"warmth"}));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { namesOf(*withProperty<Tr>(single, "age", 0.0f, one), "warmth"); }),
                         "leave the name out"));
}

TYPED_TEST(FlatProperty, gives_the_same_file_on_any_number_of_threads)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto volume = withProperty<Tr>(io::fogFromLevelSet(ballOfTwoDepths<Tr>(), kWidth, true, {}), "heat", 0.0,
                                         [](double3 const& p) { return p.x; });
    std::string first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            writeVdb(folder.file("a.vdb"), *volume, {});
            if (first.empty()) first = folder.read("a.vdb");
            EXPECT_TRUE(folder.read("a.vdb") == first) << threads << " threads";
        });
}

TYPED_TEST(FlatProperty, keeps_32_bits_with_a_warning_where_16_do_not_hold_its_values)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto volume =
        withProperty<Tr>(withProperty<Tr>(emptyVolume<Tr>(), "pressure", 0.0f, [](double3 const&) { return 1e6f; }),
                         "age", 0.0f, [](double3 const&) { return 2.0f; });
    VdbWriteOptions options;
    options.half = true;
    KeptMessages messages;
    writeVdb(folder.file("a.vdb"), *volume, messages.services(), options);
    EXPECT_TRUE(messages.mention("'pressure' keeps its 32 bits"));
    for (auto const& grid : gridsIn(folder.file("a.vdb"))) {
        EXPECT_EQ(grid->saveFloatAsHalf(), grid->getName() == "age");
        const auto floats = openvdb::gridPtrCast<openvdb::FloatGrid>(grid);
        EXPECT_EQ(floats->tree().getValue({0, 0, 0}), grid->getName() == "age" ? 2.0f : 1e6f);
    }
}

}  // namespace
}  // namespace tilegrid::test
