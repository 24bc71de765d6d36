#include "graph/error.h"
#include "io/error.h"
#include "io/mesh.h"
#include "support/files.h"
#include "support/meshes.h"
#include "trial.h"

#include <nlohmann/json.hpp>

namespace tilegrid::test {
namespace {

using graph::UsageError;
using io::InputError;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

std::string resultOf(Words const& words)
{
    Trial run;
    run(planOf(words));
    return run.results.str();
}

Json infoOf(Words words)
{
    for (char const* word : {"!", "info", "--json"}) words.push_back(word);
    return Json::parse(resultOf(words));
}

std::string fileOf(TestFolder const& folder, io::TriangleMesh const& mesh, std::string const& name = "mesh.ply")
{
    io::writeMesh(folder.file(name), mesh);
    return folder.file(name);
}

io::TriangleMesh sheet() { return {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0.5f}}, {{0, 1, 2}}}; }

TEST(VoxelCount, goes_across_the_longest_side_after_the_mesh_is_placed)
{
    const TestFolder folder;
    const std::string file = fileOf(folder, boxMesh({0, 0, 0}, {1, 2, 4}));
    EXPECT_EQ(infoOf({"read", file, "voxels=32"})["voxel_size"].get<float>(), 0.125f);
    EXPECT_EQ(infoOf({"read", file, "voxels=32", "scale=1,8,1"})["voxel_size"].get<float>(), 0.5f);
    EXPECT_EQ(infoOf({"read", file, "voxels=32", "band=0.5wu"})["properties"][0]["default"].get<float>(), 0.5f);
    EXPECT_EQ(infoOf({"sphere", "radius=2", "voxels=64"})["voxel_size"].get<float>(), 0.0625f);
    EXPECT_EQ(infoOf({"box", "min=0,0,0", "max=1,2,1", "voxels=16"})["voxel_size"].get<float>(), 0.125f);
    EXPECT_EQ(infoOf({"torus", "radius=3", "tube=1", "voxels=64"})["voxel_size"].get<float>(), 0.125f);
}

TEST(VoxelCount, stands_for_the_voxel_size_and_not_beside_it)
{
    const auto complaint = [](Words const& words) { return errorOf<UsageError>([&] { planOf(words); }); };
    EXPECT_TRUE(contains(complaint({"sphere", "radius=1", "voxel=0.1", "voxels=10"}), "say the same"));
    EXPECT_TRUE(contains(complaint({"read", "a.obj", "voxels=10", "voxel=0.1"}), "say the same"));
    const std::string none = complaint({"read", "a.obj"});
    EXPECT_TRUE(contains(none, "'voxel' is missing") && contains(none, "or voxels=int")) << none;
    EXPECT_EQ(none.find("'voxels' is missing"), std::string::npos) << none;
    EXPECT_TRUE(contains(complaint({"sphere", "radius=1", "voxels=0"}), "out of range"));
    EXPECT_NO_THROW(planOf({"read", "a.obj", "voxels=10"}));
}

TEST(Thickness, makes_a_shell_of_an_open_mesh_in_voxels_or_world_units)
{
    const TestFolder folder;
    const std::string file = fileOf(folder, sheet());
    Trial run;
    const std::string text = errorOf<InputError>([&] { run(planOf({"read", file, "voxel=0.02"})); });
    EXPECT_TRUE(contains(text, "thickness=")) << text;
    EXPECT_TRUE(contains(errorOf<InputError>([&] { resultOf({"read", file, "voxel=0.02", "thickness=1vx"}); }), "1 voxels thick"));
    // The shell of a triangle of area A and rim L is 2 A + pi L t / 2 + pi t^2 in area; the corners of voxels cut off less than 2 % of it.
    const double a = 0.5 * std::sqrt(1.25), l = 1 + std::sqrt(1.25) + 1.5, t = 0.08;
    const double wanted = 2 * a + 3.14159265 * (l * t / 2 + t * t);
    for (std::string const thickness : {"thickness=4vx", "thickness=0.08", "thickness=0.08wu"}) {
        const Json info = infoOf({"read", file, "voxel=0.02", thickness});
        EXPECT_NEAR(info["level_set"]["area"].get<double>(), wanted, 0.02 * wanted) << thickness;
    }
}

