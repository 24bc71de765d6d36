#pragma once
#include "support/trees.h"

#include <functional>
#include <map>

namespace tilegrid::test {

/// The value of a voxel by its tile and its place in it.
using VoxelFunction = std::function<double(TileKey const&, int i, int j, int k)>;

/// A number from -1 to 1 that a float holds exactly, different in every voxel.
inline double noise(TileKey const& key, int i, int j, int k)
{
    std::uint64_t h = static_cast<std::uint64_t>(key.depth * 1000 + i * 100 + j * 10 + k);
    for (std::int64_t x : key.low) h = Random::mixed(h ^ static_cast<std::uint64_t>(x)) + 0x632be59bd9b4e019ull;
    return static_cast<double>(static_cast<std::int64_t>(h >> 44)) / (1 << 19) - 1.0;
}

/// What a reader should find at the sample site of a cell (named by its low corner) of some depth, worked out from the set of
/// tiles in double, cell by cell.
template <class Tr> class SiteOracle {
public:
    using Set = TileSet<Tr>;
    struct Site {
        double value;
        /// How often values were mixed on top of each other; rounding grows with it.
        int levels;
    };

    VoxelFunction voxel = noise;
    /// Depths that have values.
    int minDepth = 0, maxDepth = Set::maxDepth;
    /// Bits 0 to 2: samples at the low corner of the cell on x, y, z; else at its middle.
    int offset = 7;
    double outside = 0;
    /// Mixes from the depth above in place of the covering tile's.
    bool stepwise = false;

    explicit SiteOracle(Set const& set) : set_(set) {}

    /// The finest tile with values over a cell.
    std::optional<TileKey> covering(Place const& cell, int depth) const
    {
        auto found = set_.find(cell, std::min(depth, maxDepth));
        return found && found->depth >= minDepth ? found : std::nullopt;
    }
    double voxelAt(TileKey const& tile, Place const& cell) const
    {
        const std::int64_t w = Set::voxelWidth(tile.depth);
        std::array<int, 3> v;
        for (int a = 0; a < 3; ++a) v[a] = static_cast<int>((cell[a] - tile.low[a]) / w);
        return voxel(tile, v[0], v[1], v[2]);
    }
    Site at(Place const& cell, int depth)
    {
        const auto tile = covering(cell, depth);
        if (!tile) return {outside, 0};
        if (tile->depth == depth) return {voxelAt(*tile, cell), 0};
        const auto known = memory_.find({depth, cell});
        if (known != memory_.end()) return known->second;
        return memory_[{depth, cell}] = mixed(cell, depth, stepwise ? depth - 1 : tile->depth);
    }

private:
    Site mixed(Place const& cell, int depth, int from)
    {
        const std::int64_t w = Set::voxelWidth(from);
        Place base;
        std::array<double, 3> fraction;
        for (int a = 0; a < 3; ++a) {
            const bool corner = offset >> a & 1;
            // Twice the distance from the first sample site of tile space.
            const std::int64_t twice = 2 * (cell[a] - Set::rangeMin) + (corner ? 0 : Set::voxelWidth(depth) - w);
            std::int64_t n = twice / (2 * w);
            if (n * 2 * w > twice) --n;
            base[a] = Set::rangeMin + n * w;
            fraction[a] = static_cast<double>(twice - n * 2 * w) / static_cast<double>(2 * w);
        }
        Site sum{0, 0};
        for (int p = 0; p < 8; ++p) {
            double weight = 1;
            Place site = base;
            for (int a = 0; a < 3; ++a) {
                weight *= p >> a & 1 ? fraction[a] : 1 - fraction[a];
                site[a] += (p >> a & 1) * w;
            }
            if (weight == 0) continue;
            const Site part = at(site, from);
            sum.value += weight * part.value;
            sum.levels = std::max(sum.levels, part.levels);
        }
        return {sum.value, sum.levels + 1};
    }
    Set const& set_;
    std::map<std::pair<int, Place>, Site> memory_;
};

/// Adds tiles until tiles that touch differ by one depth at the most.
template <class Tr> void gradeSet(TileSet<Tr>& set)
{
    using Set = TileSet<Tr>;
    for (int depth = Set::maxDepth; depth > 1; --depth)
        for (TileKey const& key : set.list()) {
            if (key.depth != depth) continue;
            for (int n = 0; n < 27; ++n) {
                Place place = key.low;
                const int step[3] = {n % 3 - 1, n / 3 % 3 - 1, n / 9 - 1};
                for (int a = 0; a < 3; ++a) place[a] += step[a] * Set::tileWidth(depth);
                set.add(place, depth - 1);
            }
        }
}

template <class Tr> void addAll(TileSet<Tr> const& set, Tree<Tr>& tree)
{
    auto accessor = tree.tileAccessor();
    for (TileKey const& key : set.tiles())
        accessor.addTile(static_cast<int>(key.low[0]), static_cast<int>(key.low[1]), static_cast<int>(key.low[2]),
                         key.depth);
}

/// A random tree, graded if asked, as a set: a few clusters of tiles down to the finest depth, some at the border of tile space.
template <class Tr> TileSet<Tr> randomSet(std::uint64_t seed, int tiles, bool graded)
{
    Random random(seed);
    Tree<Tr> tree("unused");
    TileSet<Tr> set;
    addRandomTiles(random, tree, set, tiles);
    if (graded) gradeSet(set);
    return set;
}

/// A channel of the tree with `voxel` in its voxels, converted to T (in every component).
template <class C>
C channelOf(Tree<typename C::Traits> const& tree, VoxelFunction const& voxel, typename C::Element const& defaultValue,
            int minDepth = 0, int depth = C::Traits::maxDepth)
{
    using T = typename C::Element;
    using Element = Ostara::Math::ElementTraits<T>;
    constexpr int W = C::Traits::width;
    C channel("channel", &defaultValue, OST::TileTree3D::kInitializeLinear, false, true, minDepth, depth);
    channel.updateTilesAdded(tree);
    for (int d = channel.minDepth(); d <= channel.depth(); ++d)
        for (OST::int64 n = 0; n < tree.tileCount(d); ++n) {
            const auto data = channel.tileData(n, d);
            const TileKey key = keyOf(tree.tile(n, d));
            for (int k = 0; k < W; ++k)
                for (int j = 0; j < W; ++j)
                    for (int i = 0; i < W; ++i)
                        for (int c = 0; c < Element::components; ++c)
                            Element::at(data(i, j, k), c) = static_cast<typename Element::Scalar>(voxel(key, i, j, k));
        }
    return channel;
}

/// All bytes of a channel, depth by depth.
template <class C> std::vector<std::byte> bytesOf(C const& channel)
{
    std::vector<std::byte> bytes;
    for (int d = channel.minDepth(); d <= channel.depth(); ++d)
        for (OST::int64 n = 0; n < channel.tileCount(d); ++n) {
            const auto data = channel.tileData(n, d);
            auto const* begin = reinterpret_cast<std::byte const*>(data.data());
            bytes.insert(bytes.end(), begin, begin + data.size() * sizeof(typename C::Element));
        }
    return bytes;
}

}  // namespace tilegrid::test
