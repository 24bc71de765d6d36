#include "TilegridOps/algorithms/splat.h"

#include "TilegridOps/algorithms/parent_values.h"
#include "TilegridOps/algorithms/splat_points.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/initialize_tile_data.h"
#include "TilegridOps/substrate/memory_budget.h"
#include "TilegridOps/substrate/traversal.h"

#include <array>
#include <atomic>
#include <vector>

namespace tilegrid::splatting {

namespace {

using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

/// Which points touch which tile, in the order of the points.
struct TilePoints {
    /// By running number of the tile, one more than there are tiles: where its points begin in the list.
    std::vector<int64> begin;
    std::vector<std::int32_t> points;
};

template <class Tr, class T> class Splatter {
    using Tree = Container<Tr>;
    using Values = Channel<Tr, T, Tr::width, 0>;
    using Weights = Channel<Tr, float, Tr::width, 0>;
    using Element = Ostara::Math::ElementTraits<T>;
    static constexpr int W = Tr::width;

public:
    Splatter(Settings const& settings, PointArrays const& points, T const* values, Tree& tree, VoxelTopology<Tr>& topology)
        : settings_(settings), points_(points), values_(values), tree_(tree), topology_(topology), offset_(topology.offset()),
          voxelSize_(double(tree.voxelSize()))
    {
    }
    void run(Corvid::String const& property, OST::Object& target)
    {
        makeFootprints();
        // Beside what the volume holds: the property, if it is new, and in the meantime sums, weights and flags.
        bytesPerTile_ = tileBytes<Tr>(target) + double(W * W * W * (2 * sizeof(T) + sizeof(float) + sizeof(short)));
        checkWork();
        setFactors();
        addTiles(target);
        if (!target.hasComponentFromName(property))
            Command::createChannel<T, Tr::branching, W, W, 0>(property, topology_, target, T(), kInitializeLinear, 0, Tr::maxDepth);
        auto channel = target.extractComponent<Values>(property);
        try {
            if (anyPoint_) splatInto(*channel);
        } catch (...) {
            target.putComponent(std::move(channel));
            throw;
        }
        target.putComponent(std::move(channel));
    }

private:
    void makeFootprints()
    {
        constexpr int64 kAtOnce = 4096;
        footprints_.resize(std::size_t(points_.count));
        std::array<std::atomic<bool>, Tr::levels> used{};
        parallel::loop(0, points_.count, kAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                Footprint& f = footprints_[std::size_t(n)];
                if (hasValue(n)) f = points_.footprint<Tr>(n, settings_, voxelSize_, offset_);
                if (f.depth >= 0) used[std::size_t(f.depth)].store(true, std::memory_order_relaxed);
            }
        });
        for (int depth = Tr::maxDepth; depth >= 0; --depth)
            if (used[std::size_t(depth)]) coarsest_ = depth, anyPoint_ = true;
    }
    /// The tiles that the widest point alone needs, and the list of points by tile, are counted before anything is as long as that.
    void checkWork() const
    {
        double most = 0, pairs = 0;
        for (Footprint const& f : footprints_) {
            const double tiles = f.tiles(W);
            most = std::max(most, tiles);
            pairs += tiles;
        }
        checkMemory(most * bytesPerTile_);
        checkMemory(pairs * 2 * sizeof(std::int32_t));
    }
    void setFactors()
    {
        constexpr int64 kAtOnce = 4096;
        parallel::forRanges(0, points_.count, kAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                Footprint& f = footprints_[std::size_t(n)];
                if (f.depth < 0) continue;
                const double sum = settings_.normalize ? 1 : f.weightSum(settings_.kernel);
                f.factor = sum > 0 ? 1 / sum : 0;
            }
        });
    }
    bool hasValue(int64 n) const
    {
        for (int c = 0; values_ && c < Element::components; ++c)
            if (!std::isfinite(Element::at(values_[n], c))) return false;
        return true;
    }

    /// The tiles of all footprints, each once and in an order that depends on nothing else. A voxel more on the low sides than has
    /// weight, so that no voxel with weight hangs.
    std::vector<TileKeys::Key> touchedTiles() const
    {
        constexpr int64 kAtOnce = 4096;
        const double mostTiles = memoryLimit() / bytesPerTile_;
        parallel::PerThread<TileKeys> sets;
        parallel::loop(0, points_.count, kAtOnce, [&](int64 begin, int64 end) {
            TileKeys& set = sets.local([] { return std::make_unique<TileKeys>(); });
            for (int64 n = begin; n < end; ++n) {
                Footprint const& f = footprints_[std::size_t(n)];
                if (f.depth < 0) continue;
                const auto first = [&f](int axis) { return std::max(f.first[axis] - 1, 0) / W; };
                for (std::int32_t k = first(2); k <= f.last[2] / W; ++k)
                    for (std::int32_t j = first(1); j <= f.last[1] / W; ++j)
                        for (std::int32_t i = first(0); i <= f.last[0] / W; ++i) set.insert({f.depth, i, j, k});
                if (double(set.size()) > mostTiles) throw MemoryExceeded(mostTiles * bytesPerTile_);
            }
        });
        std::vector<TileKeys::Key> keys;
        sets.forEach([&keys](TileKeys const& set) { set.appendTo(keys); });
        // Near ones follow each other, so that parents are found at once.
        std::sort(keys.begin(), keys.end(), [](TileKeys::Key const& a, TileKeys::Key const& b) {
            return a.depth != b.depth ? a.depth < b.depth : a.z != b.z ? a.z < b.z : a.y != b.y ? a.y < b.y : a.x < b.x;
        });
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        return keys;
    }
    void addTiles(OST::Object& target)
    {
        const auto keys = touchedTiles();
        const auto add = [&keys](int64 begin, int64 end, Tree& collected) {
            auto accessor = collected.tileAccessor();
            for (int64 n = begin; n < end; ++n) {
                TileKeys::Key const& key = keys[std::size_t(n)];
                const int width = W * Tr::voxelDataWidth(key.depth);
                accessor.addTile(Tr::rangeMin + key.x * width, Tr::rangeMin + key.y * width, Tr::rangeMin + key.z * width, key.depth);
            }
        };
        TileList<Tr> added;
        constexpr std::size_t kGrain = 1 << 16;
        if (anyPoint_) {
            const TileBudget<Tr> budget(tree_, bytesPerTile_);
            tree_.template refine<decltype(add), int64>(add, 0, int64(keys.size()), kGrain, &added);
        }
        topology_.update(tree_);
        updateTilesAdded(topology_, target);
        initializeTileData(tree_, added, target, topology_.offsetType());
    }

    /// Calls `visit(corner)` for the low corners of the tiles that a footprint touches.
    template <class Visit> static void forTiles(Footprint const& f, Visit visit)
    {
        const int width = Tr::voxelDataWidth(f.depth);
        const auto corner = [width](std::int32_t tile) { return Tr::rangeMin + tile * W * width; };
        for (std::int32_t k = f.first[2] / W; k <= f.last[2] / W; ++k)
            for (std::int32_t j = f.first[1] / W; j <= f.last[1] / W; ++j)
                for (std::int32_t i = f.first[0] / W; i <= f.last[0] / W; ++i) visit(int3(corner(i), corner(j), corner(k)));
    }

    TilePoints sorted() const
    {
        constexpr int64 kAtOnce = 4096;
        std::vector<int64> first(std::size_t(points_.count) + 1);
        for (int64 n = 0; n < points_.count; ++n) {
            Footprint const& f = footprints_[std::size_t(n)];
            int64 tiles = f.depth < 0 ? 0 : 1;
            for (int axis = 0; axis < 3 && f.depth >= 0; ++axis) tiles *= f.last[axis] / W - f.first[axis] / W + 1;
            first[std::size_t(n) + 1] = first[std::size_t(n)] + tiles;
        }
        std::array<int64, Tr::levels + 1> base{};
        for (int depth = 0; depth < Tr::levels; ++depth) base[std::size_t(depth) + 1] = base[std::size_t(depth)] + tree_.tileCount(depth);

        std::vector<std::int32_t> tileOf(std::size_t(first.back()));
        parallel::loop(0, points_.count, kAtOnce, [&](int64 begin, int64 end) {
            const auto accessor = std::as_const(tree_).tileAccessor();
            for (int64 n = begin; n < end; ++n) {
                Footprint const& f = footprints_[std::size_t(n)];
                if (f.depth < 0) continue;
                std::int32_t* out = tileOf.data() + first[std::size_t(n)];
                forTiles(f, [&](int3 const& at) {
                    *out++ = std::int32_t(base[std::size_t(f.depth)] + accessor.find(at.x, at.y, at.z, f.depth).index);
                });
            }
        });
        // A counting sort keeps the order of the points.
        TilePoints result;
        result.begin.resize(std::size_t(base.back()) + 2);
        for (std::int32_t tile : tileOf) ++result.begin[std::size_t(tile) + 2];
        for (std::size_t n = 2; n < result.begin.size(); ++n) result.begin[n] += result.begin[n - 1];
        result.points.resize(tileOf.size());
        for (int64 n = 0; n < points_.count; ++n)
            for (int64 r = first[std::size_t(n)]; r < first[std::size_t(n) + 1]; ++r)
                result.points[std::size_t(result.begin[std::size_t(tileOf[std::size_t(r)]) + 1]++)] = std::int32_t(n);
        result.begin.pop_back();
        return result;
    }

    /// Sums of one tile.
    struct Sums {
        double value[Tr::voxelCount][Element::components], weight[Tr::voxelCount];
    };
    /// \param last  end of the whole list: what follows is fetched ahead
    void gather(typename Tree::Tile const& tile, std::int32_t const* begin, std::int32_t const* end, std::int32_t const* last, Sums& sums) const
    {
        constexpr int kAhead = 12;
        const int width = tile.voxelDataWidth();
        std::int32_t corner[3];
        for (int axis = 0; axis < 3; ++axis) corner[axis] = std::int32_t((int64(tile.tijk()[axis]) - Tr::rangeMin) / width);
        for (std::int32_t const* point = begin; point != end; ++point) {
            if (last - point > kAhead) {
                Footprint const& next = footprints_[std::size_t(point[kAhead])];
                __builtin_prefetch(&next);
                __builtin_prefetch(reinterpret_cast<char const*>(&next) + sizeof next - 1);
                if (values_) __builtin_prefetch(values_ + point[kAhead]);
            }
            Footprint const& f = footprints_[std::size_t(*point)];
            double weights[3][W];
            int from[3], to[3];
            for (int axis = 0; axis < 3; ++axis) {
                from[axis] = std::max(f.first[axis] - corner[axis], 0);
                to[axis] = std::min(f.last[axis] - corner[axis], W - 1);
                f.weights(settings_.kernel, axis, corner[axis] + from[axis], corner[axis] + to[axis], weights[axis] + from[axis]);
            }
            for (int k = from[2]; k <= to[2]; ++k)
                for (int j = from[1]; j <= to[1]; ++j)
                    for (int i = from[0]; i <= to[0]; ++i)
                        add(sums, i + W * (j + W * k), weights[0][i] * (weights[1][j] * weights[2][k] * f.factor), *point);
        }
    }
    void add(Sums& sums, int voxel, double weight, std::int32_t point) const
    {
        sums.weight[voxel] += weight;
        for (int c = 0; c < Element::components; ++c)
            sums.value[voxel][c] += weight * (values_ ? double(Element::at(values_[point], c)) : 1.0);
    }

    template <class C> Corvid::MutablePtr<C> zeroChannel() const
    {
        const typename C::Element zero{};
        auto made = Corvid::makeMutable<C>(Corvid::String(), &zero, kInitializeNone, /*poolBacked*/ true, /*callElementConstructor*/ true, 0, Tr::maxDepth);
        made->updateTilesAdded(topology_);
        return made;
    }
    void splatInto(Values& channel) const
    {
        const auto values = zeroChannel<Values>();
        const auto weights = settings_.normalize ? zeroChannel<Weights>() : Corvid::MutablePtr<Weights>();
        const TilePoints points = sorted();
        parallel::loop(0, tree_.tileCount(-1), 16, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                if (points.begin[std::size_t(n)] == points.begin[std::size_t(n) + 1]) continue;
                Sums sums{};
                std::int32_t const* list = points.points.data();
                gather(tree_.tile(n), list + points.begin[std::size_t(n)], list + points.begin[std::size_t(n) + 1], list + points.points.size(), sums);
                const auto out = values->tileData(n);
                for (int v = 0; v < Tr::voxelCount; ++v)
                    for (int c = 0; c < Element::components; ++c)
                        Element::at(out(v), c) = static_cast<typename Element::Scalar>(settings_.scale * sums.value[v][c]);
                if (weights)
                    for (int v = 0; v < Tr::voxelCount; ++v) weights->tileData(n)(v) = float(sums.weight[v]);
            }
        });
        DofChannel<Tr> dofs("", nullptr, kInitializeNone, true, false, 0, Tr::maxDepth);
        dofs.updateTilesAdded(topology_);
        computeDofs(tree_, dofs);
        spread(*values, dofs);
        if (weights) spread(*weights, dofs);
        combine(*values, weights.get(), channel);
        // A mean of interpolated sums is not the interpolated mean.
        if (weights) setNonDOFValues(channel.minDepth(), channel.depth(), tree_, channel, dofs, /*mode: hanging voxels only*/ 0);
    }
    /// Brings what was added at each depth to all others.
    template <class U> void spread(Channel<Tr, U, W, 0>& channel, DofChannel<Tr> const& dofs) const
    {
        for (int depth = coarsest_ + 1; depth <= Tr::maxDepth; ++depth) {
            if (tree_.tileCount(depth) == 0) continue;
            parallel::forRanges(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
                const ParentValues<Tr, U> parents(tree_, channel, topology_.offsetType());
                U above[Tr::voxelCount];
                for (int64 n = begin; n < end; ++n) {
                    parents.writeAll(tree_.tile(n, depth), above);
                    const auto own = channel.tileData(n, depth);
                    for (int v = 0; v < Tr::voxelCount; ++v) own(v) = own(v) + above[v];
                }
            });
            parallel::endStage();
        }
        if (topology_.offsetType() == kCorner)
            setNonDOFValues(0, Tr::maxDepth, tree_, channel, dofs, kNonDofRestrict);
        else
            setNonLeafValueToChildValue(channel, tree_, topology_.offsetType(), 0, Tr::maxDepth);
    }
    void combine(Values const& values, Weights const* weights, Values& channel) const
    {
        using Scalar = typename Element::Scalar;
        parallel::loop(0, tree_.tileCount(-1), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                const auto from = values.tileData(n);
                const auto to = channel.tileData(tree_.tile(n).treeIndex());
                if (!to) continue;
                for (int v = 0; v < Tr::voxelCount; ++v) {
                    if (!weights)
                        to(v) = to(v) + from(v);
                    else if (const float weight = weights->tileData(n)(v); weight > 0)
                        for (int c = 0; c < Element::components; ++c) Element::at(to(v), c) = Element::at(from(v), c) / Scalar(weight);
                }
            }
        });
    }

    Settings const& settings_;
    PointArrays const& points_;
    T const* values_;
    Tree& tree_;
    VoxelTopology<Tr>& topology_;
    float3 offset_;
    double voxelSize_;
    double bytesPerTile_ = 0;
    std::vector<Footprint> footprints_;
    /// The lowest depth that a point goes to.
    int coarsest_ = Tr::maxDepth;
    bool anyPoint_ = false;
};

