#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/string.h"

namespace Ostara::Geometry {

/// Names of components and properties. Their texts stand in one table (host/embedded/property_names.cpp).
TILEGRID_API extern Corvid::String const sVoxelTileTree;
TILEGRID_API extern Corvid::String const sVoxelComp;
TILEGRID_API extern Corvid::String const sPointComp;
TILEGRID_API extern Corvid::String const sVoxelSignedDistance;
TILEGRID_API extern Corvid::String const sVoxelFogDensity;
TILEGRID_API extern Corvid::String const sVoxelTemperature;
TILEGRID_API extern Corvid::String const sVoxelPosition;
TILEGRID_API extern Corvid::String const sVoxelDegreeOfFreedom;
TILEGRID_API extern Corvid::String const sVoxelSignedAirLiquidDistance;
TILEGRID_API extern Corvid::String const sPointPosition;
TILEGRID_API extern Corvid::String const sPointDroplet;
TILEGRID_API extern Corvid::String const sData;

}  // namespace Ostara::Geometry

namespace OST::Const {
TILEGRID_API extern Corvid::String const TileTreePointTopologyName;
}
