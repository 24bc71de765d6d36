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
/// levels (one load, for further visits, and for tiles that do not lie in Morton order). A dense *top grid* of tile indices
/// over the bounding box of one rung leads to the first brick.
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
    /// Morton code of a cell: bits of x, y and z interleaved, x lowest.
    static constexpr std::array<std::uint16_t, 8> spread = {0, 1, 8, 9, 64, 65, 72, 73};
};
template <> struct Shape<QuinaryTraits> {
    static constexpr int span = 1;
    static constexpr int cells = 125;
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
    /// Whether the tiles of each level follow each other in Morton order, so that counting bits gives indices.
    bool consecutive = true;
};
static_assert(sizeof(Brick<BinaryTraits>) == 128);

template <> struct Brick<QuinaryTraits> {
    uint64 fine[2] = {};
    std::int32_t firstFine = 0;
    std::int32_t codes = -1;
    std::uint8_t rank[2] = {};
    bool consecutive = true;
};
static_assert(sizeof(Brick<QuinaryTraits>) == 32);

namespace lookup {

/// The deepest tile at a cell of the brick of rung tile `at`, by the masks; they hold while tiles are consecutive.
inline TreeIndex deepestByMasks(Brick<BinaryTraits> const& brick, TreeIndex const& at, int cell)
{
    const auto below = [](uint64 mask, int bit) { return std::popcount(mask & ((uint64(1) << bit) - 1)); };
    const int word = cell >> 6, bit = cell & 63;
    if (brick.fine[word] >> bit & 1) return {brick.firstFine + brick.rank[word] + below(brick.fine[word], bit), at.depth + 3};
    if (brick.middle >> (cell >> 3) & 1) return {brick.firstMiddle + below(brick.middle, cell >> 3), at.depth + 2};
    if (brick.coarse >> word & 1) return {brick.firstCoarse + below(brick.coarse, word), at.depth + 1};
    return at;
}

inline TreeIndex deepestByMasks(Brick<QuinaryTraits> const& brick, TreeIndex const& at, int cell)
{
    const int word = cell / 64, bit = cell % 64;
    if (!(brick.fine[word] >> bit & 1)) return at;
    return {brick.firstFine + brick.rank[word] + std::popcount(brick.fine[word] & ((uint64(1) << bit) - 1)), at.depth + 1};
}

}  // namespace lookup

