#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

namespace OST::TileTree3D {

/// The channels of the object grow to the tiles of `source`: point channels if it is a `PointTopology`, voxel channels
/// otherwise (the voxel topology after its update, or the tree).
TILEGRID_API void updateTilesAdded(Component const& source, OST::Object& object);
/// All channels of the object follow a removal of tiles; `source` is the topology after its update. With a `PointTopology` as
/// source only point channels follow, otherwise only voxel channels.
TILEGRID_API void updateTilesRemoved(TileMoves const& moves, Component const& source, OST::Object& object);
/// All channels of the object follow `Container::sortIntoMortonOrder`.
TILEGRID_API void updateTilesPermuted(TilePermutation const& permutation, OST::Object& object);

namespace Command {

/// A new native volume: an empty tree and its topology under the two names.
template <class Tr>
TILEGRID_API Corvid::MutablePtr<OST::Object> createVoxelOST(Corvid::String const& tileTreeName, Corvid::String const& voxelCompName,
                                                            float voxelSize, VoxelOffsetType offset);

/// Creates a channel with the default value in all tiles of the topology, adds it to the object and returns it. The object
/// holds a share, so take it out with `extractComponent` to write.
template <class T, int B, int W, int N, int H>
Corvid::Ptr<Channel<Traits<B, W, 1>, T, N, H>> createChannel(Corvid::String const& name, VoxelTopology<Traits<B, W, 1>> const& topology,
                                                            OST::Object& object, T defaultValue,
                                                            DataElementInitializerType initializer, int minDepth, int depth)
{
    using C = Channel<Traits<B, W, 1>, T, N, H>;
    auto channel = Corvid::makeMutable<C>(name, &defaultValue, initializer, /*poolBacked*/ false, /*callElementConstructor*/ true,
                                          minDepth, depth);
    channel->updateTilesAdded(topology);
    object.putComponent(std::move(channel));
    return object.component<C>(name);
}

}  // namespace Command

}  // namespace OST::TileTree3D
