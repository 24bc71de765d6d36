#pragma once
#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace OST::TileTree3D {

/// Process-wide pool that keeps the memory of temporary channels for the next one.
class TILEGRID_API ChannelPool {
public:
    /// Stays on for the process.
    static void enable();
    static bool enabled();
    /// Bytes that the machine can still give, and the same with what the pool holds.
    static std::size_t availablePhysicalMemory();
    static std::size_t availableMemory();

    /// A channel without a name for `tileCount` tiles. Null if the pool is off or the memory would not be there.
    /// \param source  the component whose tiles it will follow
    template <class Tr, class T, int N, int H>
    static Corvid::Ptr<Channel<Tr, T, N, H>> allocate(T defaultValue, bool, bool callElementConstructor, int minDepth, int depth,
                                                      std::size_t tileCount, OST::Component const*)
    {
        using C = Channel<Tr, T, N, H>;
        if (!enabled() || tileCount * TileData<T, N, H>::elements * sizeof(T) > availableMemory()) return {};
        return Corvid::makeMutable<C>(Corvid::String(), &defaultValue, kInitializeNone, /*poolBacked*/ true, callElementConstructor,
                                      minDepth, depth);
    }
};

/// The allocator below the pool.
class TILEGRID_API ChannelMemoryPool {
public:
    static bool enabled() { return ChannelPool::enabled(); }
};

/// Copies the voxels 0 to W-1 per axis of `source` to `target` in the given depths. NS, ND: voxels per axis of the two
/// arrays; HS, HD: their halos. Both channels hold all tiles of those depths, else a tile is passed over.
template <class Tr, class T, int NS, int ND, int HS, int HD>
void channelCopy(Container<Tr> const& container, Channel<Tr, T, NS, HS> const& source, Channel<Tr, T, ND, HD>& target, int minDepth,
                 int maxDepth)
{
    struct Data {
        ConstTileData<T, NS, HS> from;
        TileData<T, ND, HD> to;
    };
    using Tile = typename Container<Tr>::Tile;
    container.traverseVoxels(
        Data(),
        [&source, &target](Tile const& tile, Data& data) {
            data.from = source.tileData(tile.treeIndex());
            data.to = target.tileData(tile.treeIndex());
        },
        [](Tile const&, int3 const& ijk, Data& data) {
            if (data.from && data.to) data.to(ijk) = data.from(ijk);
        },
        kParallelTree, TreeIndex(), minDepth, maxDepth);
}

namespace detail {

TILEGRID_API void reportPoolMemory(char const* when);

template <class Tr, class T, int N, int H>
Corvid::MutablePtr<Channel<Tr, T, N, H>> temporary(Component const& reference, T const& defaultValue, bool usePool,
                                                   bool callElementConstructor, int minDepth, int depth)
{
    Corvid::Ptr<Channel<Tr, T, N, H>> channel;
    if (usePool && ChannelPool::enabled())
        channel = ChannelPool::allocate<Tr, T, N, H>(defaultValue, false, callElementConstructor, minDepth, depth,
                                                     static_cast<std::size_t>(reference.tileCount(-1)), &reference);
    if (!channel)
        channel = Corvid::makeMutable<Channel<Tr, T, N, H>>(Corvid::String(), &defaultValue, kInitializeNone,
                                                            usePool && ChannelMemoryPool::enabled(), callElementConstructor,
                                                            minDepth, depth);
    auto made = Corvid::toMutable(channel);
    made->updateTilesAdded(reference);
    return made;
}

}  // namespace detail

/// A channel with no name for the tiles of `reference`, all elements `defaultValue`, or undefined without
/// `callElementConstructor` (for a caller that writes every one).
template <class Tr, class T, int N, int H>
void channelTemporary(Corvid::Ptr<Channel<Tr, T, N, H>>& out, Component const& reference, T defaultValue, bool usePool,
                      bool callElementConstructor, int minDepth, int depth)
{
    if (CoreGL::Logger::verboseLevel() >= 3 && !callElementConstructor)
        std::cout << "Warning: in_callElementConstructor is false" << std::endl;
    out = detail::temporary<Tr, T, N, H>(reference, defaultValue, usePool, callElementConstructor, minDepth, depth);
}

