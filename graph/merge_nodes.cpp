#include "TilegridOps/algorithms/channel_coarsen.h"
#include "TilegridOps/algorithms/consistent_values.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/nodes/merge_host_volumes.h"
#include "graph/merge_choice.h"
#include "graph/node_families.h"
#include "io/info.h"
#include "io/savings.h"
#include "io/text.h"

#include <nlohmann/json.hpp>

#include <numeric>
#include <ostream>

namespace tilegrid::graph {

namespace {

using namespace Geometry::Volume;

/// The numbers of an enumeration are the places of its names.
const std::vector<std::string> kLevelSetModes = {"union", "difference", "intersection"};
const std::vector<std::string> kFogModes = {"add",     "subtract", "divide",           "multiply", "minimum",
                                            "maximum", "average",  "inverse_multiply", "screen",   "blend"};
std::vector<std::string> propertyModes()
{
    std::vector<std::string> modes = kFogModes;
    modes.push_back("automatic");
    return modes;
}

MergeParameters parametersOf(Arguments const& arguments)
{
    MergeParameters parameters;
    parameters.modes = {LevelSetMode(arguments.choice("mode")), FogDensityMode(arguments.choice("fog")), float(arguments.number("alpha")),
                        Properties::Mode(arguments.choice("properties")),
                        OST::TileTree3D::InterpolationMode(arguments.choice("interpolation"))};
    parameters.adaptiveVoxelScale = float(arguments.number("scale"));
    if (const int structure = arguments.choice("structure")) parameters.binary = structure == 1;
    return parameters;
}

/// Tells what was made, and keeps the tolerance with the volume for `info`.
void report(StepContext& step, MergeChoice const& choice, Corvid::Ptr<Ostara::Object>& merged)
{
    const io::VolumeInfo info = io::describeTiles(*merged);
    const auto sum = [](std::vector<std::int64_t> const& counts) { return std::accumulate(counts.begin(), counts.end(), std::int64_t(0)); };
    std::string text = "merged " + info.structure + ", voxel size " + io::number(info.voxelSize) + ", " + std::to_string(sum(info.tilesByDepth)) +
                       " tiles, " + std::to_string(sum(info.leafVoxelsByDepth)) + " leaf voxels";
    auto object = Corvid::toMutable(merged);
    // What an input was refined to says nothing of a result that has the tiles of all of them.
    object->entries().erase(io::kRefinementError);
    if (choice.parameters.enableAdaptivity) {
        object->set(io::kRefinementError, float(choice.tolerance));
        text += ", refined until the level set is within " + io::number(choice.tolerance) + " world units";
    }
    merged = std::move(object);
    step.services.message(Severity::kInfo, text + reasonOf(choice) + ".");
}

Corvid::Ptr<Ostara::Object> merge(StepContext& step, HostVolumes const& volumes, MergeChoice const& choice)
{
    Corvid::Ptr<Ostara::Object> merged;
    nodes::mergeHostVolumes(volumes, step.arguments.flag("reverse"), choice.parameters, merged, step.services);
    if (!merged || !merged->native()) return merged;
    auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(merged));
    // The rule of growth refines some eight voxels to each side of the surface; what lies beyond the band need not be as fine.
    if (choice.parameters.enableAdaptivity)
        VolumeGL::TileTree3D::channelCoarsen(Ostara::Geometry::sVoxelSignedDistance, float(choice.tolerance), 0.0f, /*protectSurface*/ true,
                                             float(step.arguments.number("band")), *native, "merge.");
    // The node leaves voxels above children, and hanging ones, as they were merged, by rounding or more off those that they follow from.
    makeConsistent(*native);
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

Result runMerge(StepContext& step)
{
    HostVolumes volumes;
    for (Result& input : step.inputs)
        for (io::NamedVolume& volume : input) volumes.push_back(std::move(volume.volume));
    if (volumes.size() == 1) {
        step.services.message(Severity::kWarning, "there is one volume only: it comes out as it is.");
        return {{"merged", volumes[0]}};
    }
    MergeChoice choice = chooseMerge(step, volumes, parametersOf(step.arguments));
    Corvid::Ptr<Ostara::Object> merged = merge(step, volumes, choice);
    if (merged && merged->native() && choice.parameters.enableAdaptivity && choice.bytes) {
        choice.bytes->adaptive = double(io::contentBytes(*merged));
        if (choice.bytes->adaptive > choice.bytes->plain) {  // the estimate was too low
            choosePlain(choice);
            merged = merge(step, volumes, choice);
        }
    }
    if (merged && merged->native()) report(step, choice, merged);
    return {{"merged", std::move(merged)}};
}

NodeInfo mergeNode()
{
    NodeInfo node{.name = "merge", .help = "joins volumes of any voxel size, structure and set of properties into one", .run = runMerge};
    node.inputs = {{.name = "volume", .help = "the volumes, in the order in which they are combined; all volumes of a file", .several = true, .repeated = true}};
    node.parameters = {
        {.name = "mode", .type = ParameterType::kEnum, .help = "how level sets are combined; difference: the first without all others",
         .defaultText = "union", .choices = kLevelSetModes},
        {.name = "fog", .type = ParameterType::kEnum, .help = "how fog densities are combined", .defaultText = "add", .choices = kFogModes},
        {.name = "properties", .type = ParameterType::kEnum,
         .help = "how other properties are combined; automatic: that of the volume whose level set wins, a sum beside fog or without level sets",
         .defaultText = "automatic", .choices = propertyModes()},
        {.name = "alpha", .type = ParameterType::kFloat, .help = "weight of the later volume where values are blended", .defaultText = "0.5"},
        {.name = "interpolation", .type = ParameterType::kEnum, .help = "how volumes are read between their voxels", .defaultText = "linear",
         .choices = {"linear", "quadratic", "cubic", "cubic_c1", "cubic_monotonic"}},
        // In the order of `Adaptivity`.
        {.name = "adaptive", .type = ParameterType::kEnum,
         .help = "yes: voxels are fine only where the combined level set needs it; no: the tiles of all volumes; auto: whichever takes fewer bytes, "
                 "and no wherever a volume has another property than a level set",
         .defaultText = "auto", .choices = {"auto", "yes", "no"}},
        {.name = "tolerance", .type = ParameterType::kLength,
         .help = "how far the level set of an adaptive result may be off; voxels are the finest of the result. 0: a tenth of them, or as far as the "
                 "most exact volume is off itself between its voxels, if that is more",
         .unit = "world units", .defaultText = "0", .range = {.min = 0}},
        {.name = "max_relative_error", .type = ParameterType::kFloat,
         .help = "the tolerance in another unit, if above 0: finest voxels of the result, times the longest side of the smallest object if that is below 1 "
                 "world unit",
         .defaultText = "0", .range = {.min = 0}},
        {.name = "band", .type = ParameterType::kFloat,
         .help = "half width of the band around the surface of an adaptive result that stays as it was refined; beyond it, tiles are coarsened as far as "
                 "the tolerance allows",
         .unit = "voxels of each depth", .defaultText = "3", .range = {.min = 0}},
        {.name = "scale", .type = ParameterType::kFloat,
         .help = "finest voxel of an adaptive result, in finest voxels of the volumes; other than 1, the result is adaptive unless adaptive=no",
         .defaultText = "1", .range = {.min = 0, .aboveMin = true}},
        // In the order of the enumeration's values.
        {.name = "structure", .type = ParameterType::kEnum,
         .help = "how tiles divide; automatic: quinary if all volumes are and the result is not adaptive", .defaultText = "automatic",
         .choices = {"automatic", "binary", "quinary"}},
        {.name = "reverse", .type = ParameterType::kBool, .help = "combine from the last volume to the first", .defaultText = "false"},
    };
    return node;
}

Result runSavings(StepContext& step)
{
    std::vector<Ostara::Object const*> inputs;
    for (std::size_t n = 1; n < step.inputs.size(); ++n)
        for (io::NamedVolume const& volume : step.inputs[n]) inputs.push_back(volume.volume.get());
    const io::Savings savings = io::measureSavings(*step.volume().volume, inputs, io::Combination(step.arguments.choice("mode")));
    step.results << (step.arguments.flag("json") ? nlohmann::ordered_json::parse(io::toJson(savings)).dump() + "\n" : io::toText(savings));
    return {};
}

NodeInfo savingsNode()
{
    NodeInfo node{.name = "savings",
                  .help = "prints memory, voxels and largest error of a merged level set, beside narrow bands of one voxel size",
                  .hasResult = false,
                  .run = runSavings};
    node.inputs = {{.name = "merged", .help = "what merge left"},
                   {.name = "volume", .help = "the volumes that were merged, in their order", .several = true, .repeated = true}};
    node.parameters = {
        {.name = "mode", .type = ParameterType::kEnum, .help = "how the level sets were combined", .defaultText = "union", .choices = kLevelSetModes},
        jsonParameter(),
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> mergeNodes()
{
    return {mergeNode(), savingsNode()};
}

}  // namespace tilegrid::graph