TEST(Thickness, is_the_only_thing_said_of_a_mesh_that_is_not_closed)
{
    const TestFolder folder;
    io::TriangleMesh box = boxMesh({-1, -1, -1}, {1, 1, 1});
    box.triangles.pop_back();
    const std::string file = fileOf(folder, box);
    Trial run;
    run(planOf({"read", file, "voxel=0.1", "!", "info"}));
    ASSERT_EQ(run.messages.size(), 1u);
    EXPECT_TRUE(contains(run.messages[0], "3 of 18 edges are open (17%)") && contains(run.messages[0], "Assumed")) << run.messages[0];
    Trial shell;
    shell(planOf({"read", file, "voxel=0.1", "thickness=2vx", "!", "info"}));
    EXPECT_TRUE(shell.messages.empty());
}

TEST(UpAxis, z_turns_meshes_on_the_way_in_and_back_on_the_way_out)
{
    const TestFolder folder;
    // As tall as 4 along z, with its foot on the ground.
    const std::string file = fileOf(folder, boxMesh({0, 0, 0}, {1, 2, 4}));
    const Json set = infoOf({"read", file, "voxel=0.25", "up=z"})["level_set"];
    // Faces lie on samples of the lattice, where a level set is exact.
    EXPECT_EQ(set["bounds_min"], Json::parse("[0.0, 0.0, -2.0]"));
    EXPECT_EQ(set["bounds_max"], Json::parse("[1.0, 4.0, 0.0]"));
    resultOf({"read", file, "voxel=0.25", "up=z", "!", "write", folder.file("out.ply"), "up=z"});
    const Json info = Json::parse(resultOf({"info", folder.file("out.ply"), "--json"}));
    EXPECT_EQ(info["bounds_min"], Json::parse("[0.0, 0.0, 0.0]"));
    EXPECT_EQ(info["bounds_max"], Json::parse("[1.0, 2.0, 4.0]"));
    EXPECT_TRUE(info["closed"].get<bool>());
    EXPECT_GT(info["volume"].get<double>(), 0.0);  // turned, not mirrored
}

TEST(FileInfo, describes_meshes_and_points_without_a_voxel_size)
{
    const TestFolder folder;
    const std::string file = fileOf(folder, boxMesh({0, 0, 0}, {1, 2, 4}), "mesh.obj");
    const Json info = Json::parse(resultOf({"info", file, "--json"}));
    EXPECT_EQ(info["name"], "mesh");
    EXPECT_EQ(info["triangles"], 12);
    EXPECT_EQ(info["vertices"], 8);
    EXPECT_EQ(info["bounds_max"], Json::parse("[1.0, 2.0, 4.0]"));
    EXPECT_EQ(info["closed"], true);
    EXPECT_DOUBLE_EQ(info["volume"].get<double>(), 8.0);
    EXPECT_TRUE(contains(resultOf({"info", file}), "closed      yes"));
    EXPECT_TRUE(contains(resultOf({"info", fileOf(folder, sheet())}), "closed      no: 3 of 3 edges are open (100%)"));
    // With a voxel size it is the volume that is asked for.
    EXPECT_TRUE(contains(resultOf({"info", file, "voxel=0.5"}), "voxel size  0.5"));

    const std::string points = folder.write("points.csv", "x,y,z,heat\n1,2,3,7\n-1,5,0,9\n");
    const Json cloud = Json::parse(resultOf({"info", points, "--json"}));
    EXPECT_EQ(cloud["points"], 2);
    EXPECT_EQ(cloud["bounds_min"], Json::parse("[-1.0, 2.0, 0.0]"));
    EXPECT_EQ(cloud["bounds_max"], Json::parse("[1.0, 5.0, 3.0]"));
    EXPECT_EQ(cloud["columns"][3]["name"], "heat");
    EXPECT_EQ(cloud["columns"][3]["max"], 9.0);
    EXPECT_TRUE(contains(resultOf({"read", points, "!", "info"}), "attribute   heat, from 7 to 9"));
}

}  // namespace
}  // namespace tilegrid::test
