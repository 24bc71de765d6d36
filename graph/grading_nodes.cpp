#include "TilegridOps/nodes/grading.h"

#include "graph/node_families.h"

namespace tilegrid::graph {

namespace {

Result runGrade(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    Corvid::Ptr<Ostara::Object> graded = std::move(volume.volume);
    Geometry::Volume::grade_volume(graded, step.services);
    return {{volume.name, std::move(graded)}};
}

Result runValidate(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    Corvid::Ptr<Ostara::Object> output;
    Geometry::Volume::validate_volume(std::move(volume.volume), output, step.services);
    return {{volume.name, std::move(output)}};
}

NodeInfo volumeNode(std::string name, std::string help, Result (*run)(StepContext&))
{
    NodeInfo node{.name = std::move(name), .help = std::move(help), .run = run};
    node.inputs = {{.name = "volume", .help = "any volume"}};
    return node;
}

}  // namespace

std::vector<NodeInfo> gradingNodes()
{
    return {
        volumeNode("grade_volume", "adds tiles until the voxel sizes of tiles that touch differ by one level at most", runGrade),
        volumeNode("validate_volume", "lets a volume through and gives an empty object for anything else", runValidate),
    };
}

}  // namespace tilegrid::graph
