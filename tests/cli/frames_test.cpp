// Sequences: one chain for many frames.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

/// Five spheres of radius 1 to 5, in.0001.vdb to in.0005.vdb; the third file is no volume.
void makeInputs(WorkFolder const& folder)
{
    for (int n = 1; n <= 5; ++n)
        ASSERT_EQ(folder.run({"sphere", "radius=" + std::to_string(n), "voxel=0.5", "!", "write", "in.000" + std::to_string(n) + ".vdb", "layout=levels"}).status, 0);
    std::ofstream(folder.path("in.0003.vdb")) << "no volume";
}

std::vector<Json> linesOf(std::string const& text)
{
    std::vector<Json> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(Json::parse(line));
    return lines;
}

Words convert(Words const& more)
{
    Words words = {"read", "in.####.vdb", "!", "info", "--json", "!", "write", "out/s.##.ply"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(Frames, go_on_after_one_that_fails_and_end_with_its_status)
{
    const WorkFolder folder;
    makeInputs(folder);
    const auto result = folder.run(convert({"--frames", "1-6x2"}));
    EXPECT_EQ(result.status, 2) << result.err;
    const std::vector<Json> lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 3u) << result.out;
    for (std::size_t n = 0; n < 3; ++n) EXPECT_EQ(lines[n].at("frame"), 2 * n + 1);

    EXPECT_EQ(lines[0].at("state"), "done");
    EXPECT_EQ(lines[0].at("status"), 0);
    EXPECT_EQ(lines[0].at("outputs"), Json{"out/s.01.ply"});
    EXPECT_EQ(lines[0].at("results").at(0).at("voxel_size"), 0.5);
    EXPECT_TRUE(lines[0].at("seconds").is_number());
    // The remark on the triangles written.
    EXPECT_EQ(lines[0].at("messages").at(0).at("severity"), "info");

    EXPECT_EQ(lines[1].at("state"), "failed");
    EXPECT_EQ(lines[1].at("status"), 2);
    EXPECT_EQ(lines[1].at("outputs"), Json::array());
    const std::string why = lines[1].at("messages").at(0).at("text");
    EXPECT_NE(why.find("in.0003.vdb"), std::string::npos) << why;
    EXPECT_NE(result.err.find("frame 3: step 1 (read)"), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("1 of 3 frames failed: 3."), std::string::npos) << result.err;

    EXPECT_EQ(lines[2].at("status"), 0);
    EXPECT_TRUE(std::filesystem::exists(folder.path("out/s.01.ply")) && std::filesystem::exists(folder.path("out/s.05.ply")));
    EXPECT_FALSE(std::filesystem::exists(folder.path("out/s.03.ply")));
}

TEST(Frames, end_with_the_status_of_the_first_that_failed)
{
    const WorkFolder folder;
    makeInputs(folder);
    // Spheres whose coarse tiles nobody graded: the node reports an error, which is 3. Frame 3 cannot be read, which is 2.
    const Words words = {"read", "in.####.vdb", "!", "validate", "--json", "--graded", "--frames"};
    const auto statusesOf = [&](std::string const& range, int& status) {
        Words all = words;
        all.push_back(range);
        const auto result = folder.run(all);
        status = result.status;
        std::vector<int> statuses;
        for (Json const& line : linesOf(result.out)) statuses.push_back(line.at("status"));
        return statuses;
    };
    int status = 0;
    EXPECT_EQ(statusesOf("2-4", status), (std::vector<int>{3, 2, 3}));
    EXPECT_EQ(status, 3);
    EXPECT_EQ(statusesOf("3-5", status), (std::vector<int>{2, 3, 3}));
    EXPECT_EQ(status, 2);
}

TEST(Frames, have_the_bytes_of_single_runs_and_run_from_a_saved_graph_too)
{
    const WorkFolder folder;
    makeInputs(folder);
    ASSERT_EQ(folder.run(convert({"--frames", "4-5"})).status, 0);
    const std::string four = fileText(folder.path("out/s.04.ply"));
    ASSERT_EQ(folder.run({"read", "in.0004.vdb", "!", "write", "single.ply"}).status, 0);
    EXPECT_EQ(four, fileText(folder.path("single.ply")));

    ASSERT_EQ(folder.run(convert({"--save", "g.json"})).status, 0);
    std::filesystem::remove_all(folder.path("out"));
    ASSERT_EQ(folder.run({"run", "g.json", "--frames=4"}).status, 0);
    EXPECT_EQ(four, fileText(folder.path("out/s.04.ply")));
    EXPECT_EQ(folder.run({"run", "g.json"}).status, 1) << "which frame?";
}

TEST(Frames, have_the_same_bytes_for_any_number_of_threads)
{
    const WorkFolder folder;
    makeInputs(folder);
    std::string first;
    for (char const* threads : {"1", "2", "8"}) {
        ASSERT_EQ(folder.run(convert({"--frames", "4-5", "--threads", threads})).status, 0);
        const std::string all = fileText(folder.path("out/s.04.ply")) + fileText(folder.path("out/s.05.ply"));
        ASSERT_FALSE(all.empty());
        if (first.empty()) first = all;
        EXPECT_TRUE(all == first) << threads << " threads";
    }
}

TEST(Frames, whose_files_are_all_there_are_skipped_if_that_is_wanted)
{
    const WorkFolder folder;
    makeInputs(folder);
    std::filesystem::create_directory(folder.path("out"));
    std::ofstream(folder.path("out/s.04.ply")) << "made before";
    const auto result = folder.run(convert({"--frames", "4-5", "--skip-existing", "--quiet"}));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    const std::vector<Json> lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].at("state"), "skipped");
    EXPECT_EQ(lines[0].at("outputs"), Json{"out/s.04.ply"});
    EXPECT_EQ(lines[1].at("state"), "done");
    EXPECT_EQ(fileText(folder.path("out/s.04.ply")), "made before");

    EXPECT_EQ(folder.run(convert({"--skip-existing"})).status, 1) << "without frames";
    EXPECT_EQ(folder.run({"info", "in.####.vdb", "--frames", "4-5", "--skip-existing"}).status, 1) << "nothing is written";
}

