#include "graph/chain.h"
#include "graph/error.h"
#include "graph/json.h"
#include "graph/plan.h"
#include "graph/registry.h"
#include "graph/settings.h"
#include "graph/suggest.h"

#include <gtest/gtest.h>

namespace {

using namespace tilegrid::graph;
using Words = std::vector<std::string>;

Graph parsed(Words const& words)
{
    return parseChain(words, [](std::string const& path) { return path == "mesh.obj"; });
}

std::string complaintOf(Words const& words)
{
    try {
        makePlan(parsed(words));
    } catch (UsageError const& error) {
        return error.what();
    }
    return "";
}

TEST(Chain, becomes_steps_with_inputs_parameters_and_names)
{
    const Graph graph = parsed({"read", "mesh.obj", "voxel=0.5", "as=a", "!", "slice", "a", "a.png", "at=0.25"});
    ASSERT_EQ(graph.steps.size(), 2u);
    EXPECT_EQ(graph.steps[0].node, "read");
    EXPECT_EQ(graph.steps[0].as, "a");
    EXPECT_EQ(*graph.steps[0].parameter("file"), "mesh.obj");
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "0.5");
    EXPECT_EQ(graph.steps[1].inputs, Words{"a"});
    EXPECT_EQ(*graph.steps[1].parameter("file"), "a.png");
    EXPECT_EQ(*graph.steps[1].parameter("at"), "0.25");
}

TEST(Chain, takes_then_for_the_exclamation_mark)
{
    const auto json = [](char const* separator) { return toJson(parsed({"read", "mesh.obj", "voxel=1", separator, "info", "--json"})); };
    EXPECT_EQ(json("!"), json("then"));
}

TEST(Chain, reads_a_file_that_stands_where_a_volume_is_wanted)
{
    const Graph graph = parsed({"info", "mesh.obj", "voxel=1"});
    ASSERT_EQ(graph.steps.size(), 2u);
    EXPECT_EQ(graph.steps[0].node, "read");
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "1");
    EXPECT_EQ(graph.steps[1].node, "info");
}

TEST(Graph, survives_the_way_through_json)
{
    const Graph graph = parsed({"read", "mesh.obj", "voxel=3vx", "as=ä b", "!", "scale_property", "_", "property=voxel_signed_distance", "factor=-2"});
    const std::string text = toJson(graph);
    EXPECT_EQ(toJson(graphFromJson(text)), text);
}

TEST(Graph, of_json_takes_numbers_as_well_as_texts)
{
    const Graph graph = graphFromJson(R"({"version":1,"steps":[{"node":"read","params":{"file":"mesh.obj","voxel":0.5}}]})");
    ASSERT_EQ(graph.steps.size(), 1u);
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "0.5");
}

TEST(Graph, of_json_refuses_other_shapes_and_versions)
{
    for (char const* text : {"[]", "{}", R"({"version":2,"steps":[]})", R"({"version":1,"steps":[{"params":{}}]})", R"({"version":1,"steps":3})"})
        EXPECT_THROW(graphFromJson(text), UsageError) << text;
}

TEST(Plan, accepts_what_is_right)
{
    EXPECT_EQ(complaintOf({"read", "mesh.obj", "voxel=0.5", "!", "info"}), "");
}

TEST(Plan, names_what_is_near_for_every_kind_of_wrong_name)
{
    EXPECT_NE(complaintOf({"raed", "mesh.obj"}).find("'read'"), std::string::npos);
    EXPECT_NE(complaintOf({"read", "mesh.obj", "vox=1"}).find("voxel"), std::string::npos);
    EXPECT_NE(complaintOf({"read", "mesh.obj", "voxel=1", "structure=binari"}).find("'binary'"), std::string::npos);
    EXPECT_NE(complaintOf({"read", "mesh.obj", "voxel=1", "as=bunny", "!", "info", "bunnny"}).find("'bunny'"), std::string::npos);
}

TEST(Plan, reports_every_problem_at_once)
{
    const std::string complaint = complaintOf({"read", "mesh.obj", "voxel=-1", "!", "slice", "a.png", "axis=q", "at=7"});
    for (char const* part : {"voxel", "axis", "at"}) EXPECT_NE(complaint.find(part), std::string::npos) << complaint;
}

TEST(Plan, wants_an_input_for_a_node_that_needs_one)
{
    EXPECT_NE(complaintOf({"info"}), "");
}

TEST(Setting, changes_every_step_that_has_the_parameter_or_one_by_name)
{
    Graph graph = parsed({"read", "mesh.obj", "voxel=1", "as=a", "!", "read", "mesh.obj", "voxel=2", "as=b"});
    applySetting(graph, "b.voxel=3");
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "1");
    EXPECT_EQ(*graph.steps[1].parameter("voxel"), "3");
    applySetting(graph, "voxel=4");
    EXPECT_EQ(*graph.steps[0].parameter("voxel"), "4");
    EXPECT_EQ(*graph.steps[1].parameter("voxel"), "4");
    EXPECT_THROW(applySetting(graph, "voxl=4"), UsageError);
    EXPECT_THROW(applySetting(graph, "c.voxel=4"), UsageError);
    EXPECT_THROW(applySetting(graph, "voxel"), UsageError);
}

TEST(Registry, describes_every_node_and_parameter)
{
    for (NodeInfo const& node : nodes()) {
        EXPECT_FALSE(node.help.empty()) << node.name;
        EXPECT_NE(node.run, nullptr) << node.name;
        EXPECT_EQ(findNode(node.name), &node);
        for (ParameterInfo const& parameter : node.parameters) EXPECT_FALSE(parameter.help.empty()) << node.name << "." << parameter.name;
    }
    EXPECT_EQ(findNode("no such node"), nullptr);
}

TEST(Suggestion, is_the_nearest_name_or_none)
{
    EXPECT_EQ(nearestName("slise", {"slice", "info"}), "slice");
    EXPECT_EQ(nearestName("completely different", {"slice", "info"}), "");
}

}  // namespace
