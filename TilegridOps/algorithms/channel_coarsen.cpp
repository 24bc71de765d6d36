#include "TilegridOps/algorithms/channel_coarsen.h"

#include "TilegridOps/algorithms/parent_values.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/halo.h"

#include <cmath>
#include <vector>

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
using Ostara::Geometry::sPointComp;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelDegreeOfFreedom;
using Ostara::Geometry::sVoxelTileTree;

struct Limits {
    double absolute, relative;
    bool protectSurface;
    double band;
};

/// Which children of a tile meet a neighbour, by the direction that leads from the neighbour to the tile.
template <class Tr> bool hasChildTowards(typename Container<Tr>::Tile const& tile, int3 const& step)
{
    constexpr int B = Tr::branching;
    const auto low = [](int s) { return s > 0 ? B - 1 : 0; };
    const auto high = [](int s) { return s < 0 ? 0 : B - 1; };
    for (int k = low(step.z); k <= high(step.z); ++k)
        for (int j = low(step.y); j <= high(step.y); ++j)
            for (int i = low(step.x); i <= high(step.x); ++i)
                if (!tile.isLeaf(i, j, k)) return true;
    return false;
}

template <class Tr> bool touchesFinerTile(Container<Tr> const& tree, typename Container<Tr>::Tile const& tile, Surroundings const& around)
{
    for (int n = 0; n < 27; ++n) {
        const TreeIndex at = around[std::size_t(n)];
        if (n == kNeighborSelf || at.depth != tile.depth() || tree.tile(at).isLeaf()) continue;
        if (hasChildTowards<Tr>(tree.tile(at), -neighborOffset(NeighborDirection(n)))) return true;
    }
    return false;
}

/// Whether the values of tiles can be had from the depth above; one per thread.
template <class Tr, class T> class TileJudge {
    using Values = Channel<Tr, T, Tr::width, 0>;
    using Element = Ostara::Math::ElementTraits<T>;
    using Tile = typename Container<Tr>::Tile;
    static constexpr int W = Tr::width;
    static constexpr bool kReal = tilegrid::canInterpolate<T>;
    struct Nothing {
        Nothing(Container<Tr> const&, Values const&, VoxelOffsetType) {}
    };

public:
    TileJudge(Container<Tr> const& tree, Values const& channel, VoxelOffsetType offset, Limits const& limits)
        : tree_(tree), channel_(channel), offset_(offset), limits_(limits), accessor_(tree.tileAccessor()), parents_(tree, channel, offset)
    {
    }
    bool canGo(Tile const& tile) const
    {
        const auto values = channel_.tileData(tile.treeIndex());
        const TreeIndex above = tile.parentTreeIndex();
        if (!values || !above.valid() || above.depth < channel_.minDepth()) return false;
        T coarse[Tr::voxelCount];
        if constexpr (kReal) {
            parents_.writeAll(tile, coarse);
        } else {
            const int3 first = Tr::cellVoxels * tree_.tile(above).childIJK(tile);
            const auto from = channel_.tileData(above);
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(W, v);
                coarse[v] = from(first.x + at.x / Tr::childStride, first.y + at.y / Tr::childStride, first.z + at.z / Tr::childStride);
            }
        }
        return isNear(values.data(), coarse) && !isProtected(tile, values.data());
    }

private:
    bool isNear(T const* values, T const* coarse) const
    {
        double largest = 0, furthest = 0;
        for (int v = 0; v < Tr::voxelCount; ++v)
            for (int c = 0; c < Element::components; ++c) {
                if constexpr (kReal) {
                    const double value = double(Element::at(values[v], c)), off = std::abs(value - double(Element::at(coarse[v], c)));
                    if (!(off <= std::numeric_limits<double>::max())) return false;
                    largest = std::max(largest, std::abs(value));
                    furthest = std::max(furthest, off);
                } else {
                    if (Element::at(values[v], c) != Element::at(coarse[v], c)) return false;
                }
            }
        return furthest <= limits_.absolute + limits_.relative * largest;
    }
    bool isProtected(Tile const& tile, T const* values) const
    {
        if constexpr (std::is_same_v<T, float> || std::is_same_v<T, double>) {
            if (!limits_.protectSurface) return false;
            const double least = limits_.band * tile.voxelDataWidth() * double(tree_.voxelSize());
            for (int v = 0; v < Tr::voxelCount; ++v)
                if (!(std::abs(double(values[v])) > least)) return true;
            TileData<T, W + 1, 0> halo((W + 1) * (W + 1) * (W + 1));
            setHaloTile<Tr, T, 0, 0, 1, 0>(tile.treeIndex(), channel_, kHaloLinear, kHaloAll, accessor_, halo, 0.0f, 1.0f, offset_);
            const bool negative = halo(0) < 0;
            return std::any_of(halo.begin(), halo.end(), [negative](T value) { return (value < 0) != negative; });
        } else {
            return false;
        }
    }

    Container<Tr> const& tree_;
    Values const& channel_;
    VoxelOffsetType offset_;
    Limits const& limits_;
    ConstTileAccessor<Tr> accessor_;
    std::conditional_t<kReal, ParentValues<Tr, std::conditional_t<kReal, T, float>>, Nothing> parents_;
};

