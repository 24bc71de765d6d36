#pragma once
#include "TilegridOps/nodes/types.h"
#include "TilegridOps/sampling/interpolation.h"

/// Nodes that bring values into a volume: from another volume, or from points.
namespace Geometry::Volume {

/// How a point's value falls off over its radius.
enum class SplatKernelType : int { kLinear = 0, kQuadratic = 1 };

/// Carries a property (or all, for an empty name) of `source`, moved by `transform`, into the target's tiles, or into a new volume if
/// the target is none; see `VolumeGL::TileTree3D::resample`. If `source` is no volume, the target comes back as it is without a
/// message. A cancelled job gives an empty object.
/// \param voxel_size, structure  of a new volume; 0 and `kAutomatic` follow the source
/// \param interpolation          values without a name mean linear
TILEGRID_API void resample_volume(Ostara::Object const& source, Corvid::Ptr<Ostara::Object> target, Corvid::String const& property,
                                  Ostara::Math::float4x4 const& transform, float voxel_size, AutoSubdivisionStructure structure,
                                  InterpolationMode interpolation, Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services);

/// Spreads the values of a point cloud into a property of the volume; see `VolumeGL::TileTree3D::splatPoints`. A kernel without a name
/// does nothing. If `points` is no point cloud or `volume` no volume: an error and an empty object, as for a cancelled job.
/// \param option  mean of the values in place of their sum
/// \param a       radius in world units
/// \param b, c    bounds of the radius in finest voxels
/// \param d       factor on the values
/// \param count   depths, from the finest, that points may use
TILEGRID_API void splat_points_into_volume(Corvid::Ptr<Ostara::Object> volume, Ostara::Object const& points, bool option,
                                           Corvid::String const& property, SplatKernelType kernel, float a, float b, float c, float d, int count,
                                           Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
