// Running plans: what steps hand on, and how a run ends. Most need no file.
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/node_families.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "io/error.h"
#include "support/files.h"
#include "trial.h"

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using tilegrid::test::planOf;
using tilegrid::test::TestFolder;
using tilegrid::test::Trial;
using Words = std::vector<std::string>;

TEST(Running, prints_results_in_the_order_of_the_steps)
{
    Trial run;
    run(planOf({"create_empty_volume", "0.5", "as=a", "!", "create_empty_volume", "0.25", "!", "get_voxel_size", "a", "!", "get_voxel_size", "--json"}));
    EXPECT_EQ(run.results.str(), "0.5\n{\"voxel_size\":0.25}\n");
    EXPECT_TRUE(run.messages.empty());
    EXPECT_EQ(run.progress.front(), "create_empty_volume 1 0");
    EXPECT_EQ(run.progress.back(), "get_voxel_size 4 1");
}

TEST(Running, gives_a_voxel_position_to_every_voxel_of_the_structure_asked_for)
{
    for (char const* structure : {"binary", "quinary"}) {
        Trial run;
        run(planOf({"create_empty_volume", "0.5", std::string("structure=") + structure, "!", "update_voxel_position", "offset=center", "!", "info", "--json"}));
        EXPECT_TRUE(contains(run.results.str(), std::string("\"structure\":\"") + structure)) << run.results.str();
        EXPECT_TRUE(contains(run.results.str(), "\"name\":\"voxel_position\"")) << run.results.str();
    }
}

TEST(Running, hands_a_volume_through_grading_and_validation)
{
    for (char const* structure : {"binary", "quinary"}) {
        Trial run;
        run(planOf({"create_empty_volume", "0.5", std::string("structure=") + structure, "!", "update_voxel_position", "!", "grade_volume", "!",
                    "validate_volume", "!", "info", "--json"}));
        EXPECT_TRUE(contains(run.results.str(), std::string("\"structure\":\"") + structure)) << run.results.str();
        EXPECT_TRUE(contains(run.results.str(), "\"name\":\"voxel_position\"")) << run.results.str();
        EXPECT_TRUE(run.messages.empty());
    }
}

TEST(Running, stops_at_a_node_that_reports_an_error_and_names_the_step)
{
    Trial run;
    // A size that counts as zero for the node, though it is above it.
    const Plan plan = planOf({"create_empty_volume", "1", "!", "get_voxel_size", "!", "create_empty_volume", "1e-8", "!", "get_voxel_count"});
    EXPECT_TRUE(contains(errorOf<NodeError>([&] { run(plan); }), "step 3 (create_empty_volume)"));
    EXPECT_EQ(run.results.str(), "1\n");
    EXPECT_EQ(run.messages, Words{"step 3 (create_empty_volume): Input 'detail_size' must be non-zero."});
}

TEST(Running, names_the_properties_there_are_when_one_is_missing)
{
    Trial run;
    const Plan plan = planOf({"create_empty_volume", "1", "!", "update_voxel_position", "!", "scale_property", "voxel_positon", "2"});
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { run(plan); }), "Did you mean 'voxel_position'?"));
}

TEST(Running, wants_as_many_numbers_as_a_value_has_or_one)
{
    const auto remap = [](char const* min) {
        return planOf({"create_empty_volume", "1", "!", "update_voxel_position", "!", "remap_property", "voxel_position", min, "1"});
    };
    for (char const* min : {"0", "0,1,2"}) {
        Trial run;
        EXPECT_NO_THROW(run(remap(min))) << min;
    }
    Trial run;
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { run(remap("0,1")); }), "'new_min' has 2 numbers"));
}

TEST(Running, ends_as_cancelled_at_every_poll_and_is_right_when_none_says_yes)
{
    const Plan plan = planOf({"create_empty_volume", "1", "!", "update_voxel_position", "!", "scale_property", "voxel_position", "2", "!", "get_voxel_size"});
    Job job;
    Trial whole;
    whole(plan, &job);
    const std::int64_t polls = job.pollCount();
    ASSERT_GT(polls, 0);
    for (std::int64_t n = 1; n <= polls; ++n) {
        Trial run;
        job.reset();
        job.cancelAtPoll(n);
        EXPECT_THROW(run(plan, &job), Cancelled) << "poll " << n << " of " << polls;
    }
    job.reset();
    Trial again;
    again(plan, &job);
    EXPECT_EQ(again.results.str(), whole.results.str());
}

