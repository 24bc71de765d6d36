#include "TilegridOps/algorithms/level_set_band.h"

#include "TilegridOps/algorithms/new_voxel_sides.h"
#include "TilegridOps/algorithms/tile_directions.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/parallel.h"

#include <atomic>
#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 64;
constexpr double kDiagonal = kVoxelDiagonal;

/// Volume of an eighth of a ball of radius 1.
constexpr double kBallEighth = 0.5235987755982988;

/// The half width that is meant, in voxels: one at least, and no wider than tile space.
template <class Tr> double bandVoxels(BandTarget const& target)
{
    return std::clamp(double(target.band), 1.0, double(Tr::rangeMax) - Tr::rangeMin + 1);
}

/// The six directions across a face.
constexpr std::uint32_t kFaces = 1u << 4 | 1u << 10 | 1u << 12 | 1u << 14 | 1u << 16 | 1u << 22;

/// Where the tile in that direction begins; false beyond tile space.
template <class Tile> bool placeBeside(Tile const& tile, int direction, int3& place)
{
    using Tr = typename Tile::Traits;
    const int3 d = neighborOffset(NeighborDirection(direction));
    for (int a = 0; a < 3; ++a) {
        const int64 at = tile.tijk()[a] + int64(d[a]) * tile.tileVoxelWidth();
        if (at < Tr::rangeMin || at > Tr::rangeMax) return false;
        place[a] = int(at);
    }
    return true;
}

}  // namespace

template <class Tr>
LevelSetBand<Tr>::LevelSetBand(Container const& tree, VoxelTopology<Tr> const& topology, Floats const& levelSet, DofChannel<Tr> const* dofs)
    : tree_(tree), levelSet_(levelSet), offset_(topology.offsetType()), voxelSize_(tree.voxelSize()),
      surface_(findSurfacePoints<Tr>({tree, levelSet, topology.offsetType(), levelSet.minDepth(),
                                      std::min(levelSet.depth(), tree.deepestDepth()), nullptr, dofs})),
      copy_(tree), wave_(copy_, topology.offset(), {0, tree.deepestDepth(), -1, -1})
{
    for (int depth = 0; depth < Tr::levels; ++depth) oldTiles_[std::size_t(depth)] = tree.tileCount(depth);
    if (surface_.empty()) return;
    wave_.setPoints(surface_.points.data());
    startWave(copy_, topology.offset(), surface_, wave_);
    wave_.run();
}

/// The values that a tile of the copy had in the tree; null for a new one.
template <class Tr> float const* LevelSetBand<Tr>::oldValues(int64 tile, int depth) const
{
    return tile < oldTiles_[std::size_t(depth)] ? levelSet_.tileData(tile, depth).data() : nullptr;
}

/// In tile-space units. The side of an old voxel is that of its value, of a new one that of the tangent plane.
template <class Tr>
double LevelSetBand<Tr>::signedDistance(SurfaceDistances<Tr> const& distances, typename Container::Tile const& tile, int voxel,
                                        std::int32_t point, float const* old)
{
    const SurfaceFoot nearest = distances(tile, voxel, point);
    const bool inside = old ? old[voxel] < 0 : nearest.side < 0;
    return inside ? -nearest.distance : nearest.distance;
}

/// Calls `visit(voxel, signed distance, whether the nearest surface has the tile's depth)` for what the wave reached.
template <class Tr>
template <class Visit>
void LevelSetBand<Tr>::forVoxels(int64 n, int depth, Visit const& visit) const
{
    auto const& tile = copy_.tile(n, depth);
    std::int32_t const* payloads = wave_.payloads(n, depth);
    float const* old = oldValues(n, depth);
    const SurfaceDistances<Tr> distances(copy_, voxelOffset(offset_), surface_, wave_);
    for (int v = 0; v < Tr::voxelCount; ++v) {
        if (payloads[v] == Wave<Tr>::kNone) continue;
        const bool ofDepth = surface_.shapes[std::size_t(payloads[v])].width == float(tile.voxelDataWidth());
        visit(v, signedDistance(distances, tile, v, payloads[v], old), ofDepth);
    }
}

/// Directions in which the copy has no tile of the depth beside a voxel whose distance lies in a range; in tile-space units.
template <class Tr>
std::uint32_t LevelSetBand<Tr>::missingDirections(int64 n, int depth, double low, double high, double margin) const
{
    std::int32_t const* around = wave_.neighbors(depth).data() + n * 27;
    std::uint32_t missing = 0, seen = 0;
    for (int d = 0; d < 27; ++d) missing |= std::uint32_t(around[d] < 0) << d;
    if (!missing) return 0;
    forVoxels(n, depth, [&](int v, double distance, bool ofDepth) {
        if (ofDepth && distance >= low - margin && distance <= high + margin) seen |= kSeenFrom<Tr>[std::size_t(v)];
    });
    return missing & seen;
}

