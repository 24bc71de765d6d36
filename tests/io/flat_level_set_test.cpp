// Level sets in flat files: a whole narrow band, which OpenVDB's own checks accept.
#include "io/flat_vdb.h"

#include "io/error.h"
#include "merge/merge_volumes.h"
#include "support/meshes.h"
#include "support/paths.h"

#include <openvdb/tools/MeshToVolume.h>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::VdbWriteOptions;
using io::writeVdb;
using Ostara::Geometry::sVoxelSignedDistance;
using namespace OST::TileTree3D;

constexpr std::size_t kAllButSlope = 8, kAll = 9;

/// Compares every voxel of a cube around the origin with what the sampler reads there. \return how many are in the band
template <class Tr>
int compareWithOracle(openvdb::FloatGrid const& grid, Ostara::Object const& volume, double bandVoxels, int reach)
{
    const FlatOracle<Tr> oracle(volume);
    const double band = bandVoxels * oracle.voxelSize();
    const auto accessor = grid.getConstAccessor();
    int active = 0, wrong = 0;
    for (int k = -reach; k <= reach; ++k)
        for (int j = -reach; j <= reach; ++j)
            for (int i = -reach; i <= reach; ++i) {
                const openvdb::Coord at(i, j, k);
                const float expected = oracle.at(at);
                const bool inBand = std::abs(double(expected)) < band;
                // The file tells only the side beyond the band, and a NaN has none.
                const float value = inBand ? expected : expected < 0 ? -grid.background() : grid.background();
                const bool good =
                    accessor.isValueOn(at) == inBand && (accessor.getValue(at) == value || expected != expected);
                active += inBand;
                if (!good && ++wrong <= 3)
                    ADD_FAILURE() << "voxel " << at << " is " << accessor.getValue(at) << ", " << accessor.isValueOn(at)
                                  << "; the sampler gives " << expected;
            }
    EXPECT_EQ(wrong, 0);
    return active;
}

void expectGood(openvdb::FloatGrid::Ptr const& grid)
{
    ASSERT_TRUE(grid);
    EXPECT_EQ(openvdb::tools::checkLevelSet(*grid, kAllButSlope), "");
}

template <class Tr> class FlatLevelSet : public ::testing::Test {};
TYPED_TEST_SUITE(FlatLevelSet, Structures, StructureNames);

TYPED_TEST(FlatLevelSet, holds_the_sampled_band_of_two_depths_and_nothing_else)
{
    using Tr = TypeParam;
    const auto volume = ballOfTwoDepths<Tr>();
    const int reach = Tr::branching == 2 ? 28 : 36;  // the radius is 20 and 25 voxels
    for (const double band : {1.0, 3.0, 7.5}) {
        SCOPED_TRACE("band " + std::to_string(band));
        VdbWriteOptions options;
        options.bandVoxels = band;
        const auto grid = flatGrid(*volume, "surface", options);
        expectGood(grid);
        const int active = compareWithOracle<Tr>(*grid, *volume, band, reach);
        EXPECT_EQ(int(grid->activeVoxelCount()), active);
        EXPECT_GT(active, 4000);
    }
}

TYPED_TEST(FlatLevelSet, holds_the_sampled_band_of_tiles_at_random_with_any_sample_offset)
{
    using Tr = TypeParam;
    std::uint64_t seed = 1;
    for (const VoxelOffsetType offset : {kCorner, kCenter, kFaceX})
        for (const double noise : {0.0, 1.0})
            for (const bool nans : {false, true}) {
                SCOPED_TRACE("seed " + std::to_string(seed) + ", offset " + std::to_string(offset));
                const auto volume = roughBall<Tr>(seed++, offset, noise, nans);
                const auto grid = flatGrid(*volume, "surface");
                ASSERT_TRUE(grid);
                EXPECT_GT(compareWithOracle<Tr>(*grid, *volume, 3.0, 24), 1000);
                expectGood(grid);
            }
}

