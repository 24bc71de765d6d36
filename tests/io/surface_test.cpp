// Surfaces of volumes as meshes, beside OpenVDB's own extraction from the same volume flattened.
#include "io/surface.h"
#include "io/vdb.h"
#include "io/volume_builder.h"
#include "support/brute_surface.h"
#include "support/files.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <openvdb/openvdb.h>
#include <openvdb/tools/VolumeToMesh.h>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;

constexpr float kVoxel = 0.05f;

/// What OpenVDB makes of the flat form of the volume.
io::TriangleMesh surfaceOfFlattened(Ostara::Object const& volume)
{
    const TestFolder folder;
    io::writeVdb(folder.file("flat.vdb"), volume, {});
    openvdb::initialize();
    openvdb::io::File file(folder.file("flat.vdb"));
    file.open();
    const auto grid = openvdb::gridPtrCast<openvdb::FloatGrid>(file.readGrid("surface"));
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    std::vector<openvdb::Vec4I> quads;
    openvdb::tools::volumeToMesh(*grid, points, triangles, quads, 0.0, 0.0);
    io::TriangleMesh mesh;
    for (auto const& p : points) mesh.vertices.emplace_back(p[0], p[1], p[2]);
    const auto add = [&mesh](unsigned a, unsigned b, unsigned c) { mesh.triangles.emplace_back(int(c), int(b), int(a)); };
    for (auto const& t : triangles) add(t[0], t[1], t[2]);
    for (auto const& q : quads) {
        add(q[0], q[1], q[2]);
        add(q[0], q[2], q[3]);
    }
    return mesh;
}

/// The largest distance from some vertices of a mesh to the other mesh.
double largestDistance(io::TriangleMesh const& from, io::TriangleMesh const& to)
{
    const BruteSurface surface(to);
    double largest = 0;
    for (std::size_t n = 0; n < from.vertices.size(); n += 1 + from.vertices.size() / 100) {
        auto const& v = from.vertices[n];
        largest = std::max(largest, double(surface.distance({v.x, v.y, v.z})));
    }
    return largest;
}

template <class Tr> class MeshedSurface : public ::testing::Test {};
TYPED_TEST_SUITE(MeshedSurface, Structures, StructureNames);

TYPED_TEST(MeshedSurface, agrees_with_another_extraction_of_a_band)
{
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 4, {0.05f, 0.02f, -0.03f}), kVoxel);
    const io::TriangleMesh ours = io::extractSurface(*volume), theirs = surfaceOfFlattened(*volume);
    EXPECT_TRUE(io::meshTopology(ours).closed());
    EXPECT_EQ(io::meshTopology(ours).flippedEdges, 0);
    // One vertex for each cell that the surface crosses, both.
    EXPECT_EQ(ours.vertices.size(), theirs.vertices.size());
    EXPECT_EQ(ours.triangles.size(), theirs.triangles.size());
    // Both lie around one zero set. Vertices and faces leave it by no more than the sag of a cell's diagonal, 3 h^2 / (8 R), each;
    // the ball's own edges bend by 0.1, which adds up to 0.05 h.
    const double sag = 2 * 3.0 / 8 * kVoxel * kVoxel + 0.05 * kVoxel;
    EXPECT_LE(largestDistance(ours, theirs), sag);
    EXPECT_LE(largestDistance(theirs, ours), sag);
    EXPECT_NEAR(io::enclosedVolume(ours) / io::enclosedVolume(theirs), 1.0, 3 * sag);
}

