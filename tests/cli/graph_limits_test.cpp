// Graphs that are no work of people: without end, of many steps, deep or wide.
#include "named_pipe.h"

#include <algorithm>
#include <csignal>
#include <thread>

namespace {

bool holds(std::string const& text, std::string const& part) { return text.find(part) != std::string::npos; }

TEST(Graph, that_no_end_is_known_of_is_refused)
{
    const WorkFolder folder;
    const auto device = folder.run({"run", "/dev/zero"});
    EXPECT_EQ(device.status, 2);
    EXPECT_TRUE(holds(device.err, "/dev/zero: it is a device")) << device.err;

    std::ofstream(folder.path("large.json")) << "{";
    std::filesystem::resize_file(folder.path("large.json"), (std::uintmax_t(16) << 20) + 1);
    const auto large = folder.run({"run", "large.json"});
    EXPECT_EQ(large.status, 2);
    EXPECT_TRUE(holds(large.err, "large.json: it has more than the limit of 16.0 MiB")) << large.err;

    std::signal(SIGPIPE, SIG_IGN);
    NamedPipe pipe(folder, "pipe.json");
    std::thread writer([&pipe] {
        pipe.open(O_WRONLY);
        const std::string blanks(1 << 16, ' ');
        while (write(pipe.descriptor(), blanks.data(), blanks.size()) > 0) continue;
    });
    const auto endless = folder.run({"run", "pipe.json"});
    writer.join();
    EXPECT_EQ(endless.status, 2);
    EXPECT_TRUE(holds(endless.err, "pipe.json: it has more than the limit of 16.0 MiB")) << endless.err;
}

TEST(Graph, of_150000_steps_runs)
{
    const WorkFolder folder;
    std::ofstream file(folder.path("many.json"));
    file << R"({"version": 1, "steps": [{"node": "create_empty_volume", "params": {"detail_size": 0.5}, "as": "v0"})";
    // Every step names its result and reads that of the one before.
    for (int n = 1; n < 149999; ++n)
        file << R"(,{"node":"validate_volume","inputs":["v)" << n - 1 << R"("],"as":"v)" << n << "\"}";
    file << R"(, {"node": "get_voxel_size"}]})";
    file.close();
    const auto result = folder.run({"run", "many.json"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "0.5\n");
}

TEST(Graph, of_many_wrong_steps_gets_a_message_that_people_can_read)
{
    const WorkFolder folder;
    std::ofstream file(folder.path("wrong.json"));
    file << R"({"version": 1, "steps": [{"node": "create_empty_volume", "params": {"detail_size": 1}})";
    for (int n = 1; n < 150000; ++n)
        file << R"(,{"node":"scale_property","inputs":["w)" << n << R"("],"params":{"property":"a","factor":2},"as":"v)"
             << n << "\"}";
    file << "]}";
    file.close();
    const auto result = folder.run({"run", "wrong.json"});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(holds(result.err, "step 2 (scale_property): no earlier step has a result 'w1'")) << result.err;
    EXPECT_TRUE(holds(result.err, "The steps after it were not checked.")) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 21) << "20 problems and the line that ends them";
}

TEST(Graph, that_is_deeply_nested_or_has_an_object_of_many_keys_is_refused)
{
    const WorkFolder folder;
    const std::string deep(100000, '['), closing(100000, ']');
    const auto nested = folder.runFrom(R"({"version": 1, "steps": [{"node": )" + deep + closing + "}]}", {"run", "-"});
    EXPECT_EQ(nested.status, 1);
    EXPECT_TRUE(holds(nested.err, "nested more than")) << nested.err;
    std::string keys;
    for (int n = 0; n < 2000; ++n) keys += (n ? ",\"" : "\"") + std::to_string(n) + "\":1";
    const auto wide =
        folder.runFrom(R"({"version": 1, "steps": [{"node": "read", "params": {)" + keys + "}}]}", {"run", "-"});
    EXPECT_EQ(wide.status, 1);
    EXPECT_TRUE(holds(wide.err, "more than 1000 keys")) << wide.err;
}

}  // namespace
