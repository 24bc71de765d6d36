#include "TilegridOps/substrate/tile_lookup.h"

#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <memory>

namespace OST::TileTree3D {

namespace {

// A top grid may have this many entries whatever the tree, and more in proportion to what it leads to: still little beside
// the tiles themselves. Entry and cell numbers share 32 bits.
constexpr uint64 kSmallTop = 64 * 1024;
constexpr uint64 kEntriesPerRungTile = 8;
constexpr uint64 kLargestTop = uint64(1) << 22;

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
    brick.order = BrickOrder::counted;
    int coarseTiles = 0, middleTiles = 0, fineTiles = 0;
    std::fill_n(codes, 512, encoded(at.index, 3));
    auto const& tile = container.tile(at);
    for (int a = 0; a < 8; ++a) {
        const int64 child = tile.childIndex(a);
        if (child < 0) continue;
        brick.coarse |= std::uint8_t(1u << a);
        if (!goesOn(brick.firstCoarse, coarseTiles, child)) brick.order = BrickOrder::listed;
        std::fill_n(codes + a * 64, 64, encoded(child, 2));
        auto const& coarse = container.tile(child, at.depth + 1);
        for (int b = 0; b < 8; ++b) {
            const int64 grandchild = coarse.childIndex(b);
            if (grandchild < 0) continue;
            brick.middle |= uint64(1) << (a * 8 + b);
            if (!goesOn(brick.firstMiddle, middleTiles, grandchild)) brick.order = BrickOrder::listed;
            std::fill_n(codes + a * 64 + b * 8, 8, encoded(grandchild, 1));
            auto const& middle = container.tile(grandchild, at.depth + 2);
            for (int c = 0; c < 8; ++c) {
                const int64 fine = middle.childIndex(c);
                if (fine < 0) continue;
                brick.fine[a] |= uint64(1) << (b * 8 + c);
                if (!goesOn(brick.firstFine, fineTiles, fine)) brick.order = BrickOrder::listed;
                codes[a * 64 + b * 8 + c] = encoded(fine, 0);
            }
        }
    }
    for (int word = 1; word < 8; ++word) brick.rank[word] = std::uint16_t(brick.rank[word - 1] + std::popcount(brick.fine[word - 1]));
}

void fillBrick(Container<QuinaryTraits> const& container, TreeIndex const& at, Brick<QuinaryTraits>& brick, std::uint32_t* codes)
{
    brick.order = BrickOrder::counted;
    int tiles = 0;
    std::fill_n(codes, 125, encoded(at.index, 1));
    auto const& tile = container.tile(at);
    for (int cell = 0; cell < 125; ++cell) {
        const int64 child = tile.childIndex(cell);
        if (child < 0) continue;
        brick.fine[cell / 64] |= uint64(1) << cell % 64;
        if (!goesOn(brick.firstFine, tiles, child)) brick.order = BrickOrder::listed;
        codes[cell] = encoded(child, 0);
    }
    brick.rank[1] = std::uint8_t(std::popcount(brick.fine[0]));
}

}  // namespace

template <class Tr> void TileLookup<Tr>::setRung(Rung& rung, int depth) const
{
    rung.depth = depth;
    rung.width = std::uint32_t(Tr::tileVoxelWidth(depth));
    rung.cellWidth = rung.width / Shape::axisCells;
}

template <class Tr> bool TileLookup<Tr>::placeTop(Container<Tr> const& container, Rung const& rung, int64 deepestTiles)
{
    std::uint32_t low[3], high[3] = {};
    std::fill_n(low, 3, UINT32_MAX);
    for (int64 n = 0; n < container.tileCount(rung.depth); ++n)
        for (int axis = 0; axis < 3; ++axis) {
            const std::uint32_t cell = fromLow(container.tile(n, rung.depth).tijk()[axis]) / rung.width;
            low[axis] = std::min(low[axis], cell);
            high[axis] = std::max(high[axis], cell);
        }
    const uint64 most = std::min(kLargestTop, std::max({kSmallTop, kEntriesPerRungTile * uint64(container.tileCount(rung.depth)),
                                                        uint64(deepestTiles)}));
    uint64 cells = 1;
    for (int axis = 0; axis < 3; ++axis) {
        top_.low[axis] = low[axis] * rung.width;
        top_.size[axis] = high[axis] - low[axis] + 1;
        top_.extent[axis] = top_.size[axis] * rung.width;
        cells *= top_.size[axis];
        if (cells > most) return false;
    }
    top_.cells.resize(cells);
    std::fill(top_.cells.begin(), top_.cells.end(), kOutside);
    fillAxes(rung);
    return true;
}

template <class Tr> void TileLookup<Tr>::fillAxes(Rung const& rung)
{
    top_.cellShift = std::bit_width(rung.cellWidth) - 1;
    top_.byCell = WidthDivider(rung.cellWidth);
    std::uint32_t stride = 1;
    for (int axis = 0; axis < 3; ++axis) {
        auto& entries = top_.axis[axis];
        entries.resize(std::size_t(top_.size[axis]) * Shape::axisCells);
        for (std::uint32_t n = 0; n < entries.size(); ++n)
            entries[n] = (n / Shape::axisCells * stride) << Shape::cellBits | Shape::part(n % Shape::axisCells, axis);
        stride *= top_.size[axis];
    }
}

