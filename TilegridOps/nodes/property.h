#pragma once
#include "TilegridOps/nodes/types.h"

/// Nodes that rewrite one voxel property by a formula. None changes tiles. A cancelled job gives an empty object.
namespace Geometry::Volume {

/// Multiplies a property of any element type and layout by `factor`. Within 1.1920929e-7 of 1 the volume is handed through;
/// a property that the volume lacks is no error. Not a volume: the input on the output and an error.
TILEGRID_API void scale_property(Corvid::Ptr<Ostara::Object> geometry, Corvid::String const& property, float factor,
                                 Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services);

/// Maps the range of a property linearly to [new_min, new_max], component by component. The range always takes in the
/// property's default value d below and -d above. The property's element type must be that of the overload, else the volume comes out
/// unchanged. Not a volume: an error, and `output` is left alone.
#define TILEGRID_REMAP_PROPERTY(T)                                                                                        \
    TILEGRID_API void remap_property(Ostara::Object const& geometry, Corvid::String const& property, T const& new_min,    \
                                     T const& new_max, Corvid::Ptr<Ostara::Object>& output,                               \
                                     Corvid::RuntimeServices const& services)
TILEGRID_REMAP_PROPERTY(float);
TILEGRID_REMAP_PROPERTY(double);
TILEGRID_REMAP_PROPERTY(Ostara::Math::double3);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float2);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float3);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float3x3);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4x2);
TILEGRID_REMAP_PROPERTY(Ostara::Math::float4x4);
#undef TILEGRID_REMAP_PROPERTY

/// Writes every voxel's world position into the float3 property, which is created if it is absent. `offset` alone says
/// where in its cell the position lies, whatever the volume's own offset is.
TILEGRID_API void update_voxel_position(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, VoxelOffset offset,
                                        Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services);
/// The same into `voxel_position`.
TILEGRID_API void update_voxel_position(Corvid::Ptr<Ostara::Object> volume, VoxelOffset offset, Corvid::Ptr<Ostara::Object>& output,
                                        Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
