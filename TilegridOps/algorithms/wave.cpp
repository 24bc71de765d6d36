#include "TilegridOps/algorithms/wave.h"

#include "TilegridOps/algorithms/tile_directions.h"
#include "TilegridOps/algorithms/wave_kernel.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/parallel.h"

#include <atomic>
#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 64;
/// A wave ends by itself, since every exchange shortens a distance; this bounds it in spite of rounding.
constexpr int kMostRounds = 4096;

/// Several threads may set the same byte; all set it to 1.
void setFlag(std::uint8_t& flag) { std::atomic_ref<std::uint8_t>(flag).store(1, std::memory_order_relaxed); }

/// Where a tile's samples lie: of voxel (0,0,0) in tile space, and how far apart.
struct Lattice {
    double x, y, z, width;
    template <class Tile>
    Lattice(Tile const& tile, float3 const& offset)
        : width(double(tile.voxelDataWidth()))
    {
        x = tile.tijk().x + offset.x * width;
        y = tile.tijk().y + offset.y * width;
        z = tile.tijk().z + offset.z * width;
    }
    /// Square of the distance from voxel (i,j,k) to the point, in voxels.
    float distance(WavePoint const& p, int i, int j, int k) const
    {
        const double scale = 1.0 / width;
        const float dx = float((p.x - x) * scale) - float(i), dy = float((p.y - y) * scale) - float(j), dz = float((p.z - z) * scale) - float(k);
        return dx * dx + dy * dy + dz * dz;
    }
};

/// The directions in which tiles see a difference between two states of a tile.
template <class Tr> std::uint32_t changedDirections(std::int32_t const* before, std::int32_t const* after)
{
    std::uint32_t directions = 0;
    for (int v = 0; v < Tr::voxelCount; ++v)
        if (before[v] != after[v]) directions |= kSeenFrom<Tr>[std::size_t(v)];
    return directions;
}

}  // namespace

template <class Tr> std::vector<std::int32_t> sameDepthNeighbors(Container<Tr> const& tree, int depth)
{
    const int64 tiles = tree.tileCount(depth);
    std::vector<std::int32_t> table(std::size_t(tiles) * 27);
    parallel::loop(0, tiles, kTilesAtOnce * 8, [&](int64 begin, int64 end) {
        NeighborWalk<Tr> walk(tree);
        for (int64 n = begin; n < end; ++n) {
            Surroundings const& around = walk.around(tree.tile(n, depth));
            for (std::size_t d = 0; d < 27; ++d)
                table[std::size_t(n) * 27 + d] = around[d].depth == depth ? std::int32_t(around[d].index) : -1;
        }
    });
    return table;
}

template <class Tr>
Wave<Tr>::Wave(Container<Tr> const& tree, float3 const& offset, WaveLimits const& limits)
    : tree_(tree), offset_(offset), limits_(limits)
{
    for (int depth = limits_.minDepth; depth <= limits_.maxDepth; ++depth) growLevel(depth);
}

template <class Tr> void Wave<Tr>::growLevel(int depth)
{
    Level& level = levels_[std::size_t(depth)];
    const std::size_t tiles = std::size_t(tree_.tileCount(depth)), known = level.payloads.size();
    level.payloads.resize(tiles * Tr::voxelCount);
    std::fill(level.payloads.begin() + known, level.payloads.end(), kNone);
    if (restricted_) level.writable.resize(tiles * Tr::voxelCount, 1);
    level.active.resize(tiles, 0);
    level.urgent.resize(tiles, 0);
    level.neighbors = sameDepthNeighbors(tree_, depth);
}

template <class Tr> void Wave<Tr>::extend()
{
    for (int depth = limits_.minDepth; depth <= limits_.maxDepth; ++depth) growLevel(depth);
    for (int depth = limits_.minDepth + 1; depth <= limits_.maxDepth; ++depth) {
        toFine(depth);
        relax(depth, limits_.roundsToFine);
    }
}

template <class Tr> void Wave<Tr>::restrict()
{
    restricted_ = true;
    for (Level& level : levels_) level.writable.assign(level.payloads.size(), 1);
}

