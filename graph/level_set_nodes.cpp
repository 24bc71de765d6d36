#include "TilegridOps/nodes/level_set.h"

#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "graph/node_families.h"
#include "io/error.h"

namespace tilegrid::graph {

namespace {

using Corvid::Ptr;
using Ostara::Object;
using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Geometry::sVoxelTileTree;

template <class Tr> bool hasStructure(io::NamedVolume const& volume)
{
    return volume.volume->native() && volume.volume->native()->template component<Container<Tr>>(sVoxelTileTree);
}

/// \throws io::InputError if the property is not one float per voxel
void requireFloats(io::NamedVolume const& volume, std::string const& property)
{
    requireProperty(volume, property);
    auto const& native = *volume.volume->native();
    if (!native.component<Channel<BinaryTraits, float, 4, 0>>(property) && !native.component<Channel<QuinaryTraits, float, 5, 0>>(property))
        throw io::InputError("the property '" + property + "' does not hold one float per voxel.");
}

Result runRebuild(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    std::string const& property = step.arguments.text("property");
    requireFloats(volume, property);
    Ptr<Object> output;
    Geometry::Volume::rebuild_level_set(std::move(volume.volume), property, output, step.services);
    return {{volume.name, std::move(output)}};
}

Result runResize(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    requireFloats(volume, sVoxelSignedDistance.str());
    Ptr<Object> output;
    Geometry::Volume::resize_level_set(std::move(volume.volume), float(step.arguments.number("bandwidth")), output, step.services);
    return {{volume.name, std::move(output)}};
}

Result runCoarsen(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    std::string const& property = step.arguments.text("property");
    requireProperty(volume, property);
    Ptr<Object> output;
    Geometry::Volume::coarsen_voxel_property(std::move(volume.volume), property, float(step.arguments.number("error")),
                                             float(step.arguments.number("relative_error")), step.arguments.flag("protect_surface"),
                                             float(step.arguments.number("surface_band")), output, step.services);
    return {{volume.name, std::move(output)}};
}

Result runSetVoxelSize(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    Ptr<Object> output;
    Geometry::Volume::set_voxel_size(std::move(volume.volume), float(step.arguments.number("voxel_size")), false, output, step.services);
    return {{volume.name, std::move(output)}};
}

Result runDepth(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    std::string const& property = step.arguments.text("property");
    requireFloats(volume, property);
    // The node serves one structure, and what it cannot serve is lost in it.
    if (!hasStructure<BinaryTraits>(volume)) throw io::InputError("depths exist for volumes of the binary structure only.");
    Ptr<Object> output = std::move(volume.volume);
    Geometry::Volume::Internal::compute_volume_depth(property, float(step.arguments.number("least")), float(step.arguments.number("largest")),
                                                     int(step.arguments.integer("smoothing")), output, step.services);
    return {{volume.name, std::move(output)}};
}

ParameterInfo levelSetParameter()
{
    return {.name = "property", .help = "name of the level set", .defaultText = sVoxelSignedDistance.str()};
}
NodeInfo nodeOf(std::string name, std::string help, std::string input, Result (*run)(StepContext&), std::vector<ParameterInfo> parameters)
{
    NodeInfo node{.name = std::move(name), .help = std::move(help), .run = run};
    node.inputs = {{.name = std::move(input), .help = "a level set"}};
    node.parameters = std::move(parameters);
    return node;
}
NodeInfo inGroup(std::string group, NodeInfo node)
{
    node.group = std::move(group);
    return node;
}

}  // namespace

std::vector<NodeInfo> levelSetNodes()
{
    const auto number = [](std::string name, std::string help, std::string text) {
        return ParameterInfo{.name = std::move(name), .type = ParameterType::kFloat, .help = std::move(help), .unit = "world units", .defaultText = std::move(text)};
    };
    return {
        nodeOf("rebuild_level_set",
               "makes a level set the true distance again and leaves its surface where it is; hanging voxels are interpolated, which is near only in a graded tree",
               "volume", runRebuild, {levelSetParameter()}),
        inGroup("resolution", nodeOf("coarsen_voxel_property", "removes tiles whose values of a property the next coarser voxels can give", "volume", runCoarsen,
               {{.name = "property", .help = "the property", .defaultText = sVoxelSignedDistance.str()},
                {.name = "error", .type = ParameterType::kFloat, .help = "how far a value may be off", .unit = "the property's unit", .positional = true,
                 .range = {.min = 0}},
                {.name = "relative_error", .type = ParameterType::kFloat, .help = "how far it may be off besides, as a part of the tile's largest value",
                 .defaultText = "0", .range = {.min = 0}},
                {.name = "protect_surface", .type = ParameterType::kBool, .help = "keep tiles at and near a change of sign", .defaultText = "false"},
                {.name = "surface_band", .type = ParameterType::kFloat, .help = "what near means", .unit = "voxels", .defaultText = "0", .range = {.min = 0}}})),
        nodeOf("resize_level_set", "gives a level set a band of another width around its surface", "level_set", runResize,
               {{.name = "bandwidth", .type = ParameterType::kFloat, .help = "half width of the band", .unit = "voxels", .positional = true}}),
        nodeOf("set_voxel_size", "scales a volume as a whole; values stay as they are", "volume", runSetVoxelSize,
               {{.name = "voxel_size", .type = ParameterType::kFloat, .help = "size of the finest voxels", .unit = "world units", .positional = true}}),
        nodeOf("compute_volume_depth", "writes how deep voxels lie below the surface to voxel_depth", "volume", runDepth,
               {levelSetParameter(), number("least", "depth of what lies above it", "0"), number("largest", "no depth is larger; 0 for no limit", "0"),
                {.name = "smoothing", .type = ParameterType::kInt, .help = "smoothing passes", .defaultText = "0"}}),
    };
}

}  // namespace tilegrid::graph
