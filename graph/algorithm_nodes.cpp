#include "TilegridOps/algorithms/splat.h"
#include "TilegridOps/nodes/analysis.h"
#include "TilegridOps/nodes/transfer.h"
#include "TilegridOps/substrate/channel_core.h"
#include "graph/error.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/error.h"
#include "io/points.h"
#include "io/text.h"

#include <algorithm>

namespace tilegrid::graph {

namespace {

using Corvid::Ptr;
using Ostara::Object;
using namespace Ostara::Math;

template <class T> bool holds(OST::TileTree3D::ChannelBase const& channel) { return channel.hasElementType(Corvid::Any(T())); }

/// What each mode takes, in the order of the modes; the node itself leaves other properties alone without a word.
struct ModeTypes {
    char const* types;
    bool (*takes)(OST::TileTree3D::ChannelBase const&);
};
template <class... Ts> constexpr ModeTypes modeTypes(char const* names)
{
    return {names, [](OST::TileTree3D::ChannelBase const& channel) { return (holds<Ts>(channel) || ...); }};
}
constexpr ModeTypes kScalars = modeTypes<float, double>("float, double");
constexpr ModeTypes kVectors = modeTypes<float3, double3>("float3, double3");
constexpr ModeTypes kAny = modeTypes<float, float2, float3, float4, double, double3>("float, float2, float3, float4, double, double3");
/// In the order of the enumeration's values.
const std::vector<std::string> kModeNames = {"gradient", "mean_curvature", "laplacian", "closest_point", "divergence", "curl", "magnitude", "normalize"};
constexpr ModeTypes kModes[] = {modeTypes<float, double, float3>("float, double, float3"), kScalars, kAny, kScalars, kVectors, kVectors, kAny, kAny};

Result runAnalyze(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    std::string const& property = step.arguments.text("property");
    const int mode = step.arguments.choice("mode");
    requireProperty(volume, property);
    ModeTypes const& taken = kModes[mode];
    // The node itself would take an empty name for that of the property, and write over it.
    std::string outputName = step.arguments.text("output_property");
    if (outputName.empty() && step.arguments.choice("output_mode") == 0) outputName = property + "_" + kModeNames[std::size_t(mode)];
    if (!taken.takes(*volume.volume->native()->component<OST::TileTree3D::ChannelBase>(property)))
        throw io::InputError("the values of '" + property + "' are of a type that this mode does not take. Types that it takes: " + taken.types + ".");
    Ptr<Object> output;
    Geometry::Volume::analyze_volume(std::move(volume.volume), property, Geometry::Volume::AnalyzeMode(mode), outputName,
                                     Geometry::Volume::AnalyzeOutputMode(step.arguments.choice("output_mode")), output, step.services);
    return {{volume.name, std::move(output)}};
}

/// 16 numbers row by row, or the first three of each row; none is the identity.
float4x4 matrixOf(StepContext& step)
{
    std::vector<double> const& numbers = step.arguments.vector("transform");
    if (!numbers.empty() && numbers.size() != 12 && numbers.size() != 16)
        throw UsageError("'transform' has " + std::to_string(numbers.size()) + " numbers: give four rows of three or four.");
    float4x4 matrix;
    for (int n = 0; n < 4; ++n) matrix(n, n) = 1;
    const int columns = int(numbers.size()) / 4;
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < columns; ++column) matrix(row, column) = float(numbers[std::size_t(row * columns + column)]);
    return matrix;
}

Result resampled(StepContext& step, Ptr<Object> target, float voxelSize, int structure, std::string const& name)
{
    std::string const& property = step.arguments.text("property");
    if (!property.empty()) requireProperty(step.volume(), property);
    Ptr<Object> output;
    Geometry::Volume::resample_volume(*step.volume().volume, std::move(target), property, matrixOf(step), voxelSize,
                                      Geometry::Volume::AutoSubdivisionStructure(structure),
                                      Geometry::Volume::InterpolationMode(step.arguments.choice("interpolation")), output, step.services);
    return {{name, std::move(output)}};
}
Result runResample(StepContext& step)
{
    return resampled(step, nullptr, step.worldLength("voxel_size"), step.arguments.choice("structure"), step.volume().name);
}
Result runResampleInto(StepContext& step)
{
    io::NamedVolume& target = step.volume(1);
    return resampled(step, std::move(target.volume), 0, 0, target.name);
}

Result runSplat(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    Object const& points = *step.volume(1).volume;
    if (!io::isPointCloud(points)) throw io::InputError("'points' is no point cloud. Read one from a .csv, .ply or .vdb file.");
    std::string const& property = step.arguments.text("property");
    const float radius = step.worldLength("radius"), least = float(step.arguments.number("min_voxels")), most = float(step.arguments.number("max_voxels"));
    const int depths = int(step.arguments.integer("depths"));
    if (volume.volume->native()) {
        // A float for each voxel, in the sums and in the property.
        const double bytes = 8 * VolumeGL::TileTree3D::splatWork(radius, least, most, depths, points, *volume.volume->native());
        if (step.maxBytes > 0 && bytes > double(step.maxBytes))
            throw io::InputError("the points touch voxels of " + io::byteText(bytes) + ", and the limit is " + io::byteText(double(step.maxBytes)) +
                                 ". Choose a smaller radius, larger voxels or more depths, or give more memory (--max-memory).");
        const auto channel = volume.volume->native()->component<OST::TileTree3D::ChannelBase>(property);
        const bool vectors = points.get<Corvid::Array<float3>>(property) != nullptr;
        if (channel && !(vectors ? holds<float3>(*channel) : holds<float>(*channel)))
            throw io::InputError("the volume has a property '" + property + "' of another type. Choose another name.");
    }
    Ptr<Object> output;
    Geometry::Volume::splat_points_into_volume(std::move(volume.volume), points, step.arguments.flag("normalize"), property,
                                               Geometry::Volume::SplatKernelType(step.arguments.choice("kernel")), radius, least, most,
                                               float(step.arguments.number("scale")), depths, output, step.services);
    return {{volume.name, std::move(output)}};
}

NodeInfo analyzeNode()
{
    NodeInfo node{.name = "analyze_volume", .help = "makes a gradient, curvature or the like of a property", .run = runAnalyze, .group = "properties"};
    node.inputs = {{.name = "volume", .help = "a volume with the property"}};
    node.parameters = {
        {.name = "property", .help = "name of the property", .positional = true},
        {.name = "mode", .type = ParameterType::kEnum, .help = "what is made of it", .positional = true,
         .choices = kModeNames},
        {.name = "output_property", .help = "name of the result; none: that of the property and the mode, as in voxel_signed_distance_gradient", .defaultText = ""},
        {.name = "output_mode", .type = ParameterType::kEnum, .help = "a property of its own, or in place of the one it is made of",
         .defaultText = "property", .choices = {"property", "replace"}},
    };
    return node;
}

/// Parameters that both forms of resampling have.
std::vector<ParameterInfo> resampleParameters()
{
    return {
        {.name = "property", .help = "name of the property; none: all of real types", .defaultText = ""},
        {.name = "transform", .type = ParameterType::kVector,
         .help = "where source points go: four rows of a matrix for row vectors, three or four numbers each; the last is the shift", .defaultText = ""},
        {.name = "interpolation", .type = ParameterType::kEnum, .help = "how values between voxels are made", .defaultText = "linear",
         .choices = {"linear", "quadratic", "cubic", "cubic_c1", "cubic_monotonic"}},
    };
}
NodeInfo resampleNode()
{
    NodeInfo node{.name = "resample_volume", .help = "makes a moved, turned or scaled copy of a volume", .run = runResample};
    node.inputs = {{.name = "source", .help = "any volume"}};
    node.parameters = resampleParameters();
    node.parameters.push_back({.name = "voxel_size", .type = ParameterType::kLength, .help = "size of a finest voxel; 0: that of the source, scaled",
                               .unit = "world units, or voxels of the source as in 2vx", .defaultText = "0", .range = {.min = 0}});
    node.parameters.push_back({.name = "structure", .type = ParameterType::kEnum, .help = "how tiles divide", .defaultText = "automatic",
                               .choices = {"automatic", "binary", "quinary"}});
    return node;
}
NodeInfo resampleIntoNode()
{
    NodeInfo node{.name = "resample_into_volume", .help = "carries properties of a volume into the voxels of another one", .run = runResampleInto};
    node.inputs = {{.name = "source", .help = "where values come from"}, {.name = "target", .help = "keeps its tiles and other properties"}};
    node.parameters = resampleParameters();
    return node;
}

NodeInfo splatNode()
{
    NodeInfo node{.name = "splat_points_into_volume", .help = "spreads values of points over the voxels around them", .run = runSplat, .group = "points"};
    node.inputs = {{.name = "volume", .help = "any volume, also an empty one"}, {.name = "points", .help = "a point cloud"}};
    node.parameters = {
        {.name = "property", .help = "name of the points' values and of the volume's property; without such values each point counts 1", .positional = true},
        {.name = "radius", .type = ParameterType::kLength, .help = "how far a point reaches; times its own radius, if it has one",
         .unit = "world units, or voxels as in 1.5vx", .defaultText = "1.5vx", .range = {.min = 0}},
        {.name = "kernel", .type = ParameterType::kEnum, .help = "how values fall off", .defaultText = "quadratic", .choices = {"linear", "quadratic"}},
        {.name = "normalize", .type = ParameterType::kBool, .help = "the mean of the values in place of their sum", .defaultText = "false"},
        {.name = "min_voxels", .type = ParameterType::kFloat, .help = "least radius in finest voxels", .defaultText = "1", .range = {.min = 0}},
        {.name = "max_voxels", .type = ParameterType::kFloat, .help = "largest radius in finest voxels; 0: no bound", .defaultText = "0", .range = {.min = 0}},
        {.name = "scale", .type = ParameterType::kFloat, .help = "factor on the values", .defaultText = "1"},
        {.name = "depths", .type = ParameterType::kInt, .help = "depths, from the finest, that points may use", .defaultText = "1",
         .range = {.min = 1, .max = 29}},
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> algorithmNodes()
{
    return {analyzeNode(), resampleNode(), resampleIntoNode(), splatNode()};
}

}  // namespace tilegrid::graph
