#include "TilegridOps/substrate/tile_lookup.h"

#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <memory>

namespace OST::TileTree3D {

namespace {

// A top grid may have this many cells whatever the tree, and more in proportion to what it leads to.
constexpr uint64 kSmallTop = 64 * 1024;
constexpr uint64 kCellsPerRungTile = 8;

constexpr int64 kMostCoarseTiles = int64(1) << 26;

using lookup::encoded;

/// Whether the tiles counted so far in a level, starting at `first`, go on with `index`.
bool goesOn(std::int32_t& first, int& count, int64 index)
{
    if (count == 0) first = std::int32_t(index);
    return index == first + count++;
}

/// Describes the descendants of a rung tile.
void fillBrick(Container<BinaryTraits> const& container, TreeIndex const& at, Brick<BinaryTraits>& brick, std::uint32_t* codes)
{
    brick.consecutive = true;
    int coarseTiles = 0, middleTiles = 0, fineTiles = 0;
    std::fill_n(codes, 512, encoded(at.index, 3));
    auto const& tile = container.tile(at);
    for (int a = 0; a < 8; ++a) {
        const int64 child = tile.childIndex(a);
        if (child < 0) continue;
        brick.coarse |= std::uint8_t(1u << a);
        brick.consecutive &= goesOn(brick.firstCoarse, coarseTiles, child);
        std::fill_n(codes + a * 64, 64, encoded(child, 2));
        auto const& coarse = container.tile(child, at.depth + 1);
        for (int b = 0; b < 8; ++b) {
            const int64 grandchild = coarse.childIndex(b);
            if (grandchild < 0) continue;
            brick.middle |= uint64(1) << (a * 8 + b);
            brick.consecutive &= goesOn(brick.firstMiddle, middleTiles, grandchild);
            std::fill_n(codes + a * 64 + b * 8, 8, encoded(grandchild, 1));
            auto const& middle = container.tile(grandchild, at.depth + 2);
            for (int c = 0; c < 8; ++c) {
                const int64 fine = middle.childIndex(c);
                if (fine < 0) continue;
                brick.fine[a] |= uint64(1) << (b * 8 + c);
                brick.consecutive &= goesOn(brick.firstFine, fineTiles, fine);
                codes[a * 64 + b * 8 + c] = encoded(fine, 0);
            }
        }
    }
    for (int word = 1; word < 8; ++word) brick.rank[word] = std::uint16_t(brick.rank[word - 1] + std::popcount(brick.fine[word - 1]));
}

void fillBrick(Container<QuinaryTraits> const& container, TreeIndex const& at, Brick<QuinaryTraits>& brick, std::uint32_t* codes)
{
    brick.consecutive = true;
    int tiles = 0;
    std::fill_n(codes, 125, encoded(at.index, 1));
    auto const& tile = container.tile(at);
    for (int cell = 0; cell < 125; ++cell) {
        const int64 child = tile.childIndex(cell);
        if (child < 0) continue;
        brick.fine[cell / 64] |= uint64(1) << cell % 64;
        brick.consecutive &= goesOn(brick.firstFine, tiles, child);
        codes[cell] = encoded(child, 0);
    }
    brick.rank[1] = std::uint8_t(std::popcount(brick.fine[0]));
}

}  // namespace

template <class Tr> void TileLookup<Tr>::setRung(Rung& rung, int depth) const
{
    rung.depth = depth;
    rung.width = std::uint32_t(Tr::tileVoxelWidth(depth));
    rung.shift = std::bit_width(rung.width) - 1;
    if constexpr (Tr::branching == 5) rung.byCell = WidthDivider(std::uint32_t(Tr::voxelWidth(depth)));
}

template <class Tr> bool TileLookup<Tr>::placeTop(Container<Tr> const& container, Rung const& rung)
{
    std::uint32_t high[3] = {};
    std::fill_n(top_.low, 3, UINT32_MAX);
    for (int64 n = 0; n < container.tileCount(rung.depth); ++n)
        for (int axis = 0; axis < 3; ++axis) {
            const std::uint32_t cell = fromLow(container.tile(n, rung.depth).tijk()[axis]) / rung.width;
            top_.low[axis] = std::min(top_.low[axis], cell);
            high[axis] = std::max(high[axis], cell);
        }
    uint64 cells = 1;
    for (int axis = 0; axis < 3; ++axis) {
        top_.size[axis] = high[axis] - top_.low[axis] + 1;
        cells *= top_.size[axis];
        if (cells > std::max(kSmallTop, kCellsPerRungTile * uint64(container.tileCount(rung.depth)))) return false;
    }
    top_.cells.resize(cells);
    std::fill(top_.cells.begin(), top_.cells.end(), kOutside);
    return true;
}

template <class Tr> bool TileLookup<Tr>::chooseRungs(Container<Tr> const& container, int deepest)
{
    setRung(finest_, std::max(deepest - Shape::span, 0));
    coarser_.clear();
    for (int depth = finest_.depth; depth >= 0; depth -= Shape::span) {
        if (depth < finest_.depth) setRung(*coarser_.emplace(coarser_.begin()), depth);
        if (placeTop(container, coarser_.empty() ? finest_ : coarser_.front())) return true;
    }
    return false;
}

template <class Tr>
void TileLookup<Tr>::fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::int32_t value)
{
    std::uint32_t first[3], last[3];
    for (int axis = 0; axis < 3; ++axis) {
        const std::uint32_t a = low[axis] / rung.width, b = (low[axis] + width - 1) / rung.width;
        if (b < top_.low[axis] || a >= top_.low[axis] + top_.size[axis]) return;
        first[axis] = std::max(a, top_.low[axis]) - top_.low[axis];
        last[axis] = std::min(b, top_.low[axis] + top_.size[axis] - 1) - top_.low[axis];
    }
    for (std::uint32_t k = first[2]; k <= last[2]; ++k)
        for (std::uint32_t j = first[1]; j <= last[1]; ++j) {
            std::int32_t* row = top_.cells.data() + (std::size_t(k) * top_.size[1] + j) * top_.size[0];
            std::fill(row + first[0], row + last[0] + 1, value);
        }
}