template <class Tr> void Wave<Tr>::activate(Level& level, int64 tile, std::uint32_t directions, bool urgent)
{
    std::int32_t const* around = level.neighbors.data() + tile * 27;
    for (int n = 0; n < 27; ++n) {
        if (around[n] < 0 || !(directions >> n & 1)) continue;
        setFlag(level.active[std::size_t(around[n])]);
        if (urgent) setFlag(level.urgent[std::size_t(around[n])]);
    }
}

/// All tiles that know something, and those around them.
template <class Tr> void Wave<Tr>::activateHolders(int depth)
{
    Level& level = levels_[std::size_t(depth)];
    parallel::loop(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            std::int32_t const* own = payloads(n, depth);
            if (std::any_of(own, own + Tr::voxelCount, [](std::int32_t p) { return p != kNone; })) activate(level, n, kAllDirections, true);
        }
    });
}

/// The work of one round on one tile.
template <class Tr> struct Wave<Tr>::Round {
    using Neighborhood = wave_detail::Neighborhood<Tr>;
    static constexpr int W = Tr::width;
    Wave const& wave;
    Level const& level;
    int depth;
    Neighborhood near;

    Round(Wave const& w, int d) : wave(w), level(w.levels_[std::size_t(d)]), depth(d)
    {
        const double furthest = w.limits_.reach / Tr::voxelDataWidth(d) + 2;
        near.furthest = float(std::min(furthest * furthest, 1e29));
    }

    void gather(int64 tile)
    {
        std::int32_t const* around = level.neighbors.data() + tile * 27;
        std::int32_t const* tiles[27];
        for (int n = 0; n < 27; ++n) tiles[n] = around[n] < 0 ? nullptr : wave.payloads(around[n], depth);
        const auto side = [](int x) { return x < 0 ? -1 : x < W ? 0 : 1; };
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j) {
                const int dy = side(j), dz = side(k), row = W * ((j - dy * W) + W * (k - dz * W)), to = Neighborhood::at(0, j, k);
                const int column = (dy + 1) * 3 + dz + 1;
                near.id[to - 1] = tiles[column] ? tiles[column][row + W - 1] : kNone;
                for (int i = 0; i < W; ++i) near.id[to + i] = tiles[column + 9] ? tiles[column + 9][row + i] : kNone;
                near.id[to + W] = tiles[column + 18] ? tiles[column + 18][row] : kNone;
            }
    }
    void place(Tile const& tile)
    {
        const Lattice lattice(tile, wave.offset_);
        const double scale = 1.0 / lattice.width;
        std::int32_t last = kNone;
        float x = near.kNowhere, y = x, z = x;
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j)
                for (int at = Neighborhood::at(-1, j, k), end = at + W + 2; at < end; ++at) {
                    if (near.id[at] != last) {
                        last = near.id[at];
                        WavePoint const* p = last == kNone ? nullptr : wave.points_ + last;
                        x = p ? float((p->x - lattice.x) * scale) : near.kNowhere;
                        y = p ? float((p->y - lattice.y) * scale) : near.kNowhere;
                        z = p ? float((p->z - lattice.z) * scale) : near.kNowhere;
                    }
                    near.x[at] = x, near.y[at] = y, near.z[at] = z;
                }
    }
    /// Writes what the tile knows afterwards. \return in which directions that makes a difference, and bit 27 if it is near a point
    std::uint32_t run(int64 tile, std::int32_t* out)
    {
        gather(tile);
        place(wave.tree_.tile(tile, depth));
        if (wave.restricted_)
            for (int v = 0; v < Tr::voxelCount; ++v)
                near.open[v % W + 8 * (v / W)] = level.writable[std::size_t(tile) * Tr::voxelCount + std::size_t(v)] ? -1 : 0;
        const float nearest = wave_detail::sweepTile(near, wave.restricted_);
        for (int row = 0; row < W * W; ++row) std::memcpy(out + row * W, near.id + Neighborhood::at(0, row % W, row / W), W * sizeof *out);
        const float band = std::max(wave.limits_.band, 1.0f);
        return changedDirections<Tr>(wave.payloads(tile, depth), out) | std::uint32_t(nearest <= band * band) << 27;
    }
};