TEST(Frames, are_refused_before_any_runs_where_no_frame_can_be_right)
{
    const WorkFolder folder;
    makeInputs(folder);
    const Words cases[] = {
        {"read", "in.####.vdb", "!", "write", "one.ply", "--frames", "4-5"},
        {"read", "in.####.vdb", "!", "write", "##.ply", "--frames", "5-4"},
        {"read", "in.####.vdb", "!", "write", "##.ply"},
        {"read", "in.####.vdb", "!", "write", "##.ply", "lay=1", "--frames", "4-5"},
        {"read", "in.####.vdb", "!", "write", "##.ply", "--frames", "4-5", "--save", "g.json"},
    };
    const Words before = folder.files();
    for (Words const& words : cases) {
        const auto result = folder.run(words);
        EXPECT_EQ(result.status, 1) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(folder.files(), before);
    }
}

TEST(Frames, end_all_at_an_interrupt)
{
    const WorkFolder folder;
    // Each frame takes long enough for the signal to meet one at work.
    const auto result = folder.signalAt("\"frame\":2", SIGINT,
                                        {"sphere", "radius=1", "voxel=0.01", "!", "write", "s.####.ply", "--frames", "1-50", "--progress=json"});
    EXPECT_EQ(result.status, 130) << result.err;
    const std::vector<Json> lines = linesOf(result.out);
    ASSERT_GE(lines.size(), 1u);
    EXPECT_LT(lines.size(), 50u);
    EXPECT_EQ(lines[0].at("state"), "done");
    EXPECT_EQ(folder.files().size(), std::size_t(std::count_if(lines.begin(), lines.end(), [](Json const& line) { return line.at("state") == "done"; })))
        << "no file of a frame that did not end";
}

TEST(Timings, are_a_table_or_json_on_standard_error)
{
    const WorkFolder folder;
    const Words words = {"sphere", "radius=1", "voxel=0.1", "!", "info", "--json"};
    Words timed = words;
    timed.push_back("--timings=json");
    const auto json = folder.run(timed);
    EXPECT_EQ(json.out, folder.run(words).out);
    const Json timings = Json::parse(json.err);
    ASSERT_EQ(timings.at("timings").size(), 2u);
    Json const& sphere = timings.at("timings").at(0);
    EXPECT_EQ(sphere.at("node"), "sphere");
    EXPECT_GT(sphere.at("seconds"), 0.0);
    EXPECT_EQ(sphere.at("result_bytes"), Json::parse(json.out).at("bytes"));
    EXPECT_GE(sphere.at("peak_bytes"), sphere.at("result_bytes"));
    EXPECT_EQ(timings.at("timings").at(1).at("result_bytes"), 0) << "it leaves nothing";

    timed.back() = "--timings";
    const std::string table = folder.run(timed).err;
    for (char const* part : {"step  node", "   1  sphere", "   2  info", "peak memory", "all"}) EXPECT_NE(table.find(part), std::string::npos) << table;
    timed.back() = "--timings=xml";
    EXPECT_EQ(folder.run(timed).status, 1);
    // What a failed run took until then is worth knowing.
    const auto failed = folder.run({"sphere", "radius=1", "voxel=0.1", "!", "scale_property", "none", "2", "--timings"});
    EXPECT_NE(failed.status, 0);
    EXPECT_NE(failed.err.find("   1  sphere"), std::string::npos) << failed.err;
    EXPECT_EQ(failed.err.find("   2  "), std::string::npos) << failed.err;
}

TEST(Timings, of_frames_add_up)
{
    const WorkFolder folder;
    const auto result = folder.run({"sphere", "radius=1", "voxel=0.1", "!", "write", "s.##.ply", "--frames", "1-3", "--timings=json", "--quiet"});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Json::parse(result.err).at("timings").at(0).at("runs"), 3);
}

}  // namespace
