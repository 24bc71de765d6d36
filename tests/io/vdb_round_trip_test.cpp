#include "io/error.h"
#include "io/surface.h"
#include "io/vdb.h"
#include "io/volume_builder.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/paths.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::extractSurface;
using io::InputError;
using io::readVdb;
using io::VdbOptions;
using io::writeVdb;
using namespace OST::TileTree3D;

const std::string kBunny = exampleFile("bunny.obj");

template <class Tr> Corvid::Ptr<Ostara::Object> readOne(std::string const& path)
{
    VdbOptions options;
    options.structure = structureOf<Tr>();
    KeptMessages messages;
    const auto volumes = readVdb(path, options, messages.services());
    EXPECT_EQ(volumes.size(), 1u);
    EXPECT_TRUE(messages.texts().empty()) << messages.texts().front();
    return volumes.front().volume;
}

template <class Tr> class VdbRoundTrip : public ::testing::Test {};
TYPED_TEST_SUITE(VdbRoundTrip, Structures, StructureNames);

TYPED_TEST(VdbRoundTrip, restores_the_band_of_the_bunny_bit_for_bit)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const float h = 0.08f;
    const auto written = levelSetOf<Tr>(io::readMesh(kBunny, 0, {}), h);
    writeVdb(folder.file("a.vdb"), *written, {});
    const auto read = readOne<Tr>(folder.file("a.vdb"));
    const auto from = treeOf<Tr>(*written), to = treeOf<Tr>(*read);
    const ConstTileAccessor<Tr> accessor(*to);
    const double band = 3 * double(h);
    int voxels = 0;
    OST::int64 tilesWithBand = 0;
    for (OST::int64 n = 0; n < from->tileCount(Tr::maxDepth); ++n) {
        const int3 corner = from->tile(n, Tr::maxDepth).tijk();
        const TreeIndex there = accessor.find(corner.x, corner.y, corner.z, Tr::maxDepth);
        bool any = false;
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const float value = channelOf<Tr>(*written)->tileData(n, Tr::maxDepth)(flat);
            if (!(std::abs(double(value)) < band)) continue;
            any = true;
            ASSERT_EQ(there.depth, Tr::maxDepth);
            ASSERT_EQ(channelOf<Tr>(*read)->tileData(there)(flat), value);
            ++voxels;
        }
        tilesWithBand += any;
    }
    EXPECT_GT(voxels, 100000);
    // More where a coarser tile shows some of the band between samples beyond it.
    EXPECT_GE(to->tileCount(Tr::maxDepth), tilesWithBand);
    EXPECT_EQ(to->voxelSize(), h);
    // Three voxels, rounded up.
    EXPECT_GE(double(channelOf<Tr>(*read)->defaultValue()), band);
    EXPECT_FLOAT_EQ(channelOf<Tr>(*read)->defaultValue(), channelOf<Tr>(*written)->defaultValue());
    EXPECT_TRUE(Ostara::Object::isA(*read, *Ostara::Geometry::getLevelSetPrototype()));
    EXPECT_TRUE(checkTree(*to).empty());
}

TYPED_TEST(VdbRoundTrip, gives_true_distances_at_every_depth)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const io::TriangleMesh mesh = sphereMesh(1.0f, 5, {0.2f, -0.1f, 0.4f});
    const float h = 0.04f;
    writeVdb(folder.file("a.vdb"), *levelSetOf<Tr>(mesh, h), {});
    const auto read = readOne<Tr>(folder.file("a.vdb"));
    const auto tree = treeOf<Tr>(*read);
    const auto values = channelOf<Tr>(*read);
    const double facets = 1.0 - std::sqrt(1.0 - 0.05 * 0.05);  // the sphere's triangles are 0.05 long: depth of a chord
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const float3 place =
                    h * float3(tree->tile(n, depth).tijk() + Tr::voxelDataWidth(depth) * cubeIndex(Tr::width, flat));
                const double wanted = length(double3(place) - double3(0.2, -0.1, 0.4)) - 1.0;
                // Half a finest voxel for the surface that is found between samples; a float's rounding where distances
                // are large.
                ASSERT_NEAR(values->tileData(n, depth)(flat), wanted, 0.5 * h + facets + 0x1p-22 * std::abs(wanted))
                    << "depth " << depth;
            }
}

