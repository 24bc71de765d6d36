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

using lookup::encoded;

/// Fills in the fine tile of a cell; `count` is the number of those before it.
template <class Tr> void setFine(Brick<Tr>& brick, std::uint32_t* codes, int cell, int64 index, int& count)
{
    brick.fine[cell / 64] |= uint64(1) << cell % 64;
    if (count == 0) brick.firstFine = std::int32_t(index);
    if (index != brick.firstFine + count++) brick.order = BrickOrder::listed;
    codes[cell] = encoded(index, 0);
}

/// Describes the descendants of a rung tile.
void fillBrick(Container<BinaryTraits> const& container, TreeIndex const& at, Brick<BinaryTraits>& brick, std::uint32_t* codes,
               std::uint32_t* above)
{
    int count = 0;
    std::fill_n(above, 64, encoded(at.index, 3));
    auto const& tile = container.tile(at);
    for (int a = 0; a < 8; ++a) {
        const int64 child = tile.childIndex(a);
        if (child < 0) continue;
        std::fill_n(above + a * 8, 8, encoded(child, 2));
        auto const& coarse = container.tile(child, at.depth + 1);
        for (int b = 0; b < 8; ++b)
            if (coarse.childIndex(b) >= 0) above[a * 8 + b] = encoded(coarse.childIndex(b), 1);
    }
    for (int group = 0; group < 64; ++group) {
        std::fill_n(codes + group * 8, 8, above[group]);
        if (above[group] >> 30 != 1) continue;
        auto const& middle = container.tile(above[group] & lookup::kIndexMask, at.depth + 2);
        for (int c = 0; c < 8; ++c)
            if (middle.childIndex(c) >= 0) setFine(brick, codes, group * 8 + c, middle.childIndex(c), count);
    }
}

void fillBrick(Container<QuinaryTraits> const& container, TreeIndex const& at, Brick<QuinaryTraits>& brick, std::uint32_t* codes,
               std::uint32_t* above)
{
    int count = 0;
    *above = encoded(at.index, 1);
    std::fill_n(codes, 125, *above);
    auto const& tile = container.tile(at);
    for (int cell = 0; cell < 125; ++cell)
        if (tile.childIndex(cell) >= 0) setFine(brick, codes, cell, tile.childIndex(cell), count);
}

}  // namespace

template <class Tr> TileLookup<Tr> const& TileLookup<Tr>::none()
{
    static const TileLookup nothing;
    return nothing;
}

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
    const uint64 most = std::min(
        kLargestTop,
        std::max({kSmallTop, kEntriesPerRungTile * uint64(container.tileCount(rung.depth)), uint64(deepestTiles)}));
    uint64 cells = 1;
    for (int axis = 0; axis < 3; ++axis) {
        top_.origin[axis] = low[axis] * rung.width + std::uint32_t(Tr::rangeMin);
        top_.size[axis] = high[axis] - low[axis] + 1;
        top_.extent[axis] = top_.size[axis] * rung.width;
        cells *= top_.size[axis];
        if (cells > most) return false;
    }
    top_.cells.resize(cells);
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
        if (placeTop(container, coarser_.empty() ? finest_ : coarser_.front(), container.tileCount(deepest)))
            return true;
    }
    return false;
}

template <class Tr>
void TileLookup<Tr>::fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::uint32_t brick)
{
    std::uint32_t first[3], last[3];
    for (int axis = 0; axis < 3; ++axis) {
        const std::uint32_t a = low[axis] / rung.width, b = (low[axis] + width - 1) / rung.width;
        const std::uint32_t begin = (top_.origin[axis] - std::uint32_t(Tr::rangeMin)) / rung.width;
        if (b < begin || a >= begin + top_.size[axis]) return;
        first[axis] = std::max(a, begin) - begin;
        last[axis] = std::min(b, begin + top_.size[axis] - 1) - begin;
    }
    for (std::uint32_t k = first[2]; k <= last[2]; ++k)
        for (std::uint32_t j = first[1]; j <= last[1]; ++j) {
            std::uint32_t* row = top_.cells.data() + (std::size_t(k) * top_.size[1] + j) * top_.size[0];
            std::fill(row + first[0], row + last[0] + 1, brick);
        }
}

template <class Tr> void TileLookup<Tr>::fillTop(Container<Tr> const& container, Rung& rung, TreeIndex const& at)
{
    auto const& tile = container.tile(at);
    std::uint32_t low[3];
    for (int axis = 0; axis < 3; ++axis) low[axis] = fromLow(tile.tijk()[axis]);
    if (at.depth == rung.depth) return fillTopBox(rung, low, rung.width, std::uint32_t(at.index));
    fillTopBox(rung, low, std::uint32_t(tile.tileVoxelWidth()), std::uint32_t(rung.bricks.size()));
    Brick<Tr> cover;
    cover.self = std::int32_t(at.index);
    cover.selfDepth = std::int8_t(at.depth);
    rung.bricks.push_back(cover);
    if (tile.isLeaf()) return;
    for (int cell = 0; cell < Tr::childCount; ++cell)
        if (tile.childIndex(cell) >= 0) fillTop(container, rung, {tile.childIndex(cell), at.depth + 1});
}

