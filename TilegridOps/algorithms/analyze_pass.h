#pragma once
#include "TilegridOps/algorithms/analyze.h"
#include "TilegridOps/algorithms/analyze_rows.h"
#include "TilegridOps/algorithms/parent_values.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/topology.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <optional>
#include <tuple>

/// The pass behind `analyze`, for the sources that hold the operators.
namespace tilegrid::analysis {

using namespace OST::TileTree3D;
using OST::int64;

/// How far an operator's stencil goes.
enum class Needs { kVoxel, kFaces, kAll };

/// What a formula knows of the voxels of a depth.
struct DepthScale {
    /// Voxel size, world units, and what it gives.
    double size = 1, inverse = 1, halfInverse = 0.5, inverseSquare = 1;
    explicit DepthScale(double h) : size(h), inverse(1 / h), halfInverse(0.5 / h), inverseSquare(1 / (h * h)) {}
};

/// World position of the sample of voxel (0,0,0) of a tile.
template <class Tr> double3 firstSample(Container<Tr> const& tree, typename Container<Tr>::Tile const& tile, float3 const& offset)
{
    double3 p;
    for (int axis = 0; axis < 3; ++axis)
        p[axis] = (double(tile.tijk()[axis]) + double(offset[axis]) * tile.voxelDataWidth()) * double(tree.voxelSize());
    return p;
}

/// A tile with one layer around it, in one array.
template <class Tr, class T> class HaloReader {
public:
    static constexpr int N = Tr::width + 2;
    using Source = Channel<Tr, T, Tr::width, 0>;

    HaloReader(Container<Tr> const& tree, Source const& source, VoxelOffsetType offset)
        : source_(source), accessor_(tree.tileAccessor()), offset_(offset), halo_(N * N * N)
    {
    }
    /// Voxel (0,0,0); others lie 1, N and N * N apart. Where no data is (`outside`), the values continue the parabola through the
    /// nearest three, which makes central differences one-sided.
    T const* read(TreeIndex const& tile, std::uint32_t outside)
    {
        setHaloTile<Tr, T, 0, 1, 0, 0>(tile, source_, kHaloLinear, kHaloAll, accessor_, halo_, 0.0f, 1.0f, offset_);
        // Faces first: edges and corners continue from them.
        for (int outer = 1; outside && outer <= 3; ++outer)
            for (std::uint32_t left = outside; left; left &= left - 1) {
                const int3 step = neighborOffset(NeighborDirection(std::countr_zero(left)));
                if (std::abs(step.x) + std::abs(step.y) + std::abs(step.z) == outer) continueInto(step);
            }
        return &halo_(0, 0, 0);
    }

private:
    void continueInto(int3 const& step)
    {
        const int axis = step.x ? 0 : step.y ? 1 : 2;
        constexpr int strides[3] = {1, N, N * N};
        const int inward = -step[axis] * strides[axis];
        const auto low = [](int s) { return s < 0 ? -1 : s == 0 ? 0 : Tr::width; };
        const auto high = [](int s) { return s < 0 ? -1 : s == 0 ? Tr::width - 1 : Tr::width; };
        for (int k = low(step.z); k <= high(step.z); ++k)
            for (int j = low(step.y); j <= high(step.y); ++j)
                for (int i = low(step.x); i <= high(step.x); ++i) {
                    T& at = halo_(i, j, k);
                    T const* in = &at;
                    using Scalar = typename Ostara::Math::ElementTraits<T>::Scalar;
                    at = Scalar(3) * (in[inward] - in[2 * inward]) + in[3 * inward];
                }
    }

    Source const& source_;
    ConstTileAccessor<Tr> accessor_;
    VoxelOffsetType offset_;
    TileData<T, Tr::width, 1> halo_;
};

/// Whether the voxels of a child cell hold the values of the child.
template <class Tr, class T> bool cellIsInStep(T const* values, int cell, T const* child)
{
    constexpr int r = Tr::cellVoxels, s = Tr::childStride, W = Tr::width;
    const int3 at = r * cubeIndex(Tr::branching, cell);
    bool differs = false;
    for (int v = 0; v < r * r * r; ++v) {
        const int3 in = cubeIndex(r, v);
        T const& own = values[flatIndex(W, at.x + in.x, at.y + in.y, at.z + in.z)];
        differs |= std::memcmp(&own, child + flatIndex(W, in.x * s, in.y * s, in.z * s), sizeof(T)) != 0;
    }
    return !differs;
}

/// Whether voxels with children hold the children's values, bit for bit.
template <class Tr, class T> bool isInStep(Container<Tr> const& tree, Channel<Tr, T, Tr::width, 0> const& channel)
{
    using Tile = typename Container<Tr>::Tile;
    std::atomic<bool> inStep{true};
    for (int depth = channel.minDepth(); depth < channel.depth(); ++depth)
        parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end && inStep; ++n) {
                Tile const& tile = tree.tile(n, depth);
                if (tile.isLeaf()) continue;
                T const* values = channel.tileData(n, depth).data();
                for (int cell = 0; cell < Tr::childCount; ++cell) {
                    const int64 child = tile.childIndex(cell);
                    if (child >= 0 && !cellIsInStep<Tr>(values, cell, channel.tileData(child, depth + 1).data())) inStep = false;
                }
            }
        });
    return inStep;
}

