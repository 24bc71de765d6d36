// What the command says, where, and to whom.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

std::vector<Json> documentsIn(std::string const& text)
{
    std::vector<Json> documents;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) documents.push_back(Json::parse(line));
    return documents;
}

TEST(Results, of_several_reports_are_one_json_document_a_line)
{
    const WorkFolder folder;
    const auto result = folder.run({"create_empty_volume", "0.5", "as=a", "!", "create_empty_volume", "0.25", "structure=binary", "as=b", "then", "info", "a",
                                    "--json", "!", "info", "b", "--json", "!", "get_voxel_size", "a", "--json", "!", "volume_bounds", "b", "--json", "-vvv"});
    ASSERT_EQ(result.status, 0) << result.err;
    const std::vector<Json> documents = documentsIn(result.out);
    ASSERT_EQ(documents.size(), 4u) << result.out;
    EXPECT_EQ(documents[0].at("structure"), "quinary");
    EXPECT_EQ(documents[1].at("structure"), "binary");
    EXPECT_EQ(documents[2], (Json{{"voxel_size", 0.5}}));
    EXPECT_EQ(documents[3].at("min"), (Json{0.0, 0.0, 0.0}));
}

TEST(Results, of_tiles_and_counts_agree_with_each_other)
{
    const WorkFolder folder;
    for (std::string const structure : {"binary", "quinary"}) {
        const auto result = folder.run({"read", bunny(), "voxel=0.25", "structure=" + structure, "!", "get_volume_tile_info", "--json", "!",
                                        "get_voxel_count", "!", "get_voxel_size"});
        ASSERT_EQ(result.status, 0) << result.err;
        std::istringstream lines(result.out);
        std::string document, count, size;
        ASSERT_TRUE(std::getline(lines, document) && std::getline(lines, count) && std::getline(lines, size)) << result.out;
        const Json tiles = Json::parse(document);
        const int width = structure == "binary" ? 4 : 5;
        EXPECT_EQ(tiles.at("tile_width"), width);
        EXPECT_EQ(std::stoll(count), tiles.at("tile_count").get<long long>() * width * width * width);
        EXPECT_EQ(size, "0.25");
        long long leaves = 0;
        for (Json const& depth : tiles.at("depths")) leaves += depth.at("leaf_voxels").get<long long>();
        EXPECT_EQ(tiles.at("leaf_voxel_count"), leaves);
    }
}

TEST(Progress, is_json_lines_on_standard_error_if_that_is_wanted_and_nothing_otherwise)
{
    const WorkFolder folder;
    Words words = {"create_empty_volume", "1", "!", "get_voxel_size"};
    EXPECT_EQ(folder.run(words).err, "");
    words.push_back("--progress=bar");
    EXPECT_EQ(folder.run(words).err, "") << "a bar is for terminals";
    words.back() = "--progress=json";
    const auto result = folder.run(words);
    EXPECT_EQ(result.out, "1\n");
    const std::vector<Json> lines = documentsIn(result.err);
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.front(), (Json{{"step", 1}, {"steps", 2}, {"node", "create_empty_volume"}, {"what", ""}, {"done", 0.0}}));
    EXPECT_EQ(lines.back().at("step"), 2);
    EXPECT_EQ(lines.back().at("done"), 1.0);
}

TEST(Status, is_3_after_the_error_of_a_node_and_says_which)
{
    const WorkFolder folder;
    // A size that counts as zero for the node.
    const auto result = folder.run({"create_empty_volume", "1e-8", "!", "get_voxel_size"});
    EXPECT_EQ(result.status, 3);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(holds(result.err, "step 1 (create_empty_volume): Input 'detail_size' must be non-zero.")) << result.err;
}

TEST(Status, is_1_for_an_option_that_is_none_and_names_what_is_near)
{
    const WorkFolder folder;
    const std::pair<Words, std::string> cases[] = {
        {{"--thread", "2", "nodes"}, "Did you mean '--threads'?"}, {{"info", "a.vdb", "--jsno"}, "Did you mean '--json'?"}, {{"info", "a.vdb", "-x"}, "'-x'"},
        {{"nodes", "--jsn"}, "'--jsn'"},                           {{"read", "a.obj", "--voxel=1"}, "voxel=1"},
    };
    for (auto const& [words, says] : cases) {
        const auto result = folder.run(words);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_TRUE(holds(result.err, says)) << result.err;
    }
    // A negative number is no option.
    EXPECT_EQ(folder.run({"create_empty_volume", "1", "!", "update_voxel_position", "!", "scale_property", "voxel_position", "-2"}).status, 0);
}

