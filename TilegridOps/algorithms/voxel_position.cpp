#include "TilegridOps/algorithms/properties.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/traversal.h"

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

template <class Tr> void writePositions(Container<Tr> const& tree, Channel<Tr, float3, Tr::width, 0>& channel, float3 const& offset)
{
    using Tile = typename Container<Tr>::Tile;
    const float voxelSize = tree.voxelSize();
    tree.traverse(
        detail::Nothing(), detail::Nothing(),
        [&channel, offset, voxelSize](Tile const& tile) {
            const auto positions = channel.tileData(tile.treeIndex());
            if (!positions) return;
            const auto w = static_cast<float>(tile.voxelDataWidth());
            const float3 corner(tile.tijk());
            float3* out = positions.data();
            for (int k = 0; k < Tr::width; ++k)
                for (int j = 0; j < Tr::width; ++j)
                    for (int i = 0; i < Tr::width; ++i)
                        *out++ = {((float(i) + offset.x) * w + corner.x) * voxelSize, ((float(j) + offset.y) * w + corner.y) * voxelSize,
                                  ((float(k) + offset.z) * w + corner.z) * voxelSize};
        },
        detail::Nothing(), detail::Nothing());
}

template <class Tr> bool writePositionsIn(OST::Object& volume, Corvid::String const& property, VoxelOffsetType offset)
{
    using PositionChannel = Channel<Tr, float3, Tr::width, 0>;
    auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    const bool found = tree && topology;
    if (found) {
        if (!volume.hasComponentFromName<PositionChannel>(property))
            Command::createChannel<float3, Tr::branching, Tr::width, Tr::width, 0>(property, *topology, volume, float3(), kInitializeLinear,
                                                                                    0, Tr::maxDepth);
        auto channel = volume.extractComponent<PositionChannel>(property);
        writePositions(*tree, *channel, voxelOffset(offset));
        volume.putComponent(std::move(channel));
    }
    volume.putComponent(std::move(topology));
    volume.putComponent(std::move(tree));
    return found;
}

}  // namespace

bool writeVoxelPositions(OST::Object& volume, Corvid::String const& property, VoxelOffsetType offset)
{
    const bool binary = writePositionsIn<BinaryTraits>(volume, property, offset);
    const bool quinary = writePositionsIn<QuinaryTraits>(volume, property, offset);
    return binary || quinary;
}

}  // namespace tilegrid
