#include "io/attributes.h"
#include "io/error.h"
#include "io/mesh.h"
#include "support/files.h"
#include "support/gltf_text.h"
#include "support/mesh_files.h"
#include "support/meshes.h"

#include <assimp/Importer.hpp>
#include <assimp/scene.h>

#include <cstring>

namespace tilegrid::test {
namespace {

using io::Attribute;
using io::InputError;
using io::readMesh;
using io::TriangleMesh;
using io::writeMesh;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

/// The value of an attribute at a corner of a triangle.
std::vector<float> valueAt(TriangleMesh const& mesh, std::string const& name, std::size_t triangle, int corner)
{
    for (Attribute const& attribute : mesh.attributes)
        if (attribute.name == name) {
            auto const& rows = mesh.attributeCorners.empty() ? mesh.triangles : mesh.attributeCorners;
            const auto first = attribute.values.begin() + std::ptrdiff_t(rows[triangle][corner]) * attribute.components;
            return {first, first + attribute.components};
        }
    return {};
}

const std::string kPlyHead = "ply\nformat ascii 1.0\n";
const std::string kTetrahedronVertices = "0 0 0\n1 0 0\n0 1 0\n0 0 1\n";
std::string plyVertices(int count) { return "element vertex " + std::to_string(count) + "\nproperty float x\nproperty float y\nproperty float z\n"; }

TEST(PlyReader, triangles_of_a_strip_turn_by_turns_the_other_way)
{
    const TestFolder folder;
    const std::string strip = "element tristrips 1\nproperty list int int vertex_indices\nend_header\n";
    const TriangleMesh mesh = readMesh(folder.write("strip.ply", kPlyHead + plyVertices(4) + strip + kTetrahedronVertices + "6 0 1 2 3 0 1\n"), 0, {});
    ASSERT_EQ(mesh.triangles.size(), 4u);
    EXPECT_TRUE(io::meshTopology(mesh).closed());
    // Its first triangle looks down the z axis, away from the fourth vertex only if taken the other way: inside out.
    EXPECT_DOUBLE_EQ(io::enclosedVolume(mesh), -1.0 / 6.0);
}

TEST(PlyReader, a_negative_index_ends_a_strip)
{
    const TestFolder folder;
    const TriangleMesh sphere = sphereMesh(1.0f, 2);
    std::string vertices, indices;
    for (float3 const& v : sphere.vertices) {
        char text[96];
        std::snprintf(text, sizeof text, "%.9g %.9g %.9g\n", v.x, v.y, v.z);
        vertices += text;
    }
    for (int3 const& t : sphere.triangles) indices += std::to_string(t.x) + " " + std::to_string(t.y) + " " + std::to_string(t.z) + " -1 ";
    const std::string strip = "element tristrips 1\nproperty list int int vertex_indices\nend_header\n";
    const std::string count = std::to_string(4 * sphere.triangles.size());
    const TriangleMesh mesh = readMesh(folder.write("a.ply", kPlyHead + plyVertices(int(sphere.vertices.size())) + strip + vertices + count + " " + indices), 0, {});
    EXPECT_TRUE(sameMesh(mesh, sphere));
    EXPECT_TRUE(contains(complaintAbout(folder, "b.ply", kPlyHead + plyVertices(4) + strip + kTetrahedronVertices + "4 0 1 2 4\n"), "triangle strip 1 names a vertex"));
    EXPECT_TRUE(contains(complaintAbout(folder, "c.ply", kPlyHead + plyVertices(4) + strip + kTetrahedronVertices + "9 0 1 2\n"), "the file ends"));
    EXPECT_TRUE(contains(complaintAbout(folder, "d.ply", kPlyHead + plyVertices(4) + strip + kTetrahedronVertices + "4 0 1 -1 2\n"), "no triangle"));
}

TEST(PlyReader, takes_colours_and_real_values_of_vertices_and_no_more)
{
    const TestFolder folder;
    const std::string text = kPlyHead
        + "element vertex 3\nproperty float x\nproperty float y\nproperty float z\nproperty float nx\nproperty float s\nproperty uchar red\nproperty uchar green\n"
          "property uchar blue\nproperty uchar alpha\nproperty float heat\nproperty double wind_x\nproperty double wind_y\nproperty double wind_z\nproperty int label\n"
          "element face 1\nproperty list uchar int vertex_index\nend_header\n"
          "0 0 0 9 9 255 0 128 51 0.5 1 2 3 7\n1 0 0 9 9 0 0 0 51 1.5 4 5 6 7\n0 1 0 9 9 1 2 3 51 2.5 7 8 9 7\n3 0 1 2\n";
    const TriangleMesh mesh = readMesh(folder.write("a.ply", text), 0, {});
    ASSERT_EQ(mesh.attributes.size(), 4u);
    const std::vector<float> color = valueAt(mesh, "color", 0, 0);
    ASSERT_EQ(color.size(), 3u);
    EXPECT_EQ(color[0], 1.0f);
    EXPECT_EQ(color[1], 0.0f);
    // ((128/255 + 0.055) / 1.055)^2.4, by hand; the last digit of a float is 6e-8 of it.
    EXPECT_NEAR(color[2], 0.21586050f, 2e-8f);
    EXPECT_EQ(valueAt(mesh, "alpha", 0, 1), std::vector<float>{51.0f / 255.0f});
    EXPECT_EQ(valueAt(mesh, "heat", 0, 2), std::vector<float>{2.5f});
    EXPECT_EQ(valueAt(mesh, "wind", 0, 1), (std::vector<float>{4, 5, 6}));
}

TEST(MeshAttributes, stay_apart_where_vertices_are_joined)
{
    const TestFolder folder;
    // Two triangles over one edge, each with four corners of its own colour.
    const std::string text = kPlyHead
        + "element vertex 6\nproperty float x\nproperty float y\nproperty float z\nproperty float heat\nelement face 2\nproperty list uchar int vertex_index\nend_header\n"
          "0 0 0 1\n1 0 0 1\n0 1 0 1\n0 1 0 2\n1 0 0 2\n1 1 0 2\n3 0 1 2\n3 3 4 5\n";
    const TriangleMesh mesh = readMesh(folder.write("a.ply", text), 0, {});
    EXPECT_EQ(mesh.vertices.size(), 4u);
    for (int corner = 0; corner < 3; ++corner) {
        EXPECT_EQ(valueAt(mesh, "heat", 0, corner), std::vector<float>{1});
        EXPECT_EQ(valueAt(mesh, "heat", 1, corner), std::vector<float>{2});
    }
    // Written, they are parted again.
    for (char const* name : {"b.ply", "b.glb"}) {
        writeMesh(folder.file(name), mesh);
        const TriangleMesh back = readMesh(folder.file(name), 0, {});
        EXPECT_EQ(back.vertices.size(), 4u);
        for (std::size_t t = 0; t < 2; ++t)
            for (int corner = 0; corner < 3; ++corner) EXPECT_EQ(valueAt(back, "heat", t, corner), valueAt(mesh, "heat", t, corner)) << name;
    }
}

TEST(ObjReader, takes_colours_behind_the_coordinates)
{
    const TestFolder folder;
    const TriangleMesh mesh = readMesh(folder.write("a.obj", "v 0 0 0 1 0 0.5\nv 1 0 0 0 0 0\nv 0 1 0 0 0 0\nf 1 2 3\n"), 0, {});
    EXPECT_EQ(valueAt(mesh, "color", 0, 0), (std::vector<float>{1.0f, 0.0f, io::linearFromSrgb(0.5)}));
    EXPECT_TRUE(readMesh(folder.write("b.obj", "v 0 0 0 1\nv 1 0 0 1\nv 0 1 0 1\nf 1 2 3\n"), 0, {}).attributes.empty()) << "a weight is no colour";
}

TEST(OffReader, reads_faces_remarks_and_colours)
{
    const TestFolder folder;
    const std::string cube = "OFF\n# a cube\n\n8 6 0   # vertices, faces, edges\n0 0 0\n1 0 0\n0 1 0\n1 1 0\n0 0 1\n1 0 1\n0 1 1\n1 1 1\n"
                             "4 0 2 3 1 255 0 0\n4 4 5 7 6\n4 0 1 5 4\n4 2 6 7 3\n4 0 4 6 2\n4 1 3 7 5\n";
    const TriangleMesh mesh = readMesh(folder.write("cube.off", cube), 0, {});
    EXPECT_EQ(mesh.triangles.size(), 12u);
    EXPECT_TRUE(io::meshTopology(mesh).closed());
    EXPECT_DOUBLE_EQ(io::enclosedVolume(mesh), 1.0);
    EXPECT_TRUE(mesh.attributes.empty());
    EXPECT_EQ(readMesh(folder.write("short.off", "OFF 3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n"), 0, {}).triangles.size(), 1u);
    EXPECT_EQ(readMesh(folder.write("bare.off", "3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n"), 0, {}).triangles.size(), 1u);
    for (char const* text : {"COFF\n3 1 0\n0 0 0 255 0 51 255\n1 0 0 0 0 0 255\n0 1 0 0 0 0 255\n3 0 1 2\n",
                             "CNOFF\n3 1 0\n0 0 0 0 0 1 1.0 0.0 0.2 1\n1 0 0 0 0 1 0 0 0 1\n0 1 0 0 0 1 0 0 0 1\n3 0 1 2\n"})
        EXPECT_EQ(valueAt(readMesh(folder.write("color.off", text), 0, {}), "color", 0, 0), (std::vector<float>{1.0f, 0.0f, io::linearFromSrgb(0.2)})) << text;
}

TEST(OffReader, refuses_what_is_not_there)
{
    const TestFolder folder;
    const auto problem = [&](std::string const& text) { return complaintAbout(folder, "a.off", text); };
    EXPECT_TRUE(contains(problem("hello\n"), "does not begin with 'OFF'"));
    EXPECT_TRUE(contains(problem("4OFF\n1 1 0\n0 0 0 0\n"), "'4OFF'"));
    EXPECT_TRUE(contains(problem("OFF BINARY\n"), "save it as text"));
    EXPECT_TRUE(contains(problem("OFF\n4000000000 1 0\n0 0 0\n"), "counts 4000000000 vertices, and the file ends after 1"));
    EXPECT_TRUE(contains(problem("OFF\n-1 1 0\n"), "no number of vertices"));
    EXPECT_TRUE(contains(problem("OFF\n3 9 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n"), "counts 9 faces, and the file ends after 1"));
    EXPECT_TRUE(contains(problem("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n"), "line 6: a face names vertex '3'"));
    EXPECT_TRUE(contains(problem("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 -1\n"), "names vertex '-1'"));
    EXPECT_TRUE(contains(problem("OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n4000000000 0 1 2\n"), "line 6: a face of 4000000000 corners that names 3"));
    EXPECT_TRUE(contains(problem("OFF\n3 1 0\n0 0 nan\n1 0 0\n0 1 0\n3 0 1 2\n"), "not a finite number"));
    EXPECT_TRUE(contains(problem("COFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n"), "line 3: a vertex without the colour"));
    std::string fan = "OFF\n3 1000 0\n0 0 0\n1 0 0\n0 1 0\n";
    for (int n = 0; n < 1000; ++n) fan += "3 0 1 2\n";
    EXPECT_TRUE(contains(complaintAbout(folder, "fan.off", fan, 10000), "too many"));
}

TEST(MeshWriter, stl_holds_the_triangles_and_their_normals)
{
    const TestFolder folder;
    KeptMessages messages;
    TriangleMesh sphere = sphereMesh(2.0f, 3, {0.25f, -1.0f, 3.0f});
    sphere.attributes = {{"heat", 1, std::vector<float>(sphere.vertices.size(), 1.0f)}};
    writeMesh(folder.file("a.stl"), sphere, messages.services());
    EXPECT_TRUE(messages.mention("'heat' is left out: an .stl file holds triangles only"));
    EXPECT_TRUE(sameMesh(readMesh(folder.file("a.stl"), 0, {}), sphere));
    const std::string bytes = folder.read("a.stl");
    ASSERT_EQ(bytes.size(), 84 + 50 * sphere.triangles.size());
    for (std::size_t t = 0; t < sphere.triangles.size(); ++t) {
        float n[3];
        std::memcpy(n, bytes.data() + 84 + 50 * t, sizeof n);
        const float3 middle = sphere.vertices[sphere.triangles[t].x] - float3(0.25f, -1.0f, 3.0f);
        EXPECT_NEAR(n[0] * n[0] + n[1] * n[1] + n[2] * n[2], 1.0f, 1e-6f);  // a few roundings of floats near 1
        EXPECT_GT(n[0] * middle.x + n[1] * middle.y + n[2] * middle.z, 0.0f);
    }
    sphere.triangles[0].x = 1 << 20;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writeMesh(folder.file("b.stl"), sphere); }), "a vertex that is not there"));
}

