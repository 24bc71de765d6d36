#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"

#include <cstdint>
#include <string>

/// Point clouds: objects with an array of positions (`point_position`, float3, world units) and arrays of equal length for further
/// attributes, among them `point_radius` (float). No tiles.
namespace tilegrid::io {

bool isPointCloud(Ostara::Object const& object);

/// Whether a file holds points by its ending and content: .csv, and .ply without faces. What cannot be read is none.
bool holdsPoints(std::string const& path);

/// Reads .csv or .ply (.vdb: see `readVdb`). Columns x, y and z are the position; radius or point_radius the radius; three columns NAME_x,
/// NAME_y, NAME_z a float3 attribute, as are nx, ny, nz (normal); any other one a float attribute. A .csv begins with a row of names; without
/// one it has three columns, or four with the radius. Rows that begin with # and empty rows are passed over. Columns red, green and blue
/// of a .ply are the attribute `color` (io/attribute.h).
/// \throws InputError for files that are missing, cut off, without positions, with values that are no finite floats (with the place of
///         the first), or that hold more than `maxBytes` (0: no limit)
Corvid::Ptr<Ostara::Object> readPoints(std::string const& path, std::uint64_t maxBytes);

/// Writes .csv, .ply (binary) or .vdb by the name's ending, all float and float3 arrays, under a temporary name first. Reading a
/// .csv or .ply gives the same points with the same bits, but for colours in a .ply, which have 8 bits; a .vdb orders them by place and
/// rounds positions to a float of the place in a voxel. Arrays of other types are left out, with a warning.
/// \throws InputError if there are no positions, an array has another length, a .vdb would hold a position that is not finite, or the
///         file cannot be written
void writePoints(std::string const& path, Ostara::Object const& points, Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
