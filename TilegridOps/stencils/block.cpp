#include "TilegridOps/stencils/block.h"

namespace tilegrid::stencils {

using namespace OST::TileTree3D;

template <class Tr>
BlockReader<Tr>::BlockReader(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& channel, Reach reach,
                             VoxelOffsetType offset)
    : tree_(&tree), channel_(&channel), accessor_(tree.tileAccessor()), walk_(tree), reach_(reach), offset_(offset)
{
}

template <class Tr> StencilBlock<Tr> const& BlockReader<Tr>::read(Tile const& tile)
{
    const TreeIndex index = tile.treeIndex();
    block_.tiles[kNeighborSelf] = channel_->tileData(index).data();
    auto const* table = tree_->tileNeighbors();
    Surroundings const* around = table ? nullptr : &walk_.around(tile);
    std::uint32_t missing = 0;
    const auto take = [&](int direction) {
        const TreeIndex at = table ? table->find(index, NeighborDirection(direction)) : (*around)[std::size_t(direction)];
        if (at.depth == index.depth)
            block_.tiles[std::size_t(direction)] = channel_->tileData(at).data();
        else
            missing |= 1u << direction;
    };
    if (reach_ == Reach::kFaces) {
        for (int direction : {4, 10, 12, 14, 16, 22}) take(direction);
    } else {
        for (int direction = 0; direction < 27; ++direction)
            if (direction != kNeighborSelf) take(direction);
    }
    if (missing) fillMissing(tile, missing);
    return block_;
}

template <class Tr> void BlockReader<Tr>::fillMissing(Tile const& tile, std::uint32_t missing)
{
    constexpr int W = Tr::width;
    if (scratch_.empty()) {
        scratch_.resize(std::size_t(27) * kScratchTile);
        halo_ = TileData<float, W, 1>((W + 2) * (W + 2) * (W + 2));
    }
    const HaloType type = reach_ == Reach::kFaces ? kHaloFaces : HaloType(kHaloAll - kHaloInterior);
    setHaloTile<Tr, float, 0, 1, 0, 0>(tile.treeIndex(), *channel_, kHaloLinear, type, accessor_, halo_, channel_->defaultValue(),
                                       1.0f, offset_);
    for (int direction = 0; direction < 27; ++direction) {
        if (!(missing >> direction & 1)) continue;
        float* values = scratch_.data() + direction * kScratchTile + kMargin;
        block_.tiles[std::size_t(direction)] = values;
        // The layer of the neighbour that touches the tile: one position on the axes along which it is displaced, else all.
        const int3 side = neighborOffset(NeighborDirection(direction));
        int first[3], last[3];
        for (int axis = 0; axis < 3; ++axis) {
            first[axis] = side[axis] < 0 ? -1 : side[axis] * W;
            last[axis] = side[axis] == 0 ? W - 1 : first[axis];
        }
        for (int k = first[2]; k <= last[2]; ++k)
            for (int j = first[1]; j <= last[1]; ++j)
                for (int i = first[0]; i <= last[0]; ++i)
                    values[flatIndex(W, i - side.x * W, j - side.y * W, k - side.z * W)] = halo_(i, j, k);
    }
}

template class BlockReader<BinaryTraits>;
template class BlockReader<QuinaryTraits>;

}  // namespace tilegrid::stencils
