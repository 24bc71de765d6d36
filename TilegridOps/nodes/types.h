#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/substrate/traits.h"

/// What the parameters of nodes are made of.
namespace Geometry::Volume {

using OST::int64;

/// The structure that a new volume gets.
enum class AutoSubdivisionStructure : int { kAutomatic = 0, kBinary = 1, kQuinary = 2 };
/// The structure that a volume has.
enum class SubdivisionStructure : int { kBinary = 0, kQuinary = 1 };

/// Where in its cell a voxel's sample lies; a name says on which part of the cell (centre, face, edge, corner).
using VoxelOffset = OST::TileTree3D::VoxelOffsetType;

/// Two places and a number, carried for the host.
struct ResolutionField {
    Ostara::Math::float3 first, second;
    int resolution = 0;
};

}  // namespace Geometry::Volume