/// The tiles of a depth that go, in index order.
template <class Tr, class T>
std::vector<int64> goingTiles(Container<Tr> const& tree, Channel<Tr, T, Tr::width, 0> const& channel, VoxelOffsetType offset, Limits const& limits,
                              PointTopology<Tr> const* points, int depth)
{
    std::vector<char> goes(std::size_t(tree.tileCount(depth)));
    parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        const TileJudge<Tr, T> judge(tree, channel, offset, limits);
        NeighborWalk<Tr> walk(tree);
        for (int64 n = begin; n < end; ++n) {
            auto const& tile = tree.tile(n, depth);
            if (!tile.isLeaf() || (points && points->elementCount(tile.treeIndex()) > 0)) continue;
            goes[std::size_t(n)] = !touchesFinerTile(tree, tile, walk.around(tile)) && judge.canGo(tile);
        }
    });
    parallel::endStage();
    std::vector<int64> tiles;
    for (std::size_t n = 0; n < goes.size(); ++n)
        if (goes[n]) tiles.push_back(int64(n));
    return tiles;
}

/// Calls `op(tree channel of a real type)` for all such properties of the object, taken out of it meanwhile.
template <class Tr, class Op> void forRealChannels(OST::Object& object, Op const& op)
{
    for (Corvid::String const& name : object.componentRange())
        tryElements<Tr>(object, name, [&]<class C>() {
            if constexpr (canInterpolate<typename C::Element>) {
                auto channel = object.extractComponent<C>(name);
                try {
                    op(*channel);
                } catch (...) {
                    object.putComponent(std::move(channel));
                    throw;
                }
                object.putComponent(std::move(channel));
            }
        });
}

template <class Tr> struct Parts {
    Corvid::MutablePtr<Container<Tr>> tree;
    Corvid::MutablePtr<VoxelTopology<Tr>> topology;
    Corvid::MutablePtr<PointTopology<Tr>> points;
};

template <class Tr> void removeTiles(Parts<Tr>& parts, int depth, std::vector<int64> const& going, OST::Object& object)
{
    std::vector<std::vector<int64>> tiles(Tr::levels);
    tiles[std::size_t(depth)] = going;
    TileMoves moves;
    parts.tree->removeTiles(tiles, moves, /*updateLookup*/ true);
    parts.topology->update(*parts.tree);
    updateTilesRemoved(moves, *parts.topology, object);
    if (!parts.points) return;
    parts.points->updateTilesRemoved(moves, *parts.tree);
    updateTilesRemoved(moves, *parts.points, object);
}

template <class Tr, class T> void coarsen(Corvid::String const& property, Limits const& limits, Parts<Tr>& parts, OST::Object& object)
{
    const VoxelOffsetType offset = parts.topology->offsetType();
    forRealChannels<Tr>(object, [&](auto& channel) {
        setNonLeafValueToChildValue(channel, *parts.tree, offset, channel.minDepth(), channel.depth());
    });
    bool removed = false;
    for (int depth = Tr::maxDepth; depth >= 1; --depth) {
        const auto channel = object.component<Channel<Tr, T, Tr::width, 0>>(property);
        const auto going = goingTiles<Tr, T>(*parts.tree, *channel, offset, limits, parts.points.get(), depth);
        if (!going.empty()) removeTiles(parts, depth, going, object);
        removed |= !going.empty();
    }
    if (!removed || offset != kCorner) return;
    DofChannel<Tr> dofs("", nullptr, kInitializeNone, true, false, 0, Tr::maxDepth);
    dofs.updateTilesAdded(*parts.topology);
    computeDofs(*parts.tree, dofs);
    forRealChannels<Tr>(object, [&]<class C>(C& channel) {
        if constexpr (C::voxels == Tr::width && C::halo == 0)
            setNonDOFValues(channel.minDepth(), channel.depth(), *parts.tree, channel, dofs, kNonDofCopy);
    });
}

template <class Tr> bool coarsenIn(Corvid::String const& property, Limits const& limits, OST::Object& object)
{
    const auto run = [&]<class T>() {
        if (!object.hasComponentFromName<Channel<Tr, T, Tr::width, 0>>(property)) return false;
        Parts<Tr> parts{object.extractComponent<Container<Tr>>(sVoxelTileTree), object.extractComponent<VoxelTopology<Tr>>(sVoxelComp),
                        object.extractComponent<PointTopology<Tr>>(sPointComp)};
        const auto putBack = [&] {
            object.putComponent(std::move(parts.points));
            object.putComponent(std::move(parts.topology));
            object.putComponent(std::move(parts.tree));
        };
        try {
            coarsen<Tr, T>(property, limits, parts, object);
        } catch (...) {
            putBack();
            throw;
        }
        putBack();
        if (object.hasComponentFromName<DofChannel<Tr>>(sVoxelDegreeOfFreedom)) createDofs<Tr>(sVoxelDegreeOfFreedom, object);
        return true;
    };
    if (!object.hasComponentFromName<Container<Tr>>(sVoxelTileTree) || !object.hasComponentFromName<VoxelTopology<Tr>>(sVoxelComp)) return false;
    return [&]<class... Ts>(TypeList<Ts...>) { return (run.template operator()<Ts>() || ...); }(ElementTypes());
}

}  // namespace

}  // namespace tilegrid

bool VolumeGL::TileTree3D::channelCoarsen(Corvid::String const& property, float absoluteError, float relativeError, bool protectSurface,
                                          float surfaceBand, OST::Object& object, Corvid::String const& stagePrefix)
{
    const auto timer = CoreGL::Logger::timer(Corvid::String(stagePrefix.str() + "coarsen"), nullptr);
    // A NaN counts as 0.
    const auto atLeastZero = [](float x) { return x > 0 ? double(x) : 0.0; };
    const tilegrid::Limits limits{atLeastZero(absoluteError), atLeastZero(relativeError), protectSurface, atLeastZero(surfaceBand)};
    return tilegrid::coarsenIn<tilegrid::BinaryTraits>(property, limits, object) || tilegrid::coarsenIn<tilegrid::QuinaryTraits>(property, limits, object);
}
