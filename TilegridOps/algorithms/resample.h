#pragma once
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/string.h"
#include "TilegridOps/sampling/interpolation.h"

namespace Geometry::Volume {
// Defined with the parameters of nodes, which stand above algorithms.
enum class AutoSubdivisionStructure : int;
}  // namespace Geometry::Volume

namespace VolumeGL::TileTree3D {

/// Carries properties of a volume into another one, moved by an affine map.
///
/// Every voxel of every tile of the target is written with the source's value at the place that the map leads to it, read by the
/// interpolation from tiles whose voxels are not above the target's own as they lie in the source (coarse voxels read the coarse
/// depths, which hold the prefiltered field); outside of the source with the property's default value. Corner samples with the
/// identity and linear interpolation keep their bits. Vectors keep their components. A property named `sVoxelSignedDistance` is
/// multiplied by the scale of the map, the cube root of the absolute determinant; where the map changes lengths along axes by more than
/// a thousandth differently, what results are no distances, and those of the moved surface are made anew (where the target's tiles
/// hold none of it, the scaled values stay).
///
/// \param property       a name, or empty for all properties of the types float, float2 to float4, float3x3, float4x2, float4x4, double
///                       and double3
/// \param transform      source world space to target world space, for row vectors (p' = p M, translation in the last row; the last
///                       column is not read)
/// \param voxelSize, structure  of a new volume; a size not above FLT_EPSILON means the source's times the scale, a structure other than
///                       `kBinary` and `kQuinary` the source's
/// \param interpolation  linear, or one of the cubic kernels with clamped results
/// \param target         a volume with a tile tree keeps its tiles, and its properties of the names are replaced. Anything else is
///                       replaced by a new volume with corner samples, whose tiles are the boxes around the moved tiles of the source, of every
///                       depth, at the depth with voxels not larger than theirs
/// \return false, with an error to the logger and the target as it was, for a map that is singular or not finite, a voxel size of
///         the source that is 0 or not finite, and a missing property
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation; the target is unchanged then
/// \par Source  definition; order 2 (linear), 3 (quadratic) or as the kernel has it
template <class Logger>
bool resample(Corvid::String const& property, Ostara::Math::float4x4 const& transform, float voxelSize,
              Geometry::Volume::AutoSubdivisionStructure structure, OST::TileTree3D::InterpolationMode interpolation,
              Ostara::Object const& source, Corvid::Ptr<Ostara::Object>& target, Logger const& logger);

extern template TILEGRID_API bool resample(Corvid::String const&, Ostara::Math::float4x4 const&, float, Geometry::Volume::AutoSubdivisionStructure,
                                           OST::TileTree3D::InterpolationMode, Ostara::Object const&, Corvid::Ptr<Ostara::Object>&,
                                           CoreGL::CorvidLogger const&);

}  // namespace VolumeGL::TileTree3D
