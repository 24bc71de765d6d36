// Where the text of the command goes: to terminals, and to readers that have enough.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <fcntl.h>

#include <csignal>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

constexpr char kTitle[] = "\x1b]0;owned\x07";

bool holds(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

/// Neither ESC nor anything else that a terminal acts on.
bool isHarmless(std::string const& text)
{
    for (const char c : text)
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\n') || c == 0x7f) return false;
    return true;
}

TEST(ClosedPipe, ends_the_command_without_a_word_and_by_its_signal)
{
    const WorkFolder folder;
    for (Words const& words : {Words{"nodes"}, Words{"--help"}, Words{"create_empty_volume", "1", "!", "info"}}) {
        const auto result = folder.runReading(0, words);
        EXPECT_EQ(result.status, 1000 + SIGPIPE) << words.front();
        EXPECT_EQ(result.err, "") << words.front();
    }
}

TEST(ClosedPipe, in_the_middle_of_a_long_result_leaves_later_steps_their_files)
{
    const WorkFolder folder;
    std::ofstream points(folder.path("p.csv"));
    for (int n = 0; n < 20000; ++n) points << "0.5,0.5," << n << "\n";
    points.close();
    const auto result =
        folder.runReading(1, {"sphere", "radius=1", "voxel=0.25", "!", "sample", "p.csv", "!", "write", "a.vdb"});
    EXPECT_EQ(result.status, 1000 + SIGPIPE);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(folder.files(), (Words{"a.vdb", "p.csv"}));
}

TEST(ClosedPipe, is_another_thing_than_a_full_disk)
{
    const WorkFolder folder;
    const int full = ::open("/dev/full", O_WRONLY);
    ASSERT_GE(full, 0);
    const auto result = folder.runTo(full, {"nodes"});
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(holds(result.err, "standard output cannot be written")) << result.err;
}

TEST(Terminal, gets_no_command_from_names_in_a_file)
{
    const WorkFolder folder;
    const std::string property = std::string("voxel_") + kTitle + "\x9b" "2J\nverdict     good";
    const auto written = folder.run({"sphere", "radius=1", "voxel=0.25", "!", "update_voxel_position", "property=" + property, "!", "write", "a.vdb"});
    ASSERT_EQ(written.status, 0) << written.err;
    ASSERT_TRUE(holds(fileText(folder.path("a.vdb")), kTitle)) << "the name is in the file as it is";

    const auto text = folder.run({"info", "a.vdb"});
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_TRUE(isHarmless(text.out)) << text.out;
    EXPECT_TRUE(holds(text.out, "voxel_\\u001b]0;owned\\u0007\xef\xbf\xbd" "2J\\u000averdict")) << text.out;

    // JSON says the same name, but for the byte that is no UTF-8.
    const auto json = folder.run({"info", "a.vdb", "--json"});
    EXPECT_TRUE(isHarmless(json.out)) << json.out;
    const Json properties = Json::parse(json.out).at("properties");
    bool found = false;
    for (Json const& entry : properties)
        found |= entry.at("name") == std::string("voxel_") + kTitle + "\xef\xbf\xbd" "2J\nverdict     good";
    EXPECT_TRUE(found) << json.out;

    // The message lists the names that there are; diagnostics tell them too.
    const auto message = folder.run({"info", "a.vdb", "!", "read", "a.vdb", "!", "scale_property", "voxel_none", "2"});
    EXPECT_NE(message.status, 0);
    EXPECT_TRUE(isHarmless(message.err) && holds(message.err, "owned")) << message.err;
    EXPECT_TRUE(isHarmless(folder.run({"read", "a.vdb", "!", "scale_property", property, "2", "-vvv"}).err));
}

TEST(Terminal, gets_no_command_from_the_content_or_name_of_a_file)
{
    const WorkFolder folder;
    std::ofstream(folder.path("p.csv")) << "0,3,0\n0," << kTitle << ",0\n";
    const auto content = folder.run({"sphere", "radius=1", "voxel=0.25", "!", "sample", "p.csv"});
    EXPECT_EQ(content.status, 2);
    EXPECT_TRUE(isHarmless(content.err) && holds(content.err, "owned")) << content.err;
    const auto name = folder.run({"info", std::string(kTitle) + ".vdb"});
    EXPECT_EQ(name.status, 2);
    EXPECT_TRUE(isHarmless(name.err) && holds(name.err, "owned")) << name.err;
    const auto word = folder.run({std::string(kTitle)});
    EXPECT_EQ(word.status, 1);
    EXPECT_TRUE(isHarmless(word.err) && holds(word.err, "owned")) << word.err;
}

}  // namespace
