#include "TilegridOps/host/property_names.h"

#include "TilegridOps/host/ost_object.h"

namespace Ostara::Geometry {

Corvid::String const sVoxelTileTree = "voxel_tile_tree";
Corvid::String const sVoxelComp = "voxel_topology";
Corvid::String const sPointComp = "point_topology";
Corvid::String const sVoxelSignedDistance = "voxel_signed_distance";
Corvid::String const sVoxelFogDensity = "voxel_fog_density";
Corvid::String const sVoxelTemperature = "voxel_temperature";
Corvid::String const sVoxelPosition = "voxel_position";
Corvid::String const sVoxelDegreeOfFreedom = "voxel_degree_of_freedom";
Corvid::String const sVoxelSignedAirLiquidDistance = "voxel_signed_air_liquid_distance";
Corvid::String const sPointPosition = "point_position";
Corvid::String const sPointDroplet = "point_droplet";
Corvid::String const sData = "data";

}  // namespace Ostara::Geometry

namespace OST {

Corvid::String const exceptionMessage = "The job was cancelled.";

namespace Const {
Corvid::String const TileTreePointTopologyName = "tile_tree_point_topology";
}

}  // namespace OST