/// The same, started as a copy of `source` in another layout: its default value, and its values in the depths that both
/// have. With a halo (H = 1) the interior is written and the halo keeps the default, or what it was without
/// `callElementConstructor`.
template <class Tr, class T, int N, int H>
void channelTemporary(Corvid::Ptr<Channel<Tr, T, N, H>>& out, Container<Tr> const& container, Component const& reference,
                      Channel<Tr, T, Tr::width, 0> const& source, bool usePool, bool callElementConstructor, int minDepth, int depth)
{
    const bool talkative = CoreGL::Logger::verboseLevel() > 2;
    if (talkative && !callElementConstructor)
        std::cout << "Warning: callElementConstructor is false (in_callElementConstructor is "
                  << (callElementConstructor ? "true)" : "false)") << std::endl;
    const bool fromPool = talkative && usePool && ChannelPool::enabled();
    if (fromPool) detail::reportPoolMemory("before");
    auto made = detail::temporary<Tr, T, N, H>(reference, source.defaultValue(), usePool, callElementConstructor, minDepth, depth);
    if (fromPool) detail::reportPoolMemory("after");
    channelCopy<Tr, T, Tr::width, N, 0, H>(container, source, *made, std::max(made->minDepth(), std::max(source.minDepth(), 0)),
                                           std::min(made->depth(), std::min(source.depth(), Tr::maxDepth)));
    out = std::move(made);
}

}  // namespace OST::TileTree3D

namespace CoreGL {

/// Minimum and maximum over the voxels (0 to W-1 per axis) of a channel, and where they lie, if asked. The caller seeds
/// `min` and `max`; a value counts where it is strictly beyond the one so far, so NaN never does. The order of elements is
/// that of the type's operators. Of equal values the one of lower (depth, tile index, voxel) wins.
template <class Tr, class T, int N, int H>
void channelMinMax(OST::TileTree3D::Container<Tr> const& container, OST::TileTree3D::Channel<Tr, T, N, H> const& channel, int minDepth,
                   int maxDepth, T& min, T& max, OST::TileTree3D::VoxelCoord* minAt, OST::TileTree3D::VoxelCoord* maxAt)
{
    using namespace OST::TileTree3D;
    using Tile = typename Container<Tr>::Tile;
    struct ReductionData {
        T min, max;
        VoxelCoord minAt, maxAt;
    };
    ReductionData result{min, max, minAt ? *minAt : VoxelCoord(), maxAt ? *maxAt : VoxelCoord()};
    container.reduce(
        detail::Nothing(), detail::Nothing(),
        [&channel](Tile const& tile, ReductionData& data) {
            const auto values = channel.tileData(tile.treeIndex());
            if (!values) return;
            const int w = tile.voxelDataWidth();
            for (int k = 0; k < Tr::width; ++k)
                for (int j = 0; j < Tr::width; ++j)
                    for (int i = 0; i < Tr::width; ++i) {
                        T const& v = values(i, j, k);
                        const VoxelCoord at(tile.tijk() + w * int3(i, j, k), tile.depth());
                        if (data.min > v) data.min = v, data.minAt = at;
                        if (v > data.max) data.max = v, data.maxAt = at;
                    }
        },
        detail::Nothing(), detail::Nothing(),
        [](ReductionData& left, ReductionData const& right) {
            if (left.min > right.min) left.min = right.min, left.minAt = right.minAt;
            if (right.max > left.max) left.max = right.max, left.maxAt = right.maxAt;
        },
        result, kByLevel, TreeIndex(), std::max(std::max(minDepth, channel.minDepth()), 0),
        std::min(std::min(maxDepth, channel.depth()), Tr::maxDepth), 50);
    min = result.min;
    max = result.max;
    if (minAt) *minAt = result.minAt;
    if (maxAt) *maxAt = result.maxAt;
}

}  // namespace CoreGL