TYPED_TEST(VdbRoundTrip, writes_equal_volumes_as_equal_files)
{
    const TestFolder folder;
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 3), 0.1f);
    writeVdb(folder.file("a.vdb"), *volume, {});
    writeVdb(folder.file("b.vdb"), *volume, {});
    EXPECT_EQ(folder.read("a.vdb"), folder.read("b.vdb"));
    const auto back = readOne<TypeParam>(folder.file("a.vdb"));
    writeVdb(folder.file("c.vdb"), *back, {});
    EXPECT_EQ(folder.read("a.vdb"), folder.read("c.vdb"));
}

TYPED_TEST(VdbRoundTrip, keeps_the_name_type_and_values_of_every_property)
{
    using Tr = TypeParam;
    using Ostara::Math::double3;
    const TestFolder folder;
    auto native =
        io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth), VoxelCoord(-40, 7, 1000, Tr::maxDepth)}, 0.25f, kCorner);
    const auto fill = [](auto make) {
        return [make](auto const&, auto& channel) {
            for (OST::int64 n = 0; n < 2; ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, Tr::maxDepth)(flat) = make(n * 1000 + flat);
        };
    };
    io::addChannel<Tr>(*native, "density", 0.5f, fill([](auto v) { return 0.1f * static_cast<float>(v); }));
    io::addChannel<Tr>(*native, "exact", -1.0, fill([](auto v) { return 1.0 / (1.0 + static_cast<double>(v)); }));
    io::addChannel<Tr>(*native, "velocity", float3(0, 0, 1),
                       fill([](auto v) { return float3(float(v), -float(v), 0.5f); }));
    io::addChannel<Tr>(*native, "place", double3(0, 0, 0),
                       fill([](auto v) { return double3(double(v), 1e300, -0.0); }));
    io::addChannel<Tr>(*native, "id", -7, fill([](auto v) { return static_cast<int>(v); }));
    io::addChannel<Tr>(*native, "wide", OST::int64(3), fill([](auto v) { return (OST::int64(1) << 40) + v; }));
    const auto written = Ostara::Geometry::move_ost_volume_to_object(*native);
    writeVdb(folder.file("a.vdb"), *written, {});
    const auto read = readOne<Tr>(folder.file("a.vdb"));
    EXPECT_EQ((differencesAt<Tr, float>(Tr::maxDepth, *written, *read, "density")), "");
    EXPECT_EQ((differencesAt<Tr, double>(Tr::maxDepth, *written, *read, "exact")), "");
    EXPECT_EQ((differencesAt<Tr, float3>(Tr::maxDepth, *written, *read, "velocity")), "");
    EXPECT_EQ((differencesAt<Tr, double3>(Tr::maxDepth, *written, *read, "place")), "");
    EXPECT_EQ((differencesAt<Tr, int>(Tr::maxDepth, *written, *read, "id")), "");
    EXPECT_EQ((differencesAt<Tr, OST::int64>(Tr::maxDepth, *written, *read, "wide")), "");
    EXPECT_EQ((channelOf<Tr, double>(*read, "exact")->defaultValue()), -1.0);
    EXPECT_EQ((channelOf<Tr, int>(*read, "id")->defaultValue()), -7);
    EXPECT_FALSE(Ostara::Object::isA(*read, *Ostara::Geometry::getLevelSetPrototype()));
}

TYPED_TEST(VdbRoundTrip, gives_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    const TestFolder folder;
    const auto written = levelSetOf<Tr>(sphereMesh(1.0f, 4, {0.1f, 0.2f, 0.3f}), 0.04f);
    std::string file;
    Corvid::Ptr<Ostara::Object> first;
    io::TriangleMesh surface;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            SCOPED_TRACE(std::to_string(threads) + " threads");
            writeVdb(folder.file("a.vdb"), *written, {});
            const auto read = readOne<Tr>(folder.file("a.vdb"));
            const io::TriangleMesh mesh = extractSurface(*written);
            if (!first) {
                file = folder.read("a.vdb");
                first = read;
                surface = mesh;
            }
            EXPECT_EQ(folder.read("a.vdb"), file);
            for (int depth = 0; depth <= Tr::maxDepth; ++depth) ASSERT_EQ(differencesAt<Tr>(depth, *first, *read), "");
            EXPECT_TRUE(mesh.vertices == surface.vertices && mesh.triangles == surface.triangles);
        });
}

