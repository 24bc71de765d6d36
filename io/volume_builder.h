#pragma once
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/commands.h"

#include <utility>
#include <vector>

namespace tilegrid::io {

/// A new native volume with the given tiles and all their ancestors: tree and topology, no channel. Tiles lie in Morton
/// order.
template <class Tr>
Corvid::MutablePtr<OST::Object> makeVolume(std::vector<OST::TileTree3D::VoxelCoord> const& tiles, float voxelSize,
                                           OST::TileTree3D::VoxelOffsetType offset)
{
    using namespace OST::TileTree3D;
    using Ostara::Geometry::sVoxelComp, Ostara::Geometry::sVoxelTileTree;
    auto native = Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, voxelSize, offset);
    auto tree = native->template extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = native->template extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    TileAccessor<Tr> accessor(*tree);
    for (VoxelCoord const& tile : tiles) accessor.addTile(tile.i, tile.j, tile.k, tile.depth);
    tree->sortIntoMortonOrder();
    topology->update(*tree);
    native->putComponent(std::move(tree));
    native->putComponent(std::move(topology));
    return native;
}

/// Adds a channel over all depths to the volume and hands it to `fill(tree, channel)`.
template <class Tr, class T, class Fill>
void addChannel(OST::Object& native, Corvid::String const& name, T const& defaultValue, Fill const& fill)
{
    using namespace OST::TileTree3D;
    const auto tree = native.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    const auto topology = native.component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    constexpr int B = Tr::branching, W = Tr::width;
    Command::createChannel<T, B, W, W, 0>(name, *topology, native, defaultValue, kInitializeLinear, 0, Tr::maxDepth);
    auto channel = native.extractComponent<Channel<Tr, T, W, 0>>(name);
    fill(*tree, *channel);
    native.putComponent(std::move(channel));
}

}  // namespace tilegrid::io