TEST(Running, needs_its_input_files_unless_an_earlier_step_writes_them)
{
    const TestFolder folder;
    const std::string file = folder.file("a.vdb");
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { checkFiles(planOf({"read", file})); }), "there is no file"));
    EXPECT_NO_THROW(checkFiles(planOf({"create_empty_volume", "1", "!", "write", file, "!", "read", file})));
    EXPECT_THROW(checkFiles(planOf({"read", file, "!", "write", file})), io::InputError);
}

TEST(Running, finds_places_that_cannot_take_a_file_before_it_starts)
{
    const TestFolder folder;
    const std::string file = folder.write("file", "text");
    Trial run;
    const Plan plan = planOf({"create_empty_volume", "1", "!", "get_voxel_size", "!", "write", file + "/a.vdb"});
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { run(plan); }), "is not a folder"));
    EXPECT_EQ(run.results.str(), "");
    EXPECT_NO_THROW(checkFiles(planOf({"create_empty_volume", "1", "!", "write", folder.file("new/deeper/a.vdb")})));
    EXPECT_EQ(folder.fileCount(), 1u);
}

// Nodes of this test only: one that leaves two volumes, and takers of one and of several.

Result leaveTwo(StepContext&)
{
    return {{"left", Ostara::createObject()}, {"right", Ostara::createObject()}};
}

Result printNames(StepContext& step)
{
    for (io::NamedVolume const& volume : step.inputs[0]) step.results << volume.name << ":" << volume.volume.useCount() << "\n";
    return {};
}

Plan planOfTwo(NodeInfo const& source, NodeInfo const& taker, int takers)
{
    Plan plan;
    plan.steps.push_back({.node = &source, .arguments = {}, .inputs = {}, .resultUsed = true, .label = "source"});
    for (int n = 0; n < takers; ++n)
        plan.steps.push_back({.node = &taker, .arguments = {}, .inputs = {{.step = 0, .lastUse = n + 1 == takers}}, .resultUsed = false, .label = "taker"});
    return plan;
}

TEST(Running, hands_several_volumes_only_to_a_step_that_takes_several)
{
    const NodeInfo source{.name = "source", .help = "", .run = leaveTwo};
    NodeInfo taker{.name = "taker", .help = "", .inputs = {{.name = "volume", .help = "", .several = true}}, .hasResult = false, .run = printNames};
    Trial run;
    run(planOfTwo(source, taker, 1));
    EXPECT_TRUE(contains(run.results.str(), "left") && contains(run.results.str(), "right")) << run.results.str();

    taker.inputs[0].several = false;
    const std::string text = errorOf<io::InputError>([&] { run(planOfTwo(source, taker, 1)); });
    for (char const* part : {"'left'", "'right'", "volume=NAME"}) EXPECT_TRUE(contains(text, part)) << text;
}

TEST(Names, of_volumes_become_distinct_and_keep_what_the_file_says_where_they_can)
{
    Result volumes = {{"a", {}}, {"a", {}}, {"b", {}}, {"a.2", {}}, {"a", {}}, {"", {}}, {"", {}}};
    makeNamesDistinct(volumes);
    Words names;
    for (io::NamedVolume const& volume : volumes) names.push_back(volume.name);
    EXPECT_EQ(names, (Words{"a", "a.3", "b", "a.2", "a.4", "", ".2"}));
}

TEST(Running, hands_a_result_to_its_last_reader_for_it_alone)
{
    const NodeInfo source{.name = "source", .help = "", .run = leaveTwo};
    const NodeInfo taker{.name = "taker", .help = "", .inputs = {{.name = "volume", .help = "", .several = true}}, .hasResult = false, .run = printNames};
    Trial run;
    run(planOfTwo(source, taker, 2));
    // While a later step still needs it, the runner holds it too; a node that got it alone changes it without a copy.
    EXPECT_EQ(run.results.str(), "left:2\nright:2\nleft:1\nright:1\n");
}

TEST(Length, in_voxels_is_measured_on_the_first_input)
{
    Arguments arguments;
    arguments.set("near", Length{3, LengthUnit::kVoxels});
    arguments.set("far", Length{3, LengthUnit::kWorld});
    const Corvid::RuntimeServices services;
    std::ostringstream results;
    const Plan plan = planOf({"create_empty_volume", "0.5"});
    StepContext making{plan.steps[0].arguments, {}, services, results, 0};
    StepContext step{arguments, {plan.steps[0].node->run(making)}, services, results, 0};
    EXPECT_EQ(step.worldLength("near"), 1.5f);
    EXPECT_EQ(step.worldLength("far"), 3.0f);
}

}  // namespace
