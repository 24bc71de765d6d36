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

struct VdbWriteOptions {
    VdbWriteOptions() = default;
    VdbWriteOptions(VdbLayout fileLayout) : layout(fileLayout) {}

    VdbLayout layout = VdbLayout::kFlat;
    /// Of `kFlat`. Half width of the band of a level set, in voxels of the file: 1 to 1e6.
    double bandVoxels = 3.0;
    /// Of `kFlat`. The name of the grid of the level set, without one that of the fog density or of the only property. Empty:
    /// `surface` for a level set, `density` for fog, the property's own name for others, and for these two where another property
    /// has that name.
    std::string name;
    /// Of `kFlat`. Values as 16-bit floats, 11 bits of precision. A grid whose values do not fit stays as it is, with a warning.
    bool half = false;
    /// Refuse grids that would take more in memory, 0 for no limit.
    std::uint64_t maxBytes = 0;
};

/// `kFlat`: writes every property that has a grid type with the voxels of the finest depth in use, under a temporary name first.
/// Equal volumes give equal files. In tiles of that depth voxels have their own bits, in coarser ones the values of the library's
/// linear sampler; integers have those of the leaf voxel.
///
/// A level set becomes a narrow band, as programs that read `.vdb` expect it: active exactly where |distance| is below the band,
/// the background the band in world units, rounded up, and at least 3 voxels; elsewhere plus or minus the background. Reading
/// the file gives the voxels of the band in tiles of the finest depth with the same bits, with `half` to 11 bits; tiles
/// without one come back coarser, and values outside the band as distances to the surface.
///
/// Other properties beside a level set are active where it is negative or in its band. Without a level set they are active where
/// they differ from their default value, inside the bounds of the tiles of the two finest depths in use. Leaf voxels of one value
/// become constant regions. A grid of real numbers from 0 to 1 with background 0 gets the class fog volume.
///
/// `kLevels`: every grid holds the tiles of one depth, all their voxels active, with metadata (`tilegrid_...`) that tells
/// structure, voxel size, sample offset, refinement error, depth, and name, default value, initializer and depth range of
/// the property. Reading the file restores tiles and values bit for bit; tiles then lie in Morton order, and halo layers
/// are left out.
///
/// A point cloud is written as one grid of points, whatever the layout; see `writePoints`.
/// \throws InputError if nothing can be written or the file cannot be, for a name that two grids would have, for a band out of
///         range, and for more than `maxBytes`, estimated first
void writeVdb(std::string const& path, Ostara::Object const& volume, Corvid::RuntimeServices const& services,
              VdbWriteOptions const& options = {});

}  // namespace tilegrid::io
