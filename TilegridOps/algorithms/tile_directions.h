#pragma once
#include "TilegridOps/substrate/traits.h"

/// Sets of directions from a tile, as bits by `neighborDirection`.
namespace tilegrid {

inline constexpr std::uint32_t kAllDirections = (1u << 27) - 1;

/// For each voxel of a tile the directions in which a tile has it beside its own voxels, and the tile itself.
template <class Tr> inline constexpr auto kSeenFrom = [] {
    using namespace OST::TileTree3D;
    constexpr int W = Tr::width;
    std::array<std::uint32_t, Tr::voxelCount> seen{};
    for (int v = 0; v < Tr::voxelCount; ++v)
        for (int n = 0; n < 27; ++n) {
            const int3 at = cubeIndex(W, v), d = neighborOffset(NeighborDirection(n));
            bool touches = true;
            for (int a = 0; a < 3; ++a) touches = touches && (d[a] == 0 || at[a] == (d[a] < 0 ? 0 : W - 1));
            seen[std::size_t(v)] |= std::uint32_t(touches) << n;
        }
    return seen;
}();

}  // namespace tilegrid
