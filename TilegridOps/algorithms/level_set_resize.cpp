#include "TilegridOps/algorithms/level_set_band.h"
#include "TilegridOps/algorithms/level_set_edit.h"
#include "TilegridOps/algorithms/level_set_parts.h"
#include "TilegridOps/algorithms/level_set_tiles.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/grading.h"

#include <cmath>
#include <memory>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using tilegrid::LevelSetBand;
using tilegrid::LevelSetParts;

/// \return false if the object has no level set of this structure
template <class Tr, class Logger>
bool resizeIn(float bandwidth, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
              Corvid::String const& property, Logger const& logger)
{
    LevelSetParts<Tr> parts(object, treeName, topologyName, property);
    if (!parts) return false;
    const float size = parts.tree->voxelSize();
    if (!(size > 0) || !std::isfinite(size) || std::isinf(bandwidth)) {
        parts.putAll();
        return true;
    }
    auto dofs = parts.dofs();
    auto band = std::make_unique<LevelSetBand<Tr>>(*parts.tree, *parts.topology, *parts.levelSet, &dofs);
    if (!band->hasSurface()) {
        logger.warn("Level set has no surface to resize.");
        parts.putAll();
        return true;
    }
    const tilegrid::BandTarget target{0, 0, bandwidth > 0 ? bandwidth : 0};
    band->grow(target);
    Container<Tr> wanted("wanted", parts.tree->voxelSize());
    band->collect(target, /*keepAll*/ false, wanted);
    if (tilegrid::isGradedTree(*parts.tree)) CoreGL::TileTree3D::gradeTileTree<Tr>(wanted, nullptr, nullptr, 0, Tr::maxDepth);
    parts.putLevelSet();
    TileList<Tr> added;
    tilegrid::changeTiles(*parts.tree, *parts.topology, object, wanted, /*removeOthers*/ true, added);
    parts.takeLevelSet();
    dofs = parts.dofs();
    band->writeDistances(*parts.tree, *parts.levelSet);
    restoreDependentValues(*parts.tree, *parts.levelSet, parts.topology->offsetType(), dofs, 0, Tr::maxDepth);
    parts.putAll();
    if (object.hasComponentFromName<DofChannel<Tr>>(Ostara::Geometry::sVoxelDegreeOfFreedom))
        createDofs<Tr>(Ostara::Geometry::sVoxelDegreeOfFreedom, object);
    return true;
}

}  // namespace

template <class Logger>
void resize(float bandwidth, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
            Corvid::String const& property, Logger const& logger)
{
    const bool binary = resizeIn<BinaryTraits>(bandwidth, object, treeName, topologyName, property, logger);
    const bool quinary = resizeIn<QuinaryTraits>(bandwidth, object, treeName, topologyName, property, logger);
    if (!binary && !quinary) logger.error("Unable to resize level set.");
}

template TILEGRID_API void resize(float, OST::Object&, Corvid::String const&, Corvid::String const&, Corvid::String const&,
                                  CoreGL::CorvidLogger const&);

}  // namespace VolumeGL::TileTree3D::LevelSet
