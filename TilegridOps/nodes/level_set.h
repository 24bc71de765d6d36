#pragma once
#include "TilegridOps/nodes/types.h"

/// Nodes that keep level sets true, and the scale of volumes.
namespace Geometry::Volume {

/// Makes a float property the signed distance to its zero crossing again, at every voxel, and leaves the crossing where it is.
/// A volume without the property comes out as it was, with an error; not a volume: the input on the output and an error; a
/// cancelled job gives an empty object.
TILEGRID_API void rebuild_level_set(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, Corvid::Ptr<Ostara::Object>& out,
                                    Corvid::RuntimeServices const& services);

/// Removes tiles of a volume whose values of a property the next coarser depth can give, from the finest depth up. Values of every
/// other property of real numbers are kept as far as coarser voxels show them. If the property is `voxel_signed_distance`, what the
/// removal made of distances is put right.
/// \param absolute_error, relative_error  how far a value may be off: the sum of the first and of the second times the tile's
///                         largest absolute value. Below 0 they count as 0
/// \param protect_surface  keeps the tiles at a change of sign, and those within `surface_band` voxels (of their depth) of it
/// The begin and the end are said. Not a volume: an empty object and an error; a cancelled job gives an empty object.
TILEGRID_API void coarsen_voxel_property(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, float absolute_error,
                                         float relative_error, bool protect_surface, float surface_band, Corvid::Ptr<Ostara::Object>& out,
                                         Corvid::RuntimeServices const& services);

/// Gives a level set a band of tiles that is `bandwidth` voxels wide on either side of the surface, and true distances. A
/// bandwidth below 0 counts as 0, with a warning. Not a level set: the input on the output and an error; a cancelled job gives an
/// empty object.
TILEGRID_API void resize_level_set(Corvid::Ptr<Ostara::Object> level_set, float bandwidth, Corvid::Ptr<Ostara::Object>& output,
                                   Corvid::RuntimeServices const& services);

/// Sets the world size of a finest voxel, and so the scale of the whole volume. Values stay as they are, so distances keep their old
/// numbers. A size that is not above 0 changes nothing. The begin and the end are said; the bool takes no part. Not a volume:
/// the input on the output and an error; a cancelled job gives an empty object.
TILEGRID_API void set_voxel_size(Corvid::Ptr<Ostara::Object> volume, float voxelSize, bool, Corvid::Ptr<Ostara::Object>& out,
                                 Corvid::RuntimeServices const& services);

namespace Internal {

/// Writes how deep voxels lie below the surface of a level set to the float property "voxel_depth".
/// \param property  the level set, a float property of a volume of the binary structure. Without it, or in the other structure,
///                  nothing is computed, and the volume is lost
/// \param a, b      least and largest depth in world units; no largest one if b is 0 or not above a
/// \param count     smoothing passes
/// A null reference stays null; a cancelled job gives an empty object.
TILEGRID_API void compute_volume_depth(Corvid::String const& property, float a, float b, int count, Corvid::Ptr<Ostara::Object>& volume,
                                       Corvid::RuntimeServices const& services);

}  // namespace Internal

}  // namespace Geometry::Volume
