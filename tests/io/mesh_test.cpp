#include "io/error.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"
#include "support/files.h"
#include "support/mesh_files.h"
#include "support/meshes.h"
#include "support/paths.h"
#include "support/structures.h"

#include <bit>
#include <cstring>

namespace tilegrid::test {
namespace {

using io::InputError;
using io::readMesh;
using io::TriangleMesh;
using io::writeMesh;
using Ostara::Math::float3;
using Ostara::Math::int3;

const std::string kBunny = exampleFile("bunny.obj");

constexpr char const* kTetrahedronObj = "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nf 1 3 2\nf 1 2 4\nf 1 4 3\nf 2 3 4\n";

void append(std::string& bytes, auto value)
{
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);  // the machines this runs on are little endian, as the formats are
    bytes.append(raw, sizeof value);
}

std::string binaryStl(TriangleMesh const& mesh)
{
    std::string bytes(80, ' ');
    append(bytes, static_cast<std::uint32_t>(mesh.triangles.size()));
    for (int3 const& t : mesh.triangles) {
        for (int n = 0; n < 3; ++n) append(bytes, 0.0f);
        for (int c = 0; c < 3; ++c)
            for (int axis = 0; axis < 3; ++axis) append(bytes, mesh.vertices[t[c]][axis]);
        append(bytes, std::uint16_t(0));
    }
    return bytes;
}

std::string textPly(std::string const& vertices, int vertexCount, std::string const& faces, int faceCount)
{
    return "ply\nformat ascii 1.0\nelement vertex " + std::to_string(vertexCount)
        + "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(faceCount)
        + "\nproperty list uchar int vertex_indices\nend_header\n" + vertices + faces;
}

TEST(MeshReader, reads_the_bunny_closed_and_manifold)
{
    KeptMessages messages;
    const TriangleMesh mesh = readMesh(kBunny, 0, messages.services());
    EXPECT_EQ(mesh.vertices.size(), 1839u);  // as the head of the file says
    EXPECT_EQ(mesh.triangles.size(), 3674u);
    const io::MeshTopology edges = io::meshTopology(mesh);
    EXPECT_TRUE(edges.closed());
    EXPECT_EQ(edges.flippedEdges, 0);
    EXPECT_GT(io::enclosedVolume(mesh), 0.0);
    EXPECT_TRUE(messages.texts().empty());
}

TEST(MeshReader, gives_one_mesh_for_the_three_formats)
{
    const TestFolder folder;
    const TriangleMesh sphere = sphereMesh(2.0f, 3, {0.25f, -1.0f, 3.0f});
    writeMesh(folder.file("a.ply"), sphere);
    writeMesh(folder.file("a.OBJ"), sphere);
    folder.write("a.stl", binaryStl(sphere));
    const TriangleMesh ply = readMesh(folder.file("a.ply"), 0, {}), stl = readMesh(folder.file("a.stl"), 0, {});
    EXPECT_TRUE(sameMesh(ply, sphere));
    EXPECT_TRUE(sameMesh(stl, sphere));
    EXPECT_EQ(stl.vertices.size(), sphere.vertices.size());  // joined again

    // Text keeps every digit, but its reader adds up digits in float: one unit in the last place per operation, of
    // which there are two.
    const TriangleMesh obj = readMesh(folder.file("a.OBJ"), 0, {});
    ASSERT_EQ(obj.triangles.size(), sphere.triangles.size());
    for (std::size_t t = 0; t < sphere.triangles.size(); ++t)
        for (int c = 0; c < 3; ++c)
            for (int axis = 0; axis < 3; ++axis) {
                const float wanted = sphere.vertices[sphere.triangles[t][c]][axis];
                EXPECT_NEAR(obj.vertices[obj.triangles[t][c]][axis], wanted,
                            2 * 0x1p-23f * std::max(1.0f, std::abs(wanted)));
            }
}

TEST(MeshReader, divides_polygons_and_drops_triangles_that_use_a_vertex_twice)
{
    const TestFolder folder;
    const std::string cube =
        "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\nv 0 0 1\nv 1 0 1\nv 0 1 1\nv 1 1 1\nf 1 3 4 2\nf 5 6 8 7\nf 1 2 6 5\n"
        "f 3 7 8 4\nf 1 5 7 3\nf 2 4 8 6\nf 1 1 2\n";
    const TriangleMesh mesh = readMesh(folder.write("cube.obj", cube), 0, {});
    EXPECT_EQ(mesh.triangles.size(), 12u);
    EXPECT_EQ(mesh.vertices.size(), 8u);
    EXPECT_TRUE(io::meshTopology(mesh).closed());
    EXPECT_DOUBLE_EQ(io::enclosedVolume(mesh), 1.0);
    EXPECT_DOUBLE_EQ(io::surfaceArea(mesh), 6.0);
}

TEST(MeshReader, understands_relative_indices_and_corners_with_normals)
{
    const TestFolder folder;
    const std::string text =
        "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nvn 0 0 1\nvt 0 0\nusemtl a\nf -4/1/1 -2/1/1 -3/1/1\nusemtl b\n"
        "f 1//1 2//1 4//1\ng other\nf 1 4 \\\n 3\nf 2 3 4\n";
    const TriangleMesh mesh = readMesh(folder.write("t.obj", text), 0, {});
    EXPECT_EQ(mesh.vertices.size(), 4u);
    EXPECT_TRUE(io::meshTopology(mesh).closed());
    EXPECT_NEAR(io::enclosedVolume(mesh), 1.0 / 6.0, 1e-15);
}

TEST(MeshReader, refuses_files_that_are_no_mesh)
{
    const TestFolder folder;
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { readMesh(folder.file("none.obj"), 0, {}); }), "there is no such file"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.file(""), 0, {}); }), "ending"));
    std::filesystem::create_directory(folder.file("folder.obj"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.file("folder.obj"), 0, {}); }), "no regular file"));
    EXPECT_TRUE(contains(complaintAbout(folder, "a.fbx", "x"), ".obj, .ply, .stl, .off, .glb and .gltf"));
    for (const std::string ending : {"obj", "ply", "stl"})
        EXPECT_TRUE(contains(complaintAbout(folder, "empty." + ending, ""), "empty"));
    EXPECT_TRUE(contains(complaintAbout(folder, "points.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n"), "no triangle"));
    EXPECT_TRUE(contains(complaintAbout(folder, "points.ply", textPly("0 0 0\n", 1, "", 0)), "no triangle"));
    EXPECT_TRUE(contains(complaintAbout(folder, "none.stl", "solid a\nendsolid a\n"), "no triangle"));
    EXPECT_TRUE(contains(complaintAbout(folder, "flat.obj", "v 0 0 0\nv 1 0 0\nf 1 2 1\n"), "three different corners"));
    EXPECT_TRUE(contains(complaintAbout(folder, "text.ply", "hello\n"), "does not begin with 'ply'"));
}

