#include "TilegridOps/substrate/commands.h"

namespace OST::TileTree3D {

namespace {

/// Hands every channel of the object to `change`, each for its only owner.
template <class Change> void forEachChannel(OST::Object& object, Change change)
{
    for (Corvid::String const& name : object.componentRange()) {
        auto channel = object.extractComponent<ChannelBase>(name);
        if (!channel) continue;
        change(*channel);
        object.putComponent(std::move(channel));
    }
}

template <class C> bool isA(OST::Component const& component)
{
    return dynamic_cast<C const*>(&component) != nullptr;
}

bool isPointTopology(Component const& source)
{
    return isA<PointTopology<BinaryTraits>>(source) || isA<PointTopology<QuinaryTraits>>(source);
}

}  // namespace

void updateTilesAdded(Component const& source, OST::Object& object)
{
    // Point channels take their list lengths from a point topology alone; voxel channels take tiles from any source.
    const bool points = isPointTopology(source);
    forEachChannel(object, [&](ChannelBase& channel) {
        if (points == isA<PointChannelCore>(channel)) channel.updateTilesAdded(source);
    });
}

void updateTilesRemoved(TileMoves const& moves, Component const& source, OST::Object& object)
{
    const bool points = isPointTopology(source);
    forEachChannel(object, [&](ChannelBase& channel) {
        if (points == isA<PointChannelCore>(channel)) channel.updateTilesRemoved(moves, source);
    });
}

void updateTilesPermuted(TilePermutation const& permutation, OST::Object& object)
{
    forEachChannel(object, [&](ChannelBase& channel) { channel.updateTilesPermuted(permutation); });
}

template <class Tr>
Corvid::MutablePtr<OST::Object> Command::createVoxelOST(Corvid::String const& tileTreeName, Corvid::String const& voxelCompName,
                                                        float voxelSize, VoxelOffsetType offset)
{
    auto object = Corvid::makeMutable<OST::Object>();
    object->putComponent(Corvid::makeMutable<Container<Tr>>(tileTreeName, voxelSize));
    object->putComponent(Corvid::makeMutable<VoxelTopology<Tr>>(voxelCompName, offset));
    return object;
}

template TILEGRID_API Corvid::MutablePtr<OST::Object> Command::createVoxelOST<BinaryTraits>(Corvid::String const&, Corvid::String const&,
                                                                                            float, VoxelOffsetType);
template TILEGRID_API Corvid::MutablePtr<OST::Object> Command::createVoxelOST<QuinaryTraits>(Corvid::String const&, Corvid::String const&,
                                                                                             float, VoxelOffsetType);

}  // namespace OST::TileTree3D
