#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/level_set_from_mesh.h"

#include <string>
#include <vector>

namespace tilegrid::io {

struct VdbOptions {
    Structure structure = Structure::kBinary;
    std::uint64_t maxBytes = 0;
    /// Whether grids whose lattice is turned, sheared, mirrored, scaled by axes or shifted by part of a voxel are resampled; else they are
    /// refused.
    bool resample = false;
    /// World size of the voxels of what is resampled, and then every grid with another is; 0: as long as the shortest edge of its voxels.
    float voxelSize = 0.0f;
};

/// A volume of a file, with the voxel size that its grids share.
struct NamedVolume {
    std::string name;
    Corvid::Ptr<Ostara::Object> volume;
};

/// Reads the float, double, vec3 and int grids of a file as properties; grids of one voxel size and offset share a
/// volume, others become volumes of their own, with a message that names them. A level-set grid becomes
/// `voxel_signed_distance`, with true distances at every depth. Kept as they lie are lattices of uniform scale with a
/// translation by whole voxels, or by half a voxel on all axes (samples at cell centres). Those of any other affine transform are
/// resampled if `options` say so, to corner samples along the axes: linearly, level sets to true distances again, vectors with the
/// components that they have in the file. A frustum is refused.
///
/// The finest tiles are those with an active voxel. Active voxels of a level set keep their bits; all other voxels of
/// all tiles get the distance to the grid's zero surface with the sign that the grid has there. Other grids: every voxel
/// gets the grid's value at its place (at centres, a voxel with children their mean), and constant active regions become
/// the largest tiles that fit into them.
///
/// A grid of points becomes a point cloud (io/points.h) of its own, behind the volumes.
///
/// A file of the level layout (see `writeVdb`) gives the volume as it was written, in its own structure. Any grid of it that
/// is not as the writer makes them is refused by name.
/// \throws InputError for files that cannot be read, hold no such grid, take more than `maxBytes` (0: no limit) or have
///         a transform that is refused (with a hint)
std::vector<NamedVolume> readVdb(std::string const& path, VdbOptions const& options,
                                 Corvid::RuntimeServices const& services);

/// How a volume of several depths is put into grids.
enum class VdbLayout {
    /// One grid for each property, with the voxels of the finest depth in use, as every program reads it.
    kFlat,
    /// One grid for each property and depth, with exactly the voxels of the tiles: nothing is lost.
    kLevels
};

/// `kFlat`: writes every property that has a grid type, flattened to the finest depth in use, under a temporary name first. Active
/// are all voxels of the tiles of that depth, so that reading the file gives the same finest tiles with the same bits.
/// In coarser leaf cells a level set is resampled where the surface passes through them, and the rest is told by the
/// sign of the background; other properties become constant regions where they differ from their default value, but
/// beside a level set they are written where its finest tiles are. Equal volumes give equal files.
///
/// `kLevels`: every grid holds the tiles of one depth, all their voxels active, with metadata (`tilegrid_...`) that tells
/// structure, voxel size, sample offset, refinement error, depth, and name, default value, initializer and depth range of
/// the property. Reading the file restores tiles and values bit for bit; tiles then lie in Morton order, and halo layers
/// are left out.
///
/// A point cloud is written as one grid of points, whatever the layout; see `writePoints`.
/// \throws InputError if nothing can be written or the file cannot be
void writeVdb(std::string const& path, Ostara::Object const& volume, Corvid::RuntimeServices const& services,
              VdbLayout layout = VdbLayout::kFlat);

}  // namespace tilegrid::io
