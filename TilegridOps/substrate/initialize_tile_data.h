#pragma once
#include "TilegridOps/substrate/channel_core.h"
#include "TilegridOps/substrate/container.h"

namespace OST::TileTree3D {

/// Gives tiles that were added to a tree their first values from the depth above, in every voxel channel of the object, by the
/// channel's `DataElementInitializerType`: 0 leaves them; 1 injects (each voxel takes the parent's voxel that holds its low
/// corner); any other value mixes the parent's sites trilinearly, as samples at `offset`, so that a linear field goes on, and with
/// corner samples the field seen by a linear sampler does not change. Types without a fraction are injected in place of mixed.
/// Halo layers are left as they are.
///
/// \param container   the tree with the new tiles, taken out of the object or not
/// \param tilesAdded  by depth, a place in each new tile (its low corner), in any order; entries that name no tile of their depth
///                    are passed over. Tiles whose parent the channel has no values for keep theirs
/// \param object      its channels have the new tiles already (`updateTilesAdded`)
/// \param offset      where the samples of the volume lie in their voxels
/// \throws std::runtime_error(exceptionMessage) on cancellation; the channel in hand is lost then
/// Calling it again changes nothing. Depths ascending, so a tile may have a new parent.
template <class Tr>
TILEGRID_API void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded,
                                     OST::Object& object, VoxelOffsetType offset);
/// The same with the offset of the object's voxel topology; corner samples if that is not in it.
template <class Tr>
TILEGRID_API void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded,
                                     OST::Object& object);

/// The same for one channel, of any of the element types and layouts of the structure; others are left alone.
template <class Tr>
TILEGRID_API void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded,
                                     VoxelChannelCore& channel, VoxelOffsetType offset = kCorner);

// KEYWORD: extern here, nothing where the definitions are.
#define TILEGRID_INITIALIZE_TILE_DATA(KEYWORD, Tr)                                                                                        \
    KEYWORD template TILEGRID_API void initializeTileData(Container<Tr> const&, TileList<Tr> const&, OST::Object&, VoxelOffsetType);      \
    KEYWORD template TILEGRID_API void initializeTileData(Container<Tr> const&, TileList<Tr> const&, OST::Object&);                       \
    KEYWORD template TILEGRID_API void initializeTileData(Container<Tr> const&, TileList<Tr> const&, VoxelChannelCore&, VoxelOffsetType);
TILEGRID_INITIALIZE_TILE_DATA(extern, BinaryTraits)
TILEGRID_INITIALIZE_TILE_DATA(extern, QuinaryTraits)

}  // namespace OST::TileTree3D
