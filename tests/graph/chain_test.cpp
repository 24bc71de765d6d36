// How words find their places. The names of nodes and parameters are those of the registry.
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/plan.h"
#include "support/files.h"

namespace {

using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using Words = std::vector<std::string>;

Graph parsed(Words const& words)
{
    return parseChain(words, [](std::string const& path) { return path == "mesh"; });
}

std::string complaint(Words const& words)
{
    return errorOf<UsageError>([&] { makePlan(parsed(words)); });
}

TEST(Words, that_are_just_enough_for_the_positional_parameters_leave_the_input_out)
{
    const Step one = parsed({"slice", "a.png"}).steps.back();
    EXPECT_TRUE(one.inputs.empty());
    EXPECT_EQ(*one.parameter("file"), "a.png");
    const Step two = parsed({"slice", "_", "a.png"}).steps.back();
    EXPECT_EQ(two.inputs, Words{"_"});
    EXPECT_EQ(*two.parameter("file"), "a.png");
}

TEST(Words, go_to_the_input_once_the_parameter_has_its_value_by_name)
{
    const Step step = parsed({"scale_property", "_", "density", "factor=2"}).steps.back();
    EXPECT_EQ(step.inputs, Words{"_"});
    EXPECT_EQ(*step.parameter("property"), "density");
    EXPECT_EQ(*step.parameter("factor"), "2");
}

TEST(Words, beyond_inputs_and_parameters_are_refused)
{
    EXPECT_TRUE(contains(complaint({"info", "a.vdb", "b.vdb"}), "'b.vdb' is one word too many"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "b.vdb"}), "too many"));
}

TEST(Words, go_to_a_repeated_input_as_many_as_there_are)
{
    EXPECT_EQ(parsed({"merge", "a", "b", "c"}).steps.back().inputs, (Words{"a", "b", "c"}));
    EXPECT_TRUE(parsed({"merge"}).steps.back().inputs.empty());
    const Graph files = parsed({"merge", "a.vdb", "mesh", "voxel=0.5"});
    ASSERT_EQ(files.steps.size(), 3u);
    EXPECT_EQ(*files.steps[1].parameter("voxel"), "0.5");
    EXPECT_FALSE(parsed({"merge", "a.vdb", "b.obj", "voxel=0.5"}).steps[0].parameter("voxel")) << "a .vdb file is not resampled by the way";
    EXPECT_EQ(*parsed({"info", "a.vdb", "voxel=0.5"}).steps[0].parameter("voxel"), "0.5");
    EXPECT_EQ(files.steps[2].inputs, (Words{"a", "mesh"}));
}

TEST(Words, with_an_equals_sign_in_a_path_are_no_parameters)
{
    const Graph graph = parsed({"read", "runs/a=1.vdb", "!", "write", "out/b=2.vdb"});
    EXPECT_EQ(*graph.steps[0].parameter("file"), "runs/a=1.vdb");
    EXPECT_EQ(*graph.steps[1].parameter("file"), "out/b=2.vdb");
}

TEST(Words, that_begin_with_dashes_switch_a_flag_and_nothing_else)
{
    EXPECT_EQ(*parsed({"info", "--json"}).steps.back().parameter("json"), "true");
    EXPECT_TRUE(contains(complaint({"read", "a.obj", "--voxel=1"}), "voxel=1"));
}

TEST(Chain, refuses_empty_steps_and_two_names)
{
    for (Words const& words : {Words{"!", "info"}, Words{"info", "!"}, Words{"info", "!", "then", "info"}})
        EXPECT_TRUE(contains(complaint(words), "is empty")) << words.size();
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "as=a", "as=b"}), "as=b"));
}

TEST(File, in_the_place_of_an_input_is_read_first_under_a_name_that_is_free)
{
    const Graph graph = parsed({"info", "in/a.vdb", "!", "info", "other/a.vdb", "!", "read", "b.vdb", "as=a_2"});
    ASSERT_EQ(graph.steps.size(), 5u);
    EXPECT_EQ(*graph.steps[0].parameter("file"), "in/a.vdb");
    EXPECT_EQ(graph.steps[1].inputs, Words{graph.steps[0].as});
    EXPECT_EQ(graph.steps[3].inputs, Words{graph.steps[2].as});
    // a_2 is taken by a step that comes later.
    EXPECT_EQ(graph.steps[0].as, "a");
    EXPECT_EQ(graph.steps[2].as, "a_3");
    EXPECT_NO_THROW(makePlan(graph));
}

TEST(File, gets_the_parameters_that_only_read_has)
{
    const Graph graph = parsed({"slice", "m.obj", "m.png", "voxel=2", "at=0.25"});
    ASSERT_EQ(graph.steps.size(), 2u);
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "2");
    EXPECT_EQ(graph.steps[0].parameter("at"), nullptr);
    EXPECT_EQ(*graph.steps[1].parameter("at"), "0.25");
    EXPECT_EQ(graph.steps[1].parameter("voxel"), nullptr);
    EXPECT_EQ(*graph.steps[1].parameter("file"), "m.png");
}

TEST(File, gives_way_to_a_result_of_its_name)
{
    EXPECT_EQ(parsed({"info", "mesh"}).steps.size(), 2u);
    EXPECT_EQ(parsed({"read", "a.vdb", "as=mesh", "!", "info", "mesh"}).steps.size(), 2u);
}

TEST(Plan, knows_which_parameters_mean_something_for_a_file)
{
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "thickness=1"}), "'thickness' means nothing for 'a.vdb'"));
    EXPECT_TRUE(contains(complaint({"read", "a.obj", "voxel=1", "volume=x"}), "'volume' means nothing"));
    EXPECT_TRUE(contains(complaint({"read", "a.obj"}), "'voxel' is missing"));
    EXPECT_NO_THROW(makePlan(parsed({"read", "a.vdb"})));
    // One problem at a time: what a file of an unknown format needs is not known.
    const std::string text = complaint({"read", "a.txt", "voxel=1"});
    EXPECT_TRUE(contains(text, "'a.txt'"));
    EXPECT_FALSE(contains(text, "voxel")) << text;
}

TEST(Plan, refuses_names_that_are_taken_odd_or_lead_nowhere)
{
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "as=a", "!", "read", "b.vdb", "as=a"}), "already"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "as=1"}), "cannot name a result"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "as=_"}), "cannot name a result"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "!", "info", "as=b"}), "no result"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "as=b", "!", "write", "b"}), "'b' is a result"));
    EXPECT_TRUE(contains(complaint({"read", "a.vdb", "at=1", "at=1"}), "twice"));
}

TEST(Plan, sends_the_last_result_past_steps_that_leave_none)
{
    const Plan plan = makePlan(parsed({"read", "a.vdb", "!", "info", "!", "read", "b.vdb", "!", "info", "!", "write", "c.vdb"}));
    EXPECT_EQ(plan.steps[1].inputs[0].step, 0u);
    EXPECT_TRUE(plan.steps[1].inputs[0].lastUse);
    EXPECT_EQ(plan.steps[3].inputs[0].step, 2u);
    EXPECT_FALSE(plan.steps[3].inputs[0].lastUse);
    EXPECT_EQ(plan.steps[4].inputs[0].step, 2u);
    EXPECT_TRUE(plan.steps[4].inputs[0].lastUse);
}

}  // namespace
