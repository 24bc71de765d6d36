#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"

#include <iostream>

namespace OST::TileTree3D {

/// Writes the bounds of a channel per depth to standard output, above verbose level 0:
/// `title[depth] : MIN at (i, j, k) and MAX at (i, j, k)`, places in tile space. Serial; for people who watch a node.
template <class Tr, class T, int N, int H>
void reportChannel(std::string const& title, Container<Tr> const& container, Channel<Tr, T, N, H> const& channel, int verboseLevel,
                   int minDepth, int maxDepth)
{
    if (verboseLevel <= 0) return;
    const auto printable = [](T const& v) {
        if constexpr (std::is_integral_v<T>)
            return +v;  // a char type is a number here
        else
            return v;
    };
    for (int depth = std::max(minDepth, 0); depth <= std::min(maxDepth, Tr::maxDepth); ++depth) {
        if (channel.tileCount(depth) == 0) continue;
        T min = channel.tileData(0, depth)(0, 0, 0), max = min;
        int3 minAt = container.tile(0, depth).tijk(), maxAt = minAt;
        for (int64 n = 0; n < channel.tileCount(depth); ++n) {
            auto const& tile = container.tile(n, depth);
            const auto values = channel.tileData(n, depth);
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const int3 ijk = cubeIndex(Tr::width, flat);
                T const& v = values(ijk);
                if (min > v) min = v, minAt = tile.tijk() + tile.voxelDataWidth() * ijk;
                if (v > max) max = v, maxAt = tile.tijk() + tile.voxelDataWidth() * ijk;
            }
        }
        std::cout << title << "[" << depth << "] : " << printable(min) << " at " << minAt << " and " << printable(max) << " at " << maxAt
                  << std::endl;
    }
}

}  // namespace OST::TileTree3D
