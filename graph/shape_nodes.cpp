#include "graph/node_families.h"
#include "io/level_set_from_shape.h"

#include <algorithm>
#include <iterator>

namespace tilegrid::graph {

namespace {

Result levelSetOf(StepContext& step, std::string const& name, io::Shape const& shape)
{
    return {{name, io::levelSetFromShape(shape, levelSetOptions(step, io::longestSide(shape)))}};
}

Result runSphere(StepContext& step)
{
    return levelSetOf(step, "sphere",
                      io::Sphere{vectorOfThree(step.arguments, "center").value(), step.arguments.number("radius")});
}

Result runBox(StepContext& step)
{
    return levelSetOf(
        step, "box",
        io::Box{vectorOfThree(step.arguments, "min").value(), vectorOfThree(step.arguments, "max").value()});
}

Result runTorus(StepContext& step)
{
    return levelSetOf(step, "torus",
                      io::Torus{vectorOfThree(step.arguments, "center").value(), step.arguments.number("radius"),
                                step.arguments.number("tube"), step.arguments.choice("axis")});
}

NodeInfo withLevelSetParameters(NodeInfo node)
{
    std::ranges::move(levelSetParameters(), std::back_inserter(node.parameters));
    ParameterInfo structure = structureParameter();
    structure.help = "how tiles divide: 2 or 5 children per axis";
    node.parameters.push_back(std::move(structure));
    return node;
}

ParameterInfo centerParameter()
{
    return {.name = "center",
            .type = ParameterType::kVector,
            .help = "its middle: x,y,z",
            .unit = "world units",
            .defaultText = "0,0,0"};
}

ParameterInfo lengthParameter(char const* name, char const* help)
{
    return {.name = name,
            .type = ParameterType::kFloat,
            .help = help,
            .unit = "world units",
            .range = {.min = 0, .aboveMin = true}};
}

ParameterInfo cornerParameter(char const* name, char const* help)
{
    return {.name = name, .type = ParameterType::kVector, .help = help, .unit = "world units"};
}

}  // namespace

std::vector<NodeInfo> shapeNodes()
{
    NodeInfo sphere{.name = "sphere", .help = "makes an exact level set of a sphere", .run = runSphere};
    sphere.parameters = {centerParameter(), lengthParameter("radius", "its radius")};
    NodeInfo box{.name = "box", .help = "makes an exact level set of a box along the axes", .run = runBox};
    box.parameters = {cornerParameter("min", "its low corner: x,y,z"),
                      cornerParameter("max", "its high corner: x,y,z")};
    NodeInfo torus{
        .name = "torus",
        .help = "makes an exact level set of a ring, or of a ball with two dents where the tube is wider than the ring",
        .run = runTorus};
    torus.parameters = {
        centerParameter(),
        lengthParameter("radius", "of the circle that the middle of the tube follows"),
        lengthParameter("tube", "radius of the tube"),
        {.name = "axis",
         .type = ParameterType::kEnum,
         .help = "the axis that the ring lies around",
         .defaultText = "y",
         .choices = {"x", "y", "z"}},
    };
    return {withLevelSetParameters(sphere), withLevelSetParameters(box), withLevelSetParameters(torus)};
}

}  // namespace tilegrid::graph