TEST(MeshReader, refuses_coordinates_that_are_not_finite)
{
    const TestFolder folder;
    for (const std::string bad : {"nan", "inf", "-inf", "1e39", "NaN", "-1e400"}) {
        SCOPED_TRACE(bad);
        const std::string obj = std::string(kTetrahedronObj).replace(2, 1, bad);
        EXPECT_TRUE(contains(complaintAbout(folder, "a.obj", obj), "line 1"));
        const std::string ply =
            textPly("0 0 0\n1 0 " + bad + "\n0 1 0\n0 0 1\n", 4, "3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n", 4);
        EXPECT_TRUE(contains(complaintAbout(folder, "a.ply", ply), "vertex 2"));
        const std::string stl = "solid a\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 " + bad
            + "\nvertex 0 1 0\nendloop\nendfacet\nendsolid a\n";
        EXPECT_TRUE(contains(complaintAbout(folder, "a.stl", stl), "line 5"));
    }
    TriangleMesh box = boxMesh({0, 0, 0}, {1, 1, 1});
    box.vertices[3].y = std::numeric_limits<float>::quiet_NaN();
    writeMesh(folder.file("b.ply"), box);
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.file("b.ply"), 0, {}); }), "not a finite number"));
    EXPECT_TRUE(contains(complaintAbout(folder, "b.stl", binaryStl(box)), "not a finite number"));
}

TEST(MeshReader, refuses_indices_out_of_range)
{
    const TestFolder folder;
    for (const std::string face : {"f 1 2 5", "f 0 1 2", "f -5 1 2", "f 1 2 99999999999", "f 1 2 x"}) {
        SCOPED_TRACE(face);
        EXPECT_TRUE(contains(complaintAbout(folder, "a.obj", kTetrahedronObj + face + "\n"), "line 9"));
    }
    for (const std::string face : {"3 0 1 4\n", "3 0 1 -1\n", "3 0 1 2000000000\n"}) {
        SCOPED_TRACE(face);
        EXPECT_TRUE(
            contains(complaintAbout(folder, "a.ply", textPly("0 0 0\n1 0 0\n0 1 0\n0 0 1\n", 4, face, 1)), "face 1"));
    }
    TriangleMesh box = boxMesh({0, 0, 0}, {1, 1, 1});
    box.triangles[5].z = 8;
    writeMesh(folder.file("b.ply"), box);
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.file("b.ply"), 0, {}); }), "face 6"));
}