TYPED_TEST(FlatLevelSet, ends_where_a_coarse_tile_is_not_finite_or_borders_on_tile_space)
{
    using Tr = TypeParam;
    // The tiles above the ball reach to the rim of tile space. Beyond it lies the default, 3, which is less than the band.
    const auto rim = roughBall<Tr>(5, kCorner, 0.0, false);
    VdbWriteOptions options;
    options.bandVoxels = 4;
    options.maxBytes = 64 << 20;
    const auto grid = flatGrid(*rim, "surface", options);
    expectGood(grid);
    EXPECT_LE(grid->evalActiveVoxelDim().x(), 2 * (9 + 4 + Tr::branching));
    // Infinities and NaN at all tiles above, which are up to 2^28 voxels wide.
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    io::addChannel<Tr>(*native, sVoxelSignedDistance, 3.0f, [](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, depth)(flat) = depth == Tr::maxDepth ? 1.0f
                        : flat % 3 == 0                                      ? -1.0f
                        : flat % 3 == 1                                      ? std::nanf("")
                                                                             : -INFINITY;
    });
    const auto bad = Ostara::Geometry::move_ost_volume_to_object(*native);
    const auto small = flatGrid(*bad, "surface", options);
    ASSERT_TRUE(small);
    EXPECT_GE(small->activeVoxelCount(), std::uint64_t(Tr::voxelCount));
    EXPECT_EQ(openvdb::tools::checkLevelSet(*small, kAllButSlope), "");
}

TYPED_TEST(FlatLevelSet, has_a_background_of_three_voxels_at_the_least_at_any_voxel_size_and_in_half)
{
    using Tr = TypeParam;
    constexpr std::uint64_t kSeed = 12;
    Random random(kSeed);
    for (int n = 0; n < 40; ++n) {
        const float h = std::exp2(float(random.below(22000)) / 1000 - 11);  // from 2^-11 to 2^11
        io::LevelSetOptions made;
        made.voxelSize = h;
        made.structure = structureOf<Tr>();
        const auto volume = io::levelSetFromShape(io::Sphere{{0, 0, 0}, 4.3 * double(h)}, made);
        for (const bool half : {false, true}) {
            SCOPED_TRACE("voxel size " + std::to_string(h) + (half ? ", half" : "") + ", seed "
                         + std::to_string(kSeed));
            VdbWriteOptions options;
            options.half = half;
            options.bandVoxels = 1 + double(random.below(5));
            const auto grid = flatGrid(*volume, "surface", options);
            expectGood(grid);
            EXPECT_EQ(grid->saveFloatAsHalf(), half);
            const double least = std::max(3.0, options.bandVoxels) * double(h);
            EXPECT_GE(double(grid->background()), least);
            // One step of a 16-bit float (2^-10 of a number at the most), or a few of a float.
            EXPECT_LE(double(grid->background()), least * (1 + (half ? 0x1p-10 : 0x1p-21)));
        }
    }
}

TYPED_TEST(FlatLevelSet, keeps_32_bits_with_a_warning_where_16_do_not_hold_the_band)
{
    for (const float h : {1e5f, 2e-5f}) {
        const TestFolder folder;
        io::LevelSetOptions made;
        made.voxelSize = h;
        made.structure = structureOf<TypeParam>();
        const auto volume = io::levelSetFromShape(io::Sphere{{0, 0, 0}, 5.0 * double(h)}, made);
        VdbWriteOptions options;
        options.half = true;
        KeptMessages messages;
        writeVdb(folder.file("a.vdb"), *volume, messages.services(), options);
        EXPECT_TRUE(messages.mention("keeps its 32 bits")) << h;
        expectGood(openvdb::gridPtrCast<openvdb::FloatGrid>(gridsIn(folder.file("a.vdb")).front()));
    }
}

/// OpenVDB's own file of a mesh.
struct Peer {
    openvdb::FloatGrid::Ptr grid;
    std::size_t bytes = 0;

    Peer(io::TriangleMesh const& mesh, float h)
    {
        openvdb::initialize();
        std::vector<openvdb::Vec3s> points;
        std::vector<openvdb::Vec3I> triangles;
        for (auto const& v : mesh.vertices) points.emplace_back(float(v.x), float(v.y), float(v.z));
        for (auto const& t : mesh.triangles) triangles.emplace_back(t.x, t.y, t.z);
        grid = openvdb::tools::meshToLevelSet<openvdb::FloatGrid>(
            *openvdb::math::Transform::createLinearTransform(double(h)), points, triangles);
        grid->setName("surface");
        const TestFolder folder;
        openvdb::io::File file(folder.file("peer.vdb"));
        file.write(openvdb::GridCPtrVec{grid});
        file.close();
        bytes = folder.read("peer.vdb").size();
    }
};