template <class Tr> bool TileLookup<Tr>::chooseRungs(Container<Tr> const& container, int deepest)
{
    setRung(finest_, std::max(deepest - Shape::span, 0));
    coarser_.clear();
    for (int depth = finest_.depth; depth >= 0; depth -= Shape::span) {
        if (depth < finest_.depth) setRung(*coarser_.emplace(coarser_.begin()), depth);
        if (placeTop(container, coarser_.empty() ? finest_ : coarser_.front(), container.tileCount(deepest))) return true;
    }
    return false;
}

template <class Tr>
void TileLookup<Tr>::fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::int32_t value)
{
    std::uint32_t first[3], last[3];
    for (int axis = 0; axis < 3; ++axis) {
        const std::uint32_t a = low[axis] / rung.width, b = (low[axis] + width - 1) / rung.width;
        const std::uint32_t begin = top_.low[axis] / rung.width;
        if (b < begin || a >= begin + top_.size[axis]) return;
        first[axis] = std::max(a, begin) - begin;
        last[axis] = std::min(b, begin + top_.size[axis] - 1) - begin;
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
    listFineTiles(rung);
}

template <class Tr> void TileLookup<Tr>::listFineTiles(Rung& rung)
{
    std::size_t listed = 0;
    for (Brick<Tr>& brick : rung.bricks)
        if (brick.order == BrickOrder::listed) {
            brick.firstFine = std::int32_t(listed);
            listed += std::size_t(brick.fineTiles());
        }
    rung.listed.resize(listed);
    if (listed == 0) return;
    tilegrid::parallel::forRanges(0, int64(rung.bricks.size()), 32, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            Brick<Tr> const& brick = rung.bricks[n];
            if (brick.order != BrickOrder::listed) continue;
            auto const& codes = rung.codes[std::size_t(brick.codes)];
            std::int32_t* out = rung.listed.data() + brick.firstFine;
            for (int cell = 0; cell < Shape::cells; ++cell)
                if (brick.hasFine(cell)) *out++ = std::int32_t(codes[std::size_t(cell)] & lookup::kIndexMask);
        }
    });
}

template <class Tr> void TileLookup<Tr>::build(Container<Tr> const& container)
{
    built_ = false;
    const int deepest = container.deepestDepth();
    if (deepest < 0) {
        std::fill_n(top_.extent, 3, 0u);
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

template <class Tr> int TileLookup<Tr>::cellIn(Rung const& rung, Place const& place)
{
    const auto part = [&](std::uint32_t along, int axis) { return Shape::part(along % rung.width / rung.cellWidth, axis); };
    return int(part(place.x, 0) + part(place.y, 1) + part(place.z, 2));
}

template <class Tr>
TreeIndex TileLookup<Tr>::locateThroughRungs(int64 index, int cell, Place const& place, Cursor& cursor) const
{
    const std::uint32_t width = finest_.width;
    if (cursor.codes && place.x - cursor.x < width && place.y - cursor.y < width && place.z - cursor.z < width)
        return decoded(cursor.codes[cellIn(finest_, place)], finest_.depth);
    for (std::size_t n = 0; n < coarser_.size(); ++n) {
        Rung const& rung = coarser_[n];
        const TreeIndex next = descend(rung, rung.bricks[std::size_t(index)], index, n == 0 ? cell : cellIn(rung, place));
        if (next.depth < rung.depth + Shape::span) return next;
        index = next.index;
    }
    Brick<Tr> const& brick = finest_.bricks[std::size_t(index)];
    if (brick.codes >= 0) {
        cursor.codes = finest_.codes[std::size_t(brick.codes)].data();
        cursor.x = place.x - place.x % width, cursor.y = place.y - place.y % width, cursor.z = place.z - place.z % width;
    }
    return descend(finest_, brick, index, cellIn(finest_, place));
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
    brick.order = BrickOrder::coded;
    int covered = 1;
    for (int level = 0; level < levelsAbove; ++level) covered *= Tr::childCount;
    auto const& corner = container.tile(added).tijk();
    const int cell = cellIn(finest_, {fromLow(corner.x), fromLow(corner.y), fromLow(corner.z)});
    std::fill_n(finest_.codes[std::size_t(brick.codes)].data() + cell, covered, encoded(added.index, levelsAbove));
}

template <class Tr> void TileLookup<Tr>::memUse(std::size_t& used, std::size_t& reserved) const
{
    const auto add = [&](auto const& slab) {
        used += slab.usedBytes();
        reserved += slab.reservedBytes();
    };
    const auto addRung = [&](Rung const& rung) {
        add(rung.bricks);
        add(rung.codes);
        add(rung.listed);
    };
    add(top_.cells);
    for (auto const& axis : top_.axis) add(axis);
    addRung(finest_);
    for (Rung const& rung : coarser_) addRung(rung);
}

template class TileLookup<BinaryTraits>;
template class TileLookup<QuinaryTraits>;

}  // namespace OST::TileTree3D
