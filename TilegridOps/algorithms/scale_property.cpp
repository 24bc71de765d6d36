#include "TilegridOps/algorithms/properties.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/channel_report.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/element_values.h"
#include "TilegridOps/substrate/topology.h"
#include "TilegridOps/substrate/traversal.h"

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

template <class T> T scaled(T value, float factor)
{
    using Element = Ostara::Math::ElementTraits<T>;
    for (int c = 0; c < Element::components; ++c) {
        auto& component = Element::at(value, c);
        if constexpr (std::is_integral_v<typename Element::Scalar>)
            component = saturated<typename Element::Scalar>(factor * static_cast<float>(component));
        else
            component = factor * component;
    }
    return value;
}

template <class Tr, class T, int N, int H> void scaleVoxels(Container<Tr> const& tree, Channel<Tr, T, N, H>& channel, float factor)
{
    using Tile = typename Container<Tr>::Tile;
    tree.traverseVoxels(
        TileData<T, N, H>(), [&channel](Tile const& tile, TileData<T, N, H>& values) { values = channel.tileData(tile.treeIndex()); },
        [factor](Tile const&, int3 const& ijk, TileData<T, N, H>& values) {
            if (values) values(ijk) = scaled(values(ijk), factor);
        },
        kParallelTree, TreeIndex(), channel.minDepth(), channel.depth());
}

template <class Tr> bool scaleIn(OST::Object& volume, Corvid::String const& property, float factor, int verboseLevel)
{
    return tryElements<Tr>(volume, property, [&]<class C>() {
        auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
        auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
        auto channel = volume.extractComponent<C>(property);
        if (tree) {
            reportChannel("Scale property before " + property.str(), *tree, *channel, verboseLevel, channel->minDepth(), channel->depth());
            scaleVoxels(*tree, *channel, factor);
            reportChannel("Scale property after " + property.str(), *tree, *channel, verboseLevel, channel->minDepth(), channel->depth());
        }
        volume.putComponent(std::move(channel));
        volume.putComponent(std::move(topology));
        volume.putComponent(std::move(tree));
    });
}

}  // namespace

bool scaleProperty(OST::Object& volume, Corvid::String const& property, float factor, int verboseLevel)
{
    return scaleIn<BinaryTraits>(volume, property, factor, verboseLevel) || scaleIn<QuinaryTraits>(volume, property, factor, verboseLevel);
}

}  // namespace tilegrid
