#include "TilegridOps/algorithms/redistance.h"

#include "TilegridOps/algorithms/nan_sides.h"
#include "TilegridOps/algorithms/surface_distance.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/parallel.h"

#include <atomic>
#include <cfloat>
#include <cmath>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
using tilegrid::SurfacePoints;
using tilegrid::Wave;
namespace parallel = tilegrid::parallel;

constexpr int64 kTilesAtOnce = 64;
/// A distance is kept if the new one differs by no more than this, in voxels.
constexpr float kTrust = 0.02f;
/// What a negative voxel on the surface gets, in voxels.
constexpr float kLeastInside = 1e-6f;

/// One call: its arguments, and what its passes share.
template <class Tr> struct Redistance {
    using Floats = Channel<Tr, float, Tr::width, 0>;
    using Mask = Channel<Tr, unsigned char, Tr::width, 0>;

    Container<Tr> const& tree;
    Floats& levelSet;
    VoxelOffsetType offset;
    bool resetFar, resetCrossing, keepSigns, unsignedResult;
    int minDepth, maxDepth;
    Floats const* blockField;
    Mask* mask;
    float maxOutside, maxInside;

    SurfacePoints<Tr> surface;
    /// For each voxel of a depth, whether it is next to the crossing; only if that matters.
    std::array<std::vector<std::uint8_t>, Tr::levels> crossing;
    std::atomic<float> largest{0};
    std::atomic<bool> someUnreached{false};

    template <class Body> void forTiles(Body const& body) const
    {
        for (int depth = minDepth; depth <= maxDepth; ++depth)
            parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
                for (int64 n = begin; n < end; ++n) body(n, depth);
            });
    }
    bool isBlocked(int64 tile, int depth, int voxel) const
    {
        if (!blockField) return false;
        const auto values = blockField->tileData(tile, depth);
        return (values ? values(voxel) : blockField->defaultValue()) >= 0;
    }
    float limitOf(bool inside) const { return inside ? maxInside : maxOutside; }

    bool hasBothSigns() const;
    void noteCrossing(Wave<Tr> const& wave);
    void runWave(Wave<Tr>& wave) const;
    void write(Wave<Tr> const& wave);
    float writeTile(Wave<Tr> const& wave, int64 tile, int depth);
    void writeUnreached(Wave<Tr> const& wave);
    void pushAway();
};

/// Whether leaf voxels of both signs exist. One that is not negative counts as positive.
template <class Tr> bool Redistance<Tr>::hasBothSigns() const
{
    using Tile = typename Container<Tr>::Tile;
    std::atomic<bool> negative{false}, other{false};
    forTiles([&](int64 n, int depth) {
        if (negative.load(std::memory_order_relaxed) && other.load(std::memory_order_relaxed)) return;
        Tile const& tile = tree.tile(n, depth);
        const auto values = levelSet.tileData(n, depth);
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(Tr::width, v);
            if (depth == maxDepth || tile.isLeaf(Tile::voxelChildIJK(at.x, at.y, at.z)))
                (values(v) < 0 ? negative : other).store(true, std::memory_order_relaxed);
        }
    });
    return negative && other;
}

/// The voxels that a wave starts from are those next to the crossing.
template <class Tr> void Redistance<Tr>::noteCrossing(Wave<Tr> const& wave)
{
    if (resetFar == resetCrossing) return;
    for (int depth = minDepth; depth <= maxDepth; ++depth)
        crossing[std::size_t(depth)].resize(std::size_t(tree.tileCount(depth)) * Tr::voxelCount);
    forTiles([&](int64 n, int depth) {
        for (int v = 0; v < Tr::voxelCount; ++v)
            crossing[std::size_t(depth)][std::size_t(n * Tr::voxelCount + v)] = wave.payloads(n, depth)[v] != Wave<Tr>::kNone;
    });
}

