#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/substrate/slab.h"
#include "TilegridOps/substrate/tile.h"

#include <bit>
#include <utility>
#include <vector>

/// Point location without a walk from the root.
///
/// A *rung* is a depth whose tiles have bricks: for the deepest depth in use, D, the rungs are D - S, D - 2S, ... with S
/// levels below each. A brick describes the descendants of one rung tile over those S levels, twice: as bit masks with rank
/// counts (small, for the first visit, when its memory is cold) and as a table of codes, one per cell of the finest of its
/// levels (one load, for further visits). A dense *top grid* of tile indices over the bounding box of one rung leads to the
/// first brick; one small table per axis turns a place into the number of its top entry and of its cell in the brick.
namespace OST::TileTree3D {

template <class Tr> class TILEGRID_API Container;

/// Exact division of an unsigned place by a tile width above 1: with f = ceil(2^64 / d), floor(n f / 2^64) = floor(n / d) while
/// n d < 2^64.
class WidthDivider {
public:
    constexpr WidthDivider() = default;
    constexpr explicit WidthDivider(std::uint32_t divisor) : factor_(~uint64(0) / divisor + 1) {}
    constexpr std::uint32_t operator()(std::uint32_t n) const
    {
        return static_cast<std::uint32_t>(static_cast<unsigned __int128>(factor_) * n >> 64);
    }

private:
    uint64 factor_ = 0;
};

namespace lookup {

/// Codes and cells hold tile indices in 30 bits.
inline constexpr std::uint32_t kIndexMask = (1u << 30) - 1;

template <class Tr> struct Shape;

template <> struct Shape<BinaryTraits> {
    /// Levels below a rung, and cells of the finest of them in a brick.
    static constexpr int span = 3;
    static constexpr int cells = 512;
    /// Cells of the level above the finest.
    static constexpr int groups = 64;
    static constexpr int group(int cell) { return cell >> 3; }
    static constexpr int axisCells = 8, cellBits = 9;
    static constexpr int brickSize = 128;
    using Rank = std::uint16_t;
    /// What a coordinate of a cell adds to the cell's number, a Morton code: bits of x, y and z interleaved, x lowest.
    static constexpr std::uint32_t part(std::uint32_t at, int axis)
    {
        return ((at & 1) | (at & 2) << 2 | (at & 4) << 4) << axis;
    }
};
template <> struct Shape<QuinaryTraits> {
    static constexpr int span = 1;
    static constexpr int cells = 125;
    static constexpr int groups = 1;
    static constexpr int group(int) { return 0; }
    static constexpr int axisCells = 5, cellBits = 7;
    static constexpr int brickSize = 32;
    using Rank = std::uint8_t;
    static constexpr std::uint32_t part(std::uint32_t at, int axis)
    {
        return at * (axis == 0 ? 1 : axis == 1 ? 5 : 25);
    }
};

/// `a` if `first`, else `b`, without a branch whatever the compiler thinks of its chances.
constexpr std::int32_t select(bool first, std::int32_t a, std::int32_t b)
{
    return b + ((a - b) & -std::int32_t(first));
}

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

/// How the fine tile of a set bit is found from the number of bits before it.
enum class BrickOrder : std::uint8_t {
    /// They follow each other: `firstFine` plus that number.
    counted,
    /// They lie apart, as after growth: an entry of the rung's list.
    listed,
    /// The bits are out of date: only the codes are right.
    coded
};

/// What the finest level of one brick looks like: a bit per cell that has a tile.
template <class Tr> struct alignas(lookup::Shape<Tr>::brickSize) Brick {
    static constexpr int words = (lookup::Shape<Tr>::cells + 63) / 64;

    uint64 fine[words] = {};
    std::int32_t firstFine = 0;
    /// Number of its code table, -1 for a rung tile without children.
    std::int32_t codes = -1;
    /// The tile that the brick describes, or that covers its place.
    std::int32_t self = -1;
    std::int8_t selfDepth = -1;
    BrickOrder order = BrickOrder::counted;
    /// Bits set before each word.
    typename lookup::Shape<Tr>::Rank rank[words] = {};

    bool hasFine(int cell) const { return fine[cell >> 6] >> (cell & 63) & 1; }
    /// Fine tiles in the cells before this one, which has one.
    int fineBefore(int cell) const
    {
        return rank[cell >> 6] + std::popcount(fine[cell >> 6] << (63 - (cell & 63))) - 1;
    }
    int fineTiles() const { return rank[words - 1] + std::popcount(fine[words - 1]); }
    void setRanks()
    {
        for (int word = 1; word < words; ++word)
            rank[word] = typename lookup::Shape<Tr>::Rank(rank[word - 1] + std::popcount(fine[word - 1]));
    }
};
static_assert(sizeof(Brick<BinaryTraits>) == lookup::Shape<BinaryTraits>::brickSize);
static_assert(sizeof(Brick<QuinaryTraits>) == lookup::Shape<QuinaryTraits>::brickSize);

template <class Tr> class TILEGRID_API TileLookup {
    using Shape = lookup::Shape<Tr>;
    static constexpr std::uint32_t kNoEntry = UINT32_MAX;

public:
    /// Where the last query of an accessor ended: the codes of a brick and its top entry, or (with more than one rung) the
    /// low corner of its rung tile. Reset it when the tree has changed.
    struct Cursor {
        std::uint32_t entry = kNoEntry;
        std::uint32_t x = 0, y = 0, z = 0;
        std::uint32_t const* codes = nullptr;
    };

    /// Of a tree about which nothing is known: finds no tile.
    static TileLookup const& none();

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
        const std::uint32_t x = std::uint32_t(i) - top_.origin[0], y = std::uint32_t(j) - top_.origin[1],
                            z = std::uint32_t(k) - top_.origin[2];
        if (x >= top_.extent[0] || y >= top_.extent[1] || z >= top_.extent[2]) return {};
        const std::uint32_t at =
            top_.axis[0][top_.cellOf(x)] + top_.axis[1][top_.cellOf(y)] + top_.axis[2][top_.cellOf(z)];
        const std::uint32_t entry = at >> Shape::cellBits;
        const int cell = int(at & ((1u << Shape::cellBits) - 1));
        if (entry == cursor.entry) return decoded(cursor.codes[cell], finest_.depth);
        const std::uint32_t top = top_.cells[entry];
        if (!topIsFinest_) return locateThroughRungs(top, cell, {fromLow(i), fromLow(j), fromLow(k)}, cursor);
        Brick<Tr> const& brick = finest_.bricks[top];
        const std::int32_t codes = brick.codes;
        cursor.entry = entry | std::uint32_t(codes >> 31);  // kNoEntry without codes
        cursor.codes = finest_.codesAt(codes);
        return descend(finest_, brick, cell);
    }

private:
    /// Tile space counted from its low end.
    struct Place {
        std::uint32_t x, y, z;
    };
    struct Rung {
        int depth = 0;
        std::uint32_t width = 1, cellWidth = 1;
        /// Of the rung's tiles by index. Behind them, in the rung of the top grid, bricks without descendants: one that stands
        /// for no tile at all, then one for each coarser tile.
        tilegrid::Slab<Brick<Tr>> bricks;
        /// Code tables, one after the other, and what they hold where there is no fine tile, by groups of cells.
        tilegrid::Slab<std::uint32_t> codes, above;
        /// Indices of the fine tiles of listed bricks, brick after brick in Morton order.
        tilegrid::Slab<std::int32_t> listed;

