#pragma once
#include "TilegridOps/stencils/block.h"
#include "TilegridOps/stencils/rows.h"

/// Kernels for `stencilPass` that take a whole tile at once.
namespace tilegrid::stencils {

/// A stencil of a voxel and its six face neighbours.
///
/// \param combine  `combine(out, centre, lowX, highX, lowY, highY, lowZ, highZ)`, all `RowVector<W>` by reference: sets the W
///                 results of a row. Inlined; element-wise arithmetic on vectors keeps the order in which it is written
template <class Tr, class Combine>
[[gnu::always_inline]] inline void sevenPoint(StencilBlock<Tr> const& block, float* out, Combine const& combine)
{
    constexpr int W = Tr::width;
    using V = RowVector<W>;
#pragma GCC unroll 5
    for (int k = 0; k < W; ++k)
#pragma GCC unroll 5
        for (int j = 0; j < W; ++j) {
            float const* at = block.row(0, j, k);
            V result, centre, lowX, highX, lowY, highY, lowZ, highZ;
            load<W>(centre, at);
            loadLow<W>(lowX, at, block.row(-1, j, k));
            loadHigh<W>(highX, at, block.row(1, j, k));
            load<W>(lowY, block.row(0, j - 1, k));
            load<W>(highY, block.row(0, j + 1, k));
            load<W>(lowZ, block.row(0, j, k - 1));
            load<W>(highZ, block.row(0, j, k + 1));
            combine(result, centre, lowX, highX, lowY, highY, lowZ, highZ);
            store<W>(out + W * (j + W * k), result);
        }
}

/// A 3x3x3 stencil that is the product of the same symmetric one along each axis: `side`, `middle`, `side`. Along x, then y,
/// then z, each as `(low + high) * side + centre * middle`.
template <class Tr> [[gnu::always_inline]] inline void separable3(StencilBlock<Tr> const& block, float* out, float side, float middle)
{
    constexpr int W = Tr::width;
    using V = RowVector<W>;
    V planes[3][W];  // mixed along x and y: the last three planes in z
#pragma GCC unroll 7
    for (int k = -1; k <= W; ++k) {
        V rows[W + 2];
#pragma GCC unroll 7
        for (int j = -1; j <= W; ++j) {
            float const* at = block.row(0, j, k);
            V low, centre, high;
            load<W>(centre, at);
            loadLow<W>(low, at, block.row(-1, j, k));
            loadHigh<W>(high, at, block.row(1, j, k));
            rows[j + 1] = (low + high) * side + centre * middle;
        }
        V* plane = planes[(k + 1) % 3];
#pragma GCC unroll 5
        for (int j = 0; j < W; ++j) plane[j] = (rows[j] + rows[j + 2]) * side + rows[j + 1] * middle;
        if (k < 1) continue;
        V const *lowest = planes[(k - 1) % 3], *centres = planes[k % 3];
#pragma GCC unroll 5
        for (int j = 0; j < W; ++j)
            store<W>(out + W * (j + W * (k - 1)), (lowest[j] + plane[j]) * side + centres[j] * middle);
    }
}

}  // namespace tilegrid::stencils
