#include "TilegridOps/stencils/block.h"

#include <algorithm>
#include <optional>

namespace tilegrid::stencils {

using namespace OST::TileTree3D;

template <class Tr>
BlockReader<Tr>::BlockReader(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& channel, Reach reach,
                             VoxelOffsetType offset)
    : tree_(&tree), channel_(&channel), accessor_(tree.tileAccessor()), walk_(tree), reach_(reach), offset_(offset)
{
}

namespace {

constexpr std::array<int, 6> kFaceDirections = {4, 10, 12, 14, 16, 22};
constexpr std::array<int, 26> kAllDirections = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                                14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};

/// The three directions along x that a row (j,k) passes through: the first of them, the others are 9 further each.
template <int W> int rowDirection(int j, int k)
{
    return (j < 0 ? 0 : j < W ? 3 : 6) + (k < 0 ? 0 : k < W ? 1 : 2);
}
/// Bits for the directions of a row: 1, 2 and 4 for low x, the tile's own columns, and high x.
int rowBits(std::uint32_t directions, int first)
{
    return int(directions >> first & 1) | int(directions >> (first + 9) & 1) << 1 | int(directions >> (first + 18) & 1) << 2;
}

}  // namespace

template <class Tr> template <class Directions> void BlockReader<Tr>::find(Tile const& tile, Directions const& directions, Found& found)
{
    const TreeIndex index = tile.treeIndex();
    auto const* table = tree_->tileNeighbors();
    Surroundings const* around = table ? nullptr : &walk_.around(tile);
    found.tiles[kNeighborSelf] = channel_->tileData(index).data();
    for (int direction : directions) {
        const TreeIndex at = table ? table->find(index, NeighborDirection(direction)) : (*around)[std::size_t(direction)];
        if (at.depth == index.depth) {
            found.tiles[std::size_t(direction)] = channel_->tileData(at).data();
        } else {
            found.missing |= 1u << direction;
            found.oneAbove &= at.depth == index.depth - 1;
        }
    }
    // Above the depths of the channel there is nothing to mix.
    const TreeIndex above = tile.parentTreeIndex();
    if (found.missing && found.oneAbove && above.valid() && above.depth >= channel_->minDepth()) found.parent = &tree_->tile(above);
}

template <class Tr> StencilBlock<Tr> const& BlockReader<Tr>::read(Tile const& tile)
{
    Found found;
    if (reach_ == Reach::kFaces)
        find(tile, kFaceDirections, found);
    else
        find(tile, kAllDirections, found);
    block_.tiles = found.tiles;
    if (found.missing) fillMissing(tile, found);
    return block_;
}

template <class Tr> void BlockReader<Tr>::fillMissing(Tile const& tile, Found const& found)
{
    constexpr int W = Tr::width;
    if (scratch_.empty()) scratch_.resize(std::size_t(27) * kScratchTile);
    for (int direction = 0; direction < 27; ++direction)
        if (found.missing >> direction & 1) block_.tiles[std::size_t(direction)] = missingTile(direction);
    if (!found.parent) return fillMissingSlowly(tile, found.missing);

    Upsampler<Tr> upsampler(surrounded(*found.parent), found.parent->childIJK(tile), offset_);
    for (int k = -1; k <= W; ++k)
        for (int j = -1; j <= W; ++j) {
            const int first = rowDirection<W>(j, k);
            const int bits = rowBits(found.missing, first);
            if (bits == 0) continue;
            const auto row = upsampler.row(j, k);
            const int at = W * ((j + W) % W + W * ((k + W) % W));
            if (bits & 1) missingTile(first)[at + W - 1] = row[0];
            if (bits & 2)
                for (int i = 0; i < W; ++i) missingTile(first + 9)[at + i] = row[i + 1];
            if (bits & 4) missingTile(first + 18)[at] = row[W + 1];
        }
}

template <class Tr> void BlockReader<Tr>::fillMissingSlowly(Tile const& tile, std::uint32_t missing)
{
    constexpr int W = Tr::width;
    if (!halo_) halo_ = TileData<float, W, 1>((W + 2) * (W + 2) * (W + 2));
    const HaloType type = reach_ == Reach::kFaces ? kHaloFaces : HaloType(kHaloAll - kHaloInterior);
    setHaloTile<Tr, float, 0, 1, 0, 0>(tile.treeIndex(), *channel_, kHaloLinear, type, accessor_, halo_, channel_->defaultValue(),
                                       1.0f, offset_);
    for (int k = -1; k <= W; ++k)
        for (int j = -1; j <= W; ++j) {
            const int first = rowDirection<W>(j, k);
            const int bits = rowBits(missing, first);
            const int at = W * ((j + W) % W + W * ((k + W) % W));
            if (bits & 1) missingTile(first)[at + W - 1] = halo_(-1, j, k);
            if (bits & 2)
                for (int i = 0; i < W; ++i) missingTile(first + 9)[at + i] = halo_(i, j, k);
            if (bits & 4) missingTile(first + 18)[at] = halo_(W, j, k);
        }
}

template <class Tr> Surrounded<Tr> const& BlockReader<Tr>::surrounded(Tile const& tile)
{
    auto& kept = kept_[std::size_t(tile.depth())];
    if (!kept) kept = std::make_unique<Kept>();
    if (kept->tile != tile.index()) {
        kept->tile = tile.index();
        surround(tile, kept->surrounded);
    }
    return kept->surrounded;
}

template <class Tr> void BlockReader<Tr>::surround(Tile const& tile, Surrounded<Tr>& out)
{
    constexpr int W = Tr::width;
    Found found;
    find(tile, kAllDirections, found);
    if (found.missing && !found.parent) {
        TileData<float, W, 1> halo((W + 2) * (W + 2) * (W + 2));
        setHaloTile<Tr, float, 0, 1, 0, 0>(tile.treeIndex(), *channel_, kHaloLinear, kHaloAll, accessor_, halo,
                                           channel_->defaultValue(), 1.0f, offset_);
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j) std::copy_n(&halo(-1, j, k), W + 2, &out.values[std::size_t(Surrounded<Tr>::row(j, k))]);
        return;
    }
    std::optional<Upsampler<Tr>> upsampler;
    if (found.parent) upsampler.emplace(surrounded(*found.parent), found.parent->childIJK(tile), offset_);
    for (int k = -1; k <= W; ++k)
        for (int j = -1; j <= W; ++j) {
            const int first = rowDirection<W>(j, k);
            const int bits = rowBits(found.missing, first);
            const int at = W * ((j + W) % W + W * ((k + W) % W));
            float* to = &out.values[std::size_t(Surrounded<Tr>::row(j, k))];
            typename Upsampler<Tr>::Vector row{};
            if (bits) row = upsampler->row(j, k);
            to[0] = bits & 1 ? row[0] : found.tiles[std::size_t(first)][at + W - 1];
            for (int i = 0; i < W; ++i) to[i + 1] = bits & 2 ? row[i + 1] : found.tiles[std::size_t(first + 9)][at + i];
            to[W + 1] = bits & 4 ? row[W + 1] : found.tiles[std::size_t(first + 18)][at];
        }
}

template class BlockReader<BinaryTraits>;
template class BlockReader<QuinaryTraits>;

}  // namespace tilegrid::stencils
