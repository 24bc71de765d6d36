#include "TilegridOps/algorithms/wave.h"

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

bool isBetter(float distance, std::int32_t id, float than, std::int32_t thanId)
{
    return distance < than || (distance == than && id < thanId);
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

template <class Tr> void Wave<Tr>::followTree()
{
    for (int depth = limits_.minDepth; depth <= limits_.maxDepth; ++depth) growLevel(depth);
}

template <class Tr> void Wave<Tr>::restrict()
{
    restricted_ = true;
    for (Level& level : levels_) level.writable.assign(level.payloads.size(), 1);
}

template <class Tr> void Wave<Tr>::activateAround(Level& level, int64 tile, bool urgent)
{
    std::int32_t const* around = level.neighbors.data() + tile * 27;
    for (int n = 0; n < 27; ++n) {
        if (around[n] < 0) continue;
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
            if (std::any_of(own, own + Tr::voxelCount, [](std::int32_t p) { return p != kNone; })) activateAround(level, n, true);
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
                        WavePoint const* p = last == kNone ? nullptr : wave.points_ + (last >> 1);
                        x = p ? float((p->x - lattice.x) * scale) : near.kNowhere;
                        y = p ? float((p->y - lattice.y) * scale) : near.kNowhere;
                        z = p ? float((p->z - lattice.z) * scale) : near.kNowhere;
                    }
                    near.x[at] = x, near.y[at] = y, near.z[at] = z;
                }
    }
    /// Writes what the tile knows afterwards. \return whether that is more than before (bit 0), and near a point (bit 1)
    std::uint8_t run(int64 tile, std::int32_t* out)
    {
        gather(tile);
        place(wave.tree_.tile(tile, depth));
        if (wave.restricted_)
            for (int v = 0; v < Tr::voxelCount; ++v)
                near.open[v % W + 8 * (v / W)] = level.writable[std::size_t(tile) * Tr::voxelCount + std::size_t(v)] ? -1 : 0;
        const float nearest = wave_detail::sweepTile(near, wave.restricted_);
        for (int row = 0; row < W * W; ++row) std::memcpy(out + row * W, near.id + Neighborhood::at(0, row % W, row / W), W * sizeof *out);
        const float band = std::max(wave.limits_.band, 1.0f);
        const bool changed = std::memcmp(out, wave.payloads(tile, depth), Tr::voxelCount * sizeof *out) != 0;
        return std::uint8_t(changed | (nearest <= band * band) << 1);
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
    std::vector<std::uint8_t> outcome(list.size());
    slots_.resize(list.size() * Tr::voxelCount);
    parallel::loop(0, count, kTilesAtOnce, [&](int64 begin, int64 end) {
        Round round(*this, depth);
        for (int64 n = begin; n < end; ++n)
            outcome[std::size_t(n)] = round.run(list[std::size_t(n)], slots_.data() + n * Tr::voxelCount);
    });
    for (std::int32_t tile : list) level.active[std::size_t(tile)] = level.urgent[std::size_t(tile)] = 0;
    parallel::loop(0, count, kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            if (!(outcome[std::size_t(n)] & 1)) continue;
            std::memcpy(payloads(list[std::size_t(n)], depth), slots_.data() + n * Tr::voxelCount, Tr::voxelCount * sizeof(std::int32_t));
            activateAround(level, list[std::size_t(n)], outcome[std::size_t(n)] & 2);
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
                const float distance = lattice.distance(points_[id >> 1], at.x, at.y, at.z);
                if (own[v] != kNone && !isBetter(distance, id, lattice.distance(points_[own[v] >> 1], at.x, at.y, at.z), own[v])) continue;
                own[v] = id;
                changed = true;
            }
            if (changed) activateAround(coarse, n, true);
        }
    });
}

namespace {

/// Along an axis: the parent's samples on either side of each voxel of a child, in voxels of the parent.
template <class Tr> struct ChildTaps {
    std::array<SiteTap, Tr::width> tap;
    ChildTaps(int cell, bool centred)
    {
        for (int i = 0; i < Tr::width; ++i) tap[std::size_t(i)] = siteTap(cell * Tr::width + i, 1, Tr::childStride, centred);
    }
};

}  // namespace

/// A voxel looks at what the parent's samples around it know. Writes its own tile, reads the depth above.
template <class Tr> void Wave<Tr>::toFine(int depth)
{
    constexpr int W = Tr::width;
    Level& fine = levels_[std::size_t(depth)];
    Level const& coarse = levels_[std::size_t(depth - 1)];
    const auto side = [](int x) { return x < 0 ? -1 : x < W ? 0 : 1; };
    const auto runTile = [&](int64 n) {
        Tile const& tile = tree_.tile(n, depth);
        const int64 above = tile.parentTreeIndex().index;
        const int3 cell = tree_.tile(above, depth - 1).childIJK(tile);
        const ChildTaps<Tr> tx(cell.x, offset_.x != 0), ty(cell.y, offset_.y != 0), tz(cell.z, offset_.z != 0);
        const Lattice lattice(tile, offset_);
        std::int32_t* own = payloads(n, depth);
        bool changed = false;
        for (int v = 0; v < Tr::voxelCount; ++v) {
            if (restricted_ && !fine.writable[std::size_t(n * Tr::voxelCount + v)]) continue;
            const int3 at = cubeIndex(W, v);
            const SiteTap x = tx.tap[std::size_t(at.x)], y = ty.tap[std::size_t(at.y)], z = tz.tap[std::size_t(at.z)];
            std::int32_t best = own[v];
            float least = best == kNone ? wave_detail::Neighborhood<Tr>::kNowhere : lattice.distance(points_[best >> 1], at.x, at.y, at.z);
            for (int c = z.base; c <= z.base + (z.fraction != 0); ++c)
                for (int b = y.base; b <= y.base + (y.fraction != 0); ++b)
                    for (int a = x.base; a <= x.base + (x.fraction != 0); ++a) {
                        const int dx = side(a), dy = side(b), dz = side(c);
                        const std::int32_t from = coarse.neighbors[std::size_t(above * 27 + neighborDirection(dx, dy, dz))];
                        if (from < 0) continue;
                        const std::int32_t id = payloads(from, depth - 1)[flatIndex(W, a - dx * W, b - dy * W, c - dz * W)];
                        if (id == kNone || id == best) continue;
                        const float distance = lattice.distance(points_[id >> 1], at.x, at.y, at.z);
                        if (!isBetter(distance, id, least, best)) continue;
                        best = id;
                        least = distance;
                    }
            changed |= best != own[v];
            own[v] = best;
        }
        if (changed) activateAround(fine, n, true);
    };
    parallel::loop(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) runTile(n);
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
