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
    const int before = std::popcount(brick.fine[word] & ((uint64(1) << bit) - 1)) + (word ? std::popcount(brick.fine[0]) : 0);
    return {brick.firstFine + before, at.depth + 1};
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
        const std::uint32_t x = fromLow(i), y = fromLow(j), z = fromLow(k);
        if (cursor.codes && sameRungTile(x, y, z, cursor))
            return decoded(cursor.codes[brickCell(finest_, x, y, z)], finest_.depth);
        return coarser_.empty() ? locate(x, y, z, cursor) : locateThroughRungs(x, y, z, cursor);
    }

private:
    struct Rung {
        int depth = 0;
        /// Binary: log2 of the width of its tiles. Quinary: dividers by that width and by the finest one of the brick.
        int shift = 0;
        std::uint32_t width = 1;
        WidthDivider byWidth, byCell;
        tilegrid::Slab<Brick<Tr>> bricks;
        tilegrid::Slab<std::array<std::uint32_t, Shape::cells>> codes;
    };
    struct TopGrid {
        std::uint32_t low[3] = {}, size[3] = {};
        /// Index of the rung tile; negative: ~(depth << 26 | index) of the coarser tile that covers the cell; kOutside.
        tilegrid::Slab<std::int32_t> cells;
    };
    static constexpr std::int32_t kOutside = INT32_MIN;

    static std::uint32_t fromLow(std::int32_t v) { return std::uint32_t(v) - std::uint32_t(Tr::rangeMin); }
    static std::uint32_t rungCell(Rung const& rung, std::uint32_t x)
    {
        if constexpr (Tr::branching == 2)
            return x >> rung.shift;
        else
            return rung.byWidth(x);
    }
    /// Number of the place's cell inside the brick that contains it.
    static int brickCell(Rung const& rung, std::uint32_t x, std::uint32_t y, std::uint32_t z)
    {
        if constexpr (Tr::branching == 2) {
            const int s = rung.shift - Shape::span;
            return Shape::spread[x >> s & 7] | Shape::spread[y >> s & 7] << 1 | Shape::spread[z >> s & 7] << 2;
        } else {
            return int(rung.byCell(x) % 5 + 5 * (rung.byCell(y) % 5) + 25 * (rung.byCell(z) % 5));
        }
    }
    bool sameRungTile(std::uint32_t x, std::uint32_t y, std::uint32_t z, Cursor const& cursor) const
    {
        if constexpr (Tr::branching == 2)
            return ((x ^ cursor.x) | (y ^ cursor.y) | (z ^ cursor.z)) >> finest_.shift == 0;
        else
            return x - cursor.x < finest_.width && y - cursor.y < finest_.width && z - cursor.z < finest_.width;
    }
    static TreeIndex decoded(std::uint32_t code, int rungDepth) { return lookup::decoded<Tr>(code, rungDepth); }
    /// The first visit, where the top grid leads straight to the finest rung.
    TreeIndex locate(std::uint32_t x, std::uint32_t y, std::uint32_t z, Cursor& cursor) const
    {
        const std::int32_t top = topCell(rungCell(finest_, x), rungCell(finest_, y), rungCell(finest_, z));
        return top < 0 ? coarseTile(top) : visit(top, x, y, z, cursor);
    }
    TreeIndex locateThroughRungs(std::uint32_t x, std::uint32_t y, std::uint32_t z, Cursor& cursor) const;
    std::int32_t topCell(std::uint32_t cx, std::uint32_t cy, std::uint32_t cz) const
    {
        cx -= top_.low[0], cy -= top_.low[1], cz -= top_.low[2];
        if (cx >= top_.size[0] || cy >= top_.size[1] || cz >= top_.size[2]) return kOutside;
        return top_.cells[(std::size_t(cz) * top_.size[1] + cy) * top_.size[0] + cx];
    }
    static TreeIndex coarseTile(std::int32_t top)
    {
        const auto packed = std::uint32_t(~top);
        return top == kOutside ? TreeIndex{} : TreeIndex{int64(packed & ((1u << 26) - 1)), int(packed >> 26)};
    }
    /// The deepest tile in the brick of finest rung tile `index`; the cursor moves there.
    TreeIndex visit(int64 index, std::uint32_t x, std::uint32_t y, std::uint32_t z, Cursor& cursor) const
    {
        Brick<Tr> const& brick = finest_.bricks[std::size_t(index)];
        const int cell = brickCell(finest_, x, y, z);
        if (brick.codes >= 0) {
            cursor.codes = finest_.codes[std::size_t(brick.codes)].data();
            // Any place of the rung tile serves where only high bits are compared; the other structure needs its corner.
            if constexpr (Tr::branching == 2)
                cursor.x = x, cursor.y = y, cursor.z = z;
            else
                cursor.x = finest_.byWidth(x) * finest_.width, cursor.y = finest_.byWidth(y) * finest_.width,
                cursor.z = finest_.byWidth(z) * finest_.width;
        }
        return descend(finest_, index, cell);
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

    TopGrid top_;
    /// Rungs above the finest one, coarsest first; the top grid leads to the first of all.
    std::vector<Rung> coarser_;
    Rung finest_;
    bool built_ = false;
};

extern template class TileLookup<BinaryTraits>;
extern template class TileLookup<QuinaryTraits>;

}  // namespace OST::TileTree3D
