#include "TilegridOps/algorithms/consistent_values.h"

#include "TilegridOps/algorithms/parent_values.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/topology.h"

#include <optional>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelSignedDistance;
using Ostara::Geometry::sVoxelTileTree;

namespace {

/// Hanging voxels beside a tile two depths coarser or more. Writes the tile's own flags only.
template <class Tr> void keepBesideFarTiles(Container<Tr> const& tree, DofChannel<Tr>& dofs, int depth)
{
    parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        NeighborWalk<Tr> walk(tree, NeighborWalk<Tr>::Sides::kLow);
        for (int64 n = begin; n < end; ++n) {
            auto const& around = walk.around(tree.tile(n, depth));
            std::uint32_t far = 0;
            for (int d = 0; d < 27; ++d)
                if (kLowAround >> d & 1 && around[std::size_t(d)].valid() && around[std::size_t(d)].depth < depth - 1) far |= 1u << d;
            if (!far) continue;
            const auto beside = voxelsBeside<Tr>(far);
            const auto flags = dofs.tileData(n, depth);
            for (int v = 0; v < Tr::voxelCount; ++v)
                if (beside[std::size_t(v)] && flags(v) & kDofHanging) flags(v) = short(flags(v) | kDofKeep);
        }
    });
}

/// Hanging voxels above one that keeps its value. Writes the tile's own flags, reads those of its children.
template <class Tr> void keepAboveKept(Container<Tr> const& tree, DofChannel<Tr>& dofs, int depth)
{
    using Tile = typename Container<Tr>::Tile;
    parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            Tile const& tile = tree.tile(n, depth);
            if (tile.isLeaf()) continue;
            const auto flags = dofs.tileData(n, depth);
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = cubeIndex(Tr::width, v), cell = Tile::voxelChildIJK(at.x, at.y, at.z);
                if (!(flags(v) & kDofHanging) || tile.isLeaf(cell)) continue;
                if (std::as_const(dofs).tileData(tile.childTreeIndex(cell))(Tile::childDataIJK(at.x, at.y, at.z)) & kDofKeep)
                    flags(v) = short(flags(v) | kDofKeep);
            }
        }
    });
}

template <class Tr> void makeConsistentIn(OST::Object& volume)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    const auto topology = volume.component<VoxelTopology<Tr>>(sVoxelComp);
    if (!tree || !topology) return;
    std::optional<DofChannel<Tr>> dofs;
    const auto restore = [&]<class T>(Corvid::String const& name) {
        using Values = Channel<Tr, T, Tr::width, 0>;
        if (!volume.hasComponentFromName<Values>(name)) return false;
        auto channel = volume.extractComponent<Values>(name);
        setNonLeafValueToChildValue(*channel, *tree, topology->offsetType(), channel->minDepth(), channel->depth());
        if constexpr (canInterpolate<T>)
            if (topology->offsetType() == kCorner && !(name == sVoxelSignedDistance)) {
                if (!dofs) {
                    dofs.emplace("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
                    dofs->updateTilesAdded(*topology);
                    computeDofs(*tree, *dofs);
                    keepFarHanging(*tree, *dofs);
                }
                setNonDOFValues(channel->minDepth(), channel->depth(), *tree, *channel, *dofs, /*mode: hanging voxels only*/ 0);
            }
        volume.putComponent(std::move(channel));
        return true;
    };
    for (Corvid::String const& name : volume.componentRange())
        [&]<class... Ts>(TypeList<Ts...>) { (void)(restore.template operator()<Ts>(name) || ...); }(ElementTypes());
}

}  // namespace

template <class Tr> void keepFarHanging(Container<Tr> const& tree, DofChannel<Tr>& dofs)
{
    // Finest depth first: what is kept there holds on to what lies above it.
    for (int depth = Tr::maxDepth; depth > 0; --depth) {
        keepBesideFarTiles(tree, dofs, depth);
        if (depth < Tr::maxDepth) keepAboveKept(tree, dofs, depth);
    }
    parallel::endStage();
}

void makeConsistent(OST::Object& volume)
{
    makeConsistentIn<BinaryTraits>(volume);
    makeConsistentIn<QuinaryTraits>(volume);
}

template TILEGRID_API void keepFarHanging(Container<BinaryTraits> const&, DofChannel<BinaryTraits>&);
template TILEGRID_API void keepFarHanging(Container<QuinaryTraits> const&, DofChannel<QuinaryTraits>&);

}  // namespace tilegrid
