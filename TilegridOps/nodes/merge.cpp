#include "TilegridOps/nodes/merge.h"

#include "TilegridOps/nodes/frame.h"
#include "TilegridOps/nodes/merge_host_volumes.h"

#include <iostream>

namespace tilegrid::nodes {

namespace {

using Corvid::Ptr;
using HostVolumes = Corvid::Array<Ptr<Ostara::Object>>;

bool allVolumes(HostVolumes const& volumes)
{
    for (auto const& volume : volumes)
        if (!volume || !Ostara::Object::isA(*volume, *Ostara::Geometry::getVolumePrototype())) return false;
    return true;
}

/// A volume that has lost its native part counts as one without tiles.
NativeVolumes nativeVolumes(HostVolumes const& volumes)
{
    NativeVolumes natives;
    for (auto const& volume : volumes) {
        auto native = Ostara::Geometry::shallow_copy_object_to_ost_volume(*volume);
        natives.push_back(native ? native : Ptr<OST::Object>(Corvid::makeMutable<OST::Object>()));
    }
    return natives;
}

Ptr<Ostara::Object> merged(HostVolumes const& volumes, bool invertOrder, MergeParameters const& parameters,
                           Corvid::RuntimeServices const& services)
{
    const auto working = workingVolumes(nativeVolumes(volumes), invertOrder, services);
    const auto decisions = decideMerge(working, parameters);
    auto native = mergeVolumes(working, parameters, decisions, services);
    checkVolume(*native, nodeSpec("merge_volumes_internal").name);
    auto object = Ostara::Geometry::move_ost_volume_to_object(*native);
    Ostara::GeometryAlgorithms::copyNonGeoProperties(volumes, *object);
    return object;
}

}  // namespace

void mergeHostVolumes(HostVolumes const& volumes, bool invertOrder, MergeParameters const& parameters, Ptr<Ostara::Object>& output,
                      Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("merge_volumes_internal");
    const auto work = [&] {
        if (Corvid::isJobCancelled() || volumes.empty()) {
            output = Ostara::createObject();
            return;
        }
        if (!allVolumes(volumes)) {
            services.logError(row.typeError);
            output = Ostara::createObject();
            return;
        }
        if (CoreGL::Logger::verboseLevel() > 1) std::cout << "numVolumes = " << volumes.size() << std::endl;
        output = volumes.size() == 1 ? volumes[0] : merged(volumes, invertOrder, parameters, services);
    };
    guarded(row, services, work, [&] { output = Ostara::createObject(); });
}

}  // namespace tilegrid::nodes

namespace Geometry::Volume {

namespace {

std::optional<bool> forcedStructure(AutoSubdivisionStructure structure)
{
    if (structure == AutoSubdivisionStructure::kBinary) return true;
    if (structure == AutoSubdivisionStructure::kQuinary) return false;
    return {};
}

}  // namespace

void merge_volumes_internal(Corvid::Array<Corvid::Ptr<Ostara::Object>> const& volumes, bool enable, bool invert_order, LevelSetMode level_set_mode,
                            FogDensityMode fog_density_mode, float alpha, Properties::Mode properties_mode,
                            InterpolationMode interpolation_type, bool enable_adaptivity, float adaptive_voxel_scale,
                            float max_relative_error, AutoSubdivisionStructure auto_subdivision_structure, Corvid::Ptr<Ostara::Object>& output,
                            Corvid::RuntimeServices const& services)
{
    constexpr tilegrid::nodes::NodeSpec const& row = tilegrid::nodes::nodeSpec("merge_volumes_internal");
    const int verbose = CoreGL::Logger::verboseLevel();
    const auto timer = CoreGL::Logger::timer(Corvid::String(row.timer), &services);
    const tilegrid::MergeParameters parameters{
        {level_set_mode, fog_density_mode, alpha, properties_mode, OST::TileTree3D::interpolationMode(interpolation_type)},
        enable_adaptivity, adaptive_voxel_scale, max_relative_error, forcedStructure(auto_subdivision_structure), {}};
    if (verbose > 1)
        std::cout << "merge_volumes_internal.input_parameters: \n enable = " << enable << "\n invert_order = " << invert_order
                  << "\n level_set_mode = " << int(level_set_mode) << "\n fog_density_mode = " << int(fog_density_mode)
                  << "\n alpha = " << alpha << "\n properties_mode = " << int(properties_mode) << "\n interpolation_type = "
                  << int(interpolation_type) << "\n enable_adaptivity = " << enable_adaptivity << "\n adaptive_voxel_scale = "
                  << adaptive_voxel_scale << "\n max_relative_error = " << max_relative_error << std::endl;
    const Corvid::Array<Corvid::Ptr<Ostara::Object>> none;
    tilegrid::nodes::mergeHostVolumes(enable ? volumes : none, invert_order, parameters, output, services);
}

}  // namespace Geometry::Volume
