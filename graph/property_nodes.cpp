#include "TilegridOps/nodes/property.h"

#include "TilegridOps/substrate/element_types.h"
#include "graph/error.h"
#include "graph/node_families.h"
#include "io/error.h"

#include <cmath>

namespace tilegrid::graph {

namespace {

using Corvid::Ptr;
using Ostara::Object;
using namespace Ostara::Math;

Result runScale(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    std::string const& property = step.arguments.text("property");
    requireProperty(volume, property);
    Ptr<Object> output;
    Geometry::Volume::scale_property(std::move(volume.volume), property, float(step.arguments.number("factor")), output, step.services);
    return {{volume.name, std::move(output)}};
}

/// The numbers of a parameter as a T: one for each component, or one for all.
template <class T> T valueOf(StepContext& step, std::string const& parameter)
{
    using Element = ElementTraits<T>;
    std::vector<double> const& numbers = step.arguments.vector(parameter);
    if (numbers.size() != 1 && numbers.size() != std::size_t(Element::components))
        throw UsageError("'" + parameter + "' has " + std::to_string(numbers.size()) + " numbers, but a value of '" +
                         step.arguments.text("property") + "' has " + std::to_string(Element::components) + ". Give as many, or one for all.");
    T value{};
    for (int i = 0; i < Element::components; ++i) {
        const double number = numbers[numbers.size() == 1 ? 0 : std::size_t(i)];
        Element::at(value, i) = static_cast<typename Element::Scalar>(number);
        if (!std::isfinite(Element::at(value, i))) throw UsageError("'" + parameter + "': " + shortest(number) + " is too large for a float.");
    }
    return value;
}

template <class T> Result remapAs(StepContext& step)
{
    io::NamedVolume const& volume = step.volume();
    Ptr<Object> output;
    Geometry::Volume::remap_property(*volume.volume, step.arguments.text("property"), valueOf<T>(step, "new_min"), valueOf<T>(step, "new_max"), output,
                                     step.services);
    return {{volume.name, std::move(output)}};
}

struct RemapType {
    char const* name;
    bool (*matches)(OST::TileTree3D::ChannelBase const&);
    Result (*run)(StepContext&);
};

template <class T> constexpr RemapType remapType()
{
    return {elementTypeName<T>(), [](OST::TileTree3D::ChannelBase const& channel) { return channel.hasElementType(Corvid::Any(T())); }, remapAs<T>};
}

constexpr RemapType kRemapTypes[] = {remapType<float>(),  remapType<double>(),   remapType<double3>(), remapType<float2>(),   remapType<float3>(),
                                     remapType<float3x3>(), remapType<float4>(), remapType<float4x2>(), remapType<float4x4>()};

/// The node has one form for each element type, and leaves a property of another type alone without a word.
Result runRemap(StepContext& step)
{
    std::string const& property = step.arguments.text("property");
    requireProperty(step.volume(), property);
    const auto channel = step.volume().volume->native()->component<OST::TileTree3D::ChannelBase>(property);
    std::string known;
    for (RemapType const& remap : kRemapTypes) {
        if (remap.matches(*channel)) return remap.run(step);
        known += std::string(known.empty() ? "" : ", ") + remap.name;
    }
    throw io::InputError("the values of '" + property + "' are of a type that cannot be remapped. Types that can: " + known + ".");
}

Result runUpdatePosition(StepContext& step)
{
    io::NamedVolume& volume = step.volume();
    const auto offset = static_cast<Geometry::Volume::VoxelOffset>(step.arguments.choice("offset"));
    Ptr<Object> output;
    Geometry::Volume::update_voxel_position(std::move(volume.volume), step.arguments.text("property"), offset, output, step.services);
    return {{volume.name, std::move(output)}};
}

ParameterInfo propertyParameter()
{
    return {.name = "property", .help = "name of the property", .positional = true};
}

NodeInfo scaleNode()
{
    NodeInfo node{.name = "scale_property", .help = "multiplies every value of a property by a factor", .run = runScale};
    node.inputs = {{.name = "geometry", .help = "a volume with the property"}};
    node.parameters = {propertyParameter(), {.name = "factor", .type = ParameterType::kFloat, .help = "the factor", .positional = true}};
    return node;
}

NodeInfo remapNode()
{
    NodeInfo node{.name = "remap_property", .help = "moves the values of a property linearly from their range to a new one", .run = runRemap};
    node.inputs = {{.name = "geometry", .help = "a volume with the property"}};
    node.parameters = {
        propertyParameter(),
        {.name = "new_min", .type = ParameterType::kVector, .help = "what the least value becomes; one number, or one for each component",
         .positional = true},
        {.name = "new_max", .type = ParameterType::kVector, .help = "what the largest value becomes; one number, or one for each component",
         .positional = true},
    };
    return node;
}

NodeInfo positionNode()
{
    NodeInfo node{.name = "update_voxel_position", .help = "stores the world position of every voxel in a property", .run = runUpdatePosition};
    node.inputs = {{.name = "volume", .help = "any volume"}};
    node.parameters = {
        {.name = "property", .help = "name of the property, which is created if it is missing", .defaultText = "voxel_position"},
        // In the order of the enumeration's values.
        {.name = "offset", .type = ParameterType::kEnum, .help = "the place in a voxel whose position is stored", .defaultText = "corner",
         .choices = {"center", "face_x", "face_y", "edge_z", "face_z", "edge_y", "edge_x", "corner"}},
    };
    return node;
}

}  // namespace

std::vector<NodeInfo> propertyNodes()
{
    return {scaleNode(), remapNode(), positionNode()};
}

}  // namespace tilegrid::graph