TEST(MeshWriter, glb_reads_back_with_all_bits)
{
    const TestFolder folder;
    KeptMessages messages;
    TriangleMesh sphere = sphereMesh(2.0f, 3, {0.25f, -1.0f, 3.0f});
    for (float3 const& v : sphere.vertices) sphere.normals.push_back((1.0f / length(v)) * v);
    sphere.attributes = {{"color", 3, {}}, {"heat", 1, {}}, {"wind", 3, {}}, {"broken", 1, std::vector<float>(sphere.vertices.size(), NAN)}};
    for (std::size_t n = 0; n < sphere.vertices.size(); ++n) {
        sphere.attributes[1].values.push_back(float(n) * 0.1f);
        for (int c = 0; c < 3; ++c) sphere.attributes[0].values.push_back(float(n % 97) / 97.0f), sphere.attributes[2].values.push_back(sphere.vertices[n][c]);
    }
    writeMesh(folder.file("a.glb"), sphere, messages.services());
    EXPECT_TRUE(messages.mention("'broken' is left out"));
    const TriangleMesh back = readMesh(folder.file("a.glb"), 0, {});
    ASSERT_TRUE(sameMesh(back, sphere));
    EXPECT_EQ(back.attributes.size(), 3u);
    for (std::size_t t = 0; t < sphere.triangles.size(); ++t)
        for (int corner = 0; corner < 3; ++corner)
            for (char const* name : {"color", "heat", "wind"}) EXPECT_EQ(valueAt(back, name, t, corner), valueAt(sphere, name, t, corner));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.write("empty.glb", ""), 0, {}); }), "empty"));
    writeMesh(folder.file("none.glb"), {});
    EXPECT_TRUE(contains(errorOf<InputError>([&] { readMesh(folder.file("none.glb"), 0, {}); }), "no triangle"));
}

