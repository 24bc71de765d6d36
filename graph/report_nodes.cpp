#include "graph/files.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/info.h"
#include "io/picture.h"

#include <nlohmann/json.hpp>

#include <ostream>

namespace tilegrid::graph {

namespace {

using Json = nlohmann::ordered_json;

void printInfo(StepContext& step, io::NamedVolume const& volume)
{
    const io::VolumeInfo info = io::describeVolume(*volume.volume);
    if (step.arguments.flag("json")) {
        Json document = {{"name", volume.name}};
        document.update(Json::parse(io::toJson(info)));
        step.results << document.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    if (!volume.name.empty()) step.results << volume.name << "\n";
    const std::string text = io::toText(info);
    step.results << text << (text.ends_with('\n') ? "" : "\n");
}

Result runInfo(StepContext& step)
{
    for (io::NamedVolume const& volume : step.inputs[0]) printInfo(step, volume);
    return {};
}

Result runSlice(StepContext& step)
{
    io::SliceOptions options;
    options.axis = step.arguments.choice("axis");
    options.at = step.arguments.number("at");
    options.property = step.arguments.text("property");
    options.size = int(step.arguments.integer("size"));
    if (!options.property.empty()) requireProperty(step.volume(), options.property);
    const io::Image image = io::sliceImage(*step.volume().volume, options);
    // A cancelled run must not replace a file any more.
    if (Corvid::isJobCancelled()) return {};
    createParentFolders(step.arguments.text("file"));
    io::writePng(step.arguments.text("file"), image);
    return {};
}

NodeInfo infoNode()
{
    NodeInfo node{.name = "info", .help = "prints what a volume holds: voxel size, tiles by depth, properties, volume and area", .hasResult = false, .run = runInfo};
    node.inputs = {{.name = "volume", .help = "a volume, or all volumes of a file", .several = true}};
    node.parameters = {jsonParameter()};
    return node;
}

NodeInfo sliceNode()
{
    NodeInfo node{.name = "slice", .help = "draws one plane of a property, with the tile borders, as a picture", .hasResult = false, .run = runSlice};
    node.inputs = {{.name = "volume", .help = "a volume with a property of numbers"}};
    node.parameters = {
        {.name = "file", .type = ParameterType::kOutputFile, .help = "the picture", .positional = true, .endings = {".png"}},
        {.name = "axis", .type = ParameterType::kEnum, .help = "the axis that the plane is orthogonal to", .defaultText = "z", .choices = {"x", "y", "z"}},
        {.name = "at", .type = ParameterType::kFloat, .help = "place of the plane between the low (0) and the high (1) side of the content",
         .defaultText = "0.5", .range = {.min = 0, .max = 1}},
        {.name = "property", .help = "the property; none: the signed distance, else the fog density, else the first", .defaultText = ""},
        {.name = "size", .type = ParameterType::kInt, .help = "longer side of the picture", .unit = "pixels", .defaultText = "1024",
         .range = {.min = 1, .max = 16384}},
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> reportNodes()
{
    return {infoNode(), sliceNode()};
}

}  // namespace tilegrid::graph
