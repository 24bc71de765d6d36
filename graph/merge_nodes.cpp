#include "TilegridOps/nodes/merge.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/merge/estimate.h"
#include "graph/node_families.h"
#include "io/error.h"
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
    parameters.enableAdaptivity = arguments.flag("adaptive");
    parameters.adaptiveVoxelScale = float(arguments.number("scale"));
    parameters.maxRelativeError = float(arguments.number("tolerance"));
    if (const int structure = arguments.choice("structure")) parameters.binary = structure == 1;
    return parameters;
}

/// What the node will decide, so that it can be refused and told. The node itself decides again, in the same way.
MergeDecisions decide(StepContext const& step, Corvid::Array<Corvid::Ptr<Ostara::Object>> const& volumes, MergeParameters const& parameters)
{
    NativeVolumes natives;
    for (auto const& volume : volumes)
        if (auto native = Ostara::Geometry::shallow_copy_object_to_ost_volume(*volume)) natives.push_back(native);
    natives = workingVolumes(natives, step.arguments.flag("reverse"), step.services);
    const MergeDecisions decisions = decideMerge(natives, parameters);
    const double bytes = estimateMergeBytes(natives, decisions);
    if (step.maxBytes > 0 && bytes > double(step.maxBytes))
        throw io::InputError("the result may need " + io::byteText(bytes) + ", more than the " + io::byteText(double(step.maxBytes)) +
                             " allowed. Give larger voxels (scale=), or more memory (--max-memory).");
    return decisions;
}

/// Tells what was decided, and keeps the tolerance with the volume for `info`.
void report(StepContext& step, MergeDecisions const& decisions, Corvid::Ptr<Ostara::Object>& merged)
{
    const io::VolumeInfo info = io::describeTiles(*merged);
    const auto sum = [](std::vector<std::int64_t> const& counts) { return std::accumulate(counts.begin(), counts.end(), std::int64_t(0)); };
    std::string text = "merged " + info.structure + ", voxel size " + io::number(info.voxelSize) + ", " + std::to_string(sum(info.tilesByDepth)) +
                       " tiles, " + std::to_string(sum(info.leafVoxelsByDepth)) + " leaf voxels";
    if (decisions.adaptive) {
        auto object = Corvid::toMutable(merged);
        object->set(io::kRefinementError, decisions.maxError);
        merged = std::move(object);
        text += ", refined until the level set is within " + io::number(decisions.maxError) + " world units";
        if (decisions.forcedAdaptivity) text += " (an input was refined to a tolerance of " + io::number(decisions.maxRelativeError) + ")";
    }
    step.services.message(Severity::kInfo, text + ".");
}

Result runMerge(StepContext& step)
{
    Corvid::Array<Corvid::Ptr<Ostara::Object>> volumes;
    for (Result& input : step.inputs)
        for (io::NamedVolume& volume : input) volumes.push_back(std::move(volume.volume));
    const MergeParameters parameters = parametersOf(step.arguments);
    const MergeDecisions decisions = volumes.size() > 1 ? decide(step, volumes, parameters) : MergeDecisions();
    if (volumes.size() == 1) step.services.message(Severity::kWarning, "there is one volume only: it comes out as it is.");

    Corvid::Ptr<Ostara::Object> output;
    merge_volumes_internal(volumes, /*enable*/ true, step.arguments.flag("reverse"), parameters.modes.levelSet, parameters.modes.fogDensity,
                           parameters.modes.alpha, parameters.modes.properties, InterpolationMode(step.arguments.choice("interpolation")),
                           parameters.enableAdaptivity, parameters.adaptiveVoxelScale, parameters.maxRelativeError,
                           AutoSubdivisionStructure(step.arguments.choice("structure")), output, step.services);
    if (volumes.size() > 1 && output && output->native()) report(step, decisions, output);
    return {{"merged", std::move(output)}};
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
        {.name = "adaptive", .type = ParameterType::kBool,
         .help = "make voxels fine only where the combined level set needs it, in place of the tiles of all volumes", .defaultText = "false"},
        {.name = "tolerance", .type = ParameterType::kFloat,
         .help = "how far the level set may be off if adaptive: in finest voxels, times the longest side of the smallest object if that is below 1",
         .defaultText = "0.01", .range = {.min = 0}},
        {.name = "scale", .type = ParameterType::kFloat, .help = "finest voxel of an adaptive result, in finest voxels of the volumes",
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
                  .help = "prints voxels, memory and largest error of a merged level set, beside grids of one voxel size",
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
