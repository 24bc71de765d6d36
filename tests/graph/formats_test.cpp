#include "graph/error.h"
#include "graph/help.h"
#include "io/formats.h"
#include "io/mesh.h"
#include "support/files.h"
#include "support/meshes.h"
#include "trial.h"

#include <algorithm>

namespace tilegrid::test {
namespace {

Trial ran(std::vector<std::string> const& words)
{
    Trial trial;
    trial(planOf(words));
    return trial;
}

std::vector<std::string> attributeNames(io::TriangleMesh const& mesh)
{
    std::vector<std::string> names;
    for (io::Attribute const& attribute : mesh.attributes) names.push_back(attribute.name);
    std::sort(names.begin(), names.end());
    return names;
}

io::TriangleMesh colouredBox()
{
    io::TriangleMesh box = boxMesh({-1, -1, -1}, {1, 1, 1});
    box.attributes = {{"color", 3, std::vector<float>(3 * box.vertices.size(), 0.25f)}, {"heat", 1, std::vector<float>(box.vertices.size(), 2.0f)}};
    return box;
}

TEST(Formats, every_mesh_that_can_be_written_can_be_read_and_voxelized)
{
    const TestFolder folder;
    for (io::FileFormat const& format : io::fileFormats()) {
        if (!format.writesMeshes) continue;
        SCOPED_TRACE(format.ending);
        ASSERT_TRUE(format.readsMeshes);
        const std::string file = folder.file("box" + format.ending), back = folder.file("back" + format.ending);
        io::writeMesh(file, colouredBox());
        ran({"read", file, "voxel=0.2", "!", "write", back});
        const io::TriangleMesh mesh = io::readMesh(back, 0, {});
        EXPECT_TRUE(io::meshTopology(mesh).closed());
        // Between the cube through the outermost voxels inside and the one through the innermost outside.
        EXPECT_GT(io::enclosedVolume(mesh), 1.6 * 1.6 * 1.6);
        EXPECT_LT(io::enclosedVolume(mesh), 2.4 * 2.4 * 2.4);
    }
}

TEST(Formats, attributes_of_a_mesh_leave_with_its_surface)
{
    const TestFolder folder;
    io::writeMesh(folder.file("box.ply"), colouredBox());
    const Trial trial = ran({"read", folder.file("box.ply"), "voxel=0.2", "!", "write", folder.file("a.glb"), "!", "write", folder.file("a.obj"), "!", "write", folder.file("a.vdb")});
    EXPECT_EQ(attributeNames(io::readMesh(folder.file("a.glb"), 0, {})), (std::vector<std::string>{"color", "heat"}));
    EXPECT_EQ(attributeNames(io::readMesh(folder.file("a.obj"), 0, {})), (std::vector<std::string>{"color"}));
    EXPECT_TRUE(std::any_of(trial.messages.begin(), trial.messages.end(), [](std::string const& text) { return contains(text, "'heat' is left out: an .obj file"); }));
    ran({"read", folder.file("a.vdb"), "volume=surface", "!", "write", folder.file("b.ply")});
    ran({"read", folder.file("box.ply"), "voxel=0.2", "attributes=no", "!", "write", folder.file("plain.ply")});
    EXPECT_TRUE(io::readMesh(folder.file("plain.ply"), 0, {}).attributes.empty());
}

TEST(Formats, are_named_where_an_ending_is_not_known)
{
    const std::string text = errorOf<graph::UsageError>([] { planOf({"read", "a.fbx", "voxel=1"}); });
    const std::string list = graph::formatList();
    for (io::FileFormat const& format : io::fileFormats()) {
        EXPECT_TRUE(contains(text, format.ending)) << text;
        EXPECT_TRUE(contains(list, "\n" + format.ending) && contains(list, format.help)) << list;
    }
    EXPECT_TRUE(contains(list, ".stl   meshes           meshes           triangles;")) << list;
}

}  // namespace
}  // namespace tilegrid::test