/// One run of an operator over a channel.
template <class Operator, class Tr, class T> class Analysis {
    using Result = typename Operator::template Result<T>;
    using Source = Channel<Tr, T, Tr::width, 0>;
    using Output = Channel<Tr, Result, Tr::width, 0>;
    using Tile = typename Container<Tr>::Tile;
    static constexpr bool kByRows = std::is_same_v<T, float> && Operator::hasRows;
    static constexpr int W = Tr::width;

public:
    Analysis(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, Source const& source)
        : tree_(tree), source_(source), offsetType_(topology.offsetType()), offset_(topology.offset())
    {
    }
    Corvid::MutablePtr<Output> run(Corvid::String const& name)
    {
        const Result zero{};
        auto output = Corvid::makeMutable<Output>(name, &zero, kInitializeLinear, /*poolBacked*/ false,
                                                  /*callElementConstructor*/ false, source_.minDepth(), source_.depth());
        output->updateTilesAdded(tree_);
        // Coarse stencils beside a jump read voxels that have children.
        std::unique_ptr<Source> synced;
        if (Operator::needs != Needs::kVoxel && (offsetType_ != kCorner || !isInStep(tree_, source_))) {
            synced = std::make_unique<Source>(source_);
            setNonLeafValueToChildValue(*synced, tree_, offsetType_, source_.minDepth(), source_.depth());
        }
        for (int depth = output->minDepth(); depth <= output->depth(); ++depth)
            if (tree_.tileCount(depth) > 0) runDepth(depth, synced ? *synced : source_, *output);
        restoreDependents(tree_, *output, offsetType_, hanging_);
        return output;
    }

private:
    void runDepth(int depth, Source const& source, Output& output)
    {
        hanging_[std::size_t(depth)].resize(std::size_t(tree_.tileCount(depth)));
        const DepthScale scale(double(Tr::voxelDataWidth(depth)) * double(tree_.voxelSize()));
        parallel::forRanges(0, tree_.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            Worker worker(*this, source, output, hanging_);
            for (int64 n = begin; n < end; ++n) worker.run(tree_.tile(n, depth), scale);
        });
        parallel::endStage();
    }

    /// What one thread needs.
    class Worker {
    public:
        Worker(Analysis const& job, Source const& source, Output& output, HangingSides<Tr>& hanging)
            : job_(job), source_(source), output_(output), hanging_(hanging), around_(job.tree_, source.minDepth()),
              parents_(job.tree_, output, job.offsetType_), halos_(job.tree_, source, job.offsetType_)
        {
            if constexpr (kByRows) rows_.emplace(job.tree_, source, /*facesOnly*/ Operator::needs == Needs::kFaces);
        }
        void run(Tile const& tile, DepthScale const& scale)
        {
            Result* out = output_.tileData(tile.treeIndex()).data();
            const AroundTile around = look(tile);
            hanging_[std::size_t(tile.depth())][std::size_t(tile.index())] = around.coarser & kLowAround;
            if constexpr (Operator::needs == Needs::kVoxel) {
                T const* in = source_.tileData(tile.treeIndex()).data();
                for (int v = 0; v < Tr::voxelCount; ++v) out[v] = Operator::atVoxel(in[v]);
            } else {
                constexpr std::uint32_t reached = Operator::needs == Needs::kAll ? kAllAround : kFacesAround;
                bool done = false;
                if constexpr (kByRows) {
                    done = !(around.outside & reached);
                    if (done) Operator::template rows<Tr>(rows_->block(), out, scale, firstSample(job_.tree_, tile, job_.offset_));
                }
                if (!done) byVoxel(tile, out, scale);
                takeFromParent(tile, around.coarser & reached, around.coarser & kLowAround, out);
            }
        }

    private:
        AroundTile look(Tile const& tile)
        {
            if constexpr (kByRows)
                return rows_->read(tile);
            else
                return around_.of(tile);
        }
        /// Voxels whose stencils met coarser tiles. Those that hang follow at the end, unless there may be children that read them
        /// before.
        void takeFromParent(Tile const& tile, std::uint32_t coarser, std::uint32_t hanging, Result* out)
        {
            if (job_.offsetType_ == kCorner && !tile.isLeaf()) coarser |= hanging;
            const bool later = job_.offsetType_ == kCorner && tile.isLeaf();
            if (!(later ? coarser & ~kLowAround : coarser)) return;
            VoxelSet<Tr> which = voxelsBeside<Tr>(coarser);
            if (later) which &= ~voxelsBeside<Tr>(hanging);
            parents_.write(tile, coarser, which, out);
        }
        void byVoxel(Tile const& tile, Result* out, DepthScale const& scale)
        {
            constexpr int N = W + 2;
            T const* first = halos_.read(tile.treeIndex(), around_.of(tile).outside);
            const double3 corner = firstSample(job_.tree_, tile, job_.offset_);
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(W, v);
                out[v] = Operator::template inBlock<N>(first + at.x + N * (at.y + N * at.z), scale, corner + scale.size * double3(at));
            }
        }

        Analysis const& job_;
        Source const& source_;
        Output& output_;
        HangingSides<Tr>& hanging_;
        AroundTiles<Tr> around_;
        ParentValues<Tr, Result> parents_;
        HaloReader<Tr, T> halos_;
        std::optional<RowReader<Tr>> rows_;
    };

    Container<Tr> const& tree_;
    Source const& source_;
    VoxelOffsetType offsetType_;
    float3 offset_;
    HangingSides<Tr> hanging_;
};