TEST(MeshWriter, glb_is_understood_by_another_reader)
{
    const TestFolder folder;
    TriangleMesh box = boxMesh({-1, -2, -3}, {1, 2, 3});
    for (float3 const& v : box.vertices) box.normals.push_back((1.0f / length(v)) * v);
    box.attributes = {{"color", 3, {}}};
    for (std::size_t n = 0; n < box.vertices.size(); ++n) box.attributes[0].values.insert(box.attributes[0].values.end(), {0.125f * float(n), 0.5f, 1.0f});
    writeMesh(folder.file("a.glb"), box);
    Assimp::Importer importer;
    aiScene const* scene = importer.ReadFile(folder.file("a.glb"), 0);
    ASSERT_TRUE(scene) << importer.GetErrorString();
    ASSERT_EQ(scene->mNumMeshes, 1u);
    aiMesh const& mesh = *scene->mMeshes[0];
    ASSERT_EQ(mesh.mNumVertices, 8u);
    ASSERT_EQ(mesh.mNumFaces, 12u);
    ASSERT_TRUE(mesh.mColors[0]);
    for (unsigned f = 0; f < 12; ++f)
        for (unsigned c = 0; c < 3; ++c) EXPECT_EQ(int(mesh.mFaces[f].mIndices[c]), box.triangles[f][int(c)]);
    for (unsigned n = 0; n < 8; ++n) {
        EXPECT_EQ(mesh.mVertices[n].z, box.vertices[n].z);
        EXPECT_NEAR(mesh.mNormals[n].y, box.normals[n].y, 2e-7f);  // made unit once more: two roundings
        EXPECT_EQ(mesh.mColors[0][n].r, 0.125f * float(n));
    }
}