/// With blocked voxels two waves: the first stays among the others; the second enters the blocked ones and does not come out.
template <class Tr> void Redistance<Tr>::runWave(Wave<Tr>& wave) const
{
    if (!blockField) return wave.run();
    wave.restrict();
    forTiles([&](int64 n, int depth) {
        std::uint8_t* writable = wave.writable(n, depth);
        for (int v = 0; v < Tr::voxelCount; ++v) writable[v] = !isBlocked(n, depth, v);
    });
    wave.run();
    if (keepSigns) return;
    forTiles([&](int64 n, int depth) {
        std::uint8_t* writable = wave.writable(n, depth);
        for (int v = 0; v < Tr::voxelCount; ++v) writable[v] = !writable[v];
    });
    wave.run();
}

/// \return the largest magnitude
template <class Tr> float Redistance<Tr>::writeTile(Wave<Tr> const& wave, int64 n, int depth)
{
    auto const& tile = tree.tile(n, depth);
    const auto values = levelSet.tileData(n, depth);
    const auto flags = mask ? mask->tileData(n, depth) : TileData<unsigned char, Tr::width, 0>();
    std::int32_t const* payloads = wave.payloads(n, depth);
    const double width = tile.voxelDataWidth(), voxelSize = tree.voxelSize();
    const tilegrid::SurfaceDistances<Tr> distances(tree, voxelOffset(offset), surface, wave);
    const float h = float(width * voxelSize);
    float most = 0;
    for (int v = 0; v < Tr::voxelCount; ++v) {
        if (flags && flags(v) == 0) continue;
        const bool blocked = isBlocked(n, depth, v), closed = blocked && keepSigns;
        if (flags) flags(v) = closed || payloads[v] == Wave<Tr>::kNone ? 1 : 2;
        if (closed) continue;
        if (payloads[v] == Wave<Tr>::kNone) {
            someUnreached.store(true, std::memory_order_relaxed);
            continue;
        }
        const float old = values(v);
        // What a blocked voxel holds says nothing of its side: there the surface goes on as it is shaped before the wall.
        const tilegrid::SurfaceFoot nearest = distances(tile, v, payloads[v], /*along*/ !blockField);
        const bool inside = blocked ? nearest.side < 0 : old < 0;
        float fresh = std::min(float(nearest.distance * voxelSize), limitOf(inside));
        most = std::max(most, fresh);
        if (inside && !unsignedResult) fresh = -std::max(fresh, kLeastInside * h);
        const bool reset = crossing[std::size_t(depth)].empty() || !crossing[std::size_t(depth)][std::size_t(n * Tr::voxelCount + v)]
                               ? resetFar
                               : resetCrossing;
        if (reset || !(std::fabs(old - fresh) <= kTrust * h) || (old < 0) != (fresh < 0)) values(v) = fresh;
    }
    return most;
}

template <class Tr> void Redistance<Tr>::write(Wave<Tr> const& wave)
{
    forTiles([&](int64 n, int depth) {
        const float most = writeTile(wave, n, depth);
        float seen = largest.load(std::memory_order_relaxed);
        while (most > seen && !largest.compare_exchange_weak(seen, most, std::memory_order_relaxed)) {}
    });
    if (someUnreached && resetFar) writeUnreached(wave);
}

/// Voxels that are shut off from the surface, or lie beyond the limits: further than all others.
template <class Tr> void Redistance<Tr>::writeUnreached(Wave<Tr> const& wave)
{
    const float far = 2 * largest.load();
    forTiles([&](int64 n, int depth) {
        const auto values = levelSet.tileData(n, depth);
        const auto flags = mask ? mask->tileData(n, depth) : TileData<unsigned char, Tr::width, 0>();
        for (int v = 0; v < Tr::voxelCount; ++v) {
            if (wave.payloads(n, depth)[v] != Wave<Tr>::kNone || (flags && flags(v) == 0) || (keepSigns && isBlocked(n, depth, v))) continue;
            const bool inside = values(v) < 0;
            const float magnitude = std::min(limitOf(inside), far);
            values(v) = inside && !unsignedResult ? -magnitude : magnitude;
        }
    });
}

