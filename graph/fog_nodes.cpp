#include "graph/node_families.h"
#include "io/fog.h"

namespace tilegrid::graph {

namespace {

Result runFog(StepContext& step)
{
    const float width = step.worldLength("width");
    const bool keep = step.arguments.choice("keep") == 0;
    io::NamedVolume& volume = step.volume();
    return {{volume.name, io::fogFromLevelSet(std::move(volume.volume), width, keep, step.services)}};
}

}  // namespace

std::vector<NodeInfo> fogNodes()
{
    NodeInfo node{.name = "fog",
                  .help = "gives a level set a fog density: 0 at the surface and outside, rising evenly inwards, 1 "
                          "from a depth below it on",
                  .run = runFog};
    node.inputs = {{.name = "volume", .help = "a volume with a signed distance"}};
    node.parameters = {
        {.name = "width",
         .type = ParameterType::kLength,
         .help = "how far below the surface the density becomes 1",
         .unit = "voxels, or world units as in 0.1wu",
         .defaultText = "3",
         .range = {.min = 0, .aboveMin = true},
         .bareUnit = LengthUnit::kVoxels},
        {.name = "keep",
         .type = ParameterType::kEnum,
         .help = "whether the signed distance stays beside the fog",
         .defaultText = "yes",
         .choices = {"yes", "no"}},
    };
    return {node};
}

}  // namespace tilegrid::graph