/// Jacobi between tiles: all tiles of the list are computed from the state before, then all are written.
template <class Tr> bool Wave<Tr>::relaxRound(int depth, bool urgentOnly)
{
    Level& level = levels_[std::size_t(depth)];
    std::vector<std::int32_t> list;
    for (std::size_t n = 0; n < level.active.size(); ++n)
        if (level.active[n] && (!urgentOnly || level.urgent[n])) list.push_back(std::int32_t(n));
    if (list.empty()) return false;
    const int64 count = int64(list.size());
    std::vector<std::uint32_t> outcome(list.size());
    slots_.resize(list.size() * Tr::voxelCount);
    parallel::loop(0, count, kTilesAtOnce, [&](int64 begin, int64 end) {
        Round round(*this, depth);
        for (int64 n = begin; n < end; ++n)
            outcome[std::size_t(n)] = round.run(list[std::size_t(n)], slots_.data() + n * Tr::voxelCount);
    });
    for (std::int32_t tile : list) level.active[std::size_t(tile)] = level.urgent[std::size_t(tile)] = 0;
    parallel::loop(0, count, kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            const std::uint32_t directions = outcome[std::size_t(n)] & kAllDirections;
            if (!directions) continue;
            std::memcpy(payloads(list[std::size_t(n)], depth), slots_.data() + n * Tr::voxelCount, Tr::voxelCount * sizeof(std::int32_t));
            activate(level, list[std::size_t(n)], directions, outcome[std::size_t(n)] >> 27);
        }
    });
    return true;
}

template <class Tr> void Wave<Tr>::relax(int depth, int limit)
{
    const int rounds = limit < 0 ? kMostRounds : std::max(limit, 2);
    for (int round = 0; round < kMostRounds; ++round)
        if (!relaxRound(depth, round >= rounds)) return;
}

/// A voxel above a child looks at what the child's coincident voxel knows.
template <class Tr> void Wave<Tr>::toCoarse(int depth)
{
    constexpr int W = Tr::width;
    Level& coarse = levels_[std::size_t(depth - 1)];
    parallel::loop(0, tree_.tileCount(depth - 1), kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            Tile const& tile = tree_.tile(n, depth - 1);
            if (tile.isLeaf()) continue;
            const Lattice lattice(tile, offset_);
            std::int32_t* own = payloads(n, depth - 1);
            bool changed = false;
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(W, v);
                const int64 child = tile.childIndex(Tile::voxelChildIJK(at.x, at.y, at.z));
                if (child < 0 || (restricted_ && !coarse.writable[std::size_t(n * Tr::voxelCount + v)])) continue;
                const int3 in = Tile::childDataIJK(at.x, at.y, at.z);
                const std::int32_t id = payloads(child, depth)[flatIndex(W, in.x, in.y, in.z)];
                if (id == kNone || id == own[v]) continue;
                const float distance = lattice.distance(points_[id], at.x, at.y, at.z);
                if (own[v] != kNone && !(distance < lattice.distance(points_[own[v]], at.x, at.y, at.z))) continue;
                own[v] = id;
                changed = true;
            }
            if (changed) activate(coarse, n, kAllDirections, true);
        }
    });
}