/// Refuses a band that cannot fit before any of it is made: where the surface has one depth, a ball as wide as the band lies
/// around each of its points, and at least an eighth of the ball inside tile space.
template <class Tr> void LevelSetBand<Tr>::checkBall(BandTarget const& target, double bytesPerTile) const
{
    int depths = 0, depth = 0;
    for (int d = 0; d <= tree_.deepestDepth(); ++d)
        if (surface_.inDepth(d)) ++depths, depth = d;
    if (depths != 1) return;
    const double width = Tr::tileVoxelWidth(depth), halfSpace = (double(Tr::rangeMax) - Tr::rangeMin) / 2;
    const double radius = bandVoxels<Tr>(target) * Tr::voxelDataWidth(depth) + std::max(target.high, 0.0f) / voxelSize_;
    // Tiles that lie within it wholly.
    const double tiles = std::max(std::min(radius, halfSpace) / width - kDiagonal, 0.0);
    checkMemory(kBallEighth * tiles * tiles * tiles * bytesPerTile);
}

template <class Tr> void LevelSetBand<Tr>::grow(BandTarget const& target, double objectBytes)
{
    const double low = std::min(target.low, 0.0f) / voxelSize_, high = std::max(target.high, 0.0f) / voxelSize_;
    // The copy and the wave here, and once more when distances are written.
    const double waveBytes = tileRecordBytes<Tr>() + double(sizeof(std::int32_t) * (Tr::voxelCount + 27));
    const double bytesPerTile = objectBytes + 2 * waveBytes;
    checkBall(target, bytesPerTile);
    const TileBudget<Tr> budget(copy_, bytesPerTile);
    for (bool grown = true; grown;) {
        grown = false;
        auto accessor = copy_.tileAccessor();
        for (int depth = 0; depth <= tree_.deepestDepth(); ++depth) {
            if (!surface_.inDepth(depth)) continue;
            // A place of a tile to come lies within a diagonal of a voxel beside it that is nearer to the surface.
            const double margin = (bandVoxels<Tr>(target) + 2 * kDiagonal) * Tr::voxelDataWidth(depth);
            const int64 tiles = wave_.tileCount(depth);
            std::vector<std::uint32_t> wanted(static_cast<std::size_t>(tiles));
            parallel::loop(0, tiles, kTilesAtOnce, [&](int64 begin, int64 end) {
                for (int64 n = begin; n < end; ++n) wanted[std::size_t(n)] = missingDirections(n, depth, low, high, margin);
            });
            for (int64 n = 0; n < tiles; ++n)
                for (int d = 0; d < 27; ++d) {
                    int3 place;
                    if (!(wanted[std::size_t(n)] >> d & 1) || !placeBeside(copy_.tile(n, depth), d, place)) continue;
                    accessor.addTile(place.x, place.y, place.z, depth);
                    grown = true;
                }
        }
        if (grown) wave_.extend();
    }
}

template <class Tr> bool LevelSetBand<Tr>::leavesTiles(float distance) const
{
    std::atomic<bool> leaves{false};
    for (int depth = 0; depth <= tree_.deepestDepth(); ++depth) {
        if (!surface_.inDepth(depth)) continue;
        const double w = Tr::voxelDataWidth(depth), middle = distance / voxelSize_;
        parallel::loop(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n)
                if (missingDirections(n, depth, middle, middle, w) & kFaces) leaves.store(true, std::memory_order_relaxed);
        });
    }
    return leaves || !passes(distance);
}

template <class Tr> bool LevelSetBand<Tr>::passes(float distance) const
{
    std::atomic<bool> below{false}, above{false};
    for (int depth = 0; depth <= tree_.deepestDepth(); ++depth)
        parallel::loop(0, wave_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end && !(below && above); ++n)
                forVoxels(n, depth, [&](int, double d, bool ofDepth) {
                    if (ofDepth) (d * voxelSize_ < distance ? below : above).store(true, std::memory_order_relaxed);
                });
        });
    return below && above;
}

