#include "TilegridOps/algorithms/extrapolate.h"

#include "TilegridOps/algorithms/wave.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/parallel.h"

#include <climits>
#include <cmath>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
namespace parallel = tilegrid::parallel;

constexpr int64 kTilesAtOnce = 64;
/// Layers per depth in units of the tile's width on the way to coarser depths: beyond that they are the quicker way.
constexpr int kTilesOfLayers = 2;

enum State : std::uint8_t { kUnknown = 0, kInside = 1, kOutside = 2, kNever = 3, kFilled = 4 };
constexpr bool isSource(std::uint8_t state) { return state != kUnknown && state != kNever; }

/// What a voxel passes on: its value, its gradient as a slope per world length, and its class.
struct Source {
    float value = 0;
    float3 slope;
    std::uint8_t state = kUnknown;
    /// What a source that stands for a coarser voxel adds to that one's value.
    float added = 0;
};

/// The sums that make the value and the slope of a new voxel.
struct Mean {
    double value = 0, weight = 0, least = 1e300, most = -1e300;
    double3 slope;

    /// \param axis, side  the new voxel lies `h` further from the source along the axis, to that side
    void add(Source const& from, ExtrapolationType type, int axis, int side, double h)
    {
        double3 slope(from.slope);
        double importance = slope[axis] * slope[axis] + 1e-6;
        const bool plateau = dot(slope, slope) < 0.25;
        if (type == ExtrapolationType::kConstant) {
            slope = double3();
            importance = 1;
        } else if (type != ExtrapolationType::kLinear && plateau) {
            // A flat piece says nothing of distances: beside it the surface is taken to follow, but weighs little.
            slope = double3();
            if ((from.state & ~kFilled) == kInside) slope[axis] = side;
            importance = 1e-3;
        }
        value += importance * (from.value + side * h * slope[axis]);
        this->slope = this->slope + importance * slope;
        weight += importance;
        least = std::min(least, double(from.value) - from.added);
        most = std::max(most, double(from.value) - from.added);
    }
};

