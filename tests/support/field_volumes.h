#pragma once
#include "TilegridOps/substrate/grading.h"
#include "support/structures.h"
#include "support/volumes.h"

#include <cmath>
#include <cstring>

/// Volumes whose properties are functions of the place, with one voxel size or two.
namespace tilegrid::test {

using Ostara::Math::double3;
using Ostara::Math::float3;

template <class Tr, class T = float> using PlainChannel = OST::TileTree3D::Channel<Tr, T, Tr::width, 0>;

/// How the tiles lie: the finest everywhere in a box around the origin, or one depth coarser where x is not below 0.
enum class Layout { kUniform, kJump };

/// A graded tree with tiles of its finest depth in the box of that half width (in finest voxels), less a half in a jump.
template <class Tr> Corvid::MutablePtr<Native> boxVolume(int half, Layout layout, float voxelSize = 1.0f)
{
    return nativeVolume<Tr>(
        [half, layout](Tree<Tr>& tree) {
            constexpr int D = Tr::maxDepth;
            auto accessor = tree.tileAccessor();
            accessor.addTiles({-half, -half, -half}, {layout == Layout::kJump ? -1 : half, half, half}, D);
            if (layout == Layout::kJump) accessor.addTiles({0, -half, -half}, {half, half, half}, D - 1);
            CoreGL::TileTree3D::gradeTileTree<Tr>(tree, nullptr, nullptr, 0, D);
        },
        voxelSize);
}

/// World position of a voxel's low corner.
template <class Tr> double3 cornerOf(TileKey const& key, int voxel, double voxelSize)
{
    const int3 at = OST::TileTree3D::cubeIndex(Tr::width, voxel);
    const double w = double(TileSet<Tr>::voxelWidth(key.depth));
    return {(double(key.low[0]) + at.x * w) * voxelSize, (double(key.low[1]) + at.y * w) * voxelSize, (double(key.low[2]) + at.z * w) * voxelSize};
}

/// Adds a property that has `value(world position)` at every voxel's low corner, at all depths.
template <class Tr, class T>
void addField(Native& volume, Corvid::String const& name, std::function<T(double3 const&)> const& value, int minDepth = 0,
              int depth = Tr::maxDepth)
{
    const double voxelSize = treeOf<Tr>(volume)->voxelSize();
    addChannel<PlainChannel<Tr, T>>(volume, name, T(), [&](TileKey const& key, int voxel) { return value(cornerOf<Tr>(key, voxel, voxelSize)); },
                                    minDepth, depth);
}

/// Calls `visit(world position, value, depth, tile, voxel)` for the leaf voxels of a property.
template <class Tr, class T, class Visit> void forLeafVoxels(Native const& volume, Corvid::String const& name, Visit visit)
{
    const auto tree = treeOf<Tr>(volume);
    const auto channel = volume.component<PlainChannel<Tr, T>>(name);
    ASSERT_TRUE(tree && channel) << name.str();
    for (int d = channel->minDepth(); d <= channel->depth(); ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n) {
            auto const& tile = tree->tile(n, d);
            const auto values = channel->tileData(n, d);
            for (int v = 0; v < Tr::voxelCount; ++v) {
                const int3 at = OST::TileTree3D::cubeIndex(Tr::width, v);
                if (!tile.isLeaf(Tree<Tr>::Tile::voxelChildIJK(at.x, at.y, at.z))) continue;
                visit(cornerOf<Tr>(keyOf(tile), v, tree->voxelSize()), values(v), d, tile, v);
            }
        }
}

inline bool within(double3 const& p, double half)
{
    return std::fabs(p.x) <= half && std::fabs(p.y) <= half && std::fabs(p.z) <= half;
}

/// Bytes of a property over all tiles, and of the places of the tiles.
template <class Tr, class T> std::string bytesOf(Native const& volume, Corvid::String const& name)
{
    const auto tree = treeOf<Tr>(volume);
    const auto channel = volume.component<PlainChannel<Tr, T>>(name);
    std::string bytes;
    if (!tree || !channel) return "no property";
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        const int3 low = tree->tile(n).tijk();
        const auto values = channel->tileData(tree->tile(n).treeIndex());
        bytes.append(reinterpret_cast<char const*>(&low), sizeof low);
        bytes.append(reinterpret_cast<char const*>(values.data()), std::size_t(values.size()) * sizeof(T));
    }
    return bytes;
}

}  // namespace tilegrid::test
