#include "TilegridOps/surface/tile_signs.h"

#include "TilegridOps/substrate/parallel.h"

#include <algorithm>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

template <int N> Signs signsOf(float const* values)
{
    // Counts, so that the compiler makes vectors of it.
    int inside = 0;
    for (int n = 0; n < N; ++n) inside += isInside(values[n]);
    return inside == 0 ? kOutside : inside == N ? kInside : kBothSigns;
}

}  // namespace

template <class Tr>
TileSigns<Tr>::TileSigns(Container<Tr> const& tree, LevelSet<Tr> const& levelSet) :
    tree_(&tree), deepest_(std::min(tree.deepestDepth(), levelSet.depth())), outside_(signOf(valueBeyond(tree, levelSet)))
{
    const Signs unset = signOf(levelSet.defaultValue());
    for (int depth = 0; depth <= deepest_; ++depth) {
        auto& tiles = tiles_[std::size_t(depth)];
        const auto count = std::size_t(tree.tileCount(depth));
        tiles.assign(count, unset);
        if (depth < deepest_) {
            Cells cells;
            cells.fill(unset);
            cells_[std::size_t(depth)].assign(count, cells);
        }
        if (depth < levelSet.minDepth()) continue;
        parallel::forRanges(0, int64(count), 1024, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                auto const values = levelSet.tileData(n, depth);
                if (values) tiles[std::size_t(n)] = signsOf<Tr::voxelCount>(values.data());
            }
        });
    }
    parallel::endStage();
}

template class TileSigns<BinaryTraits>;
template class TileSigns<QuinaryTraits>;

}  // namespace tilegrid::surface
