#pragma once
#include "TilegridOps/stencils/block.h"
#include "TilegridOps/substrate/parallel.h"

namespace tilegrid::stencils {

/// Calls `kernel(tile, block, values)` for every tile that both channels have at depths `minDepth` to `maxDepth`: `block` is the
/// tile of `in` with its surroundings, `values` the tile's W^3 values in `out`, all of which the kernel writes. Parallel over
/// tiles, so a kernel keeps nothing from call to call; each depth is a stage, which ends with the cancellation test.
///
/// \param in      only read; other than `out`
/// \param offset  where the samples of `in` lie: decides what is read across a jump of depth
/// \throws std::runtime_error(exceptionMessage) on cancellation
template <class Tr, class Kernel>
void stencilPass(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& in, Channel<Tr, float, Tr::width, 0>& out,
                 Reach reach, VoxelOffsetType offset, int minDepth, int maxDepth, Kernel const& kernel)
{
    constexpr OST::int64 kTilesAtOnce = 256;
    const int first = std::max({minDepth, in.minDepth(), out.minDepth()}), last = std::min({maxDepth, in.depth(), out.depth()});
    for (int depth = first; depth <= last; ++depth) {
        if (tree.tileCount(depth) == 0) continue;
        parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](OST::int64 begin, OST::int64 end) {
            BlockReader<Tr> reader(tree, in, reach, offset);
            for (OST::int64 n = begin; n < end; ++n) {
                auto const& tile = tree.tile(n, depth);
                float* values = out.tileData(n, depth).data();
                if (values && in.tileData(n, depth)) kernel(tile, reader.read(tile), values);
            }
        });
        parallel::endStage();
    }
}

}  // namespace tilegrid::stencils
