#include "TilegridOps/nodes/query.h"

#include "graph/files.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/atomic_file.h"
#include "io/check.h"
#include "io/compare.h"
#include "io/formats.h"
#include "io/info.h"
#include "io/mesh_info.h"
#include "io/points.h"
#include "io/sample.h"
#include "io/text.h"
#include "io/slice.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <ostream>

namespace tilegrid::graph {

namespace {

using Json = nlohmann::ordered_json;

/// Prints a report (of io) with the name of its volume, as text or as JSON in one line.
template <class Report> void print(StepContext& step, std::string const& name, Report const& report)
{
    if (step.arguments.flag("json")) {
        Json document = {{"name", name}};
        document.update(Json::parse(io::toJson(report)));
        step.results << document.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
        return;
    }
    if (!name.empty()) step.results << io::printableName(name) << "\n";
    const std::string text = io::toText(report);
    step.results << text << (text.ends_with('\n') ? "" : "\n");
}

Result runInfo(StepContext& step)
{
    for (io::NamedVolume const& volume : step.inputs[0]) {
        if (io::isPointCloud(*volume.volume))
            print(step, volume.name, io::describePoints(*volume.volume));
        else
            print(step, volume.name, io::describeVolume(*volume.volume));
    }
    return {};
}

Result runInfoFile(StepContext& step)
{
    std::string const& file = step.arguments.text("file");
    const std::string name = std::filesystem::path(file).stem().string();
    if (io::holdsPoints(file))
        print(step, name, io::describePoints(*io::readPoints(file, step.maxBytes)));
    else
        print(step, name, io::describeMesh(io::readMesh(file, step.maxBytes, step.services)));
    return {};
}

Result runValidate(StepContext& step)
{
    const auto rule = step.arguments.flag("graded") ? io::GradingRule::kRequired : io::GradingRule::kReported;
    for (io::NamedVolume const& volume : step.inputs[0]) {
        const io::VolumeCheck check = io::checkVolume(*volume.volume, rule);
        print(step, volume.name, check);
        if (!check.good())
            step.services.message(Severity::kError,
                                  (volume.name.empty() ? "the volume" : "'" + volume.name + "'") + " is wrong: " + io::faultsOf(check) + ".");
    }
    return {};
}

Result runSlope(StepContext& step)
{
    for (io::NamedVolume const& volume : step.inputs[0]) {
        requireProperty(volume, Ostara::Geometry::sVoxelSignedDistance.str());
        print(step, volume.name, io::measureSlope(*volume.volume));
    }
    return {};
}

/// The modes of samplers, in the order of `io::SampleMode`.
const std::vector<std::string> kModes = {"linear", "quadratic", "cubic", "cubic_c1", "cubic_monotonic"};
constexpr char kModeHelp[] = "how values between voxels are made";

Result runSample(StepContext& step)
{
    io::NamedVolume const& volume = step.volume();
    std::string const &property = step.arguments.text("property"), &output = step.arguments.text("output");
    requireProperty(volume, property);
    const auto places = io::readPlaces(step.arguments.text("points"), step.maxBytes);
    const auto samples = io::samplePlaces(*volume.volume, property, io::SampleMode(step.arguments.choice("mode")), places);
    const std::string text = io::toCsv(places, property, samples);
    // A cancelled run must not replace a file any more.
    if (Corvid::isJobCancelled()) return {};
    if (output.empty()) {
        step.results << text;
        return {};
    }
    createParentFolders(output);
    io::writeAtomically(output, [&text](std::ostream& file) { file << text; });
    return {};
}

Result runCompare(StepContext& step)
{
    io::CompareOptions options;
    options.property = step.arguments.text("property");
    options.mode = io::SampleMode(step.arguments.choice("mode"));
    io::NamedVolume const &volume = step.volume(0), &reference = step.volume(1);
    requireProperty(volume, options.property);
    requireProperty(reference, options.property);
    if (!step.arguments.has("within")) {
        if (options.property == Ostara::Geometry::sVoxelSignedDistance.str())
            options.within = io::comparableDistance(*volume.volume, *reference.volume, options.property);
    } else if (const Length within = step.arguments.length("within"); within.value > 0) {
        float voxelSize = 1;
        if (within.unit == LengthUnit::kVoxels) Geometry::Volume::get_voxel_size(*reference.volume, voxelSize, step.services);
        options.within = within.value * voxelSize;
    }
    print(step, volume.name, io::compareVolumes(*volume.volume, *reference.volume, options));
    return {};
}

Result runSlice(StepContext& step)
{
    io::SliceOptions options;
    options.axis = step.arguments.choice("axis");
    options.at = step.arguments.number("at");
    options.up = upAxisOf(step.arguments);
    options.legend = step.arguments.flag("legend");
    options.property = step.arguments.text("property");
    options.size = int(step.arguments.integer("size"));
    options.cells = int(step.arguments.integer("cells"));
    // The mode before the samplers' own.
    const int mode = step.arguments.choice("mode");
    options.mode = mode == 0 ? std::nullopt : std::optional(io::SampleMode(mode - 1));
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
    node.inputs = {{.name = "volume", .help = "a volume, or all volumes of a file; a file of a mesh or points without voxel=...: see info_file", .several = true}};
    node.parameters = {jsonParameter()};
    node.forFiles = "info_file";
    return node;
}

NodeInfo infoFileNode()
{
    NodeInfo node{.name = "info_file", .help = "prints what a file of a mesh or of points holds: bounds, counts, area, volume, and whether a mesh is closed",
                  .hasResult = false, .run = runInfoFile};
    std::vector<std::string> endings = io::endingsThat(&io::FileFormat::readsMeshes);
    endings.push_back(".csv");
    node.parameters = {{.name = "file", .type = ParameterType::kInputFile, .help = "the file", .positional = true, .endings = std::move(endings)},
                       jsonParameter()};
    return node;
}

NodeInfo validateNode()
{
    NodeInfo node{.name = "validate",
                  .help = "checks the tree and values that follow from others, says whether it is graded, and measures the slope of a "
                          "level set; ends the run with an error where something is wrong",
                  .hasResult = false, .run = runValidate};
    node.inputs = {{.name = "volume", .help = "a volume, or all volumes of a file", .several = true}};
    node.parameters = {
        {.name = "graded", .type = ParameterType::kBool, .help = "whether tiles that touch and differ by two levels or more are wrong too",
         .defaultText = "false"},
        jsonParameter(),
    };
    return node;
}

NodeInfo slopeNode()
{
    NodeInfo node{.name = "slope",
                  .help = "prints how far the gradient of a level set is from length 1, by depth, and how far the voxels where that is above 5 % "
                          "lie from creases: voxels at the surface where the normal turns by 29 degrees or more",
                  .hasResult = false, .run = runSlope};
    node.inputs = {{.name = "volume", .help = "a level set, or all volumes of a file", .several = true}};
    node.parameters = {jsonParameter()};
    return node;
}

NodeInfo sliceNode()
{
    std::vector<std::string> modes = kModes;
    modes.insert(modes.begin(), "nearest");
    NodeInfo node{.name = "slice", .help = "draws one plane of a property, with the tile borders, as a picture", .hasResult = false, .run = runSlice, .group = "pictures"};
    node.inputs = {{.name = "volume", .help = "a volume with a property of numbers"}};
    node.parameters = {
        {.name = "file", .type = ParameterType::kOutputFile, .help = "the picture", .positional = true, .endings = {".png"}},
        {.name = "axis", .type = ParameterType::kEnum, .help = "the axis that the plane is orthogonal to", .defaultText = "z", .choices = {"x", "y", "z"}},
        {.name = "at", .type = ParameterType::kFloat, .help = "place of the plane between the low (0) and the high (1) side of the content",
         .defaultText = "0.5", .range = {.min = 0, .max = 1}},
        {.name = "property", .help = "the property; none: the signed distance, else the fog density, else the first", .defaultText = ""},
        {.name = "size", .type = ParameterType::kInt, .help = "longer side of the picture", .unit = "pixels", .defaultText = "1024",
         .range = {.min = 1, .max = 16384}},
        {.name = "mode", .type = ParameterType::kEnum, .help = kModeHelp + std::string("; nearest: not at all"), .defaultText = "linear",
         .choices = std::move(modes)},
        {.name = "cells", .type = ParameterType::kInt, .help = "values that a voxel shows along an axis, so that voxels can be told apart; 0: one per pixel",
         .defaultText = "0", .range = {.min = 0, .max = 64}},
        upAxisParameter(),
        legendParameter(),
    };
    return node;
}

NodeInfo sampleNode()
{
    NodeInfo node{.name = "sample", .help = "prints the values of a property at points, as CSV", .hasResult = false, .run = runSample};
    node.inputs = {{.name = "volume", .help = "a volume with a property of numbers"}};
    node.parameters = {
        {.name = "points", .type = ParameterType::kInputFile, .help = "points in world units, three numbers in a row, separated by commas; a row of names may stand above",
         .positional = true, .endings = {".csv"}, .streamed = {".csv"}},
        {.name = "property", .help = "the property", .defaultText = "voxel_signed_distance"},
        {.name = "mode", .type = ParameterType::kEnum, .help = kModeHelp, .defaultText = "linear", .choices = kModes},
        {.name = "output", .type = ParameterType::kOutputFile, .help = "file for the values; none: standard output", .defaultText = "", .endings = {".csv"}, .streamed = {".csv"}},
    };
    return node;
}

NodeInfo compareNode()
{
    NodeInfo node{.name = "compare", .help = "prints how far a volume is from another one, at the leaf voxels of the other",
                  .hasResult = false, .run = runCompare};
    node.inputs = {{.name = "volume", .help = "a volume with a property of one number"},
                   {.name = "reference", .help = "the other one; its voxels may have other sizes"}};
    node.parameters = {
        {.name = "property", .help = "the property", .defaultText = "voxel_signed_distance"},
        {.name = "within", .type = ParameterType::kLength,
         .help = "only where the reference is smaller than this, as near its surface if the property is a distance; 0: everywhere; none: "
                 "for a signed distance in the narrower of both bands, less a voxel, and everywhere for others",
         .unit = "world units, or voxels of the reference as in 2vx", .defaultText = "", .range = {.min = 0}},
        {.name = "mode", .type = ParameterType::kEnum, .help = kModeHelp, .defaultText = "linear", .choices = kModes},
        jsonParameter(),
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> reportNodes()
{
    return {infoNode(), infoFileNode(), validateNode(), slopeNode(), sliceNode(), sampleNode(), compareNode()};
}

}  // namespace tilegrid::graph