TEST(GltfReader, places_meshes_by_their_nodes)
{
    const TestFolder folder;
    // One box, three times: moved; turned by 90 degrees around z and scaled within a moved parent; mirrored.
    const TriangleMesh box = boxMesh({0, 0, 0}, {1, 2, 3});
    GltfText text;
    text.addMesh(box);
    text.nodes = R"({"children":[1,2],"translation":[10,0,0]},{"mesh":0},{"mesh":0,"rotation":[0,0,0.7071067811865476,0.7071067811865476],"scale":[2,1,1]},
                    {"mesh":0,"matrix":[-1,0,0,0, 0,1,0,0, 0,0,1,0, 0,5,0,1]},{"mesh":0,"translation":[99,99,99]})";
    text.scenes = R"({"nodes":[0,3]})";
    text.write(folder, "a");
    const TriangleMesh mesh = readMesh(folder.file("a.gltf"), 0, {});
    ASSERT_EQ(mesh.triangles.size(), 36u);
    EXPECT_TRUE(io::meshTopology(mesh).closed());
    EXPECT_NEAR(io::enclosedVolume(mesh), 6.0 + 12.0 + 6.0, 1e-5);  // mirrored outward too; floats of size 15, 36 terms
    const auto corner = [&](std::size_t triangle) { return mesh.vertices[std::size_t(mesh.triangles[triangle].y)]; };  // (0, 2, 0) of the box
    EXPECT_EQ(corner(0), float3(10, 2, 0));
    EXPECT_NEAR(corner(12).x, 8.0f, 1e-6f);  // (0, 2, 0) turns to (-2, 0, 0)
    EXPECT_NEAR(corner(12).y, 0.0f, 1e-6f);
}