TEST(MeshReader, believes_no_count_that_the_file_cannot_hold)
{
    const TestFolder folder;
    const std::string body = "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n";
    for (const std::string count : {"4000000000", "18446744073709551615", "-1", "many", "4"}) {
        SCOPED_TRACE(count);
        std::string file = textPly(body, 3, "", 1);
        file.replace(file.find("vertex 3") + 7, 1, count);
        const std::string text = complaintAbout(folder, "a.ply", file);
        EXPECT_TRUE(contains(text, "the header") || contains(text, "cut off")) << text;
    }
    std::string list = textPly("0 0 0\n1 0 0\n0 1 0\n", 3, "4000000000 0 1 2\n", 1);
    EXPECT_TRUE(contains(complaintAbout(folder, "list.ply", list), "the file ends"));
    std::string stl = binaryStl(boxMesh({0, 0, 0}, {1, 1, 1}));
    std::memset(stl.data() + 80, 0xff, 4);
    EXPECT_TRUE(contains(complaintAbout(folder, "a.stl", stl), "4294967295 triangles"));
}

TEST(MeshReader, refuses_what_is_above_the_limit)
{
    const TestFolder folder;
    EXPECT_TRUE(contains(complaintAbout(folder, "a.obj", kTetrahedronObj, 20), "the limit is 20 bytes"));
    // The file fits into the limit and the mesh does not: 1000 triangles over three vertices.
    std::string fan = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    for (int n = 0; n < 1000; ++n) fan += "f 1 2 3\n";
    EXPECT_TRUE(contains(complaintAbout(folder, "b.obj", fan, 10000), "too many"));
    EXPECT_NO_THROW(readMesh(folder.write("c.obj", kTetrahedronObj), 10000, {}));
}

TEST(MeshReader, notices_every_cut_through_a_binary_file)
{
    const TestFolder folder;
    const TriangleMesh sphere = sphereMesh(1.0f, 1);
    writeMesh(folder.file("whole.ply"), sphere);
    const std::string ply = folder.read("whole.ply"), stl = binaryStl(sphere);
    for (std::size_t size = 1; size < ply.size(); size += 7) {
        SCOPED_TRACE("ply of " + std::to_string(size) + " of " + std::to_string(ply.size()));
        complaintAbout(folder, "cut.ply", ply.substr(0, size));
    }
    for (std::size_t size = 1; size < stl.size(); size += 7) {
        SCOPED_TRACE("stl of " + std::to_string(size) + " of " + std::to_string(stl.size()));
        complaintAbout(folder, "cut.stl", stl.substr(0, size));
    }
}

TEST(MeshReader, notices_text_that_ends_inside_a_face_or_a_vertex)
{
    const TestFolder folder;
    EXPECT_TRUE(contains(complaintAbout(folder, "a.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\nf 1 2"), "cut off"));
    EXPECT_TRUE(contains(complaintAbout(folder, "b.obj", "v 0 0 0\nv 1 0 0\nf 1 2 3\nv 0 1"), "cut off"));
    EXPECT_TRUE(contains(complaintAbout(folder, "c.ply", textPly("0 0 0\n1 0 0\n0 1 0\n", 3, "3 0 1", 1)), "cut off"));
    EXPECT_TRUE(contains(
        complaintAbout(folder, "d.stl", "solid a\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n"),
        "cut off"));
}

/// Garbled files end in a mesh whose indices and coordinates are sound, or in an `InputError`.
TEST(MeshReader, survives_garbled_files)
{
    const TestFolder folder;
    const TriangleMesh sphere = sphereMesh(1.0f, 1);
    writeMesh(folder.file("whole.ply"), sphere);
    writeMesh(folder.file("whole.obj"), sphere);
    folder.write("whole.stl", binaryStl(sphere));
    constexpr std::uint64_t kSeed = 20240611;
    Random random(kSeed);
    int readable = 0;
    for (const std::string ending : {"ply", "obj", "stl"})
        for (int round = 0; round < 150; ++round) {
            SCOPED_TRACE(ending + ", round " + std::to_string(round) + ", seed " + std::to_string(kSeed));
            std::string content = folder.read("whole." + ending);
            for (std::int64_t n = random.between(1, 4); n > 0; --n)
                content[static_cast<std::size_t>(random.below(static_cast<std::int64_t>(content.size())))] =
                    static_cast<char>(random.below(256));
            KeptMessages messages;
            try {
                const TriangleMesh mesh =
                    readMesh(folder.write("garbled." + ending, content), 1 << 20, messages.services());
                ++readable;
                for (int3 const& t : mesh.triangles)
                    for (int c = 0; c < 3; ++c) ASSERT_TRUE(t[c] >= 0 && t[c] < static_cast<int>(mesh.vertices.size()));
                for (float3 const& v : mesh.vertices)
                    ASSERT_TRUE(std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z));
            } catch (InputError const&) {}
        }
    EXPECT_GT(readable, 0);  // some damage does no harm, or nothing was tried
}