TYPED_TEST(VdbRoundTrip, keeps_samples_at_centres)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 0.25f, kCenter);
    io::addChannel<Tr>(*native, "density", 0.0f, [](auto const&, auto& channel) {
        for (int flat = 0; flat < Tr::voxelCount; ++flat)
            channel.tileData(0, Tr::maxDepth)(flat) = 1.0f + static_cast<float>(flat);
    });
    const auto written = Ostara::Geometry::move_ost_volume_to_object(*native);
    writeVdb(folder.file("a.vdb"), *written, {});
    const auto read = readOne<Tr>(folder.file("a.vdb"));
    EXPECT_EQ(differencesAt<Tr>(Tr::maxDepth, *written, *read, "density"), "");
    EXPECT_EQ(read->native()->template component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp)->offsetType(),
              kCenter);
    // A voxel of the parent holds the mean of the children under it.
    double mean = 0.0;
    for (int n = 0; n < Tr::childCount; ++n)
        mean += channelOf<Tr>(*read, "density")->tileData(0, Tr::maxDepth)(cubeIndex(Tr::branching, n));
    auto const& child = treeOf<Tr>(*read)->tile(0, Tr::maxDepth);
    auto const& parent = treeOf<Tr>(*read)->tile(child.parentTreeIndex());
    const int3 voxel = Tr::cellVoxels * parent.childIJK(child);
    EXPECT_FLOAT_EQ(channelOf<Tr>(*read, "density")->tileData(parent.treeIndex())(voxel),
                    static_cast<float>(mean / Tr::childCount));
}

TYPED_TEST(VdbRoundTrip, says_what_it_leaves_out)
{
    using Tr = TypeParam;
    const TestFolder folder;
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    io::addChannel<Tr>(*native, "flags", static_cast<unsigned char>(1), [](auto const&, auto&) {});
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    KeptMessages messages;
    folder.write("a.vdb", "old");
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), *volume, messages.services()); }),
                         "no property"));
    EXPECT_TRUE(messages.mention("'flags' is left out"));
    EXPECT_EQ(folder.read("a.vdb"), "old");
    EXPECT_EQ(folder.fileCount(), 1u);
}

TYPED_TEST(VdbRoundTrip, fails_without_touching_anything_where_it_cannot_write)
{
    const TestFolder folder;
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 2), 0.2f);
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { writeVdb(folder.file("no/such/a.vdb"), *volume, {}); }), "cannot write"));
    EXPECT_EQ(folder.fileCount(), 0u);
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { writeVdb(folder.file("a.vdb"), Ostara::Object(), {}); }), "no volume"));
}

template <class Tr> class ExtractedSurface : public ::testing::Test {};
TYPED_TEST_SUITE(ExtractedSurface, Structures, StructureNames);

TYPED_TEST(ExtractedSurface, of_the_bunny_is_closed_outward_and_near_the_mesh)
{
    const io::TriangleMesh bunny = io::readMesh(kBunny, 0, {});
    const float h = 0.0774f;  // 128 voxels across
    const io::TriangleMesh surface = extractSurface(*levelSetOf<TypeParam>(bunny, h));
    const io::MeshTopology edges = io::meshTopology(surface);
    EXPECT_TRUE(edges.closed());
    EXPECT_EQ(edges.flippedEdges, 0);
    EXPECT_NEAR(io::enclosedVolume(surface) / io::enclosedVolume(bunny), 1.0, 0.003);
    const BruteSurface exact(bunny);
    Random random(3);
    for (int n = 0; n < 300; ++n) {
        auto const& v =
            surface
                .vertices[static_cast<std::size_t>(random.below(static_cast<std::int64_t>(surface.vertices.size())))];
        // A vertex lies in a cell that the surface crosses: no further from it than the cell's diagonal.
        ASSERT_LE(exact.distance({v.x, v.y, v.z}), std::sqrt(3.0) * h);
    }
}

