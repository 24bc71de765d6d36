#include "TilegridOps/merge/plain_channels.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/merge/element_kinds.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/traversal.h"

#include <cstring>

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

/// Both channels have elements of `bytes` bytes; `source` has one layer more on the high sides.
template <class Tr> void copyInner(Container<Tr> const& tree, VoxelChannelCore const& source, VoxelChannelCore& target)
{
    constexpr int W = Tr::width;
    const std::size_t bytes = source.elementBytes();
    tree.traverse(
        detail::Nothing(), detail::Nothing(),
        [&source, &target, bytes](auto const& tile) {
            std::byte const* from = source.tileBytes(tile.index(), tile.depth());
            std::byte* to = target.tileBytes(tile.index(), tile.depth());
            if (!from || !to) return;
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    std::memcpy(to + std::size_t(flatIndex(W, 0, j, k)) * bytes, from + std::size_t(flatIndex(W + 1, 0, j, k)) * bytes, W * bytes);
        },
        detail::Nothing(), detail::Nothing(), kParallelTree, TreeIndex(), source.minDepth(), source.depth());
}

template <class Tr> void usePlainChannelsOf(OST::Object& volume)
{
    const auto tree = volume.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    if (!tree) return;
    for (Corvid::String const& name : volume.componentRange()) {
        const auto component = volume.component<VoxelChannelCore>(name);
        if (!component) continue;
        firstKind([&]<class T>() {
            auto const* halo = dynamic_cast<Channel<Tr, T, Tr::width + 1, 0> const*>(component.get());
            if (!halo) return false;
            const T outside = halo->defaultValue();
            auto plain = Corvid::makeMutable<Channel<Tr, T, Tr::width, 0>>(name, &outside, halo->dataElementInitializerType(), false, true,
                                                                           halo->minDepth(), halo->depth());
            plain->updateTilesAdded(*tree);
            copyInner(*tree, *halo, *plain);
            volume.putComponent(std::move(plain));
            return true;
        });
    }
}

}  // namespace

void usePlainChannels(OST::Object& volume)
{
    usePlainChannelsOf<BinaryTraits>(volume);
    usePlainChannelsOf<QuinaryTraits>(volume);
}

}  // namespace tilegrid