/// The state of a run. Values live in the channel.
template <class Tr> class Extrapolation {
public:
    static constexpr int W = Tr::width;
    using Tile = typename Container<Tr>::Tile;
    using Floats = Channel<Tr, float, W, 0>;

    Extrapolation(ExtrapolationType type, Container<Tr> const& tree, float3 const& offset, Channel<Tr, unsigned char, W, 0> const& marker,
                  Floats& data, Floats const* order, int minDepth, int maxDepth, bool clamp)
        : type_(type), tree_(tree), offset_(offset), data_(data), order_(order), minDepth_(minDepth), maxDepth_(maxDepth), clamp_(clamp)
    {
        for (int depth = minDepth; depth <= maxDepth; ++depth) {
            Level& level = levels_[std::size_t(depth)];
            level.neighbors = tilegrid::sameDepthNeighbors(tree, depth);
            level.state.resize(std::size_t(tree.tileCount(depth)) * Tr::voxelCount);
            level.slope.resize(level.state.size());
            forTiles(depth, [&](int64 n) {
                const auto marks = marker.tileData(n, depth);
                const auto values = data.tileData(n, depth);
                for (int v = 0; v < Tr::voxelCount; ++v) {
                    const unsigned char mark = marks ? marks(v) : marker.defaultValue();
                    level.state[std::size_t(n * Tr::voxelCount + v)] =
                        mark == 0 ? kUnknown : !std::isfinite(values(v)) ? kNever : mark == 2 ? kOutside : kInside;
                }
            });
        }
        for (int depth = minDepth; depth <= maxDepth; ++depth) forTiles(depth, [&](int64 n) { findSlopes(n, depth); });
    }

    void run()
    {
        for (int depth = maxDepth_; depth > minDepth_; --depth) {
            fillLayers(depth, kTilesOfLayers * W);
            toCoarse(depth);
        }
        fillLayers(minDepth_, INT_MAX);
        for (int depth = minDepth_ + 1; depth <= maxDepth_; ++depth) {
            toFine(depth);
            fillLayers(depth, INT_MAX);
        }
    }
    bool isFilled(int64 tile, int depth, int voxel) const
    {
        return levels_[std::size_t(depth)].state[std::size_t(tile * Tr::voxelCount + voxel)] & kFilled;
    }

private:
    struct Level {
        std::vector<std::int32_t> neighbors;
        std::vector<std::uint8_t> state;
        std::vector<float3> slope;
    };
    struct Change {
        std::int32_t voxel;
        Source source;
    };

    template <class Body> void forTiles(int depth, Body const& body) const
    {
        parallel::loop(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) body(n);
        });
    }
    double spacing(int depth) const { return double(Tr::voxelDataWidth(depth)) * tree_.voxelSize(); }

    Source sourceAt(int64 tile, int depth, int voxel) const
    {
        Level const& level = levels_[std::size_t(depth)];
        const std::size_t at = std::size_t(tile * Tr::voxelCount + voxel);
        return {data_.tileData(tile, depth)(voxel), level.slope[at], level.state[at], 0};
    }
    float orderAt(int64 tile, int depth, int voxel) const
    {
        const auto values = order_->tileData(tile, depth);
        return std::fabs(values ? values(voxel) : order_->defaultValue());
    }

    /// The voxel of the same depth that lies `steps` from voxel `at` of a tile along an axis (no further than the next tile).
    /// \return false if no tile of the depth holds it
    bool step(int64& tile, int depth, int3& at, int axis, int steps) const
    {
        at[axis] += steps;
        if (at[axis] >= 0 && at[axis] < W) return true;
        int3 d;
        d[axis] = at[axis] < 0 ? -1 : 1;
        at[axis] -= d[axis] * W;
        tile = levels_[std::size_t(depth)].neighbors[std::size_t(tile * 27 + neighborDirection(d.x, d.y, d.z))];
        return tile >= 0;
    }
    /// The value there, if it was given as known.
    bool knownValue(int64 tile, int depth, int3 at, int axis, int steps, double& value) const
    {
        if (!step(tile, depth, at, axis, steps)) return false;
        const int v = flatIndex(W, at.x, at.y, at.z);
        const std::uint8_t state = levels_[std::size_t(depth)].state[std::size_t(tile * Tr::voxelCount + v)];
        if (state != kInside && state != kOutside) return false;
        value = data_.tileData(tile, depth)(v);
        return true;
    }

    /// What lies one voxel from voxel `at` along an axis: the neighbour, or, beside a coarser tile, what the coarse voxel that
    /// holds the place says of it.
    Source beside(ConstTileAccessor<Tr> const& accessor, int64 n, int depth, int3 at, int axis, int side, float& order) const
    {
        int64 tile = n;
        int3 there = at;
        if (step(tile, depth, there, axis, side)) {
            const int v = flatIndex(W, there.x, there.y, there.z);
            if (order_) order = orderAt(tile, depth, v);
            return sourceAt(tile, depth, v);
        }
        const int w = Tr::voxelDataWidth(depth);
        int3 place = tree_.tile(n, depth).tijk();
        for (int a = 0; a < 3; ++a) {
            const int64 p = int64(place[a]) + int64(at[a] + (a == axis ? side : 0)) * w;
            if (p < Tr::rangeMin || p > Tr::rangeMax) return {};
            place[a] = int(p);
        }
        const TreeIndex holder = accessor.find(place.x, place.y, place.z, depth);
        if (!holder.valid() || holder.depth < minDepth_) return {};
        const int3 from = place - tree_.tile(holder).tijk();
        const int coarse = Tr::voxelDataWidth(holder.depth);
        const int3 in(from.x / coarse, from.y / coarse, from.z / coarse);
        const int v = flatIndex(W, in.x, in.y, in.z);
        if (order_) order = orderAt(holder.index, holder.depth, v);
        Source source = sourceAt(holder.index, holder.depth, v);
        for (int a = 0; a < 3; ++a)
            source.added += source.slope[a] * float((from[a] - in[a] * coarse + double(offset_[a]) * (w - coarse)) * tree_.voxelSize());
        source.value += source.added;
        return source;
    }

    /// What coarser voxels of its class beside a voxel say of its slope along an axis; 0 if there are none.
    float coarseSlope(ConstTileAccessor<Tr> const& accessor, int64 n, int depth, int v, int axis) const
    {
        const std::uint8_t state = levels_[std::size_t(depth)].state[std::size_t(n * Tr::voxelCount + v)];
        for (int side = -1; side <= 1; side += 2) {
            int64 tile = n;
            int3 there = cubeIndex(W, v);
            // Slopes of this depth are being made.
            if (step(tile, depth, there, axis, side)) continue;
            float order = 0;
            const Source source = beside(accessor, n, depth, cubeIndex(W, v), axis, side, order);
            if (source.state == state) return source.slope[axis];
        }
        return 0;
    }

    /// Slopes at the known voxels, from known neighbours alone: central, else one-sided over three or two voxels, else as coarser
    /// tiles beside have it, where those of the depth end, else none. The slopes of coarser depths are there already.
    void findSlopes(int64 n, int depth)
    {
        const double h = spacing(depth);
        const auto accessor = tree_.tileAccessor();
        const auto values = data_.tileData(n, depth);
        Level& level = levels_[std::size_t(depth)];
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const std::size_t at = std::size_t(n * Tr::voxelCount + v);
            if (level.state[at] != kInside && level.state[at] != kOutside) continue;
            const int3 ijk = cubeIndex(W, v);
            for (int axis = 0; axis < 3; ++axis) {
                double low = 0, high = 0, next = 0;
                const double here = values(v);
                const bool hasLow = knownValue(n, depth, ijk, axis, -1, low), hasHigh = knownValue(n, depth, ijk, axis, 1, high);
                double rise = 0;
                if (hasLow && hasHigh)
                    rise = 0.5 * (high - low);
                else if (hasHigh)
                    rise = knownValue(n, depth, ijk, axis, 2, next) ? -0.5 * (3 * here - 4 * high + next) : high - here;
                else if (hasLow)
                    rise = knownValue(n, depth, ijk, axis, -2, next) ? 0.5 * (3 * here - 4 * low + next) : here - low;
                else
                    rise = h * coarseSlope(accessor, n, depth, v, axis);
                level.slope[at][axis] = float(rise / h);
            }
        }
    }

    bool fillVoxel(ConstTileAccessor<Tr> const& accessor, int64 n, int depth, int v, Source& result) const
    {
        const int3 at = cubeIndex(W, v);
        const double h = spacing(depth);
        const float own = order_ ? orderAt(n, depth, v) : 0;
        Mean mean;
        for (int axis = 0; axis < 3; ++axis)
            for (int side = -1; side <= 1; side += 2) {
                float order = 0;
                const Source source = beside(accessor, n, depth, at, axis, side, order);
                if (isSource(source.state) && !(order_ && !(order < own))) mean.add(source, type_, axis, -side, h);
            }
        if (!(mean.weight > 0)) return false;
        double value = mean.value / mean.weight;
        if (clamp_) value = std::clamp(value, mean.least, mean.most);
        double3 slope = (1 / mean.weight) * mean.slope;
        const double steepness = std::sqrt(dot(slope, slope));
        if (type_ != ExtrapolationType::kLinear && steepness > 1) slope = (1 / steepness) * slope;
        result = filled(float(value), float3(slope));
        return true;
    }
    static Source filled(float value, float3 const& slope)
    {
        return {value, slope, std::uint8_t(kFilled | (value < 0 ? kInside : kOutside)), 0};
    }
    void put(int64 n, int depth, int v, Source const& source)
    {
        Level& level = levels_[std::size_t(depth)];
        const std::size_t at = std::size_t(n * Tr::voxelCount + v);
        level.state[at] = source.state;
        level.slope[at] = source.slope;
        data_.tileData(n, depth)(v) = source.value;
    }

    /// One layer after the other, each from the state before it. Tiles are looked at while they, or a tile beside them, change.
    void fillLayers(int depth, int most)
    {
        Level& level = levels_[std::size_t(depth)];
        std::vector<std::int32_t> list;
        for (int64 n = 0; n < tree_.tileCount(depth); ++n) {
            auto const* states = level.state.data() + n * Tr::voxelCount;
            if (std::find(states, states + Tr::voxelCount, kUnknown) != states + Tr::voxelCount) list.push_back(std::int32_t(n));
        }
        for (int layer = 0; layer < most && !list.empty(); ++layer) {
            std::vector<std::vector<Change>> changes(list.size());
            parallel::loop(0, int64(list.size()), kTilesAtOnce, [&](int64 begin, int64 end) {
                const auto accessor = tree_.tileAccessor();
                for (int64 n = begin; n < end; ++n)
                    for (int v = 0; v < Tr::voxelCount; ++v) {
                        const std::int32_t tile = list[std::size_t(n)];
                        Source source;
                        if (level.state[std::size_t(tile) * Tr::voxelCount + std::size_t(v)] == kUnknown && fillVoxel(accessor, tile, depth, v, source))
                            changes[std::size_t(n)].push_back({v, source});
                    }
            });
            std::vector<std::uint8_t> active(static_cast<std::size_t>(tree_.tileCount(depth)));
            for (std::size_t n = 0; n < list.size(); ++n) {
                for (Change const& change : changes[n]) put(list[n], depth, change.voxel, change.source);
                for (int d : {4, 10, 12, 13, 14, 16, 22}) {
                    const std::int32_t beside = level.neighbors[std::size_t(list[n]) * 27 + std::size_t(d)];
                    if (!changes[n].empty() && beside >= 0) active[std::size_t(beside)] = 1;
                }
            }
            list.clear();
            for (std::size_t n = 0; n < active.size(); ++n)
                if (active[n]) list.push_back(std::int32_t(n));
        }
    }

    /// Unknown voxels above children take what the child's coincident voxel was filled with; known ones its slope, which comes
    /// from nearer by.
    void toCoarse(int depth)
    {
        forTiles(depth - 1, [&](int64 n) {
            Tile const& tile = tree_.tile(n, depth - 1);
            for (int v = 0; v < Tr::voxelCount && !tile.isLeaf(); ++v) {
                const int3 at = cubeIndex(W, v);
                const int64 child = tile.childIndex(Tile::voxelChildIJK(at.x, at.y, at.z));
                if (child < 0) continue;
                const int3 in = Tile::childDataIJK(at.x, at.y, at.z);
                const Source source = sourceAt(child, depth, flatIndex(W, in.x, in.y, in.z));
                if (!isSource(source.state)) continue;
                const std::size_t own = std::size_t(n * Tr::voxelCount + v);
                Level& level = levels_[std::size_t(depth - 1)];
                if (level.state[own] == kUnknown)
                    put(n, depth - 1, v, filled(source.value + rise(source.slope, spacing(depth - 1) - spacing(depth)), source.slope));
                else if (source.state == level.state[own])
                    level.slope[own] = source.slope;
            }
        });
    }

    /// From a voxel's sample to that of the coarser voxel it lies at the low corner of, whose width differs by `difference`.
    float rise(float3 const& slope, double difference) const
    {
        return offset_ == float3() ? 0 : float(difference * dot(double3(slope), double3(offset_)));
    }

    /// What is still unknown is taken from the depth above: trilinear, or the mean of the samples around that are known.
    void toFine(int depth)
    {
        forTiles(depth, [&](int64 n) {
            auto const* states = levels_[std::size_t(depth)].state.data() + n * Tr::voxelCount;
            for (int v = 0; v < Tr::voxelCount; ++v)
                if (states[v] == kUnknown) fillFromParent(n, depth, v);
        });
    }
    void fillFromParent(int64 n, int depth, int v)
    {
        Tile const& tile = tree_.tile(n, depth);
        const int64 above = tile.parentTreeIndex().index;
        const int3 cell = tree_.tile(above, depth - 1).childIJK(tile), at = cubeIndex(W, v);
        SiteTap taps[3];
        for (int a = 0; a < 3; ++a) taps[a] = siteTap(cell[a] * W + at[a], 1, Tr::childStride, /*centred*/ offset_[a] != 0);
        double value = 0, weights = 0;
        double3 slope;
        for (int corner = 0; corner < 8; ++corner) {
            double weight = 1;
            int3 in;
            for (int a = 0; a < 3; ++a) {
                const int high = corner >> a & 1;
                weight *= high ? taps[a].fraction : 1 - taps[a].fraction;
                in[a] = taps[a].base + high;
            }
            if (weight == 0) continue;
            int3 d;
            for (int a = 0; a < 3; ++a) d[a] = in[a] < 0 ? -1 : in[a] >= W ? 1 : 0;
            const std::int32_t holder = levels_[std::size_t(depth - 1)].neighbors[std::size_t(above * 27 + neighborDirection(d.x, d.y, d.z))];
            if (holder < 0) continue;
            in = in - W * d;
            const int from = flatIndex(W, in.x, in.y, in.z);
            const Source source = sourceAt(holder, depth - 1, from);
            if (!isSource(source.state) || (order_ && !(orderAt(holder, depth - 1, from) < orderAt(n, depth, v)))) continue;
            value += weight * source.value;
            slope = slope + weight * double3(source.slope);
            weights += weight;
        }
        if (weights > 0) put(n, depth, v, filled(float(value / weights), float3((1 / weights) * slope)));
    }

    ExtrapolationType type_;
    Container<Tr> const& tree_;
    float3 offset_;
    Floats& data_;
    Floats const* order_;
    int minDepth_, maxDepth_;
    bool clamp_;
    std::array<Level, Tr::levels> levels_;
};

}  // namespace

