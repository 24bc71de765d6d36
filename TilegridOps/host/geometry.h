#pragma once
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/host/ptr.h"

namespace Ostara::Geometry {

/// Prototypes: a level set is a volume, a point cloud is not.
TILEGRID_API Corvid::Ptr<Object> getVolumePrototype();
TILEGRID_API Corvid::Ptr<Object> getLevelSetPrototype();
TILEGRID_API Corvid::Ptr<Object> getPointCloudPrototype();

/// Takes the native volume out of the object, with all entries that are not geometry; shared components stay shared. Null if
/// the object holds none.
TILEGRID_API Corvid::MutablePtr<OST::Object> move_object_to_ost_volume(Object& object);
/// A read-only view of the native volume. Null if the object holds none.
TILEGRID_API Corvid::Ptr<OST::Object> shallow_copy_object_to_ost_volume(Object const& object);
/// A new host object around the content of `native`, which is left empty. It is a level set if it has a property
/// `sVoxelSignedDistance`, else a volume.
TILEGRID_API Corvid::MutablePtr<Object> move_ost_volume_to_object(OST::Object& native);

}  // namespace Ostara::Geometry

namespace Ostara::GeometryAlgorithms {

/// Copies to `target` every entry of the sources that is not geometry and that the target lacks; the first source that has
/// it wins. Null sources are skipped.
TILEGRID_API void copyNonGeoProperties(Corvid::Array<Corvid::Ptr<Object>> const& sources, Object& target);

/// World box of what the volume shows, not of its tiles. The first of these that applies: with a float
/// `sVoxelSignedDistance`, the negative voxels and the zero crossings on their edges; with `sVoxelFogDensity`, the leaf
/// cells whose value is not the default; else the tiles of the deepest depth in use. All zeros if there is nothing.
TILEGRID_API void getVolumeBounds(Object const& object, Math::bbox<Math::float3, float>& box);

}  // namespace Ostara::GeometryAlgorithms
