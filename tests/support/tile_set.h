#pragma once
#include "support/structures.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <vector>

namespace tilegrid::test {

using Place = std::array<std::int64_t, 3>;

/// A tile by its depth and its low corner, in 64 bits.
struct TileKey {
    int depth = -1;
    Place low{};
    friend auto operator<=>(TileKey const&, TileKey const&) = default;
};

inline std::ostream& operator<<(std::ostream& out, TileKey const& key)
{
    return out << "depth " << key.depth << " at (" << key.low[0] << ", " << key.low[1] << ", " << key.low[2] << ")";
}

/// The tile tree as a plain set of tiles: the slow and obvious twin. Widths are multiplied out in 64 bits here, so that
/// nothing of the tree's own tables takes part.
template <class Tr> class TileSet {
public:
    static constexpr int B = Tr::branching, W = Tr::width;
    static constexpr int maxDepth = B == 2 ? 28 : 12;
    static constexpr std::int64_t rangeMin = B == 2 ? -536870912 : -610351562;
    static constexpr std::int64_t rangeMax = B == 2 ? 536870911 : 610351562;

    static std::int64_t voxelWidth(int depth)
    {
        std::int64_t w = 1;
        for (int d = maxDepth; d > depth; --d) w *= B;
        return w;
    }
    static std::int64_t tileWidth(int depth) { return W * voxelWidth(depth); }
    static std::int64_t cellWidth(int depth) { return tileWidth(depth) / B; }
    static bool inRange(Place const& p)
    {
        return std::all_of(p.begin(), p.end(), [](std::int64_t x) { return x >= rangeMin && x <= rangeMax; });
    }
    static TileKey keyAt(Place const& p, int depth)
    {
        const std::int64_t w = tileWidth(depth);
        TileKey key{depth, {}};
        for (int a = 0; a < 3; ++a) key.low[a] = rangeMin + (p[a] - rangeMin) / w * w;
        return key;
    }
    static TileKey parentOf(TileKey const& key) { return keyAt(key.low, key.depth - 1); }
    /// Cell 0 to B^3 - 1, first axis fastest.
    static TileKey childOf(TileKey const& key, int cell)
    {
        const std::int64_t w = cellWidth(key.depth);
        return {key.depth + 1,
                {key.low[0] + cell % B * w, key.low[1] + cell / B % B * w, key.low[2] + cell / (B * B) * w}};
    }
    static bool contains(TileKey const& key, Place const& p)
    {
        for (int a = 0; a < 3; ++a)
            if (p[a] < key.low[a] || p[a] >= key.low[a] + tileWidth(key.depth)) return false;
        return true;
    }
    /// Cells on the way from depth 0 down to the tile: tiles of one depth in Morton order are ordered by it.
    static std::vector<int> path(TileKey const& key)
    {
        std::vector<int> cells;
        for (int d = 1; d <= key.depth; ++d) {
            const std::int64_t w = tileWidth(d);
            std::array<std::int64_t, 3> c;
            for (int a = 0; a < 3; ++a) c[a] = (key.low[a] - rangeMin) / w % B;
            cells.push_back(static_cast<int>(c[0] + B * (c[1] + B * c[2])));
        }
        return cells;
    }
    static bool mortonBefore(TileKey const& a, TileKey const& b) { return path(a) < path(b); }

    std::set<TileKey> const& tiles() const { return tiles_; }
    bool has(TileKey const& key) const { return tiles_.count(key) != 0; }
    std::int64_t count(int depth) const
    {
        return std::count_if(tiles_.begin(), tiles_.end(), [depth](TileKey const& k) { return k.depth == depth; });
    }
    std::vector<TileKey> list() const { return {tiles_.begin(), tiles_.end()}; }

    void add(Place const& p, int depth)
    {
        if (!inRange(p)) return;
        for (int d = depth; d >= 0; --d) tiles_.insert(keyAt(p, d));
    }
    void addBox(Place low, Place high, int depth)
    {
        for (int a = 0; a < 3; ++a) {
            low[a] = std::max(low[a], rangeMin);
            high[a] = std::min(high[a], rangeMax);
            if (low[a] > high[a]) return;
        }
        const std::int64_t w = tileWidth(depth);
        const Place first = keyAt(low, depth).low;
        for (std::int64_t k = first[2]; k <= high[2]; k += w)
            for (std::int64_t j = first[1]; j <= high[1]; j += w)
                for (std::int64_t i = first[0]; i <= high[0]; i += w) add({i, j, k}, depth);
    }
    void addAll(TileSet const& other) { tiles_.insert(other.tiles_.begin(), other.tiles_.end()); }
    /// With all descendants.
    void remove(TileKey const& key)
    {
        std::erase_if(tiles_, [&key](TileKey const& k) { return k.depth >= key.depth && contains(key, k.low); });
    }
    std::optional<TileKey> find(Place const& p, int depth) const
    {
        if (!inRange(p)) return {};
        for (int d = std::min(depth, maxDepth); d >= 0; --d)
            if (has(keyAt(p, d))) return keyAt(p, d);
        return {};
    }
    /// Growth from one tile: `wants(tile, cell)` asks for children down to `deepest`.
    template <class Wants> void grow(TileKey const& from, Wants const& wants, int deepest)
    {
        if (from.depth >= std::min(deepest, maxDepth)) return;
        for (int cell = 0; cell < B * B * B; ++cell)
            if (wants(from, cell)) {
                tiles_.insert(childOf(from, cell));
                grow(childOf(from, cell), wants, deepest);
            }
    }

private:
    std::set<TileKey> tiles_;
};

}  // namespace tilegrid::test
