#include "TilegridOps/algorithms/level_set_band.h"
#include "TilegridOps/algorithms/level_set_edit.h"
#include "TilegridOps/algorithms/level_set_parts.h"
#include "TilegridOps/algorithms/level_set_tiles.h"
#include "TilegridOps/algorithms/nan_sides.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/grading.h"

#include <cmath>
#include <memory>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
using tilegrid::LevelSetBand;
using tilegrid::LevelSetParts;

/// The tiles that a band has to have, those that it gets where it has not got them or has too many, and the most that it may have.
/// Distances that are made twice are not the same, by hundredths of a voxel, and more at creases: what stands by the middle rule
/// passes by the outer ones as long as the surface moved by less than half a voxel, so that a second call changes no tile.
enum class BandRule { kLeast, kMiddle, kMost };
tilegrid::BandTarget targetOf(float bandwidth, BandRule rule)
{
    const int step = int(rule);
    return {0, 0, bandwidth > 0 ? bandwidth : 0, 0.5 * step * tilegrid::kVoxelDiagonal, 0.5 + 0.5 * step};
}

template <class Tr> bool holdsAll(Container<Tr> const& tree, Container<Tr> const& tiles)
{
    const auto accessor = tree.tileAccessor();
    for (int depth = 0; depth < Tr::levels; ++depth)
        for (int64 n = 0; n < tiles.tileCount(depth); ++n) {
            int3 const& place = tiles.tile(n, depth).tijk();
            if (accessor.find(place.x, place.y, place.z, depth).depth != depth) return false;
        }
    return true;
}

/// The tiles by a rule, graded if the tree was.
template <class Tr> void collect(LevelSetBand<Tr> const& band, float bandwidth, BandRule rule, bool graded, Container<Tr>& wanted)
{
    band.collect(targetOf(bandwidth, rule), /*keepAll*/ false, wanted);
    if (graded) CoreGL::TileTree3D::gradeTileTree<Tr>(wanted, nullptr, nullptr, 0, Tr::maxDepth);
}

template <class Tr> bool fits(Container<Tr> const& tree, LevelSetBand<Tr> const& band, float bandwidth, bool graded)
{
    Container<Tr> least("least", tree.voxelSize()), most("most", tree.voxelSize());
    collect(band, bandwidth, BandRule::kLeast, graded, least);
    if (!holdsAll(tree, least)) return false;
    collect(band, bandwidth, BandRule::kMost, graded, most);
    return holdsAll(most, tree);
}

/// \return false if the object has no level set of this structure
template <class Tr, class Logger>
bool resizeIn(float bandwidth, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
              Corvid::String const& property, Logger const& logger)
{
    LevelSetParts<Tr> parts(object, treeName, topologyName, property);
    if (!parts) return false;
    const float size = parts.tree->voxelSize();
    if (!(size > 0) || !std::isfinite(size)) {
        parts.putAll();
        return true;
    }
    auto dofs = parts.dofs();
    tilegrid::giveNansSides<Tr>(*parts.tree, *parts.levelSet);
    auto band = std::make_unique<LevelSetBand<Tr>>(*parts.tree, *parts.topology, *parts.levelSet, &dofs);
    if (!band->hasSurface()) {
        logger.warn("Level set has no surface to resize.");
        parts.putAll();
        return true;
    }
    band->grow(targetOf(bandwidth, BandRule::kMost), parts.bytesPerTile());
    const bool graded = tilegrid::isGradedTree(*parts.tree);
    if (!fits(*parts.tree, *band, bandwidth, graded)) {
        Container<Tr> wanted("wanted", parts.tree->voxelSize());
        collect(*band, bandwidth, BandRule::kMiddle, graded, wanted);
        parts.putLevelSet();
        TileList<Tr> added;
        tilegrid::changeTiles(*parts.tree, *parts.topology, object, wanted, /*removeOthers*/ true, added);
        parts.takeLevelSet();
        dofs = parts.dofs();
    }
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
