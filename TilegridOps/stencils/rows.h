#pragma once
#include "TilegridOps/substrate/traits.h"

#include <cstring>

/// Kernels compiled once more for processors with wider vectors; the loader chooses. Results are the same bits, since nothing
/// here may fuse or reorder arithmetic. Only where the compiler can do it for templates.
#if defined(__x86_64__) && defined(__gnu_linux__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__) && \
    !defined(__SANITIZE_ADDRESS__)
#define TILEGRID_CLONES [[gnu::target_clones("default", "arch=x86-64-v3")]]
#else
#define TILEGRID_CLONES
#endif

namespace tilegrid::stencils {

/// The W floats of one row of a tile along x, in one vector. A row of five has three lanes more; what they hold is of no
/// account, but memory must be readable there (slabs and `StencilBlock` see to that).
template <int W> struct Row;
template <> struct Row<4> {
    using Vector = float __attribute__((vector_size(16)));
};
template <> struct Row<5> {
    using Vector = float __attribute__((vector_size(32)));
};
template <int W> using RowVector = typename Row<W>::Vector;

/// Vectors go by reference: by value their passing would depend on the processor that the caller is compiled for.
template <int W> [[gnu::always_inline]] inline void load(RowVector<W>& row, float const* from)
{
    std::memcpy(&row, from, sizeof row);
}
/// Writes exactly W values: another thread may write the next one.
template <int W> [[gnu::always_inline]] inline void store(float* to, RowVector<W> const& row)
{
    std::memcpy(to, &row, W * sizeof(float));
}
/// The row one voxel towards low x; `before` is the row of the tile there.
template <int W> [[gnu::always_inline]] inline void loadLow(RowVector<W>& row, float const* from, float const* before)
{
    load<W>(row, from - 1);
    row[0] = before[W - 1];
}
/// The row one voxel towards high x; `after` is the row of the tile there.
template <int W> [[gnu::always_inline]] inline void loadHigh(RowVector<W>& row, float const* from, float const* after)
{
    load<W>(row, from + 1);
    row[W - 1] = after[0];
}

}  // namespace tilegrid::stencils
