#pragma once
#include "TilegridOps/sampling/lanes.h"
#include "TilegridOps/substrate/accessor.h"

#include <array>
#include <bit>

namespace OST::TileTree3D {

namespace detail {

/// What follows of a tile from its depth and a place in it.
template <class Tr> class TileGeometry {
public:
    /// The tile of a depth that holds a place: its number on each axis, counted from the low end of tile space.
    static UnsignedLanes cell(IntLanes place, int depth)
    {
        const UnsignedLanes fromLow = UnsignedLanes(place) - std::uint32_t(Tr::rangeMin);
        if constexpr (Tr::branching == 2) {
            return fromLow >> kShift[depth];
        } else {
            const WidthDivider number = kByTile[depth];
            return UnsignedLanes{number(fromLow[0]), number(fromLow[1]), number(fromLow[2]), 0};
        }
    }
    /// Low corner of a tile of a depth by its number.
    static IntLanes corner(UnsignedLanes cell, int depth)
    {
        IntLanes low = IntLanes(cell * std::uint32_t(Tr::tileVoxelWidth(depth)) + std::uint32_t(Tr::rangeMin));
        low[3] = 0;
        return low;
    }
    /// 1 / voxelDataWidth(depth), rounded once.
    static float inverseWidth(int depth) { return kInverseWidth[depth]; }

private:
    template <class T, class F> static constexpr std::array<T, Tr::levels> perDepth(F f)
    {
        std::array<T, Tr::levels> values{};
        for (int depth = 0; depth < Tr::levels; ++depth) values[depth] = f(depth);
        return values;
    }
    static constexpr auto kInverseWidth = perDepth<float>([](int depth) { return static_cast<float>(1.0 / Tr::voxelDataWidth(depth)); });
    static constexpr auto kShift = perDepth<int>([](int depth) { return std::countr_zero(std::uint32_t(Tr::tileVoxelWidth(depth))); });
    static constexpr auto kByTile = perDepth<WidthDivider>([](int depth) { return WidthDivider(std::uint32_t(Tr::tileVoxelWidth(depth))); });
};

}  // namespace detail

/// Finds tiles near the ones found before: remembers what was found for the last cells of space; of 4 x 4 x 4 cells in a block,
/// or of 64 in a row along x, all of them. For one thread; a copy starts empty. Stays right when the tree changes.
template <class Tr> class TileFinder {
    using Geometry = detail::TileGeometry<Tr>;

public:
    struct Found {
        /// The cell of space that was asked for: its low corner, and the depth that has cells of this width.
        detail::IntLanes cell;
        std::uint32_t cellWidth;
        int depth;
        /// (-1,-1) for none; the rest has no meaning then.
        TreeIndex tile;
        detail::IntLanes corner;
        /// The corner, if `exact`; else rounded.
        detail::Lanes floatCorner;
        /// 1 / voxelDataWidth.
        float inverseWidth;
        bool exact;
        /// For the reader of one channel: the voxels of the tile (0) and of the tiles of its depth on its high sides, one
        /// further along x, y, z if bit 0, 1, 2 of the number is set. A bit of `present` for each that is set; 0 at first.
        mutable std::uint8_t present;
        mutable void const* voxels[8];

        /// The way from the corner, right to the last bit wherever in tile space the tile lies.
        detail::Lanes local(detail::Lanes position) const
        {
            if (exact) [[likely]] return position - floatCorner;
            const auto onAxis = [&](int axis) { return static_cast<float>(double(position[axis]) - double(corner[axis])); };
            return detail::Lanes{onAxis(0), onAxis(1), onAxis(2), 0.0f};
        }
    };

    explicit TileFinder(Container<Tr> const& container) : accessor_(container) {}
    TileFinder(TileFinder const& other) : accessor_(other.accessor_) {}
    TileFinder& operator=(TileFinder const& other)
    {
        accessor_ = other.accessor_;
        version_ = kNoVersion;
        current_ = &kNothing;
        return *this;
    }

    /// The finest tile not deeper than `depth` that holds a place. The reference lives until the next call.
    Found const& find(detail::IntLanes place, int depth) const
    {
        using detail::UnsignedLanes;
        Found const& last = *current_;
        const UnsignedLanes within = UnsignedLanes(place) - UnsignedLanes(last.cell);
        // A branch rather than a look-up: what follows need not wait for the place.
        if (!detail::any(within >= last.cellWidth) && last.depth == depth && version_ == accessor_.container().version()) [[likely]]
            return last;
        return *(current_ = &findOutOfLine(place, depth));
    }
    /// The same where the last tile says little about the next one.
    Found const& findElsewhere(detail::IntLanes place, int depth) const
    {
        if (version_ != accessor_.container().version()) [[unlikely]] forget();
        depth = std::min(depth, Tr::maxDepth);
        if (depth < 0) [[unlikely]] return kNothing;
        detail::UnsignedLanes cell = Geometry::cell(place, depth);
        cell[3] = std::uint32_t(depth);
        Key key;
        std::memcpy(&key, &cell, sizeof key);
        Entry& entry = entries_[(cell[0] + 4 * cell[1] + 16 * cell[2]) % kEntries];
        if (entry.key != key) {
            entry.key = key;
            fill(entry.found, place, cell, depth);
        }
        return entry.found;
    }
    ConstTileAccessor<Tr> const& accessor() const { return accessor_; }

private:
    static constexpr int kEntries = 64;
    static constexpr uint64 kNoVersion = ~uint64(0);
    static inline const Found kNothing{};
    /// Three cells and the depth.
    struct Key {
        uint64 xy, zDepth;
        friend bool operator==(Key const&, Key const&) = default;
    };
    struct Entry {
        Key key;
        Found found;
    };
    [[gnu::noinline]] Found const& findOutOfLine(detail::IntLanes place, int depth) const { return findElsewhere(place, depth); }
    [[gnu::noinline]] void forget() const
    {
        current_ = &kNothing;
        for (Entry& entry : entries_) entry.key = {~uint64(0), ~uint64(0)};
        version_ = accessor_.container().version();
    }
    [[gnu::noinline]] void fill(Found& found, detail::IntLanes place, detail::UnsignedLanes cell, int depth) const
    {
        const TreeIndex tile = accessor_.find(place[0], place[1], place[2], depth);
        found.tile = tile;
        found.depth = depth;
        found.cellWidth = std::uint32_t(Tr::tileVoxelWidth(depth));
        found.cell = Geometry::corner(cell, depth);
        found.corner = tile.depth == depth || !tile.valid() ? found.cell : Geometry::corner(Geometry::cell(place, tile.depth), tile.depth);
        found.floatCorner = detail::toFloat(found.corner);
        found.exact = !detail::any(__builtin_convertvector(found.floatCorner, detail::IntLanes) != found.corner);
        found.inverseWidth = Geometry::inverseWidth(tile.valid() ? tile.depth : depth);
        found.present = 0;
    }

    ConstTileAccessor<Tr> accessor_;
    mutable uint64 version_ = kNoVersion;
    mutable Found const* current_ = &kNothing;
    mutable std::array<Entry, kEntries> entries_;
};

}  // namespace OST::TileTree3D
