#pragma once
#include "redistance_world.h"
#include "support/volumes.h"

namespace tilegrid::test {

/// The finest tiles of which a voxel lies within `band` of the surface, and their ancestors. Lengths in finest voxels.
template <class Tr> TileSet<Tr> bandSet(Field const& field, double band, int half)
{
    TileSet<Tr> set;
    constexpr int W = Tr::width;
    const TileKey first = TileSet<Tr>::keyAt({-half, -half, -half}, Tr::maxDepth);
    for (std::int64_t k = first.low[2]; k < half; k += W)
        for (std::int64_t j = first.low[1]; j < half; j += W)
            for (std::int64_t i = first.low[0]; i < half; i += W)
                for (int v = 0; v < Tr::voxelCount; ++v) {
                    const int3 at = OST::TileTree3D::cubeIndex(W, v);
                    if (std::abs(field({double(i + at.x), double(j + at.y), double(k + at.z)})) > band) continue;
                    set.add({i, j, k}, Tr::maxDepth);
                    break;
                }
    return set;
}

/// A native volume of those tiles with the exact distance at every voxel, as `sVoxelSignedDistance`.
template <class Tr> Corvid::MutablePtr<Native> levelSetVolume(TileSet<Tr> const& set, Field const& field, float voxelSize = 1.0f)
{
    auto native = nativeVolume<Tr>([&](Tree<Tr>& tree) { addAll(set, tree); }, voxelSize);
    addChannel<OST::TileTree3D::Channel<Tr, float, Tr::width, 0>>(*native, Ostara::Geometry::sVoxelSignedDistance, 3.0f * voxelSize, [&](TileKey const& key, int v) {
        const int3 at = OST::TileTree3D::cubeIndex(Tr::width, v);
        Point p;
        for (int a = 0; a < 3; ++a) p[std::size_t(a)] = double(key.low[std::size_t(a)] + at[a] * TileSet<Tr>::voxelWidth(key.depth));
        return float(field(p) * voxelSize);
    });
    return native;
}

/// Calls `visit(depth, place, value)` for the leaf voxels of a float channel that hang on nothing; lengths in finest voxels.
template <class Tr, class Visit> void forFreeVoxels(Native const& volume, Corvid::String const& name, Visit const& visit)
{
    using namespace OST::TileTree3D;
    const auto tree = treeOf<Tr>(volume);
    const auto channel = volume.component<Channel<Tr, float, Tr::width, 0>>(name);
    DofChannel<Tr> dofs("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    dofs.updateTilesAdded(*tree);
    computeDofs<Tr>(*tree, dofs);
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        const auto values = channel->tileData(tile.treeIndex());
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(Tr::width, v);
            if (!tile.isLeaf(Tree<Tr>::Tile::voxelChildIJK(at.x, at.y, at.z)) || dofs.tileData(tile.treeIndex())(v) & kDofHanging) continue;
            const double w = tile.voxelDataWidth();
            visit(tile.depth(), Point{tile.tijk().x + at.x * w, tile.tijk().y + at.y * w, tile.tijk().z + at.z * w}, double(values(v)) / tree->voxelSize());
        }
    }
}

/// Errors of the finest voxels within `band` of the surface of `exact`.
template <class Tr> Errors finestErrors(Native const& volume, Field const& exact, double band, std::function<bool(Point const&)> const& where = {})
{
    Errors errors;
    forFreeVoxels<Tr>(volume, Ostara::Geometry::sVoxelSignedDistance, [&](int depth, Point const& p, double value) {
        if (depth == Tr::maxDepth && std::abs(exact(p)) <= band && (!where || where(p))) errors.add(value - exact(p));
    });
    EXPECT_GT(errors.count, 0);
    return errors;
}

}  // namespace tilegrid::test
