// What a person asks the command about itself.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
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

/// Runs a shell; what it printed.
std::string shell(std::string const& script)
{
    std::string text;
    FILE* pipe = popen(("bash --norc -c '" + script + "' 2>&1").c_str(), "r");
    for (int c = pipe ? std::fgetc(pipe) : EOF; c != EOF; c = std::fgetc(pipe)) text += char(c);
    if (pipe) pclose(pipe);
    return text;
}

TEST(ManPage, is_clean_roff_with_every_node_parameter_and_option)
{
    const WorkFolder folder;
    const auto page = folder.run({"help", "--man"});
    ASSERT_EQ(page.status, 0);
    EXPECT_EQ(page.out.substr(0, 15), ".TH TILEGRID 1 ");
    for (Json const& nodes = described(folder); Json const& node : nodes) {
        EXPECT_TRUE(holds(page.out, ".SS \"" + node.at("name").get<std::string>() + "\"\n")) << node.at("name");
        for (Json const& parameter : node.at("parameters"))
            EXPECT_TRUE(holds(page.out, "\n.B \"" + parameter.at("name").get<std::string>() + "\"\n")) << parameter.at("name");
    }
    for (char const* option : {"\\-\\-threads N", "\\-\\-frames RANGE", "\\-\\-timings[=FORM]", "EXIT STATUS", "130"}) EXPECT_TRUE(holds(page.out, option)) << option;
    // No line begins a request by accident.
    std::istringstream lines(page.out);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with('.')) continue;
        EXPECT_TRUE(line.starts_with(".TH ") || line.starts_with(".S") || line.starts_with(".B ") || line == ".TP" || line == ".PP" || line == ".br" ||
                    line == ".nf" || line == ".fi")
            << line;
    }
    std::ofstream(folder.path("page.1")) << page.out;
    if (shell("type -t groff") != "") {
        EXPECT_EQ(shell("groff -man -Tutf8 -ww -z \"" + folder.path("page.1") + "\""), "");
    }
    EXPECT_EQ(folder.run({"--man"}).status, 1) << "it goes with help";
}

TEST(Completion, offers_what_may_stand_there)
{
    const WorkFolder folder;
    const auto script = folder.run({"help", "--completion=bash"});
    ASSERT_EQ(script.status, 0);
    std::ofstream(folder.path("completion")) << script.out;
    std::ofstream(folder.path("sim.0001.vdb")).close();
    std::ofstream(folder.path("notes.txt")).close();
    std::filesystem::create_directory(folder.path("shots"));
    const auto offered = [&](std::string const& line) {
        const std::string text = shell("cd \"" + folder.path("") + "\"; source ./completion; COMP_LINE=\"" + line +
                                       "\"; COMP_POINT=${#COMP_LINE}; _tilegrid; printf \"%s\\n\" \"${COMPREPLY[@]}\"");
        std::vector<std::string> words;
        std::istringstream lines(text);
        for (std::string word; std::getline(lines, word);)
            if (!word.empty()) words.push_back(word);
        std::sort(words.begin(), words.end());
        return words;
    };
    const auto offers = [&](std::string const& line, std::string const& word) {
        const Words words = offered(line);
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    EXPECT_EQ(offered("tilegrid mer"), Words{"merge"});
    EXPECT_EQ(offered("tilegrid sphere voxel=1 ! mer"), Words{"merge"});
    EXPECT_EQ(offered("tilegrid sphere voxel=1 then mer"), Words{"merge"});
    EXPECT_TRUE(offers("tilegrid ", "run") && offers("tilegrid ", "sphere"));
    EXPECT_FALSE(offers("tilegrid sphere voxel=1 ! ", "run"));
    EXPECT_EQ(offered("tilegrid slice axis="), (Words{"x", "y", "z"}));
    EXPECT_EQ(offered("tilegrid --threads 2 slice ax"), Words{"axis="}) << "2 is no node";
    EXPECT_TRUE(offers("tilegrid slice ", "size=") && offers("tilegrid info --", "--json") && offers("tilegrid info --", "--quiet"));
    EXPECT_EQ(offered("tilegrid sphere voxel=1 as=ball ! slice ba"), Words{"ball"});
    EXPECT_EQ(offered("tilegrid info s"), (Words{"shots/", "sim.0001.vdb"}));
    EXPECT_EQ(offered("tilegrid sphere voxel=1 ! write s"), (Words{"shots/", "sim.0001.vdb"}));
    EXPECT_EQ(offered("tilegrid info --progress="), (Words{"bar", "json", "none"}));
    EXPECT_EQ(offered("tilegrid help mergi"), Words{"merging"});
    EXPECT_EQ(offered("tilegrid info n"), Words{}) << "notes are no volume";
}

}  // namespace