TEST(Status, is_3_where_validation_finds_something_and_0_where_it_does_not)
{
    const WorkFolder folder;
    const Words coarse = {"read", bunny(), "voxel=0.5"};
    Words words = coarse;
    words.insert(words.end(), {"!", "validate", "--json", "--graded"});
    const auto wrong = folder.run(words);
    EXPECT_EQ(wrong.status, 3) << wrong.err;
    const Json document = Json::parse(wrong.out);
    EXPECT_EQ(document.at("good"), false);
    EXPECT_EQ(document.at("graded"), false);
    EXPECT_EQ(document.at("tree"), Json::array());
    EXPECT_TRUE(holds(wrong.err, "grade_volume")) << wrong.err;
    // Nobody asked for a graded tree here.
    words.pop_back();
    const auto remark = folder.run(words);
    EXPECT_EQ(remark.status, 0) << remark.err;
    EXPECT_EQ(remark.err, "");
    EXPECT_EQ(Json::parse(remark.out).at("good"), true);
    EXPECT_EQ(Json::parse(remark.out).at("graded"), false);

    words = coarse;
    words.insert(words.end(), {"inside=-10,3,-10,10,10,10", "levels=2", "!", "write", "a.vdb", "layout=levels"});
    ASSERT_EQ(folder.run(words).status, 0);
    const auto good = folder.run({"validate", "a.vdb"});
    EXPECT_EQ(good.status, 0) << good.err;
    EXPECT_TRUE(holds(good.out, "verdict     good")) << good.out;
    EXPECT_EQ(good.err, "");
}

TEST(Samples, are_csv_on_standard_output)
{
    const WorkFolder folder;
    std::ofstream(folder.path("p.csv")) << "0,3,0\n0,50,0\n";
    std::ofstream(folder.path("bad.csv")) << "0,3,0\n0,fifty,0\n";
    const auto result = folder.run({"sample", bunny(), "p.csv", "voxel=0.5", "mode=cubic", "-vvv"});
    EXPECT_EQ(result.status, 0) << result.err;
    std::istringstream lines(result.out);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_EQ(std::count(line.begin(), line.end(), ','), 3) << line;
    }
    EXPECT_EQ(count, 3);
    const auto bad = folder.run({"sample", bunny(), "bad.csv", "voxel=0.5"});
    EXPECT_EQ(bad.status, 2);
    EXPECT_EQ(bad.out, "");
    EXPECT_TRUE(holds(bad.err, "line 2: 'fifty' is no number")) << bad.err;
}

TEST(Help, is_a_result)
{
    const WorkFolder folder;
    const auto general = folder.run({"--help"});
    EXPECT_EQ(general.status, 0);
    EXPECT_EQ(general.err, "");
    for (char const* part : {"then", "--save", "130", "scale_property"}) EXPECT_TRUE(holds(general.out, part)) << part;
    EXPECT_EQ(folder.run({"slice", "--help"}).out, folder.run({"nodes", "slice"}).out);
}

TEST(Graph, of_a_file_takes_settings_for_one_step_and_is_saved_with_them)
{
    const WorkFolder folder;
    std::ofstream(folder.path("g.json")) << R"({"version": 1, "steps": [
        {"node": "create_empty_volume", "params": {"detail_size": 0.5}, "as": "a"},
        {"node": "create_empty_volume", "params": {"detail_size": "0.25"}},
        {"node": "get_voxel_size", "inputs": ["a"]}, {"node": "get_voxel_size"}]})";
    EXPECT_EQ(folder.run({"run", "g.json"}).out, "0.5\n0.25\n");
    EXPECT_EQ(folder.run({"run", "g.json", "--set", "a.detail_size=2"}).out, "2\n0.25\n");
    EXPECT_EQ(folder.run({"run", "g.json", "--set", "detail_size=2", "--set=2.detail_size=3"}).out, "2\n3\n");
    ASSERT_EQ(folder.run({"run", "g.json", "--set", "detail_size=4", "--save", "new/h.json"}).status, 0);
    EXPECT_EQ(folder.run({"run", "new/h.json"}).out, "4\n4\n");

    const auto unknown = folder.run({"run", "g.json", "--set", "detail_siz=2"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_TRUE(holds(unknown.err, "Did you mean 'detail_size'?")) << unknown.err;
}

TEST(Graph, of_a_file_that_is_wrong_is_named_in_the_message)
{
    const WorkFolder folder;
    std::ofstream(folder.path("syntax.json")) << "{";
    std::ofstream(folder.path("shape.json")) << R"({"version": 1, "stpes": []})";
    const auto syntax = folder.run({"run", "syntax.json"}), shape = folder.run({"run", "shape.json"});
    EXPECT_EQ(syntax.status, 2);
    EXPECT_TRUE(holds(syntax.err, "syntax.json: ")) << syntax.err;
    EXPECT_EQ(shape.status, 1);
    EXPECT_TRUE(holds(shape.err, "shape.json: ") && holds(shape.err, "Did you mean 'steps'?")) << shape.err;
}

}  // namespace