template <class Tr> void TileLookup<Tr>::fillTop(Container<Tr> const& container, Rung const& rung, TreeIndex const& at)
{
    auto const& tile = container.tile(at);
    std::uint32_t low[3];
    for (int axis = 0; axis < 3; ++axis) low[axis] = fromLow(tile.tijk()[axis]);
    if (at.depth == rung.depth) return fillTopBox(rung, low, rung.width, std::int32_t(at.index));
    const std::int32_t here = ~std::int32_t(at.depth << 26 | std::int32_t(at.index));
    fillTopBox(rung, low, std::uint32_t(tile.tileVoxelWidth()), here);
    if (tile.isLeaf()) return;
    for (int cell = 0; cell < Tr::childCount; ++cell)
        if (tile.childIndex(cell) >= 0) fillTop(container, rung, {tile.childIndex(cell), at.depth + 1});
}

template <class Tr> void TileLookup<Tr>::buildBricks(Container<Tr> const& container, Rung& rung)
{
    const int64 tiles = container.tileCount(rung.depth);
    rung.bricks.resize(std::size_t(tiles));
    std::int32_t tables = 0;
    for (int64 n = 0; n < tiles; ++n) {
        rung.bricks[n] = {};
        if (!container.tile(n, rung.depth).isLeaf()) rung.bricks[n].codes = tables++;
    }
    rung.codes.resize(std::size_t(tables));
    tilegrid::parallel::forRanges(0, tiles, 32, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n)
            if (rung.bricks[n].codes >= 0)
                fillBrick(container, {n, rung.depth}, rung.bricks[n], rung.codes[std::size_t(rung.bricks[n].codes)].data());
    });
}

template <class Tr> void TileLookup<Tr>::build(Container<Tr> const& container)
{
    built_ = false;
    const int deepest = container.deepestDepth();
    if (deepest < 0) {
        std::fill_n(top_.size, 3, 0u);
        top_.cells.clear();
        coarser_.clear();
        topIsFinest_ = true;
        setRung(finest_, 0);
        built_ = true;
        return;
    }
    if (!chooseRungs(container, deepest)) return;
    topIsFinest_ = coarser_.empty();
    Rung const& first = coarser_.empty() ? finest_ : coarser_.front();
    for (int depth = 0; depth < first.depth; ++depth)
        if (container.tileCount(depth) > kMostCoarseTiles) return;
    for (auto root = container.cbeginRoots(); root != container.cendRoots(); ++root) fillTop(container, first, root->second);
    for (Rung& rung : coarser_) buildBricks(container, rung);
    buildBricks(container, finest_);
    built_ = true;
}

template <class Tr> TreeIndex TileLookup<Tr>::locateThroughRungs(Place const& place, Cursor& cursor) const
{
    const std::int32_t top = topCell(split(coarser_.front(), place));
    if (top < 0) return coarseTile(top);
    int64 index = top;
    for (Rung const& rung : coarser_) {
        const TreeIndex next = descend(rung, index, split(rung, place).cell);
        if (next.depth < rung.depth + Shape::span) return next;
        index = next.index;
    }
    return visit(index, place, split(finest_, place), cursor);
}

template <class Tr> void TileLookup<Tr>::tileAdded(Container<Tr> const& container, TreeIndex const& added)
{
    if (!built_) return;
    const int levelsAbove = finest_.depth + Shape::span - added.depth;
    built_ = levelsAbove >= 0 && levelsAbove < Shape::span && coarser_.empty();
    if (!built_) return;
    TreeIndex rungTile = added;
    while (rungTile.depth > finest_.depth) rungTile = container.tile(rungTile).parentTreeIndex();
    built_ = rungTile.index < int64(finest_.bricks.size());
    if (!built_) return;
    Brick<Tr>& brick = finest_.bricks[std::size_t(rungTile.index)];
    if (brick.codes < 0) {
        brick.codes = std::int32_t(finest_.codes.size());
        finest_.codes.resize(finest_.codes.size() + 1);
        finest_.codes[std::size_t(brick.codes)].fill(encoded(rungTile.index, Shape::span));
    }
    brick.consecutive = false;
    int covered = 1;
    for (int level = 0; level < levelsAbove; ++level) covered *= Tr::childCount;
    auto const& corner = container.tile(added).tijk();
    const int cell = split(finest_, {fromLow(corner.x), fromLow(corner.y), fromLow(corner.z)}).cell;
    std::fill_n(finest_.codes[std::size_t(brick.codes)].data() + cell, covered, encoded(added.index, levelsAbove));
}

template <class Tr> void TileLookup<Tr>::memUse(std::size_t& used, std::size_t& reserved) const
{
    const auto add = [&](auto const& slab) {
        used += slab.usedBytes();
        reserved += slab.reservedBytes();
    };
    add(top_.cells);
    add(finest_.bricks);
    add(finest_.codes);
    for (Rung const& rung : coarser_) {
        add(rung.bricks);
        add(rung.codes);
    }
}

template class TileLookup<BinaryTraits>;
template class TileLookup<QuinaryTraits>;

}  // namespace OST::TileTree3D
