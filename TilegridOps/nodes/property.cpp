#include "TilegridOps/nodes/property.h"

#include "TilegridOps/algorithms/properties.h"
#include "TilegridOps/nodes/frame.h"

namespace Geometry::Volume {

namespace {

using namespace tilegrid::nodes;
using CoreGL::CorvidLogger;

constexpr auto kNeverHandsThrough = [](CorvidLogger const&) { return false; };

/// This node sees its volume by const reference, so it works on a copy that shares every channel but the one it maps.
template <class T>
void remap(Ostara::Object const& geometry, Corvid::String const& property, T const& newMin, T const& newMax,
           Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("remap_property");
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            output = Ostara::createObject();
            return;
        }
        const CorvidLogger logger(services);
        if (!checkType(row, geometry, logger)) return;
        auto shared = Ostara::Geometry::shallow_copy_object_to_ost_volume(geometry);
        auto native = Corvid::toMutable(shared);
        if (!native) return;
        tilegrid::remapProperty(*native, property, newMin, newMax);
        checkVolume(*native, row.name);
        output = Ostara::Geometry::move_ost_volume_to_object(*native);
    };
    guarded(row, services, work, [&] { output = Ostara::createObject(); });
}

}  // namespace

void scale_property(Corvid::Ptr<Ostara::Object> geometry, Corvid::String const& property, float factor, Corvid::Ptr<Ostara::Object>& output,
                    Corvid::RuntimeServices const& services)
{
    // A factor within one epsilon of 1 must not even move the volume: the input comes back as it is.
    modifyVolume(
        nodeSpec("scale_property"), std::move(geometry), output, services,
        [factor](CorvidLogger const&) { return countsAsZero(factor - 1.0f); },
        [&](std::ostream& out) { out << "property = " << property << "\nfactor = " << factor << std::endl; },
        [&](OST::Object& volume, CorvidLogger const&) {
            tilegrid::scaleProperty(volume, property, factor, CoreGL::Logger::verboseLevel());
        });
}

#define TILEGRID_REMAP_PROPERTY(T)                                                                                               \
    void remap_property(Ostara::Object const& geometry, Corvid::String const& property, T const& new_min, T const& new_max,      \
                        Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)                            \
    {                                                                                                                            \
        remap(geometry, property, new_min, new_max, output, services);                                                           \
    }
TILEGRID_REMAP_PROPERTY(float)
TILEGRID_REMAP_PROPERTY(double)
TILEGRID_REMAP_PROPERTY(Ostara::Math::double3)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float2)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float3)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float3x3)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4x2)
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4x4)
#undef TILEGRID_REMAP_PROPERTY

void update_voxel_position(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, VoxelOffset offset,
                           Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)
{
    modifyVolume(
        nodeSpec("update_voxel_position"), std::move(volume), output, services, kNeverHandsThrough,
        [&](std::ostream& out) { out << "property = " << property << "\noffset = " << int(offset) << std::endl; },
        [&](OST::Object& native, CorvidLogger const& logger) {
            if (!tilegrid::writeVoxelPositions(native, property, offset)) logger.error("Unable to retrieve container or voxelTopology.");
        });
}

void update_voxel_position(Corvid::Ptr<Ostara::Object> volume, VoxelOffset offset, Corvid::Ptr<Ostara::Object>& output,
                           Corvid::RuntimeServices const& services)
{
    update_voxel_position(std::move(volume), Ostara::Geometry::sVoxelPosition, offset, output, services);
}

}  // namespace Geometry::Volume