TEST(GltfReader, reads_strips_fans_strides_sparse_values_and_integers)
{
    const TestFolder folder;
    GltfText text;
    // Positions as normalized shorts every 8 bytes; a sparse value moves the last.
    text.append<std::int16_t>({0, 0, 0, 7, 32767, 0, 0, 7, 0, 32767, 0, 7, 0, 0, 0, 7});
    text.append<std::uint16_t>({3, 0});
    text.append<std::int16_t>({0, 0, 32767, 0});
    text.append<std::uint8_t>({0, 1, 2, 3, 0, 1, 0, 0});
    text.append<std::uint8_t>({255, 0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 51, 51, 51, 0});
    text.views = R"({"buffer":0,"byteLength":32,"byteStride":8},{"buffer":0,"byteOffset":32,"byteLength":4},{"buffer":0,"byteOffset":36,"byteLength":8},
                    {"buffer":0,"byteOffset":44,"byteLength":8},{"buffer":0,"byteOffset":52,"byteLength":16})";
    text.accessors = R"({"bufferView":0,"componentType":5122,"normalized":true,"count":4,"type":"VEC3",
                         "sparse":{"count":1,"indices":{"bufferView":1,"componentType":5123},"values":{"bufferView":2}}},
                        {"bufferView":3,"componentType":5121,"count":6,"type":"SCALAR"},{"bufferView":4,"componentType":5121,"normalized":true,"count":4,"type":"VEC4"})";
    text.meshes = R"({"primitives":[{"attributes":{"POSITION":0,"COLOR_0":2},"indices":1,"mode":5},{"attributes":{"POSITION":0,"COLOR_0":2},"mode":6},{"attributes":{"POSITION":0},"mode":1}]})";
    text.nodes = R"({"mesh":0})";
    text.scenes = R"({"nodes":[0]})";
    text.write(folder, "a");
    const TriangleMesh mesh = readMesh(folder.file("a.gltf"), 0, {});
    ASSERT_EQ(mesh.triangles.size(), 6u) << "four of the strip, two of the fan";
    EXPECT_EQ(mesh.vertices.size(), 4u);
    EXPECT_EQ(mesh.vertices[std::size_t(mesh.triangles[1].y)], float3(0, 0, 1)) << "sparse; every other triangle of a strip turns around";
    EXPECT_EQ(valueAt(mesh, "color", 0, 1), (std::vector<float>{0, 1, 0})) << "as it is: linear";
    EXPECT_EQ(valueAt(mesh, "alpha", 1, 1), std::vector<float>{0.0f});
    EXPECT_EQ(mesh.attributeCorners[4], int3(0, 1, 2)) << "parts of a mesh share their vertices";
    // The same with the buffer in the text.
    text.write(folder, "b", /*embedded*/ true);
    EXPECT_TRUE(sameMesh(readMesh(folder.file("b.gltf"), 0, {}), mesh));
}