template <class Tr> class TILEGRID_API TileLookup {
    using Shape = lookup::Shape<Tr>;

public:
    /// Where the last query of an accessor ended: a rung tile (a place in it, or its low corner) and the codes of its brick.
    /// Reset it when the tree has changed.
    struct Cursor {
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
        const Place place{fromLow(i), fromLow(j), fromLow(k)};
        if (cursor.codes && sameRungTile(place, cursor)) return decoded(cursor.codes[cellNear(place, cursor)], finest_.depth);
        return topIsFinest_ ? locate(place, cursor) : locateThroughRungs(place, cursor);
    }

private:
    /// Tile space counted from its low end.
    struct Place {
        std::uint32_t x, y, z;
    };
    struct Rung {
        int depth = 0;
        /// Binary: log2 of the width of its tiles. Quinary: that width, and a divider by the width of a cell of its bricks.
        int shift = 0;
        std::uint32_t width = 1;
        WidthDivider byCell;
        tilegrid::Slab<Brick<Tr>> bricks;
        tilegrid::Slab<std::array<std::uint32_t, Shape::cells>> codes;
    };
    struct TopGrid {
        std::uint32_t low[3] = {}, size[3] = {};
        /// Index of the rung tile; negative: ~(depth << 26 | index) of the coarser tile that covers the cell; kOutside.
        tilegrid::Slab<std::int32_t> cells;
    };
    /// A place seen from a rung: which tile of the rung's lattice, and which cell of its brick.
    struct Split {
        std::uint32_t x, y, z;
        int cell;
    };
    static constexpr std::int32_t kOutside = INT32_MIN;

    static std::uint32_t fromLow(std::int32_t v) { return std::uint32_t(v) - std::uint32_t(Tr::rangeMin); }
    static int interleaved(std::uint32_t x, std::uint32_t y, std::uint32_t z, int shift)
    {
        constexpr auto& spread = lookup::Shape<BinaryTraits>::spread;
        return spread[x >> shift & 7] | spread[y >> shift & 7] << 1 | spread[z >> shift & 7] << 2;
    }
    static Split split(Rung const& rung, Place const& p)
    {
        if constexpr (Tr::branching == 2) {
            return {p.x >> rung.shift, p.y >> rung.shift, p.z >> rung.shift, interleaved(p.x, p.y, p.z, rung.shift - Shape::span)};
        } else {
            const std::uint32_t x = rung.byCell(p.x), y = rung.byCell(p.y), z = rung.byCell(p.z);
            return {x / 5, y / 5, z / 5, int(x % 5 + 5 * (y % 5) + 25 * (z % 5))};
        }
    }
    bool sameRungTile(Place const& p, Cursor const& cursor) const
    {
        if constexpr (Tr::branching == 2)
            return ((p.x ^ cursor.x) | (p.y ^ cursor.y) | (p.z ^ cursor.z)) >> finest_.shift == 0;
        else
            return p.x - cursor.x < finest_.width && p.y - cursor.y < finest_.width && p.z - cursor.z < finest_.width;
    }
    /// Cell of a place in the cursor's rung tile.
    int cellNear(Place const& p, Cursor const& cursor) const
    {
        if constexpr (Tr::branching == 2)
            return interleaved(p.x, p.y, p.z, finest_.shift - Shape::span);
        else
            return int(finest_.byCell(p.x - cursor.x) + 5 * finest_.byCell(p.y - cursor.y) + 25 * finest_.byCell(p.z - cursor.z));
    }
    static TreeIndex decoded(std::uint32_t code, int rungDepth) { return lookup::decoded<Tr>(code, rungDepth); }
    std::int32_t topCell(Split const& at) const
    {
        const std::uint32_t cx = at.x - top_.low[0], cy = at.y - top_.low[1], cz = at.z - top_.low[2];
        if (cx >= top_.size[0] || cy >= top_.size[1] || cz >= top_.size[2]) return kOutside;
        return top_.cells[(std::size_t(cz) * top_.size[1] + cy) * top_.size[0] + cx];
    }
    static TreeIndex coarseTile(std::int32_t top)
    {
        const auto packed = std::uint32_t(~top);
        return top == kOutside ? TreeIndex{} : TreeIndex{int64(packed & ((1u << 26) - 1)), int(packed >> 26)};
    }
    /// The first visit, where the top grid leads straight to the finest rung.
    TreeIndex locate(Place const& place, Cursor& cursor) const
    {
        const Split at = split(finest_, place);
        const std::int32_t top = topCell(at);
        return top < 0 ? coarseTile(top) : visit(top, place, at, cursor);
    }
    TreeIndex locateThroughRungs(Place const& place, Cursor& cursor) const;
    /// The deepest tile in the brick of finest rung tile `index`; the cursor moves there.
    TreeIndex visit(int64 index, Place const& place, Split const& at, Cursor& cursor) const
    {
        Brick<Tr> const& brick = finest_.bricks[std::size_t(index)];
        if (brick.codes >= 0) {
            cursor.codes = finest_.codes[std::size_t(brick.codes)].data();
            // Any place of the rung tile serves where only high bits are compared; the other structure needs its corner.
            if constexpr (Tr::branching == 2)
                cursor.x = place.x, cursor.y = place.y, cursor.z = place.z;
            else
                cursor.x = at.x * finest_.width, cursor.y = at.y * finest_.width, cursor.z = at.z * finest_.width;
        }
        return descend(finest_, index, at.cell);
    }
    static TreeIndex descend(Rung const& rung, int64 index, int cell)
    {
        Brick<Tr> const& brick = rung.bricks[std::size_t(index)];
        if (brick.consecutive) return lookup::deepestByMasks(brick, {index, rung.depth}, cell);
        return decoded(rung.codes[std::size_t(brick.codes)][std::size_t(cell)], rung.depth);
    }

    bool chooseRungs(Container<Tr> const& container, int deepest);
    void setRung(Rung& rung, int depth) const;
    bool placeTop(Container<Tr> const& container, Rung const& rung);
    void fillTop(Container<Tr> const& container, Rung const& rung, TreeIndex const& at);
    void fillTopBox(Rung const& rung, std::uint32_t const low[3], std::uint32_t width, std::int32_t value);
    void buildBricks(Container<Tr> const& container, Rung& rung);

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
