#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/level_set_from_mesh.h"
#include "io/mesh.h"

#include <string>
#include <vector>

namespace tilegrid::io {

struct VdbOptions {
    Structure structure = Structure::kBinary;
    std::uint64_t maxBytes = 0;
};

/// A volume of a file, with the voxel size that its grids share.
struct NamedVolume {
    std::string name;
    Corvid::Ptr<Ostara::Object> volume;
};

/// Reads the float, double, vec3 and int grids of a file as properties; grids of one voxel size and offset share a
/// volume, others become volumes of their own, with a message that names them. A level-set grid becomes
/// `voxel_signed_distance`, with true distances at every depth. Accepted: uniform scale with a translation by whole
/// voxels, or by half a voxel on all axes (samples at cell centres).
/// \throws InputError for files that cannot be read, hold no such grid, or grids whose transform is refused (with a
///        hint)
std::vector<NamedVolume> readVdb(std::string const& path, VdbOptions const& options,
                                 Corvid::RuntimeServices const& services);

/// Writes every property that has a grid type, flattened to the finest depth in use, under a temporary name first.
/// Beside a level set other properties are written where its finest tiles are.
/// \throws InputError if nothing can be written or the file cannot be
void writeVdb(std::string const& path, Ostara::Object const& volume, Corvid::RuntimeServices const& services);

/// The zero surface of `voxel_signed_distance`, flattened to the finest depth in use.
/// \throws InputError for an object without one
TriangleMesh extractSurface(Ostara::Object const& volume);

}  // namespace tilegrid::io