openvdb::Index64 slopesOff(openvdb::FloatGrid const& grid)
{
    openvdb::tools::CheckLevelSet<openvdb::FloatGrid> check(grid);
    check.check(kAll, /*updateMask*/ true);
    return check.failureCount();
}

TYPED_TEST(FlatLevelSet, of_the_bunny_is_as_good_and_as_small_as_that_of_openvdb)
{
    const io::TriangleMesh bunny = io::readMesh(exampleFile("bunny.obj"), 0, {});
    const float h = 0.1f;
    const Peer peer(bunny, h);
    const TestFolder folder;  // after the peer's, which has the same name
    writeVdb(folder.file("a.vdb"), *levelSetOf<TypeParam>(bunny, h), {});
    const auto grid = openvdb::gridPtrCast<openvdb::FloatGrid>(gridsIn(folder.file("a.vdb")).front());
    expectGood(grid);
    EXPECT_LE(slopesOff(*grid), slopesOff(*peer.grid));
    EXPECT_LE(double(folder.read("a.vdb").size()), 1.05 * double(peer.bytes));
    EXPECT_GT(grid->activeVoxelCount(), peer.grid->activeVoxelCount() / 2);
}

/// The scene of the README in larger voxels: a bunny, a ring of the other structure and a finer cube, merged adaptively.
template <class Tr> HostPtr mergedScene(bool adaptive)
{
    const auto options = [](float h, io::Structure structure) {
        io::LevelSetOptions made;
        made.voxelSize = h;
        made.structure = structure;
        return made;
    };
    const io::Structure other = Tr::branching == 2 ? io::Structure::kQuinary : io::Structure::kBinary;
    const HostPtr bunny = levelSetOf<Tr>(io::readMesh(exampleFile("bunny.obj"), 0, {}), 0.2f);
    const HostPtr ring = io::levelSetFromShape(io::Torus{{0, 2, 0}, 4.9, 0.7}, options(0.3f, other));
    const HostPtr cube =
        io::levelSetFromShape(io::Box{{0.6, 5.6, -0.5}, {1.6, 6.6, 0.5}}, options(0.05f, structureOf<Tr>()));
    MergeCase merging;
    merging.adaptive = adaptive;
    merging.tolerance = 0.2f;
    merging.structure = Tr::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    return merge({bunny, ring, cube}, merging);
}

TYPED_TEST(FlatLevelSet, of_a_merge_of_several_voxel_sizes_passes_every_check_but_that_of_slopes)
{
    for (const bool adaptive : {false, true}) {
        const auto grid = flatGrid(*mergedScene<TypeParam>(adaptive), "surface");
        expectGood(grid);
        EXPECT_GT(grid->activeVoxelCount(), 100000u);
    }
}

TYPED_TEST(FlatLevelSet, of_a_ball_beside_the_origin_is_as_small_as_its_surface)
{
    // The coarsest leaf voxels reach half way through tile space from a corner near the ball; at their other end values are so large
    // that floats there step by many bands.
    for (const float3& centre : {float3(0.12f, 0.12f, 0.12f), float3(0.0f, 0.125f, 0.0f), float3(-0.1f, -0.3f, 0.12f)}) {
        VdbWriteOptions options;
        // The band has some 250,000 voxels; the estimate counts the blocks, too, where floats cannot tell at once that there is none.
        options.maxBytes = 256 << 20;
        const auto grid = flatGrid(*levelSetOf<TypeParam>(sphereMesh(0.09f, 4, centre), 0.0016f), "surface", options);
        expectGood(grid);
        EXPECT_LT(grid->activeVoxelCount(), 400000u);
    }
}