template <class Tr> void TileLookup<Tr>::buildBricks(Container<Tr> const& container, Rung& rung)
{
    const int64 tiles = container.tileCount(rung.depth);
    std::int32_t tables = 0;
    for (int64 n = 0; n < tiles; ++n) {
        Brick<Tr>& brick = rung.bricks[std::size_t(n)] = {};
        brick.self = std::int32_t(n);
        brick.selfDepth = std::int8_t(rung.depth);
        if (!container.tile(n, rung.depth).isLeaf()) brick.codes = tables++;
    }
    rung.codes.resize(std::size_t(std::max(tables, 1)) * Shape::cells);
    rung.above.resize(std::size_t(std::max(tables, 1)) * Shape::groups);
    tilegrid::parallel::forRanges(0, tiles, 32, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n)
            if (rung.bricks[n].codes >= 0) {
                fillBrick(container, {n, rung.depth}, rung.bricks[n], rung.codesOf(rung.bricks[n]),
                          rung.above.data() + std::size_t(rung.bricks[n].codes) * Shape::groups);
                rung.bricks[n].setRanks();
            }
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
            std::uint32_t const* codes = rung.codesOf(brick);
            std::int32_t* out = rung.listed.data() + brick.firstFine;
            for (int cell = 0; cell < Shape::cells; ++cell)
                if (brick.hasFine(cell)) *out++ = std::int32_t(codes[cell] & lookup::kIndexMask);
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
    for (Rung& rung : coarser_) rung.bricks.resize(std::size_t(container.tileCount(rung.depth)));
    finest_.bricks.resize(std::size_t(container.tileCount(finest_.depth)));
    Rung& first = coarser_.empty() ? finest_ : coarser_.front();
    std::fill(top_.cells.begin(), top_.cells.end(), std::uint32_t(first.bricks.size()));
    first.bricks.push_back({});
    for (auto root = container.cbeginRoots(); root != container.cendRoots(); ++root)
        fillTop(container, first, root->second);
    for (Rung& rung : coarser_) buildBricks(container, rung);
    buildBricks(container, finest_);
    built_ = true;
}

template <class Tr> int TileLookup<Tr>::cellIn(Rung const& rung, Place const& place)
{
    const auto part = [&](std::uint32_t along, int axis) {
        return Shape::part(along % rung.width / rung.cellWidth, axis);
    };
    return int(part(place.x, 0) + part(place.y, 1) + part(place.z, 2));
}

template <class Tr>
TreeIndex TileLookup<Tr>::locateThroughRungs(std::uint32_t top, int cell, Place const& place, Cursor& cursor) const
{
    const std::uint32_t width = finest_.width;
    if (cursor.codes && place.x - cursor.x < width && place.y - cursor.y < width && place.z - cursor.z < width)
        return decoded(cursor.codes[cellIn(finest_, place)], finest_.depth);
    std::size_t at = top;
    for (std::size_t n = 0; n < coarser_.size(); ++n) {
        Rung const& rung = coarser_[n];
        const TreeIndex next = descend(rung, rung.bricks[at], n == 0 ? cell : cellIn(rung, place));
        if (next.depth < rung.depth + Shape::span) return next;
        at = std::size_t(next.index);
    }
    Brick<Tr> const& brick = finest_.bricks[at];
    if (brick.codes >= 0) {
        cursor.codes = finest_.codesOf(brick);
        cursor.x = place.x - place.x % width, cursor.y = place.y - place.y % width,
        cursor.z = place.z - place.z % width;
    }
    return descend(finest_, brick, cellIn(finest_, place));
}

template <class Tr> void TileLookup<Tr>::tileAdded(Container<Tr> const& container, TreeIndex const& added)
{
    if (!built_) return;
    const int levelsAbove = finest_.depth + Shape::span - added.depth;
    built_ = levelsAbove >= 0 && levelsAbove < Shape::span && coarser_.empty();
    if (!built_) return;
    TreeIndex rungTile = added;
    while (rungTile.depth > finest_.depth) rungTile = container.tile(rungTile).parentTreeIndex();
    Brick<Tr>& brick = finest_.bricks[std::size_t(rungTile.index)];
    if (brick.codes < 0) {
        brick.codes = std::int32_t(finest_.codes.size() / Shape::cells);
        finest_.codes.resize(finest_.codes.size() + Shape::cells);
        finest_.above.resize(finest_.above.size() + Shape::groups);
        std::fill_n(finest_.codesOf(brick), Shape::cells, encoded(rungTile.index, Shape::span));
    }
    brick.order = BrickOrder::coded;
    int covered = 1;
    for (int level = 0; level < levelsAbove; ++level) covered *= Tr::childCount;
    auto const& corner = container.tile(added).tijk();
    const int cell = cellIn(finest_, {fromLow(corner.x), fromLow(corner.y), fromLow(corner.z)});
    std::fill_n(finest_.codesOf(brick) + cell, covered, encoded(added.index, levelsAbove));
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
        add(rung.above);
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
