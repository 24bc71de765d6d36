#include "TilegridOps/stencils/block.h"

#include <algorithm>

namespace tilegrid::stencils {

using namespace OST::TileTree3D;

template <class Tr>
BlockReader<Tr>::BlockReader(Container<Tr> const& tree, Channel<Tr, float, Tr::width, 0> const& channel, Reach reach,
                             VoxelOffsetType offset)
    : tree_(&tree), channel_(&channel), accessor_(tree.tileAccessor()), walk_(tree), reach_(reach), offset_(offset)
{
    for (int depth = channel.minDepth(); depth <= channel.depth(); ++depth)
        if (channel.tileCount(depth) > 0) values_[std::size_t(depth)] = channel.tileData(0, depth).data();
}

namespace {

constexpr std::array<int, 6> kFaceDirections = {4, 10, 12, 14, 16, 22};
constexpr std::array<int, 26> kAllDirections = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12,
                                                14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26};

/// The rows around a tile with a bit in `directions`, which has one for each direction. Of a class of rows the directions are
/// 9 apart.
int rowClasses(std::uint32_t directions, std::array<RowClass, 9>& classes)
{
    int count = 0;
    for (int n = 0; n < 9; ++n) {
        const std::uint32_t bits = directions >> n;
        const int wanted = int((bits & 1) | (bits >> 9 & 1) << 1 | (bits >> 18 & 1) << 2);
        if (wanted) classes[std::size_t(count++)] = {n / 3 - 1, n % 3 - 1, wanted};
    }
    return count;
}

/// Along an axis: which of the tiles before the parent (bit 0), the parent and the one after it the halo of a child reads.
template <class Tr> constexpr int reachedSides(ParentTaps<Tr> const& taps)
{
    return (taps.leaves(-1) ? 1 : 0) | 2 | (taps.leaves(1) ? 4 : 0);
}
/// A bit for each direction in which the halo of a child reads values around its parent.
template <class Tr> std::uint32_t reachedDirections(ParentTaps<Tr> const& x, ParentTaps<Tr> const& y, ParentTaps<Tr> const& z)
{
    std::uint32_t directions = 0;
    for (int n = 0; n < 27; ++n)
        directions |= std::uint32_t(reachedSides(x) >> (n / 9) & reachedSides(y) >> (n / 3 % 3) & reachedSides(z) >> (n % 3) & 1) << n;
    return directions;
}
/// For each place of a child in its parent, by the variants along x, y and z.
template <class Tr> const auto kReached = [] {
    constexpr std::size_t V = ParentTaps<Tr>::kVariants;
    std::array<std::array<std::array<std::uint32_t, V>, V>, V> all{};
    for (std::size_t x = 0; x < V; ++x)
        for (std::size_t y = 0; y < V; ++y)
            for (std::size_t z = 0; z < V; ++z)
                all[x][y][z] = reachedDirections(kParentTaps<Tr>[x], kParentTaps<Tr>[y], kParentTaps<Tr>[z]);
    return all;
}();

}  // namespace

template <class Tr>
template <class Directions>
void BlockReader<Tr>::find(Tile const& tile, Directions const& directions, Around& out)
{
    const TreeIndex index = tile.treeIndex();
    auto const* table = tree_->tileNeighbors();
    auto const* around = table ? nullptr : &walk_.around(tile);
    float const* values = values_[std::size_t(index.depth)];
    if (out.scratch.empty()) out.scratch.resize(std::size_t(27) * Upsampler<Tr>::kScratchTile);
    out.block.tiles[kNeighborSelf] = values + index.index * Tr::voxelCount;
    out.missing = 0;
    out.filled = false;
    out.oneAbove = true;
    for (int direction : directions) {
        const TreeIndex at = table ? table->find(index, NeighborDirection(direction)) : (*around)[std::size_t(direction)];
        if (at.depth == index.depth) {
            out.block.tiles[std::size_t(direction)] = values + at.index * Tr::voxelCount;
        } else {
            out.block.tiles[std::size_t(direction)] = out.scratchTile(direction);
            out.missing |= 1u << direction;
            out.oneAbove &= at.depth == index.depth - 1;
        }
    }
}