TYPED_TEST(FlatLevelSet, is_refused_with_figures_before_it_is_made_where_it_is_larger_than_the_limit)
{
    using Tr = TypeParam;
    const TestFolder folder;
    folder.write("a.vdb", "old");
    // A plane through all of tile space: coarse tiles 2^28 voxels and more wide, and one finest tile beside the origin.
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    io::addChannel<Tr>(*native, sVoxelSignedDistance, 3.0f, [](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, depth)(flat) = float(tree.tile(n, depth).tijk().z)
                        + float(Tr::voxelDataWidth(depth)) * float(cubeIndex(Tr::width, flat).z) - 0.3f;
    });
    const auto plane = Ostara::Geometry::move_ost_volume_to_object(*native);
    VdbWriteOptions options;
    options.maxBytes = 1ull << 30;
    const std::string text = errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), *plane, {}, options); });
    EXPECT_TRUE(contains(text, "'surface' would take about") && contains(text, "1.0 GiB")
                && contains(text, "layout=levels"))
        << text;
    EXPECT_EQ(folder.read("a.vdb"), "old");
    // A ball takes its band, 2 KiB for each block of 512 voxels: about as many as an area of 12.6 at 0.02 has.
    const auto ball = levelSetOf<Tr>(sphereMesh(1.0f, 4), 0.02f);
    options.maxBytes = 1 << 20;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), *ball, {}, options); }), "1.0 MiB"));
    options.maxBytes = 40 << 20;
    EXPECT_NO_THROW(writeVdb(folder.file("a.vdb"), *ball, {}, options));
}

TYPED_TEST(FlatLevelSet, gives_the_same_file_on_any_number_of_threads)
{
    const TestFolder folder;
    const auto volume = ballOfTwoDepths<TypeParam>();
    std::string first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            writeVdb(folder.file("a.vdb"), *volume, {});
            if (first.empty()) first = folder.read("a.vdb");
            EXPECT_TRUE(folder.read("a.vdb") == first) << threads << " threads";
        });
}

TYPED_TEST(FlatLevelSet, comes_back_with_its_band_bit_for_bit)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto written = ballOfTwoDepths<Tr>();
    writeVdb(folder.file("a.vdb"), *written, {});
    const auto read = io::readVdb(folder.file("a.vdb"), {structureOf<Tr>(), 0}, {});
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read.front().name, "surface");
    const FlatOracle<Tr> before(*written), after(*read.front().volume);
    const auto grid = openvdb::gridPtrCast<openvdb::FloatGrid>(gridsIn(folder.file("a.vdb")).front());
    int voxels = 0;
    for (auto at = grid->cbeginValueOn(); at; ++at, ++voxels)
        ASSERT_EQ(after.at(at.getCoord()), before.at(at.getCoord()));
    EXPECT_GT(voxels, 10000);
    // With 16 bits a value keeps 11 of its own.
    VdbWriteOptions options;
    options.half = true;
    writeVdb(folder.file("half.vdb"), *written, {}, options);
    EXPECT_LT(folder.read("half.vdb").size(), folder.read("a.vdb").size());
    const auto coarse = io::readVdb(folder.file("half.vdb"), {structureOf<Tr>(), 0}, {});
    const FlatOracle<Tr> rounded(*coarse.front().volume);
    for (auto at = grid->cbeginValueOn(); at; ++at)
        ASSERT_NEAR(rounded.at(at.getCoord()), *at, std::max(0x1p-11 * std::abs(double(*at)), 0x1p-25));
}

TYPED_TEST(FlatLevelSet, has_the_name_that_was_asked_for)
{
    const TestFolder folder;
    const auto volume = ballOfTwoDepths<TypeParam>();
    VdbWriteOptions options;
    options.name = "hull";
    writeVdb(folder.file("a.vdb"), *volume, {}, options);
    EXPECT_EQ(gridsIn(folder.file("a.vdb")).front()->getName(), "hull");
    const auto read = io::readVdb(folder.file("a.vdb"), {}, {});
    EXPECT_EQ(read.front().name, "hull");
    EXPECT_TRUE(Ostara::Object::isA(*read.front().volume, *Ostara::Geometry::getLevelSetPrototype()));
    for (const double band : {0.5, 2e6, std::nan("")}) {
        options.bandVoxels = band;
        EXPECT_TRUE(contains(errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), *volume, {}, options); }),
                             "give 1 to 1e6"));
    }
}

}  // namespace
}  // namespace tilegrid::test
