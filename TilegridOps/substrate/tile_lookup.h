#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/substrate/slab.h"
#include "TilegridOps/substrate/tile.h"

#include <array>
#include <bit>
#include <vector>

/// Point location without a walk from the root.
///
/// A *rung* is a depth whose tiles have bricks: for the deepest depth in use, D, the rungs are D - S, D - 2S, ... with S
/// levels below each. A brick describes the descendants of one rung tile over those S levels, twice: as bit masks with rank
/// counts (small, for the first visit, when its memory is cold) and as a table of codes, one per cell of the finest of its
/// levels (one load, for further visits). A dense *top grid* of tile indices over the bounding box of one rung leads to the
/// first brick; one small table per axis turns a place into the number of its top entry and of its cell in the brick.
namespace OST::TileTree3D {

template <class Tr> class Container;

/// Exact division of an unsigned place by a tile width.
class WidthDivider {
public:
    constexpr WidthDivider() = default;
    /// For dividends below 2^31: with f = ceil(2^s / d) and s = 31 + ceil(log2 d), floor(n f / 2^s) = floor(n / d).
    constexpr explicit WidthDivider(std::uint32_t divisor)
        : shift_(31 + std::bit_width(divisor - 1)), factor_(((uint64(1) << shift_) + divisor - 1) / divisor)
    {
    }
    constexpr std::uint32_t operator()(std::uint32_t n) const { return static_cast<std::uint32_t>((n * factor_) >> shift_); }

private:
    int shift_ = 31;
    uint64 factor_ = uint64(1) << 31;
};

namespace lookup {

/// Codes and cells hold tile indices in 30 bits.
inline constexpr std::uint32_t kIndexMask = (1u << 30) - 1;

template <class Tr> struct Shape;

template <> struct Shape<BinaryTraits> {
    /// Levels below a rung, and cells of the finest of them in a brick.
    static constexpr int span = 3;
    static constexpr int cells = 512;
    static constexpr int axisCells = 8, cellBits = 9;
    /// What a coordinate of a cell adds to the cell's number, a Morton code: bits of x, y and z interleaved, x lowest.
    static constexpr std::uint32_t part(std::uint32_t at, int axis)
    {
        return ((at & 1) | (at & 2) << 2 | (at & 4) << 4) << axis;
    }
};
template <> struct Shape<QuinaryTraits> {
    static constexpr int span = 1;
    static constexpr int cells = 125;
    static constexpr int axisCells = 5, cellBits = 7;
    static constexpr std::uint32_t part(std::uint32_t at, int axis) { return at * (axis == 0 ? 1 : axis == 1 ? 5 : 25); }
};

/// A code: the index of a tile, and how many levels it lies above the finest of its brick.
constexpr std::uint32_t encoded(int64 index, int levelsAboveFinest)
{
    return std::uint32_t(index) | std::uint32_t(levelsAboveFinest) << 30;
}
template <class Tr> constexpr TreeIndex decoded(std::uint32_t code, int rungDepth)
{
    return {int64(code & kIndexMask), rungDepth + Shape<Tr>::span - int(code >> 30)};
}

}  // namespace lookup

/// How the tile of a set bit is found from the number of bits before it.
enum class BrickOrder : std::uint8_t {
    /// The tiles of each level follow each other in Morton order: `first` plus that number.
    counted,
    /// The fine tiles lie apart, as after growth: an entry of the rung's list. Other levels by codes.
    listed,
    /// Only the codes are right.
    coded
};

/// The masks of one brick, a bit per cell of a level that has a tile, in Morton order.
template <class Tr> struct Brick;

template <> struct alignas(64) Brick<BinaryTraits> {
    uint64 fine[8] = {};
    std::uint16_t rank[8] = {};
    uint64 middle = 0;
    std::int32_t firstFine = 0, firstMiddle = 0, firstCoarse = 0;
    /// Number of its code table, -1 for a rung tile without children.
    std::int32_t codes = -1;
    std::uint8_t coarse = 0;
    BrickOrder order = BrickOrder::counted;

    bool hasFine(int cell) const { return fine[cell >> 6] >> (cell & 63) & 1; }
    /// Fine tiles in the cells before this one.
    int fineBefore(int cell) const { return rank[cell >> 6] + below(fine[cell >> 6], cell & 63); }
    int fineTiles() const { return rank[7] + std::popcount(fine[7]); }
    /// The deepest tile above the finest level at a cell of the brick of rung tile `at`, while they are counted.
    TreeIndex aboveFine(TreeIndex const& at, int cell) const
    {
        const int eighth = cell >> 6;
        if (middle >> (cell >> 3) & 1) return {firstMiddle + below(middle, cell >> 3), at.depth + 2};
        if (coarse >> eighth & 1) return {firstCoarse + below(coarse, eighth), at.depth + 1};
        return at;
    }
    static int below(uint64 mask, int bit) { return std::popcount(mask & ((uint64(1) << bit) - 1)); }
};
static_assert(sizeof(Brick<BinaryTraits>) == 128);

template <> struct Brick<QuinaryTraits> {
    uint64 fine[2] = {};
    std::int32_t firstFine = 0;
    std::int32_t codes = -1;
    std::uint8_t rank[2] = {};
    BrickOrder order = BrickOrder::counted;

    bool hasFine(int cell) const { return fine[cell >> 6] >> (cell & 63) & 1; }
    int fineBefore(int cell) const
    {
        return rank[cell >> 6] + std::popcount(fine[cell >> 6] & ((uint64(1) << (cell & 63)) - 1));
    }
    int fineTiles() const { return rank[1] + std::popcount(fine[1]); }
    TreeIndex aboveFine(TreeIndex const& at, int) const { return at; }
};
static_assert(sizeof(Brick<QuinaryTraits>) == 32);

template <class Tr> class TILEGRID_API TileLookup {
    using Shape = lookup::Shape<Tr>;

public:
    /// Where the last query of an accessor ended: the codes of a brick and its top entry, or (with more than one rung) the
    /// low corner of its rung tile. Reset it when the tree has changed.
    struct Cursor {
        std::uint32_t entry = UINT32_MAX;
        std::uint32_t x = 0, y = 0, z = 0;
        std::uint32_t const* codes = nullptr;
    };

    bool built() const { return built_; }
    void clear() { built_ = false; }
    /// Describes the tree as it is. Stays not built if the tree is too large for packed indices.
    void build(Container<Tr> const& container);
    /// Follows the addition of one tile at the end of its level, or gives up (`built()` is false then).
    void tileAdded(Container<Tr> const& container, TreeIndex const& added);
    void memUse(std::size_t& used, std::size_t& reserved) const;

    /// The finest tile that contains the place, (-1,-1) where this knows none: outside the box of the top grid only the
    /// tree itself can tell. Only when built.
    TreeIndex find(int i, int j, int k, Cursor& cursor) const
    {
        const std::uint32_t x = fromLow(i) - top_.low[0], y = fromLow(j) - top_.low[1], z = fromLow(k) - top_.low[2];
        if (x >= top_.extent[0] || y >= top_.extent[1] || z >= top_.extent[2]) return {};
        const std::uint32_t at = top_.axis[0][top_.cellOf(x)] + top_.axis[1][top_.cellOf(y)] + top_.axis[2][top_.cellOf(z)];
        const std::uint32_t entry = at >> Shape::cellBits;
        const int cell = int(at & ((1u << Shape::cellBits) - 1));
        if (entry == cursor.entry) return decoded(cursor.codes[cell], finest_.depth);
        const std::int32_t top = top_.cells[entry];
        if (top < 0) return coarseTile(top);
        if (!topIsFinest_) return locateThroughRungs(top, cell, {fromLow(i), fromLow(j), fromLow(k)}, cursor);
        Brick<Tr> const& brick = finest_.bricks[std::size_t(top)];
        if (brick.codes >= 0) {
            cursor.codes = finest_.codes[std::size_t(brick.codes)].data();
            cursor.entry = entry;
        }
        return descend(finest_, brick, top, cell);
    }

private:
    /// Tile space counted from its low end.
    struct Place {
        std::uint32_t x, y, z;
    };
    struct Rung {
        int depth = 0;
        std::uint32_t width = 1, cellWidth = 1;
        tilegrid::Slab<Brick<Tr>> bricks;
        tilegrid::Slab<std::array<std::uint32_t, Shape::cells>> codes;
        /// Indices of the fine tiles of listed bricks, brick after brick in Morton order.
        tilegrid::Slab<std::int32_t> listed;
    };
    /// The box of a rung's tiles, and for each of its entries the index of the rung tile; negative:
    /// ~(depth << 26 | index) of the coarser tile that covers the entry; kOutside.
    struct TopGrid {
        std::uint32_t low[3] = {}, extent[3] = {}, size[3] = {};
        tilegrid::Slab<std::int32_t> cells;
        /// Per axis, what a cell of the rung's bricks adds: number of the entry above `cellBits` bits for that of the cell.
        tilegrid::Slab<std::uint32_t> axis[3];
        /// Binary: log2 of the width of a cell. Quinary: a divider by it.
        int cellShift = 0;
        WidthDivider byCell;

        std::uint32_t cellOf(std::uint32_t along) const
        {
            if constexpr (Tr::branching == 2)
                return along >> cellShift;
            else
                return byCell(along);
        }
    };
    static constexpr std::int32_t kOutside = INT32_MIN;

    static std::uint32_t fromLow(std::int32_t v) { return std::uint32_t(v) - std::uint32_t(Tr::rangeMin); }
    static TreeIndex decoded(std::uint32_t code, int rungDepth) { return lookup::decoded<Tr>(code, rungDepth); }
    static TreeIndex coarseTile(std::int32_t top)
    {
        const auto packed = std::uint32_t(~top);
        return top == kOutside ? TreeIndex{} : TreeIndex{int64(packed & ((1u << 26) - 1)), int(packed >> 26)};
    }
    /// The deepest tile in the brick of rung tile `index`.
    static TreeIndex descend(Rung const& rung, Brick<Tr> const& brick, int64 index, int cell)
    {
        if (brick.hasFine(cell)) {
            const int at = brick.firstFine + brick.fineBefore(cell);
            if (brick.order == BrickOrder::counted) return {at, rung.depth + Shape::span};
            if (brick.order == BrickOrder::listed) return {rung.listed[std::size_t(at)], rung.depth + Shape::span};
        } else if (brick.order == BrickOrder::counted) {
            return brick.aboveFine({index, rung.depth}, cell);
        }
        return decoded(rung.codes[std::size_t(brick.codes)][std::size_t(cell)], rung.depth);
    }
    static int cellIn(Rung const& rung, Place const& place);
    TreeIndex locateThroughRungs(int64 index, int cell, Place const& place, Cursor& cursor) const;

    bool chooseRungs(Container<Tr> const& container, int deepest);
    void setRung(Rung& rung, int depth) const;
    bool placeTop(Container<Tr> const& container, Rung const& rung, int64 deepestTiles);
    void fillAxes(Rung const& rung);
    void fillTop(Container<Tr> const& container, Rung const& rung, TreeIndex const& at);
    void fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::int32_t value);
    void buildBricks(Container<Tr> const& container, Rung& rung);
    void listFineTiles(Rung& rung);

    Rung finest_;
    TopGrid top_;
    /// Rungs above the finest one, coarsest first; the top grid leads to the first of all.
    std::vector<Rung> coarser_;
    bool topIsFinest_ = true;
    bool built_ = false;
};

extern template class TileLookup<BinaryTraits>;
extern template class TileLookup<QuinaryTraits>;

}  // namespace OST::TileTree3D
