#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/string.h"
#include "TilegridOps/substrate/traits.h"

namespace tilegrid {

/// Multiplies a property by `factor`, in its own element type: `factor * value` as a float times that type; integers
/// saturate, and NaN becomes 0 in them. Any element type and layout; only the W voxels per axis of a tile are written, never
/// an extra layer or a halo.
/// \return false if the volume has no property of that name
/// \throws std::runtime_error (OST::exceptionMessage) after the pass if the job was cancelled; the values are then scaled
bool scaleProperty(OST::Object& volume, Corvid::String const& property, float factor, int verboseLevel);

/// Maps the range of a property of type T linearly to [newMin, newMax], component by component, over all stored voxels. The
/// range is that of the voxels, opened by the channel's default value d at its lower and by -d at its upper end. If no
/// component of the range is above 0, every voxel becomes `newMin`; a component whose own range is 0 beside one that is not
/// divides by 0. A volume without a property of exactly this type and the plain layout is left alone.
/// \throws as above; the values may then be mapped in part
template <class T> void remapProperty(OST::Object& volume, Corvid::String const& property, T const& newMin, T const& newMax);

/// Writes the world position of every voxel of every depth into a float3 property, which is created if it is absent:
/// ((ijk + offset) * voxelDataWidth + tijk) * voxelSize in single precision.
/// \return false if the volume has no tree or no topology
bool writeVoxelPositions(OST::Object& volume, Corvid::String const& property, OST::TileTree3D::VoxelOffsetType offset);

}  // namespace tilegrid