/// Nothing is crossed among walls: what is left lies far from any surface.
template <class Tr> void Redistance<Tr>::pushAway()
{
    const float least = std::max(std::fabs(levelSet.defaultValue()), 3 * tree.voxelSize());
    forTiles([&](int64 n, int depth) {
        const auto values = levelSet.tileData(n, depth);
        const auto flags = mask ? mask->tileData(n, depth) : TileData<unsigned char, Tr::width, 0>();
        for (int v = 0; v < Tr::voxelCount; ++v) {
            if ((flags && flags(v) == 0) || isBlocked(n, depth, v)) continue;
            const bool inside = values(v) < 0;
            const float magnitude = std::isfinite(values(v)) ? std::max(std::fabs(values(v)), least) : least;
            values(v) = inside && !unsignedResult ? -magnitude : magnitude;
        }
    });
}

float limitFrom(float given) { return given > 0 && given < FLT_MAX ? given : FLT_MAX; }

/// How far the wave has to go, in tile-space units.
double reachOf(float maxOutside, float maxInside, float voxelSize)
{
    const float most = std::max(maxOutside, maxInside);
    return most < FLT_MAX ? double(most) / voxelSize : 1e30;
}

}  // namespace

template <class Tr>
void levelSetRedistance(Container<Tr> const& container, VoxelTopology<Tr> const& topology, Channel<Tr, float, Tr::width, 0>& levelSet,
                        bool resetFar, bool resetCrossing, bool keepSigns, int minDepth, int maxDepth,
                        Channel<Tr, float, Tr::width, 0> const* blockField, Channel<Tr, unsigned char, Tr::width, 0>* mask,
                        float redistanceBand, float maxOutside, float maxInside, int preSmoothingPasses, int postSmoothingPasses,
                        bool restoreDependents, bool unsignedResult, DofChannel<Tr> const* dof, Corvid::String const& stageName,
                        RedistancingScheme)
{
    const auto timer = CoreGL::Logger::timer(stageName, nullptr);
    minDepth = std::max({minDepth, levelSet.minDepth(), 0});
    maxDepth = std::min({maxDepth, levelSet.depth(), container.deepestDepth()});
    const float voxelSize = container.voxelSize();
    if (minDepth > maxDepth || !(voxelSize > 0) || !std::isfinite(voxelSize)) return;

    Redistance<Tr> call{container, levelSet, topology.offsetType(), resetFar,  resetCrossing,         keepSigns,
                        unsignedResult, minDepth, maxDepth, blockField, mask, limitFrom(maxOutside), limitFrom(maxInside), {}, {}};
    tilegrid::giveNansSides<Tr>(container, levelSet, minDepth, maxDepth, [&](int64 n, int depth, int v) {
        const auto flags = mask ? mask->tileData(n, depth) : TileData<unsigned char, Tr::width, 0>();
        return call.isBlocked(n, depth, v) || (flags && flags(v) == 0);
    });
    if (call.hasBothSigns()) {
        // Hanging voxels and those above children are read as neighbours, so they have to agree with what they depend on.
        if (restoreDependents && dof) restoreDependentValues(container, levelSet, topology.offsetType(), *dof, minDepth, maxDepth);
        call.surface = tilegrid::findSurfacePoints<Tr>({container, levelSet, topology.offsetType(), minDepth, maxDepth, blockField, dof});
    }
    if (call.surface.empty()) {
        if (blockField) call.pushAway();
        return;
    }
    Wave<Tr> wave(container, topology.offset(),
                  {minDepth, maxDepth, preSmoothingPasses, postSmoothingPasses, redistanceBand,
                   reachOf(call.maxOutside, call.maxInside, voxelSize)});
    wave.setPoints(call.surface.points.data());
    tilegrid::startWave(container, topology.offset(), call.surface, wave);
    call.noteCrossing(wave);
    call.runWave(wave);
    call.write(wave);
    if (restoreDependents && dof) restoreDependentValues(container, levelSet, topology.offsetType(), *dof, minDepth, maxDepth);
}

TILEGRID_REDISTANCE(, BinaryTraits)
TILEGRID_REDISTANCE(, QuinaryTraits)

}  // namespace VolumeGL::TileTree3D::LevelSet