TEST(MeshWriter, leaves_the_old_file_when_it_fails)
{
    const TestFolder folder;
    const std::string old = "old content";
    folder.write("a.xyz", old);
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             writeMesh(folder.file("a.xyz"), boxMesh({0, 0, 0}, {1, 1, 1}));
                         }),
                         ".obj, .ply, .stl and .glb"));
    EXPECT_EQ(folder.read("a.xyz"), old);
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeMesh(folder.file("no/such/a.ply"), {}); }), "No such file or directory"));
    std::filesystem::create_directory(folder.file("b.ply"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeMesh(folder.file("b.ply"), {}); }), "folder"));
    EXPECT_EQ(folder.fileCount(), 2u);
}

TEST(MeshWriter, reports_a_full_disk)
{
    if (!std::filesystem::exists("/dev/full")) GTEST_SKIP() << "this system has no device that is always full";
    const TestFolder folder;
    std::filesystem::create_symlink("/dev/full", folder.file("full.ply"));
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { writeMesh(folder.file("full.ply"), sphereMesh(1.0f, 2)); }), "No space left on device"));
}

TEST(MeshTopology, finds_the_edges_where_orientation_flips)
{
    TriangleMesh box = boxMesh({0, 0, 0}, {1, 1, 1});
    std::swap(box.triangles[4].x, box.triangles[4].y);
    const io::MeshTopology edges = io::meshTopology(box);
    EXPECT_FALSE(edges.closed());
    EXPECT_EQ(edges.edges, 18);  // 12 of the box, a diagonal in each side
    EXPECT_EQ(edges.openEdges, 3);
    EXPECT_EQ(edges.flippedEdges, 3);
    EXPECT_EQ(io::openEdgesText(edges), "3 of 18 edges are open (17%), 3 of them because neighbours face opposite ways");
    EXPECT_NEAR(io::enclosedVolume(turnedInsideOut(boxMesh({5, 5, 5}, {6, 7, 8}))), -6.0, 1e-12);
}

/// Two boxes that share an edge: four triangles there, whose directions cancel.
TriangleMesh boxesAlongAnEdge()
{
    TriangleMesh boxes = joined(boxMesh({0, 0, 0}, {1, 1, 1}), boxMesh({1, 1, 0}, {2, 2, 1}));
    for (int3& t : boxes.triangles)
        for (int corner = 0; corner < 3; ++corner)
            for (int vertex = 0; vertex < 8; ++vertex)
                if (boxes.vertices[t[corner]] == boxes.vertices[vertex]) t[corner] = vertex;
    return boxes;
}

TEST(MeshTopology, calls_a_mesh_closed_whose_edges_cancel_however_many_faces_they_have)
{
    const io::MeshTopology edges = io::meshTopology(boxesAlongAnEdge());
    EXPECT_TRUE(edges.closed());
    EXPECT_EQ(edges.nonManifoldEdges, 1);
    EXPECT_EQ(edges.edges, 35);  // twice 18, one of them in both
    const TestFolder folder;
    io::writeMesh(folder.file("boxes.ply"), boxesAlongAnEdge());
    KeptMessages messages;
    io::LevelSetOptions options;
    options.voxelSize = 0.1f;
    io::levelSetFromMesh(readMesh(folder.file("boxes.ply"), 0, messages.services()), options, messages.services());
    EXPECT_TRUE(messages.texts().empty());
}

TEST(MeshTopology, calls_a_fin_open_although_its_third_triangle_leaves_no_edge_single)
{
    // Three triangles around one edge: two cancel there, the third does not.
    TriangleMesh mesh = boxMesh({0, 0, 0}, {1, 1, 1});
    mesh.vertices.push_back({2, 2, 2});
    mesh.triangles.push_back({0, 1, 8});
    const io::MeshTopology edges = io::meshTopology(mesh);
    EXPECT_FALSE(edges.closed());
    EXPECT_EQ(edges.nonManifoldEdges, 1);
    EXPECT_EQ(edges.openEdges, 3);
    EXPECT_EQ(edges.flippedEdges, 0);
    EXPECT_EQ(io::openEdgesText(edges), "3 of 20 edges are open (15%)");
}

}  // namespace
}  // namespace tilegrid::test
