#include "command.h"

#include <gtest/gtest.h>

#include <csignal>

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

/// A coarse bunny: 40 voxels across.
Words readBunny(std::string const& structure = "binary")
{
    return {"read", bunny(), "voxel=0.25", "structure=" + structure};
}

Words chain(Words words, Words const& more)
{
    words.push_back("!");
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(Command, runs_the_chain_of_the_manual_and_writes_what_it_names)
{
    const WorkFolder folder;
    Words words = chain(readBunny(), {"update_voxel_position", "_", "as=b"});
    words = chain(chain(chain(words, {"slice", "b", "out/b.png"}), {"write", "b", "out/b.vdb"}), {"write", "b", "out/b.ply"});
    const auto result = folder.run(words);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(folder.files(), (Words{"out/b.ply", "out/b.png", "out/b.vdb"}));
    EXPECT_EQ(fileText(folder.path("out/b.png")).substr(1, 3), "PNG");
    EXPECT_EQ(fileText(folder.path("out/b.ply")).substr(0, 3), "ply");
}

TEST(Command, prints_json_alone_with_the_keys_that_programs_rely_on)
{
    const WorkFolder folder;
    for (std::string const structure : {"binary", "quinary"}) {
        const auto result = folder.run(chain(readBunny(structure), {"info", "--json", "-vv"}));
        ASSERT_EQ(result.status, 0) << result.err;
        const Json info = Json::parse(result.out);
        EXPECT_EQ(info.at("structure"), structure);
        EXPECT_FLOAT_EQ(info.at("voxel_size"), 0.25f);
        EXPECT_EQ(info.at("tiles_by_depth").size(), structure == "binary" ? 29u : 13u);
        EXPECT_EQ(info.at("leaf_voxels_by_depth").size(), info.at("tiles_by_depth").size());
        EXPECT_GT(info.at("bytes"), 0);
        EXPECT_EQ(info.at("properties").at(0).at("name"), "voxel_signed_distance");
        EXPECT_EQ(info.at("properties").at(0).at("type"), "float");
        // The mesh encloses 194.288 (divergence theorem over its triangles); at 40 voxels across a linear surface loses some
        // tenths of a per cent, h^2 of the curvature, and never a whole one.
        EXPECT_NEAR(info.at("level_set").at("volume").get<double>(), 194.288, 1.9);
        for (char const* key : {"bounds_min", "bounds_max", "area"}) EXPECT_TRUE(info.at("level_set").contains(key));
    }
}

TEST(Command, writes_no_diagnostics_to_standard_output)
{
    const WorkFolder folder;
    const auto result = folder.run(chain(chain(readBunny(), {"scale_property", "_", "property=voxel_signed_distance", "factor=2"}), {"info", "-vvv"}));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_FALSE(holds(result.out, "scale_property.begin"));
    EXPECT_TRUE(holds(result.err, "scale_property.begin"));
    EXPECT_TRUE(holds(result.out, "structure"));
}

TEST(Command, saves_a_chain_without_running_it_and_runs_it_to_the_same_bytes)
{
    const WorkFolder folder;
    const Words words = chain(readBunny(), {"write", "a.ply"});
    Words saving = words;
    saving.insert(saving.end(), {"--save", "graph.json"});
    ASSERT_EQ(folder.run(saving).status, 0);
    EXPECT_EQ(folder.files(), Words{"graph.json"});
    EXPECT_EQ(Json::parse(fileText(folder.path("graph.json"))).at("version"), 1);

    ASSERT_EQ(folder.run(words).status, 0);
    const std::string direct = fileText(folder.path("a.ply"));
    std::filesystem::remove(folder.path("a.ply"));
    ASSERT_EQ(folder.run({"run", "graph.json"}).status, 0);
    EXPECT_EQ(fileText(folder.path("a.ply")), direct);

    ASSERT_EQ(folder.run({"run", "graph.json", "--set", "voxel=0.5"}).status, 0);
    EXPECT_LT(fileText(folder.path("a.ply")).size(), direct.size());
}

TEST(Command, gives_the_same_bytes_for_any_number_of_threads)
{
    const WorkFolder folder;
    std::string first;
    for (char const* threads : {"1", "2", "8"}) {
        const Words words = chain(chain(readBunny(), {"write", "a.ply"}), {"info", "--json", "--threads", threads});
        const auto result = folder.run(words);
        ASSERT_EQ(result.status, 0) << result.err;
        const std::string all = result.out + fileText(folder.path("a.ply"));
        if (first.empty()) first = all;
        EXPECT_TRUE(all == first) << threads << " threads";
    }
}

TEST(Command, reads_back_the_values_that_it_wrote)
{
    const WorkFolder folder;
    const auto written = folder.run(chain(chain(readBunny(), {"write", "a.vdb"}), {"info", "--json"}));
    ASSERT_EQ(written.status, 0) << written.err;
    const auto read = folder.run({"info", "a.vdb", "--json"});
    ASSERT_EQ(read.status, 0) << read.err;
    const Json before = Json::parse(written.out), after = Json::parse(read.out);
    // The band keeps its bits. A tile may come back finer, whose samples lie beyond the band and what is between them not; then
    // the same cells of the surface are added up in another order.
    EXPECT_EQ(before.at("level_set").at("bounds_min"), after.at("level_set").at("bounds_min"));
    EXPECT_EQ(before.at("level_set").at("bounds_max"), after.at("level_set").at("bounds_max"));
    const double volume = before.at("level_set").at("volume");
    EXPECT_NEAR(after.at("level_set").at("volume").get<double>(), volume, 1e-12 * volume);
}

TEST(Command, ends_with_1_for_wrong_usage_and_names_what_is_near)
{
    const WorkFolder folder;
    struct Case {
        Words words;
        std::string says;
    };
    const Case cases[] = {
        {{}, "usage"},
        {{"raed", "x.obj"}, "Did you mean 'read'?"},
        {{"read", bunny(), "voxel=0.25", "strcture=binary"}, "Did you mean 'structure'?"},
        {{"read", bunny(), "voxel=0.25", "structure=ternary"}, "binary"},
        {{"read", bunny(), "voxel=0"}, "voxel"},
        {{"read", bunny(), "voxel=-1"}, "voxel"},
        {{"read", bunny(), "voxel=nan"}, "voxel"},
        {{"read", bunny(), "voxel=0.25", "as=bunny", "!", "info", "buny"}, "bunny"},
        {{"nodes", "slise"}, "Did you mean 'slice'?"},
        {{"read", bunny(), "voxel=0.25", "--threads", "0"}, "--threads"},
        {{"read", bunny(), "voxel=0.25", "--max-memory", "lots"}, "--max-memory"},
        {{"read", bunny(), "voxel=0.25", "--save"}, "--save"},
        {{"run"}, "run"},
    };
    for (Case const& c : cases) {
        const auto result = folder.run(c.words);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_TRUE(holds(result.err, c.says)) << "expected '" << c.says << "' in: " << result.err;
    }
}

TEST(Command, ends_with_2_for_input_that_cannot_be_served_and_says_what_to_do)
{
    const WorkFolder folder;
    std::ofstream(folder.path("empty.obj")).close();
    std::ofstream(folder.path("noise.ply")) << "not a mesh";
    std::ofstream(folder.path("noise.vdb")) << "not a grid";
    std::ofstream(folder.path("noise.json")) << "{";
    const Words cases[] = {
        {"read", "nothing.obj", "voxel=1"},
        {"read", "empty.obj", "voxel=1"},
        {"read", "noise.ply", "voxel=1"},
        {"info", "noise.vdb"},
        {"run", "noise.json"},
        {"run", "nothing.json"},
        {"read", bunny(), "voxel=100"},
        {"read", bunny(), "voxel=0.0001", "--max-memory", "100M"},
        chain(readBunny(), {"slice", "a.png", "property=voxel_nothing"}),
    };
    for (Words const& words : cases) {
        const auto result = folder.run(words);
        EXPECT_EQ(result.status, 2) << words[1] << ": " << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_FALSE(result.err.empty());
    }
}

TEST(Command, checks_a_later_step_before_any_work_starts)
{
    const WorkFolder folder;
    const auto result = folder.run(chain(chain(readBunny(), {"write", "a.ply"}), {"slice", "b.png", "axis=w"}));
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_TRUE(folder.files().empty());
}

TEST(Command, leaves_existing_output_alone_when_it_fails)
{
    const WorkFolder folder;
    std::ofstream(folder.path("a.ply")) << "precious";
    std::ofstream(folder.path("empty.obj")).close();
    const auto result = folder.run({"read", "empty.obj", "voxel=1", "!", "write", "a.ply"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(fileText(folder.path("a.ply")), "precious");
    EXPECT_EQ(folder.files(), (Words{"a.ply", "empty.obj"}));
}

TEST(Command, leaves_no_file_when_it_is_interrupted_at_work)
{
    // Fine enough to run for a second, so that the signal meets it at work.
    const Words words = {"read", bunny(), "voxel=0.03", "!", "write", "a.vdb", "!", "write", "a.ply", "--progress=json"};
    for (int signal : {SIGINT, SIGTERM}) {
        const WorkFolder folder;
        const auto result = folder.signalAt("\"node\":\"read\"", signal, words);
        EXPECT_EQ(result.status, 130) << result.err;
        EXPECT_TRUE(holds(result.err, "cancelled"));
        EXPECT_TRUE(folder.files().empty()) << folder.files().front();
    }
}

TEST(Command, leaves_the_whole_file_or_none_when_it_is_interrupted_while_it_writes)
{
    for (std::string const name : {"a.vdb", "a.ply", "a.obj"}) {
        const WorkFolder folder;
        const Words words = {"read", bunny(), "voxel=0.05", "!", "write", name, "--progress=json"};
        ASSERT_EQ(folder.run(words).status, 0);
        const auto size = std::filesystem::file_size(folder.path(name));
        std::ofstream(folder.path(name)) << "precious";
        const auto result = folder.signalAt("\"node\":\"write\"", SIGINT, words);
        // The signal may come too late, but what it meets is never in between.
        EXPECT_TRUE(result.status == 130 || result.status == 0) << result.err;
        EXPECT_EQ(folder.files(), Words{name});
        const std::string text = fileText(folder.path(name));
        EXPECT_TRUE(text == "precious" || text.size() == size) << text.size() << " bytes of " << size;
    }
}

TEST(Command, lists_its_nodes_for_people_and_for_programs)
{
    const WorkFolder folder;
    const auto list = folder.run({"nodes"});
    EXPECT_EQ(list.status, 0);
    for (char const* node : {"read", "write", "info", "slice", "create_empty_volume", "scale_property", "remap_property", "update_voxel_position"})
        EXPECT_TRUE(holds(list.out, node)) << node;
    const auto one = folder.run({"nodes", "slice"});
    EXPECT_TRUE(holds(one.out, "axis")) << one.out;
    const Json described = Json::parse(folder.run({"nodes", "--json"}).out);
    EXPECT_GE(described.size(), 8u);
    EXPECT_EQ(folder.run({"--version"}).out.substr(0, 9), "tilegrid ");
}

}  // namespace
