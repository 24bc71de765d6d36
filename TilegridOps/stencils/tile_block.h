#pragma once
#include "TilegridOps/substrate/traits.h"

#include <array>

namespace tilegrid::stencils {

/// A tile of a float channel with its 26 neighbours, for kernels that read rows straight from where they are stored. Each
/// pointer leads to W^3 values, x fastest, of the tile in that direction (`neighborDirection`). Beside a coarser tile or none
/// it leads to scratch in which the layer next to the tile holds the linear halo of the tile, and nothing else counts.
template <class Tr> struct StencilBlock {
    static constexpr int W = Tr::width;
    std::array<float const*, 27> tiles;

    /// Row (j,k), each from -1 to W, of the tiles `dx` (-1, 0, 1) along x.
    [[gnu::always_inline]] float const* row(int dx, int j, int k) const
    {
        const int dy = j < 0 ? -1 : j < W ? 0 : 1, dz = k < 0 ? -1 : k < W ? 0 : 1;
        return tiles[std::size_t((dx + 1) * 9 + (dy + 1) * 3 + (dz + 1))] + W * ((j - dy * W) + W * (k - dz * W));
    }
};

}  // namespace tilegrid::stencils
