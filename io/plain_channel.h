#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"

namespace tilegrid::io {

template <class Tr, class T> using PlainChannel = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;

/// The channel in the plain layout, so that passes and samplers need one form.
template <class Tr, class C>
PlainChannel<Tr, typename C::Element> plainCopy(OST::TileTree3D::Container<Tr> const& tree, C const& channel)
{
    using T = typename C::Element;
    const T defaultValue = channel.defaultValue();
    PlainChannel<Tr, T> copy(channel.name(), &defaultValue, OST::TileTree3D::kInitializeNone, /*poolBacked*/ false,
                             /*callElementConstructor*/ true, channel.minDepth(), channel.depth());
    copy.updateTilesAdded(tree);
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
            const auto from = channel.tileData(n, depth);
            const auto to = copy.tileData(n, depth);
            for (int flat = 0; from && to && flat < Tr::voxelCount; ++flat)
                to(flat) = from(OST::TileTree3D::cubeIndex(Tr::width, flat));
        }
    return copy;
}

}  // namespace tilegrid::io