template <class Tr, class T>
bool splatValues(Settings const& settings, PointArrays const& points, Corvid::Array<T> const* values, Corvid::String const& property, OST::Object& target)
{
    if (values && int64(values->size()) != points.count) return false;
    if (target.hasComponentFromName(property) && !target.hasComponentFromName<Channel<Tr, T, Tr::width, 0>>(property)) return false;
    auto tree = target.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = target.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    const double voxelSize = tree ? double(tree->voxelSize()) : 0;
    const bool possible = tree && topology && voxelSize > 0 && std::isfinite(voxelSize);
    const auto putBack = [&] {
        target.putComponent(std::move(topology));
        target.putComponent(std::move(tree));
    };
    try {
        if (possible) Splatter<Tr, T>(settings, points, values ? values->data() : nullptr, *tree, *topology).run(property, target);
    } catch (...) {
        putBack();
        throw;
    }
    putBack();
    return possible;
}

template <class Tr> bool splatInto(Settings const& settings, Ostara::Object const& cloud, Corvid::String const& property, OST::Object& target)
{
    using namespace Ostara::Math;
    PointArrays points;
    if (!target.hasComponentFromName<Container<Tr>>(sVoxelTileTree) || !points.take(cloud)) return false;
    bool done = false;
    const auto attempt = [&]<class T>() {
        auto const* values = cloud.get<Corvid::Array<T>>(property);
        if (values) done = splatValues<Tr, T>(settings, points, values, property, target);
        return values != nullptr;
    };
    const bool found = attempt.template operator()<float>() || attempt.template operator()<float2>() || attempt.template operator()<float3>() ||
                       attempt.template operator()<float4>() || attempt.template operator()<double>() || attempt.template operator()<double3>();
    return found ? done : splatValues<Tr, float>(settings, points, nullptr, property, target);
}

