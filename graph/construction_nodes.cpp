#include "TilegridOps/nodes/construction.h"

#include "graph/node_families.h"

namespace tilegrid::graph {

namespace {

using Geometry::Volume::AutoSubdivisionStructure;

Result runCreateEmpty(StepContext& step)
{
    const auto structure = static_cast<AutoSubdivisionStructure>(step.arguments.choice("structure"));
    Corvid::Ptr<Ostara::Object> volume;
    Geometry::Volume::create_empty_volume(step.worldLength("detail_size"), structure, volume, step.services);
    return {{"", std::move(volume)}};
}

}  // namespace

std::vector<NodeInfo> constructionNodes()
{
    NodeInfo node{.name = "create_empty_volume", .help = "makes a volume without tiles, samples at voxel corners", .run = runCreateEmpty};
    node.parameters = {
        {.name = "detail_size", .type = ParameterType::kLength, .help = "size of a finest voxel", .unit = "world units", .positional = true,
         .range = {.min = 0, .aboveMin = true}, .voxelsAllowed = false},
        // In the order of the enumeration's values.
        {.name = "structure", .type = ParameterType::kEnum, .help = "how tiles divide: 2 or 5 children per axis; automatic is 5",
         .defaultText = "automatic", .choices = {"automatic", "binary", "quinary"}},
    };
    return {node};
}

}  // namespace tilegrid::graph
