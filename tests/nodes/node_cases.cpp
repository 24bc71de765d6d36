#include "node_cases.h"

#include "TilegridOps/nodes/analysis.h"
#include "TilegridOps/nodes/grading.h"
#include "TilegridOps/nodes/level_set.h"
#include "TilegridOps/nodes/merge.h"
#include "TilegridOps/nodes/property.h"
#include "TilegridOps/nodes/query.h"
#include "TilegridOps/nodes/transfer.h"

namespace tilegrid::test {

using namespace Geometry::Volume;
using namespace Ostara::Math;
using Services = Corvid::RuntimeServices;

template <class Tr> HostPtr sampleVolume()
{
    auto volume = nativeVolume<Tr>(
        [](Tree<Tr>& tree) {
            tree.tileAccessor().addTiles({-9, -9, -9}, {9, 9, 9}, Tr::maxDepth);
        },
        0.5f);
    const auto add = [&volume]<class T>(char const* name) {
        using C = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;
        addChannel<C>(*volume, name, T(),
                      [](TileKey const& key, int e) { return T(static_cast<float>((key.low[0] * 7 + e) % 13)); });
    };
    add.template operator()<float>("float");
    add.template operator()<double>("double");
    add.template operator()<double3>("double3");
    add.template operator()<float2>("float2");
    add.template operator()<float3>("float3");
    add.template operator()<float3x3>("float3x3");
    add.template operator()<float4>("float4");
    add.template operator()<float4x2>("float4x2");
    add.template operator()<float4x4>("float4x4");
    volume->attributes()["author"] = Corvid::Any(17);
    return hostVolume(std::move(volume));
}

template HostPtr sampleVolume<BinaryTraits>();
template HostPtr sampleVolume<QuinaryTraits>();

namespace {

template <class T> VolumeNode remapNode(char const* property)
{
    return {"remap_property",
            [property](HostPtr input, HostPtr& output, Services const& services) {
                remap_property(*input, property, T(1.0f), T(3.0f), output, services);
            },
            "Input 'geometry' is not a volume.",
            OnWrongType::kLeavesOutput,
            Ostara::createObject(),
            ""};
}

std::string tileInfoText(Host const& volume, Services const& services)
{
    // Outputs that are shared and not empty before the call.
    Corvid::Ptr<Corvid::Array<int>> depths = Corvid::makeMutable<Corvid::Array<int>>(std::size_t(3), 5),
                                    widths = depths;
    Corvid::Ptr<Corvid::Array<int3>> positions = Corvid::makeMutable<Corvid::Array<int3>>(std::size_t(2));
    Corvid::Ptr<Corvid::Array<bool>> leaves = Corvid::makeMutable<Corvid::Array<bool>>(std::size_t(4), true);
    auto structure = SubdivisionStructure(9);
    int maxDepth = -1, width = -1;
    int3 low(7, 7, 7), high(8, 8, 8);
    get_volume_tile_info(volume, depths, positions, widths, leaves, structure, maxDepth, width, low, high, services);
    std::ostringstream out;
    out << (depths && positions && widths && leaves) << ' ' << depths->size() << ' ' << positions->size() << ' '
        << widths->size() << ' ' << leaves->size() << ' ' << int(structure) << ' ' << maxDepth << ' ' << width << ' '
        << low << ' ' << high;
    return out.str();
}

}  // namespace

std::vector<VolumeNode> volumeNodes()
{
    const HostPtr plain = Ostara::createObject();
    auto points = Corvid::makeMutable<Host>(Ostara::Geometry::getPointCloudPrototype());
    points->set(Ostara::Geometry::sPointPosition, Corvid::Array<float3>{{0.2f, 0.3f, 0.4f}, {2.0f, 1.0f, 1.5f}});
    const HostPtr cloud = std::move(points);
    std::vector<VolumeNode> nodes{
        {"scale_property",
         [](HostPtr input, HostPtr& output, Services const& services) {
             scale_property(std::move(input), "float", 2.0f, output, services);
         },
         "Input 'geometry' is not a volume.", OnWrongType::kHandsThrough, plain, ""},
        {"update_voxel_position",
         [](HostPtr input, HostPtr& output, Services const& services) {
             update_voxel_position(std::move(input), "float3", OST::TileTree3D::kCenter, output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kHandsThrough, plain, ""},
        {"update_voxel_position",
         [](HostPtr input, HostPtr& output, Services const& services) {
             update_voxel_position(std::move(input), OST::TileTree3D::kCorner, output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kHandsThrough, plain, ""},
        {"analyze_volume",
         [](HostPtr input, HostPtr& output, Services const& services) {
             analyze_volume(std::move(input), "float", AnalyzeMode::kMeanCurvature, "result", AnalyzeOutputMode::kOutputProperty, output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kHandsThrough, plain, "Volume::analyze_volume"},
        {"splat_points_into_volume",
         [cloud](HostPtr input, HostPtr& output, Services const& services) {
             splat_points_into_volume(std::move(input), *cloud, true, "splat", SplatKernelType::kQuadratic, 0.8f, 0, 0, 1, 1, output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kGivesEmpty, plain, "Geometry::Volume::splat_points_into_volume"},
        {"rebuild_level_set",
         [](HostPtr input, HostPtr& output, Services const& services) {
             rebuild_level_set(std::move(input), "float", output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kHandsThrough, plain, "Geometry::Volume::rebuild_level_set"},
        {"grade_volume",
         [](HostPtr input, HostPtr& output, Services const& services) {
             output = std::move(input);
             grade_volume(output, services);
         },
         "Input 'volume' is not a volume.", OnWrongType::kLeavesReference, plain, ""},
        {"merge_volumes_internal",
         [](HostPtr input, HostPtr& output, Services const& services) {
             const Corvid::Array<HostPtr> volumes{input, input};
             input = nullptr;
             merge_volumes_internal(volumes, true, false, LevelSetMode::kUnion, FogDensityMode::kAdd, 0.5f,
                                    Properties::Mode::kAutomatic, Geometry::Volume::InterpolationMode::kLinear, false, 1.0f,
                                    0.01f, AutoSubdivisionStructure::kAutomatic, output, services);
         },
         "Input 'volumes' contains an object that is not a volume.", OnWrongType::kGivesEmpty, plain,
         "Geometry::Volume::merge_volumes",
         {"Geometry::Volume::merge_volumes.create_output_channels", "Geometry::Volume::merge_volumes.refine_uniformly",
          "Geometry::Volume::merge_volumes.merge_properties"}}};
    nodes.push_back(remapNode<float>("float"));
    nodes.push_back(remapNode<double>("double"));
    nodes.push_back(remapNode<double3>("double3"));
    nodes.push_back(remapNode<float2>("float2"));
    nodes.push_back(remapNode<float3>("float3"));
    nodes.push_back(remapNode<float3x3>("float3x3"));
    nodes.push_back(remapNode<float4>("float4"));
    nodes.push_back(remapNode<float4x2>("float4x2"));
    nodes.push_back(remapNode<float4x4>("float4x4"));
    return nodes;
}

std::vector<QueryNode> queryNodes()
{
    const auto text = [](auto const&... values) {
        std::ostringstream out;
        ((out << values << ' '), ...);
        return out.str();
    };
    return {{"get_voxel_size",
             [text](Host const& volume, Services const& services) {
                 float size = -9;
                 get_voxel_size(volume, size, services);
                 return text(size);
             },
             "1 ",
             {}},
            {"get_voxel_count",
             [text](Host const& volume, Services const& services) {
                 OST::int64 count = -9;
                 get_voxel_count(volume, count, services);
                 return text(count);
             },
             "0 ",
             {}},
            {"volume_bounds",
             [text](Host const& volume, Services const& services) {
                 float3 low(-9, -9, -9), high(9, 9, 9);
                 volume_bounds(volume, low, high, services);
                 return text(low, high);
             },
             "(0, 0, 0) (0, 0, 0) ",
             {}},
            {"get_volume_tile_info",
             tileInfoText,
             "1 0 0 0 0 0 28 4 (536870911, 536870911, 536870911) (8, 8, 8)",
             {{Severity::kError, "Input 'volume' is not a volume."}}}};
}

}  // namespace tilegrid::test