TEST(GltfReader, refuses_what_is_not_there_or_not_read)
{
    const TestFolder folder;
    const auto problem = [&](auto const& change) {
        GltfText text;
        text.addMesh(boxMesh({0, 0, 0}, {1, 1, 1}));
        text.nodes = R"({"mesh":0})";
        text.scenes = R"({"nodes":[0]})";
        change(text);
        text.write(folder, "a");
        return errorOf<InputError>([&] { readMesh(folder.file("a.gltf"), 1 << 20, {}); });
    };
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.nodes = R"({"children":[0],"mesh":0})"; }), "node 0 hangs on two"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.nodes = R"({"children":[1]},{"children":[2]},{"children":[1]})"; }), "node 1 hangs on two"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.scenes = R"({"nodes":[7]})"; }), "names number 7 of its nodes"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.nodes = R"({"mesh":3})"; }), "names number 3 of its meshes"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.nodes = R"({"mesh":0,"scale":[1e39,1,1]})"; }), "coordinate that is not a finite number"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.nodes = R"({"mesh":0,"scale":[1,1]})"; }), "'scale' of a node has 2 numbers"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.extras = R"(,"extensionsRequired":["KHR_draco_mesh_compression"])"; }), "'KHR_draco_mesh_compression', which is not read: write it without"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.extras = R"(,"extensionsRequired":["EXT_meshopt_compression"])"; }), "'EXT_meshopt_compression', which is not read: write it without"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.extras = R"(,"extensionsRequired":["KHR_no_such"])"; }), "'KHR_no_such'"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.version = "1.0"; }), "version '1.0'"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.uri = "../a.bin"; }), "does not lie in the folder"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.uri = "b/..%2f..%2Fa.bin"; }), "does not lie in the folder"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.uri = "/etc/hostname"; }), "does not lie in the folder"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.uri = "file:///etc/hostname"; }), "does not lie in the folder"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.uri = "none.bin"; }), "there is no such file"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.byteLength = 4000000000u; }), "more than the limit"));
    EXPECT_TRUE(contains(problem([](GltfText& t) { t.byteLength = 1000; }), "is to have 1000 bytes"));
    const auto withAccessor = [&](std::string const& from, std::string const& to) {
        return problem([&](GltfText& t) {
            const std::size_t at = t.accessors.find(from);
            ASSERT_NE(at, std::string::npos);
            t.accessors.replace(at, from.size(), to);
        });
    };
    EXPECT_TRUE(contains(withAccessor(R"("count":8)", R"("count":9)"), "an accessor counts 9 values"));
    EXPECT_TRUE(contains(withAccessor(R"("count":8)", R"("count":1000000000000)"), "an accessor counts 1000000000000 values"));
    EXPECT_TRUE(contains(withAccessor(R"("count":8)", R"("count":-8)"), "'count' is missing, or no count"));
    EXPECT_TRUE(contains(withAccessor(R"("count":8)", R"("count":7)"), "names vertex 7 of a part that has 7"));
    EXPECT_TRUE(contains(withAccessor(R"("componentType":5126)", R"("componentType":5130)"), "unknown component type 5130"));
    EXPECT_TRUE(contains(withAccessor(R"("type":"VEC3")", R"("type":"VEC2")"), "POSITION has 2 components"));
    EXPECT_TRUE(contains(withAccessor(R"("bufferView":0,)", ""), "has no bytes in the file"));
    EXPECT_TRUE(contains(withAccessor(R"("bufferView":0,)", R"("bufferView":0,"byteOffset":4,)"), "an accessor counts 8 values"));
    EXPECT_TRUE(contains(withAccessor(R"("componentType":5125)", R"("componentType":5126)"), "must be unsigned integers"));
    EXPECT_TRUE(contains(complaintAbout(folder, "b.gltf", "{\"asset\":"), "no JSON object"));
    EXPECT_TRUE(contains(complaintAbout(folder, "c.gltf", "[" + std::string(200000, '[')), "no JSON object"));
    EXPECT_TRUE(contains(complaintAbout(folder, "d.gltf", "{\"a\":[" + std::string(30000, ',') + "]}", 1 << 20), "too many for the limit"));
}