        /// Any table, if `table` is -1: there is always one.
        std::uint32_t const* codesAt(std::int32_t table) const
        {
            return codes.data() + std::size_t(table & ~(table >> 31)) * Shape::cells;
        }
        std::uint32_t const* aboveOf(Brick<Tr> const& brick) const
        {
            return above.data() + std::size_t(brick.codes & ~(brick.codes >> 31)) * Shape::groups;
        }
        std::uint32_t const* codesOf(Brick<Tr> const& brick) const { return codesAt(brick.codes); }
        std::uint32_t* codesOf(Brick<Tr> const& brick)
        {
            return const_cast<std::uint32_t*>(std::as_const(*this).codesOf(brick));
        }
    };
    /// The box of a rung's tiles, and for each of its entries the number of the brick there.
    struct TopGrid {
        /// Low corner in tile space (the low one as unsigned, so that differences are right), extent, and entries per axis.
        std::uint32_t origin[3] = {}, extent[3] = {}, size[3] = {};
        tilegrid::Slab<std::uint32_t> cells;
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
    static std::uint32_t fromLow(std::int32_t v) { return std::uint32_t(v) - std::uint32_t(Tr::rangeMin); }
    static TreeIndex decoded(std::uint32_t code, int rungDepth) { return lookup::decoded<Tr>(code, rungDepth); }
    /// The deepest tile at a cell of a brick. At random places there is no telling which of the coarser levels it belongs to,
    /// so nothing branches on it.
    static TreeIndex descend(Rung const& rung, Brick<Tr> const& brick, int cell)
    {
        const bool fine = brick.hasFine(cell);
        const std::int32_t at = brick.firstFine + brick.fineBefore(cell);
        if constexpr (Shape::span == 1) {
            if (brick.order == BrickOrder::counted)
                return {lookup::select(fine, at, brick.self), brick.selfDepth + fine};
        }
        if (fine && brick.order != BrickOrder::coded)
            return {brick.order == BrickOrder::counted ? at : rung.listed[std::size_t(at)], rung.depth + Shape::span};
        if (brick.order == BrickOrder::coded) return decoded(rung.codesOf(brick)[cell], rung.depth);
        const TreeIndex tile = decoded(rung.aboveOf(brick)[Shape::group(cell)], rung.depth);
        const bool hasCodes = brick.codes >= 0;
        return {lookup::select(hasCodes, std::int32_t(tile.index), brick.self),
                lookup::select(hasCodes, tile.depth, brick.selfDepth)};
    }
    static int cellIn(Rung const& rung, Place const& place);
    TreeIndex locateThroughRungs(std::uint32_t top, int cell, Place const& place, Cursor& cursor) const;

    bool chooseRungs(Container<Tr> const& container, int deepest);
    void setRung(Rung& rung, int depth) const;
    bool placeTop(Container<Tr> const& container, Rung const& rung, int64 deepestTiles);
    void fillAxes(Rung const& rung);
    void fillTop(Container<Tr> const& container, Rung& rung, TreeIndex const& at);
    void fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::uint32_t brick);
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