template <class Tr> StencilBlock<Tr> const& BlockReader<Tr>::read(Tile const& tile)
{
    if (reach_ == Reach::kFaces)
        find(tile, kFaceDirections, read_);
    else
        find(tile, kAllDirections, read_);
    if (read_.missing) fillMissing(tile, read_, reach_ == Reach::kFaces);
    return read_.block;
}

template <class Tr> StencilBlock<Tr> const& BlockReader<Tr>::blockOf(Tile const& tile, std::uint32_t needed)
{
    auto& kept = kept_[std::size_t(tile.depth())];
    if (!kept) kept = std::make_unique<Around>();
    if (kept->tile != tile.index()) {
        find(tile, kAllDirections, *kept);
        kept->tile = tile.index();
    }
    if (kept->missing & needed && !kept->filled) fillMissing(tile, *kept, false);
    return kept->block;
}

template <class Tr> void BlockReader<Tr>::fillMissing(Tile const& tile, Around& around, bool facesOnly)
{
    // Above the depths of the channel there is nothing to mix.
    const TreeIndex above = tile.parentTreeIndex();
    if (around.oneAbove && above.valid() && above.depth >= channel_->minDepth())
        fillFromParent(tile, tree_->tile(above), around);
    else
        fillSlowly(tile, around, facesOnly);
    around.filled = true;
}

template <class Tr> void BlockReader<Tr>::fillFromParent(Tile const& tile, Tile const& parent, Around& around)
{
    using Taps = ParentTaps<Tr>;
    const int3 cell = parent.childIJK(tile);
    std::array<std::size_t, 3> variants;
    for (int axis = 0; axis < 3; ++axis) variants[std::size_t(axis)] = std::size_t(Taps::variant(cell[axis], offset_, axis));

    std::array<RowClass, 9> classes;
    typename Upsampler<Tr>::Task task;
    task.classes = classes.data();
    task.classCount = rowClasses(around.missing, classes);
    task.parent = &blockOf(parent, kReached<Tr>[variants[0]][variants[1]][variants[2]]);
    task.y = &kParentTaps<Tr>[variants[1]];
    task.z = &kParentTaps<Tr>[variants[2]];
    task.scratch = around.scratchTile(0);
    Upsampler<Tr>::fill(int(variants[0]))(task);
}

template <class Tr> void BlockReader<Tr>::fillSlowly(Tile const& tile, Around& around, bool facesOnly)
{
    constexpr int W = Tr::width;
    if (!halo_) halo_ = TileData<float, W, 1>((W + 2) * (W + 2) * (W + 2));
    const HaloType type = facesOnly ? kHaloFaces : HaloType(kHaloAll - kHaloInterior);
    setHaloTile<Tr, float, 0, 1, 0, 0>(tile.treeIndex(), *channel_, kHaloLinear, type, accessor_, halo_, channel_->defaultValue(),
                                       1.0f, offset_);
    for (int n = 0; n < 27; ++n) {
        if (!(around.missing >> n & 1)) continue;
        float* to = around.scratchTile(n);
        const int3 d = int3(n / 9 - 1, n / 3 % 3 - 1, n % 3 - 1);
        const auto first = [](int side) { return side < 0 ? -1 : side == 0 ? 0 : W; };
        const auto last = [](int side) { return side < 0 ? -1 : side == 0 ? W - 1 : W; };
        for (int k = first(d.z); k <= last(d.z); ++k)
            for (int j = first(d.y); j <= last(d.y); ++j)
                for (int i = first(d.x); i <= last(d.x); ++i)
                    to[(i - W * d.x) + W * ((j - W * d.y) + W * (k - W * d.z))] = halo_(i, j, k);
    }
}

template class BlockReader<BinaryTraits>;
template class BlockReader<QuinaryTraits>;

}  // namespace tilegrid::stencils