TEST(GltfReader, notices_every_cut_through_a_binary_file)
{
    const TestFolder folder;
    writeMesh(folder.file("whole.glb"), sphereMesh(1.0f, 1));
    const std::string glb = folder.read("whole.glb");
    for (std::size_t size = 1; size < glb.size(); size += 7) {
        SCOPED_TRACE(std::to_string(size) + " of " + std::to_string(glb.size()));
        complaintAbout(folder, "cut.glb", glb.substr(0, size));
    }
}

TEST(MeshReader, damaged_files_of_every_format_are_refused_or_meshes)
{
    const TestFolder folder;
    writeMesh(folder.file("whole.glb"), sphereMesh(1.0f, 1));
    const std::string glb = folder.read("whole.glb"), off = "OFF\n4 4 0\n" + kTetrahedronVertices + "3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n";
    int readable = 0;
    for (auto const& [name, whole] : {std::pair(std::string("a.glb"), glb), std::pair(std::string("a.off"), off)})
        for (std::size_t at = 0; at < whole.size(); at += 3)
            for (char value : {'\0', '\xff', '9'}) {
                std::string damaged = whole;
                damaged[at] = value;
                try {
                    const TriangleMesh mesh = readMesh(folder.write(name, damaged), 1 << 24, {});
                    ++readable;
                    for (int3 const& t : mesh.triangles)
                        for (int c = 0; c < 3; ++c) ASSERT_TRUE(t[c] >= 0 && t[c] < static_cast<int>(mesh.vertices.size()));
                    for (float3 const& v : mesh.vertices) ASSERT_TRUE(std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z));
                } catch (InputError const&) {}
            }
    EXPECT_GT(readable, 0);
}

}  // namespace
}  // namespace tilegrid::test