/// What a tile may learn from the depth above: its parent's samples around its voxels.
template <class Tr> struct Wave<Tr>::FromParent {
    static constexpr int W = Tr::width, kSites = Tr::branching == 2 ? 4 : 3;
    Wave const& wave;
    int depth;
    std::int32_t const* own = nullptr;
    std::array<SiteTap, W> taps[3];
    int low[3], count[3];
    std::int32_t id[kSites * kSites * kSites];

    FromParent(Wave const& w, int d) : wave(w), depth(d) {}

    /// \return whether one of the samples may know more than the voxels of the tile do. What a voxel at the very place of a
    /// sample knows it has handed on already, and where another tile holds such a voxel it is the one to ask.
    bool gather(Tile const& tile)
    {
        Level const &coarse = wave.levels_[std::size_t(depth - 1)], &fine = wave.levels_[std::size_t(depth)];
        own = wave.payloads(tile.index(), depth);
        const int64 above = tile.parentTreeIndex().index;
        const int3 cell = wave.tree_.tile(above, depth - 1).childIJK(tile);
        for (int a = 0; a < 3; ++a) {
            for (int i = 0; i < W; ++i)
                taps[a][std::size_t(i)] = siteTap(cell[a] * W + i, 1, Tr::childStride, wave.offset_[a] != 0);
            low[a] = taps[a][0].base;
            count[a] = taps[a][W - 1].base + (taps[a][W - 1].fraction != 0) - low[a] + 1;
        }
        const auto side = [](int x) { return x < 0 ? -1 : x < W ? 0 : 1; };
        // Samples in the middle of voxels never coincide.
        bool news = !(wave.offset_ == float3());
        for (int c = 0; c < count[2]; ++c)
            for (int b = 0; b < count[1]; ++b)
                for (int a = 0; a < count[0]; ++a) {
                    const int3 at(low[0] + a, low[1] + b, low[2] + c), d(side(at.x), side(at.y), side(at.z));
                    const std::int32_t from = coarse.neighbors[std::size_t(above * 27 + neighborDirection(d.x, d.y, d.z))];
                    const std::int32_t known = from < 0 ? kNone : wave.payloads(from, depth - 1)[flatIndex(W, at.x - d.x * W, at.y - d.y * W, at.z - d.z * W)];
                    id[a + kSites * (b + kSites * c)] = known;
                    if (known == kNone) continue;
                    const int3 in = Tr::childStride * at - W * cell, e(side(in.x), side(in.y), side(in.z));
                    if (e == int3())
                        news |= own[flatIndex(W, in.x, in.y, in.z)] != known;
                    else
                        news |= fine.neighbors[std::size_t(tile.index() * 27 + neighborDirection(e.x, e.y, e.z))] < 0;
                }
        return news;
    }
    /// The best of what voxel `at` and the samples around it know.
    std::int32_t best(Lattice const& lattice, int3 const& at, std::int32_t known) const
    {
        const SiteTap x = taps[0][std::size_t(at.x)], y = taps[1][std::size_t(at.y)], z = taps[2][std::size_t(at.z)];
        float least = known == kNone ? wave_detail::Neighborhood<Tr>::kNowhere : lattice.distance(wave.points_[known], at.x, at.y, at.z);
        for (int c = z.base; c <= z.base + (z.fraction != 0); ++c)
            for (int b = y.base; b <= y.base + (y.fraction != 0); ++b)
                for (int a = x.base; a <= x.base + (x.fraction != 0); ++a) {
                    const std::int32_t other = id[a - low[0] + kSites * (b - low[1] + kSites * (c - low[2]))];
                    if (other == kNone || other == known) continue;
                    const float distance = lattice.distance(wave.points_[other], at.x, at.y, at.z);
                    if (!(distance < least)) continue;
                    known = other;
                    least = distance;
                }
        return known;
    }
};

/// A voxel looks at what the parent's samples around it know. Writes its own tile, reads the depth above.
template <class Tr> void Wave<Tr>::toFine(int depth)
{
    Level& fine = levels_[std::size_t(depth)];
    parallel::loop(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        FromParent from(*this, depth);
        for (int64 n = begin; n < end; ++n) {
            Tile const& tile = tree_.tile(n, depth);
            if (!from.gather(tile)) continue;
            const Lattice lattice(tile, offset_);
            std::int32_t* own = payloads(n, depth);
            bool changed = false;
            for (int v = 0; v < Tr::voxelCount; ++v) {
                if (restricted_ && !fine.writable[std::size_t(n * Tr::voxelCount + v)]) continue;
                const std::int32_t best = from.best(lattice, cubeIndex(Tr::width, v), own[v]);
                changed |= best != own[v];
                own[v] = best;
            }
            if (changed) activate(fine, n, kAllDirections, true);
        }
    });
}

template <class Tr> void Wave<Tr>::run()
{
    const int first = limits_.minDepth, last = limits_.maxDepth, down = limits_.roundsToCoarse, up = limits_.roundsToFine;
    for (int depth = first; depth <= last; ++depth) activateHolders(depth);
    for (int depth = last; depth > first; --depth) {
        relax(depth, down);
        toCoarse(depth);
    }
    relax(first, down < 0 || up < 0 ? -1 : std::max(down, up));
    for (int depth = first + 1; depth <= last; ++depth) {
        toFine(depth);
        relax(depth, up);
    }
}

template class Wave<BinaryTraits>;
template class Wave<QuinaryTraits>;
template std::vector<std::int32_t> sameDepthNeighbors(Container<BinaryTraits> const&, int);
template std::vector<std::int32_t> sameDepthNeighbors(Container<QuinaryTraits> const&, int);

}  // namespace tilegrid