template <class Tr, class T>
void extrapolateChannel(ExtrapolationType type, Container<Tr> const& container, VoxelTopology<Tr> const& topology,
                        Channel<Tr, unsigned char, Tr::width, 0>& marker, Channel<Tr, T, Tr::width, 0>& data,
                        Channel<Tr, T, Tr::width, 0> const* orderField, DofChannel<Tr> const* dof, int minDepth, int maxDepth, bool clampToKnown)
{
    minDepth = std::max({minDepth, data.minDepth(), 0});
    maxDepth = std::min({maxDepth, data.depth(), container.deepestDepth()});
    if (minDepth > maxDepth || !(container.voxelSize() > 0) || !std::isfinite(container.voxelSize())) return;
    Extrapolation<Tr> run(type, container, topology.offset(), marker, data, orderField, minDepth, maxDepth, clampToKnown);
    const Channel<Tr, T, Tr::width, 0> before = data;
    run.run();
    if (dof) restoreDependentValues(container, data, topology.offsetType(), *dof, minDepth, maxDepth);
    for (int depth = minDepth; depth <= maxDepth; ++depth)
        parallel::loop(0, container.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                const auto values = data.tileData(n, depth);
                const auto marks = marker.tileData(n, depth);
                for (int v = 0; v < Tr::voxelCount; ++v)
                    if (!run.isFilled(n, depth, v))
                        values(v) = before.tileData(n, depth)(v);
                    else if (marks)
                        marks(v) = values(v) < 0 ? 1 : 2;
            }
        });
}

template TILEGRID_API void extrapolateChannel(ExtrapolationType, Container<BinaryTraits> const&, VoxelTopology<BinaryTraits> const&,
                                              Channel<BinaryTraits, unsigned char, 4, 0>&, Channel<BinaryTraits, float, 4, 0>&,
                                              Channel<BinaryTraits, float, 4, 0> const*, DofChannel<BinaryTraits> const*, int, int, bool);

}  // namespace VolumeGL::TileTree3D::LevelSet
