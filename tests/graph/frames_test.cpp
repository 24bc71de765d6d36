#include "graph/frames.h"

#include "graph/chain.h"
#include "graph/error.h"

#include <gtest/gtest.h>

namespace {

using namespace tilegrid::graph;

std::vector<std::int64_t> framesOf(std::string const& text)
{
    const FrameRange range = parseFrames(text);
    std::vector<std::int64_t> frames;
    for (std::int64_t n = 0; n < range.count(); ++n) frames.push_back(range.frame(n));
    return frames;
}

std::string problemWith(std::string const& text)
{
    try {
        parseFrames(text);
    } catch (UsageError const& error) {
        return error.what();
    }
    return "";
}

Graph chainOf(std::vector<std::string> const& words)
{
    return parseChain(words, [](std::string const&) { return false; });
}

TEST(FrameRange, runs_from_the_first_frame_to_the_last_that_the_step_reaches)
{
    EXPECT_EQ(framesOf("7"), std::vector<std::int64_t>{7});
    EXPECT_EQ(framesOf("0-2"), (std::vector<std::int64_t>{0, 1, 2}));
    EXPECT_EQ(framesOf("1-6x2"), (std::vector<std::int64_t>{1, 3, 5}));
    EXPECT_EQ(framesOf("5-5x9"), std::vector<std::int64_t>{5});
    EXPECT_EQ(framesOf("0998-1001"), (std::vector<std::int64_t>{998, 999, 1000, 1001}));
    EXPECT_EQ(parseFrames("1-1000000").count(), 1000000);
}

TEST(FrameRange, is_refused_with_the_reason_where_it_makes_no_sense)
{
    const std::pair<char const*, char const*> cases[] = {
        {"5-1", "before the first"},      {"0x0", "the step is 0"},   {"1-2x0", "the step is 0"},  {"1-1000000000", "999999999"},
        {"1-1000001", "at most 1000000"}, {"-5", "from 0 on"},        {"-5-1", "from 0 on"},       {"1--2", "from 0 on"},
        {"1-", "write 1-240"},            {"1-2x", "write 1-240"},    {"1-2x-1", "write 1-240"},   {"1-2-3", "too much"},
        {"1-2 ", "too much"},             {" 1", "write 1-240"},      {"+1", "write 1-240"},       {"1.5", "too much"},
        {"", "write 1-240"},              {"a", "write 1-240"},       {"0x10-20", "too much"},     {"1-99999999999999999999", "write 1-240"},
    };
    for (auto const& [text, reason] : cases) EXPECT_NE(problemWith(text).find(reason), std::string::npos) << text << ": " << problemWith(text);
}

TEST(FrameName, has_the_number_in_place_of_each_run_of_two_or_more_with_zeros_in_front)
{
    EXPECT_EQ(withFrame("a.####.vdb", 7), "a.0007.vdb");
    EXPECT_EQ(withFrame("a##", 123), "a123") << "no digit is lost";
    EXPECT_EQ(withFrame("##/####", 5), "05/0005");
    EXPECT_EQ(withFrame("take#2.####", 1), "take#2.0001") << "one alone is a name";
    EXPECT_EQ(withFrame("#", 1), "#");
    EXPECT_EQ(withFrame("", 1), "");
}

TEST(FrameGraph, changes_names_of_files_and_nothing_else)
{
    const Graph graph = graphOfFrame(chainOf({"read", "in.####.vdb", "volume=##", "!", "write", "out/####.ply"}), 12);
    EXPECT_EQ(*graph.steps[0].parameter("file"), "in.0012.vdb");
    EXPECT_EQ(*graph.steps[0].parameter("volume"), "##");
    EXPECT_EQ(*graph.steps[1].parameter("file"), "out/0012.ply");
}

TEST(FrameGraph, writes_no_file_twice)
{
    EXPECT_NO_THROW(checkFrameNames(chainOf({"read", "in.vdb", "!", "write", "##.ply"})));
    EXPECT_NO_THROW(checkFrameNames(chainOf({"info", "in.##.vdb"})));
    EXPECT_THROW(checkFrameNames(chainOf({"read", "in.##.vdb", "!", "write", "out.ply"})), UsageError);
    EXPECT_THROW(checkFrameNames(chainOf({"read", "in.##.vdb", "!", "write", "out.#.ply"})), UsageError);
    EXPECT_THROW(checkFrameNames(chainOf({"info", "in.vdb"})), UsageError) << "every frame would be the same";
}

TEST(FrameGraph, needs_frames)
{
    EXPECT_THROW(refuseFrameNames(chainOf({"info", "in.##.vdb"})), UsageError);
    EXPECT_NO_THROW(refuseFrameNames(chainOf({"info", "in.#.vdb"})));
}

}  // namespace
