// What a person asks the command about itself.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <map>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

Json described(WorkFolder const& folder)
{
    return Json::parse(folder.run({"nodes", "--json"}).out);
}

TEST(Nodes, stand_in_groups_each_of_them_once)
{
    const WorkFolder folder;
    const Json nodes = described(folder);
    std::map<std::string, std::string> groups;
    for (Json const& node : nodes) groups[node.at("name")] = node.at("group");
    EXPECT_EQ(groups.at("read"), "files");
    EXPECT_EQ(groups.at("sphere"), "shapes");
    EXPECT_EQ(groups.at("merge"), "merging");
    EXPECT_EQ(groups.at("slice"), groups.at("render"));
    EXPECT_NE(groups.at("slice"), groups.at("info"));

    std::istringstream lines(folder.run({"nodes"}).out);
    std::string group;
    std::size_t found = 0;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.front() != ' ') group = line;
        if (line.size() < 3 || line.substr(0, 2) != "  " || line[2] == ' ') continue;
        const std::string name = line.substr(2, line.find(' ', 2) - 2);
        EXPECT_EQ(groups.at(name), group) << name;
        ++found;
    }
    EXPECT_EQ(found, groups.size());
}

TEST(Help, is_on_a_step_a_group_or_the_step_that_it_stands_in)
{
    const WorkFolder folder;
    const std::string merge = folder.run({"nodes", "merge"}).out;
    EXPECT_EQ(folder.run({"help", "merge"}).out, merge);
    EXPECT_EQ(folder.run({"merge", "--help"}).out, merge);
    EXPECT_EQ(folder.run({"--help", "merge"}).out, merge);
    EXPECT_EQ(folder.run({"sphere", "voxel=1", "!", "merge", "-h", "!", "info"}).out, merge);
    const std::string shapes = folder.run({"help", "shapes"}).out;
    EXPECT_TRUE(holds(shapes, "torus") && !holds(shapes, "merge")) << shapes;
    EXPECT_EQ(folder.run({"help", "level", "sets"}).out, folder.run({"help", "level sets"}).out);
    EXPECT_TRUE(holds(folder.run({"help"}).out, "usage: tilegrid"));

    const auto unknown = folder.run({"help", "mrge"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, "");
    EXPECT_TRUE(holds(unknown.err, "Did you mean 'merge'?")) << unknown.err;
}

TEST(Options, end_at_two_dashes)
{
    const WorkFolder folder;
    const Words make = {"create_empty_volume", "1", "!", "update_voxel_position", "!", "write", "--", "--odd.vdb", "layout=levels"};
    const auto written = folder.run(make);
    EXPECT_EQ(written.status, 0) << written.err;
    EXPECT_EQ(folder.files(), Words{"--odd.vdb"});
    const auto read = folder.run({"get_voxel_size", "--json", "--", "--odd.vdb"});
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.out, "{\"voxel_size\":1.0}\n");
    EXPECT_EQ(folder.run({"get_voxel_size", "--odd.vdb"}).status, 1);
}

TEST(Quiet, leaves_results_and_errors)
{
    const WorkFolder folder;
    // One triangle is open, which is worth a warning.
    std::ofstream(folder.path("open.obj")) << "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\nf 1 3 2\nf 1 2 4\nf 1 4 3\n";
    Words words = {"read", "open.obj", "voxel=0.1", "!", "get_voxel_size"};
    const auto loud = folder.run(words);
    ASSERT_TRUE(loud.status == 0 && holds(loud.err, "warning: ")) << loud.err;
    for (char const* option : {"--quiet", "-q"}) {
        words.push_back(option);
        const auto quiet = folder.run(words);
        EXPECT_EQ(quiet.status, 0);
        EXPECT_EQ(quiet.out, loud.out);
        EXPECT_EQ(quiet.err, "");
        words.pop_back();
    }
    const auto failed = folder.run({"create_empty_volume", "1e-8", "--quiet"});
    EXPECT_EQ(failed.status, 3);
    EXPECT_TRUE(holds(failed.err, "must be non-zero")) << failed.err;
    EXPECT_EQ(folder.run({"nodes", "--quiet", "-v"}).status, 1) << "which contradict each other";
}

}  // namespace
