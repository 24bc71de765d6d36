// The command when it is told to end while something holds it.
#include "named_pipe.h"

#include <csignal>

namespace {

using Words = std::vector<std::string>;

bool holds(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(Signals, end_a_command_that_waits_for_input)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        const WorkFolder folder;
        NamedPipe pipe(folder, "graph.json");
        // It then waits for a graph that does not come.
        const auto result = folder.signalAfter([&pipe] { pipe.open(O_WRONLY); }, {signal}, {"run", "graph.json"});
        EXPECT_EQ(result.status, 130);
        EXPECT_TRUE(holds(result.err, "tilegrid: cancelled")) << result.err;
    }
}

TEST(Signals, end_a_command_whose_output_nobody_takes)
{
    const WorkFolder folder;
    NamedPipe pipe(folder, "a.ply");
    // More than a pipe holds, so that it waits within the write.
    const auto result = folder.signalAfter([&pipe] { pipe.open(O_RDONLY); }, {SIGTERM},
                                           {"read", bunny(), "voxel=0.1", "!", "write", "a.ply"});
    EXPECT_EQ(result.status, 130);
    EXPECT_TRUE(holds(result.err, "tilegrid: cancelled")) << result.err;
    EXPECT_EQ(folder.files(), Words{});
}

TEST(Signals, that_come_twice_end_it_without_waiting_for_the_step)
{
    const WorkFolder folder;
    NamedPipe pipe(folder, "graph.json");
    const auto result = folder.signalAfter([&pipe] { pipe.open(O_WRONLY); }, {SIGINT, SIGTERM}, {"run", "graph.json"});
    EXPECT_EQ(result.status, 130);
    EXPECT_TRUE(holds(result.err, "ended at the second signal")) << result.err;
}

}  // namespace