TYPED_TEST(ExtractedSurface, includes_leaf_cells_of_several_depths)
{
    using Tr = TypeParam;
    // A half space whose plane runs through finest tiles and, beside them, through tiles one depth up.
    const int coarse = Tr::maxDepth - 1, w = Tr::tileVoxelWidth(coarse);
    std::vector<VoxelCoord> tiles;
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 2; ++i)
            for (int k = -1; k < 2; ++k) tiles.emplace_back(i * w, j * w, k * w, coarse);
    const auto tileCorner = [](int v) {
        return Tr::rangeMin + static_cast<int>((OST::int64(v) - Tr::rangeMin) / Tr::width) * Tr::width;
    };
    for (int j = tileCorner(0); j < 2 * w; j += Tr::width)
        for (int k = tileCorner(-w); k < 2 * w; k += Tr::width) tiles.emplace_back(tileCorner(0), j, k, Tr::maxDepth);
    auto native = io::makeVolume<Tr>(tiles, 1.0f, kCorner);
    const float height = 1.3f;
    io::addChannel<Tr>(
        *native, Ostara::Geometry::sVoxelSignedDistance, 3.0f, [&](Container<Tr> const& tree, auto& channel) {
            for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                        const int z =
                            tree.tile(n, depth).tijk().z + Tr::voxelDataWidth(depth) * cubeIndex(Tr::width, flat).z;
                        // Above depth coarse the tree shows no surface: everything there is outside.
                        channel.tileData(n, depth)(flat) = depth < coarse ? 1e3f : static_cast<float>(z) - height;
                    }
        });
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    const io::TriangleMesh surface = extractSurface(*volume);
    // A linear field keeps its plane at every depth, so inside the block all vertices lie on it, in fine and in coarse
    // cells.
    int fine = 0, wide = 0;
    // The block of coarse tiles, less two of their voxels at the rim, where the values from outside come in.
    const auto coarseCorner = [w](int v) {
        return Tr::rangeMin + static_cast<int>((OST::int64(v) - Tr::rangeMin) / w) * w;
    };
    // On the low side the border's nodes are those of the cells beyond, so that the first voxel holds a wall.
    const float low = static_cast<float>(coarseCorner(0) + Tr::branching),
                high = static_cast<float>(coarseCorner(w) + w - 2 * Tr::branching);
    for (auto const& v : surface.vertices) {
        if (v.x < low || v.x > high || v.y < low || v.y > high || v.z < low - w / 2 || v.z > high) continue;
        ASSERT_NEAR(v.z, height, 1e-4f) << v;
        (v.x < tileCorner(0) + Tr::width ? fine : wide) += 1;
    }
    EXPECT_GT(fine, 0);
    EXPECT_GT(wide, 0);
}

TEST(ExtractedSurfaceErrors, name_what_is_missing)
{
    auto native = io::makeVolume<BinaryTraits>({VoxelCoord(0, 0, 0, 28)}, 1.0f, kCorner);
    io::addChannel<BinaryTraits>(*native, "density", 0.0f, [](auto const&, auto&) {});
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    EXPECT_TRUE(contains(errorOf<InputError>([&] { extractSurface(*volume); }), "voxel_signed_distance"));
}

TEST(VdbReader, refuses_files_that_are_none)
{
    const TestFolder folder;
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { readVdb(folder.file("none.vdb"), {}, {}); }), "there is no such file"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readVdb(folder.file(""), {}, {}); }), "no regular file"));
    for (const std::string content : {"", "x", "this is no volume, but it is a text of some length"})
        EXPECT_TRUE(contains(errorOf<InputError>([&] { readVdb(folder.write("a.vdb", content), {}, {}); }), "a.vdb"))
            << content;
}

TEST(VdbReader, notices_every_cut)
{
    const TestFolder folder;
    writeVdb(folder.file("a.vdb"), *levelSetOf<BinaryTraits>(sphereMesh(1.0f, 2), 0.25f), {});
    const std::string whole = folder.read("a.vdb");
    for (std::size_t size = 1; size < whole.size(); size += 1 + whole.size() / 150) {
        SCOPED_TRACE(std::to_string(size) + " of " + std::to_string(whole.size()) + " bytes");
        errorOf<InputError>([&] { readVdb(folder.write("cut.vdb", whole.substr(0, size)), {}, {}); });
    }
}

}  // namespace
}  // namespace tilegrid::test