template <class Tr> void LevelSetBand<Tr>::collect(BandTarget const& target, bool keepAll, Container& wanted) const
{
    enum : std::uint8_t { kKeep = 1, kPassed = 2 };
    const double low = target.low / voxelSize_, high = target.high / voxelSize_;
    auto accessor = wanted.tileAccessor();
    for (int depth = 0; depth <= tree_.deepestDepth(); ++depth) {
        const double w = Tr::voxelDataWidth(depth), band = (bandVoxels<Tr>(target) + target.margin) * w, near = target.near * w;
        const int64 tiles = copy_.tileCount(depth);
        std::vector<std::uint8_t> verdict(static_cast<std::size_t>(tiles));
        parallel::loop(0, tiles, kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                const bool old = n < oldTiles_[std::size_t(depth)];
                bool ofSurface = false, sees = false, passed = false;
                forVoxels(n, depth, [&](int, double d, bool ofDepth) {
                    ofSurface |= ofDepth;
                    sees |= ofDepth && d >= low - band && d <= high + band;
                    passed |= ofDepth && d >= low - near && d <= high + near;
                });
                const bool keep = sees || (old && (keepAll || (!ofSurface && tree_.tile(n, depth).isLeaf())));
                verdict[std::size_t(n)] = std::uint8_t((keep ? kKeep : 0) | (passed ? kPassed : 0));
            }
        });
        for (int64 n = 0; n < tiles; ++n) {
            auto const& tile = copy_.tile(n, depth);
            if (verdict[std::size_t(n)] & kKeep) accessor.addTile(tile.tijk().x, tile.tijk().y, tile.tijk().z, depth);
            if (!(verdict[std::size_t(n)] & kPassed)) continue;
            for (int d = 0; d < 27; ++d) {
                int3 place;
                if (placeBeside(tile, d, place)) accessor.addTile(place.x, place.y, place.z, depth);
            }
        }
    }
}

template <class Tr> void LevelSetBand<Tr>::writeDistances(Container const& tree, Floats& channel) const
{
    const int last = tree.deepestDepth();
    Wave<Tr> wave(tree, voxelOffset(offset_), {0, last, -1, -1});
    wave.setPoints(surface_.points.data());
    std::array<std::vector<std::uint8_t>, Tr::levels> isOld;
    for (int depth = 0; depth <= last; ++depth) {
        isOld[std::size_t(depth)].resize(std::size_t(tree.tileCount(depth)));
        parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            const auto accessor = copy_.tileAccessor();
            for (int64 n = begin; n < end; ++n) {
                int3 const& place = tree.tile(n, depth).tijk();
                const TreeIndex from = accessor.find(place.x, place.y, place.z, depth);
                if (from.depth != depth) continue;
                std::copy_n(wave_.payloads(from.index, depth), Tr::voxelCount, wave.payloads(n, depth));
                isOld[std::size_t(depth)][std::size_t(n)] = from.index < oldTiles_[std::size_t(depth)];
            }
        });
    }
    // The whole way, up as well: a new coarse tile above new finer ones has to hear from them. From the tiles around it alone it
    // may know the far side of a thin wall, and then the side of the voxels there seems handed on through the near one.
    wave.run();
    for (int depth = std::max(channel.minDepth(), 0); depth <= std::min(last, channel.depth()); ++depth) {
        NewVoxelSides<Tr> sides(channel, depth, wave.neighbors(depth), isOld[std::size_t(depth)], Tr::voxelDataWidth(depth) * voxelSize_);
        parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            const SurfaceDistances<Tr> distances(tree, voxelOffset(offset_), surface_, wave);
            for (int64 n = begin; n < end; ++n) {
                float* values = channel.tileData(n, depth).data();
                std::int32_t const* payloads = wave.payloads(n, depth);
                const bool old = isOld[std::size_t(depth)][std::size_t(n)];
                for (int v = 0; v < Tr::voxelCount; ++v) {
                    // What the wave does not reach keeps its value, and a new voxel so its parent's side.
                    if (payloads[v] == Wave<Tr>::kNone) {
                        if (!old) sides.setTangentSide(n, v, values[v] < 0), values[v] = std::fabs(values[v]);
                        continue;
                    }
                    const double signedOne = signedDistance(distances, tree.tile(n, depth), v, payloads[v], old ? values : nullptr);
                    if (!old) sides.setTangentSide(n, v, signedOne < 0);
                    values[v] = float((old ? signedOne : std::fabs(signedOne)) * voxelSize_);
                }
            }
        });
        sides.write();
    }
}

template class LevelSetBand<BinaryTraits>;
template class LevelSetBand<QuinaryTraits>;

}  // namespace tilegrid
