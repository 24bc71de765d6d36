#pragma once
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/sampling/field_sampler.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/topology.h"

namespace VolumeGL::TileTree3D::LevelSet {

/// Moves the surface of a level set: the distance d becomes d - weight * offset, where d is the true distance to the surface as it
/// was. Values of all depths are rewritten.
///
/// \param offset        world units; positive moves outward, so that the inside grows
/// \param adaptTopology  true: tiles are added so that the new surface and 3 voxels around it lie at the depth that the old surface
///                      had there, with all 26 neighbours of the tiles it passes, and tiles at that depth that no longer see the
///                      band are removed (not from trees with a refinement error above 0). Tiles stay if nothing of the surface is
///                      left. False: no tile changes; a surface that leaves its tiles gives one warning
/// \param property      float channel of signed distances. If it is missing, the logger gets an error and nothing happens
/// \param maskName      float channel that limits the move; empty or missing for none
/// \param maskSampler   the mask in tiles that are added here, at the voxels' world positions; null: there the mask channel is
///                      filled as any other
/// \param quality       0 one shift of the exact distance: right without a mask. 1: distances are made again afterwards, so that
///                      they are right where the mask varies. 2: in steps of a voxel, the mask read anew in each (at most 64), so
///                      that every place of the surface moves at the speed of the mask there; without a mask as 1
/// \param timerPrefix   of the timers of the steps
/// A surface that vanishes leaves a positive field, and gives a warning.
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; the components in hand are lost then
/// \par Source  distances from the surface before the move, not by marching: their error does not grow with the offset
template <class Tr, class Logger>
void offset(float offset, bool adaptTopology, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
            Corvid::String const& property, Corvid::String const& maskName, Geometry::Volume::Sampler<float> const* maskSampler,
            Geometry::Volume::SamplerInterpretation maskInterpretation, int quality, Logger const& logger, Corvid::String const& timerPrefix);

/// Gives the surface of a level set a band of tiles of a width: afterwards every voxel at its depth within max(bandwidth, 1)
/// voxels of it has a tile, and so have the 26 neighbours of the tiles that it passes, and what grading needs if the tree was
/// graded. Other tiles at that depth without a voxel within a diagonal more are removed, with ancestors that nothing else needs.
/// A volume whose tiles are so keeps them all. Every voxel gets its true distance, in the band or not.
///
/// \param bandwidth  half width, in voxels of the depth that the surface has there; NaN counts as 0, infinite as the width of
///                   tile space
/// Nothing happens for a voxel size that is not above 0 and finite.
/// Without a crossing the logger gets a warning, without the property an error, and nothing changes. A second call changes no
/// tile. Both structures, whichever the object has.
/// \throws as above; MemoryExceeded if the band needs more than `memoryLimit()`
template <class Logger>
void resize(float bandwidth, OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName,
            Corvid::String const& property, Logger const& logger);

#define TILEGRID_LEVEL_SET_OFFSET(KEYWORD, Tr)                                                                                       \
    KEYWORD template TILEGRID_API void offset<Tr, CoreGL::CorvidLogger>(                                                             \
        float, bool, OST::Object&, Corvid::String const&, Corvid::String const&, Corvid::String const&, Corvid::String const&,       \
        Geometry::Volume::Sampler<float> const*, Geometry::Volume::SamplerInterpretation, int, CoreGL::CorvidLogger const&,          \
        Corvid::String const&);
TILEGRID_LEVEL_SET_OFFSET(extern, OST::TileTree3D::BinaryTraits)
TILEGRID_LEVEL_SET_OFFSET(extern, OST::TileTree3D::QuinaryTraits)
extern template TILEGRID_API void resize(float, OST::Object&, Corvid::String const&, Corvid::String const&, Corvid::String const&,
                                         CoreGL::CorvidLogger const&);

}  // namespace VolumeGL::TileTree3D::LevelSet