TYPED_TEST(MeshedSurface, agrees_with_another_extraction_across_jumps_with_fewer_triangles)
{
    using Tr = TypeParam;
    io::LevelSetOptions options;
    const double h = 2 * kVoxel;
    options.voxelSize = float(h);
    options.structure = structureOf<Tr>();
    options.finer = io::FinerBox{{0.3, -2, -2}, {2, 0.2, 2}, Tr::branching == 2 ? 2 : 1};
    const auto volume = io::levelSetFromMesh(sphereMesh(1.0f, 4, {0.05f, 0.02f, -0.03f}), options, {});
    const io::TriangleMesh ours = io::extractSurface(*volume), theirs = surfaceOfFlattened(*volume);
    EXPECT_TRUE(io::meshTopology(ours).closed());
    EXPECT_EQ(io::meshTopology(ours).flippedEdges, 0);
    EXPECT_LT(2 * ours.triangles.size(), theirs.triangles.size());
    // As above, with the coarser voxels.
    const double sag = 2 * 3.0 / 8 * h * h + 0.05 * h;
    EXPECT_LE(largestDistance(ours, theirs), sag);
    EXPECT_LE(largestDistance(theirs, ours), sag);
    EXPECT_NEAR(io::enclosedVolume(ours) / io::enclosedVolume(theirs), 1.0, 3 * sag);
}

TYPED_TEST(MeshedSurface, has_normals_that_files_keep)
{
    const TestFolder folder;
    const io::TriangleMesh mesh = io::extractSurface(*levelSetOf<TypeParam>(sphereMesh(1.0f, 3, {}), 0.1f));
    ASSERT_TRUE(mesh.hasNormals());
    io::writeMesh(folder.file("a.ply"), mesh);
    io::writeMesh(folder.file("a.obj"), mesh);
    const std::string ply = folder.read("a.ply"), obj = folder.read("a.obj");
    const std::size_t content = ply.find("end_header\n") + 11;
    float first[6];
    std::memcpy(first, ply.data() + content, sizeof first);
    for (int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(first[axis], mesh.vertices.front()[axis]);
        EXPECT_EQ(first[axis + 3], mesh.normals.front()[axis]);
        // A ball around the origin: its normals are its places, but for the slopes of its triangles and cells.
        EXPECT_NEAR(first[axis + 3], first[axis], 0.2);
    }
    EXPECT_EQ(ply.size(), content + 24 * mesh.vertices.size() + 13 * mesh.triangles.size());
    EXPECT_NE(obj.find("\nvn "), std::string::npos);
    for (std::string const name : {"a.ply", "a.obj"}) {
        const io::TriangleMesh read = io::readMesh(folder.file(name), 0, {});
        EXPECT_EQ(read.triangles.size(), mesh.triangles.size()) << name;
        EXPECT_TRUE(io::meshTopology(read).closed()) << name;
    }
}

TYPED_TEST(MeshedSurface, reads_every_layout_of_the_channel)
{
    using Tr = TypeParam;
    const io::TriangleMesh ball = sphereMesh(1.0f, 3, {});
    const auto plain = levelSetOf<Tr>(ball, 0.1f);
    const io::TriangleMesh expected = io::extractSurface(*plain);
    const auto withLayout = [&]<class C>() {
        auto native = Corvid::makeMutable<OST::Object>();
        const auto from = channelOf<Tr>(*plain);
        const float outside = from->defaultValue();
        auto channel = Corvid::makeMutable<C>(Ostara::Geometry::sVoxelSignedDistance, &outside, kInitializeNone, false, true, 0, Tr::maxDepth);
        const auto tree = treeOf<Tr>(*plain);
        channel->updateTilesAdded(*tree);
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 at = cubeIndex(Tr::width, flat);
                    channel->tileData(n, depth)(at) = from->tileData(n, depth)(at);
                }
        native->putComponent(Corvid::makeMutable<Container<Tr>>(*tree));
        auto topology = Corvid::makeMutable<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp, kCorner);
        topology->update(*tree);
        native->putComponent(std::move(topology));
        native->putComponent(std::move(channel));
        const auto mesh = io::extractSurface(*Ostara::Geometry::move_ost_volume_to_object(*native));
        EXPECT_TRUE(mesh.vertices == expected.vertices && mesh.triangles == expected.triangles);
    };
    withLayout.template operator()<Channel<Tr, float, Tr::width + 1, 0>>();
    withLayout.template operator()<Channel<Tr, float, Tr::width, 1>>();
}

}  // namespace
}  // namespace tilegrid::test