template <class Tr> double workIn(Settings const& settings, Ostara::Object const& cloud, OST::Object const& target)
{
    const auto tree = target.component<Container<Tr>>(sVoxelTileTree);
    PointArrays points;
    if (!tree || !(tree->voxelSize() > 0) || !points.take(cloud)) return 0;
    double sites = 0;
    for (int64 n = 0; n < points.count; ++n) sites += points.footprint<Tr>(n, settings, double(tree->voxelSize()), float3()).sites();
    return sites;
}

}  // namespace

}  // namespace tilegrid::splatting

namespace VolumeGL::TileTree3D {

using namespace tilegrid::splatting;

template <class Kernel>
bool splatPoints(float radius, float minRadiusVoxels, float maxRadiusVoxels, float scale, int depthCount, bool normalize,
                 Corvid::String const& property, Ostara::Object const& points, OST::Object& target)
{
    const auto kind = std::is_same_v<Kernel, Splat::LinearKernel> ? KernelKind::kLinear : KernelKind::kQuadratic;
    const Settings settings(kind, radius, minRadiusVoxels, maxRadiusVoxels, scale, depthCount, normalize);
    return splatInto<BinaryTraits>(settings, points, property, target) || splatInto<QuinaryTraits>(settings, points, property, target);
}

double splatWork(float radius, float minRadiusVoxels, float maxRadiusVoxels, int depthCount, Ostara::Object const& points, OST::Object const& target)
{
    const Settings settings(KernelKind::kLinear, radius, minRadiusVoxels, maxRadiusVoxels, 1, depthCount, false);
    return workIn<BinaryTraits>(settings, points, target) + workIn<QuinaryTraits>(settings, points, target);
}

template TILEGRID_API bool splatPoints<Splat::LinearKernel>(float, float, float, float, int, bool, Corvid::String const&, Ostara::Object const&,
                                                            OST::Object&);
template TILEGRID_API bool splatPoints<Splat::QuadraticKernel>(float, float, float, float, int, bool, Corvid::String const&, Ostara::Object const&,
                                                               OST::Object&);

}  // namespace VolumeGL::TileTree3D
