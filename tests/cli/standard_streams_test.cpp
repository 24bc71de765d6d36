// `-`: files through standard input and output.
#include "command.h"

#include <gtest/gtest.h>

#include <fcntl.h>

namespace {

using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

Words chain(Words words, Words const& more)
{
    words.push_back("!");
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(StandardInput, gives_what_a_file_gives)
{
    const WorkFolder folder;
    const auto direct = folder.run(chain({"read", bunny(), "voxel=0.5"}, {"info"}));
    ASSERT_EQ(direct.status, 0) << direct.err;
    // Information begins with the name of the file.
    const auto body = [](std::string const& text) { return text.substr(text.find("structure")); };
    ASSERT_EQ(folder.run(chain({"read", bunny(), "voxel=0.25"}, {"write", "a.ply"})).status, 0);

    const auto obj = folder.runFrom(fileText(bunny()), {"info", "-", "format=obj", "voxel=0.5"});
    EXPECT_EQ(obj.status, 0) << obj.err;
    EXPECT_EQ(body(obj.out), body(direct.out));
    const auto ply = folder.runFrom(fileText(folder.path("a.ply")),
                                    chain({"read", "-", "format=ply", "voxel=0.5"}, {"write", "b.ply"}));
    EXPECT_EQ(ply.status, 0) << ply.err;
    ASSERT_EQ(folder.run(chain({"read", "a.ply", "voxel=0.5"}, {"write", "c.ply"})).status, 0);
    EXPECT_TRUE(fileText(folder.path("b.ply")) == fileText(folder.path("c.ply")));
    const auto places = folder.runFrom("0,3,0\n", chain({"read", bunny(), "voxel=0.5"}, {"sample", "-"}));
    EXPECT_EQ(places.status, 0) << places.err;
    EXPECT_TRUE(places.out.starts_with("x,y,z,voxel_signed_distance\n0,3,0,")) << places.out;
}

TEST(StandardOutput, gets_the_bytes_of_the_file_and_nothing_else)
{
    const WorkFolder folder;
    for (std::string const format : {"ply", "obj"}) {
        const Words mesh = {"read", bunny(), "voxel=0.5"};
        ASSERT_EQ(folder.run(chain(mesh, {"write", "a." + format})).status, 0);
        const auto piped = folder.run(chain(chain(mesh, {"info"}), {"write", "-", "format=" + format}));
        EXPECT_EQ(piped.status, 0) << piped.err;
        EXPECT_TRUE(piped.out == fileText(folder.path("a." + format)));
        EXPECT_TRUE(holds(piped.err, "structure")) << "results go to standard error then: " << piped.err;
    }
    // Points through both, the other way round too.
    const std::string table = "x,y,z\n1,2,3\n-0.5,0.25,8\n";
    const auto ply = folder.runFrom(table, chain({"read", "-", "format=csv"}, {"write", "-", "format=ply"}));
    EXPECT_EQ(ply.status, 0) << ply.err;
    EXPECT_EQ(folder.runFrom(ply.out, chain({"read", "-", "format=ply"}, {"write", "-", "format=csv"})).out, table);
}

TEST(StandardOutput, that_takes_nothing_is_an_error_with_its_reason)
{
    const WorkFolder folder;
    const auto result = folder.runTo(open("/dev/full", O_WRONLY | O_CLOEXEC),
                                     chain({"sphere", "radius=1", "voxel=0.25"}, {"write", "-", "format=ply"}));
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(holds(result.err, "cannot write standard output: No space left on device")) << result.err;
}

TEST(Graph, comes_and_goes_through_standard_streams)
{
    const WorkFolder folder;
    const auto saved = folder.run(chain({"create_empty_volume", "0.5"}, {"get_voxel_size", "--save", "-"}));
    EXPECT_EQ(saved.status, 0) << saved.err;
    EXPECT_TRUE(holds(saved.out, "\"version\": 1")) << saved.out;
    EXPECT_EQ(folder.files(), Words{});
    EXPECT_EQ(folder.runFrom(saved.out, {"run", "-"}).out, "0.5\n");
    EXPECT_EQ(folder.runFrom(saved.out, {"run", "-", "--set", "detail_size=2"}).out, "2\n");

    // A graph keeps the word and the format.
    const auto piping =
        folder.run(chain({"read", "-", "format=csv"}, {"write", "-", "format=ply", "--save", "g.json"}));
    ASSERT_EQ(piping.status, 0) << piping.err;
    EXPECT_TRUE(folder.runFrom("x,y,z\n1,2,3\n", {"run", "g.json"}).out.starts_with("ply\n"));
}

TEST(StandardStreams, that_cannot_be_meant_are_explained)
{
    const WorkFolder folder;
    const std::pair<Words, std::string> cases[] = {
        {{"read", "-", "voxel=1"}, "write format= and one of ply, obj, csv"},
        {{"read", "a.ply", "format=obj"}, "'format' is for standard input and output"},
        {chain({"read", "-", "format=csv"}, {"read", "-", "format=csv"}),
         "an earlier step takes standard input already"},
        {chain(chain({"sphere", "radius=1", "voxel=1"}, {"write", "-", "format=ply"}),
               {"sphere", "radius=1", "voxel=1", "!", "write", "-", "format=ply"}),
         "an earlier step writes to standard output already"},
        {{"read", "-.vdb"}, "only .ply, .obj, .csv go through standard input and output"},
    };
    for (auto const& [words, says] : cases) {
        const auto result = folder.run(words);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_TRUE(holds(result.err, says)) << result.err;
    }
    const auto both = folder.runFrom(
        R"({"version": 1, "steps": [{"node": "read", "params": {"file": "-", "format": "csv"}}]})", {"run", "-"});
    EXPECT_EQ(both.status, 1);
    EXPECT_TRUE(holds(both.err, "the graph comes from standard input")) << both.err;
    const auto empty = folder.runFrom("", {"read", "-", "format=obj", "voxel=1"});
    EXPECT_EQ(empty.status, 2);
    EXPECT_TRUE(holds(empty.err, "nothing came")) << empty.err;
}

}  // namespace