/// \return whether the volume has the property in this structure and type
template <class Operator, class Tr, class T> bool tryAnalyze(OST::Object& object, Corvid::String const& property, Corvid::String const& result)
{
    const auto tree = object.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    const auto topology = object.component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    const auto source = object.component<Channel<Tr, T, Tr::width, 0>>(property);
    if (!tree || !topology || !source) return false;
    object.putComponent(Analysis<Operator, Tr, T>(*tree, *topology, *source).run(result));
    return true;
}

template <class Operator, class Tr, class... Ts>
bool tryTypes(OST::Object& object, Corvid::String const& property, Corvid::String const& result, std::type_identity<std::tuple<Ts...>>)
{
    return (tryAnalyze<Operator, Tr, Ts>(object, property, result) || ...);
}

/// The body of `VolumeGL::TileTree3D::analyze`. `Operator::Types`: the element types that it takes, as a tuple.
template <class Operator>
bool analyzeProperty(Corvid::String const& property, Corvid::String const& outputProperty, bool toOutputProperty, OST::Object& object)
{
    const Corvid::String& result = toOutputProperty && !outputProperty.empty() ? outputProperty : property;
    if (object.hasComponentFromName(result) && !object.hasComponentFromName<ChannelBase>(result)) return false;
    constexpr std::type_identity<typename Operator::Types> types;
    return tryTypes<Operator, BinaryTraits>(object, property, result, types) || tryTypes<Operator, QuinaryTraits>(object, property, result, types);
}

}  // namespace tilegrid::analysis

/// Defines `analyze` for `Analyze::NAME` with the operator `Implementation`.
#define TILEGRID_INSTANTIATE_ANALYZE(NAME, Implementation)                                                                                   \
    template <> TILEGRID_API bool VolumeGL::TileTree3D::analyze<VolumeGL::TileTree3D::Analyze::NAME>(                                          \
        Corvid::String const& property, Corvid::String const& outputProperty, bool toOutputProperty, OST::Object& object)                    \
    {                                                                                                                                        \
        return tilegrid::analysis::analyzeProperty<Implementation>(property, outputProperty, toOutputProperty, object);                      \
    }
