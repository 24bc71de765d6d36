#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"

#include <array>
#include <cstdint>

namespace OST {

using int64 = long long;
using uint64 = unsigned long long;

}  // namespace OST

namespace OST::TileTree3D {

using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

namespace detail {
constexpr std::int32_t power(std::int32_t base, int exponent)
{
    std::int32_t result = 1;
    while (exponent-- > 0) result *= base;
    return result;
}
}  // namespace detail

/// One of the two tree structures. B: children per tile and axis, W: voxels per tile and axis.
///
/// Tile space has one unit per voxel of the finest depth. The single tile of depth 0 covers `rangeMin` to `rangeMax`, both
/// inclusive; each depth divides the width of a tile by B.
template <int B, int W, int L> struct TILEGRID_API Traits {
    static_assert((B == 2 && W == 4 && L == 1) || (B == 5 && W == 5 && L == 1), "two structures exist");
    static constexpr int branching = B;
    static constexpr int width = W;
    static constexpr int childCount = B * B * B;
    static constexpr int voxelCount = W * W * W;
    /// Voxels per axis of a child cell.
    static constexpr int cellVoxels = W / B;
    /// Child voxels from one coincident voxel of the parent to the next.
    static constexpr int childStride = B;
    static constexpr int levels = B == 2 ? 29 : 13;
    static constexpr int maxDepth = levels - 1;
    static constexpr std::int32_t rangeMin = B == 2 ? -(1 << 29) : -610351562;
    static constexpr std::int32_t rangeMax = B == 2 ? (1 << 29) - 1 : 610351562;

    /// Widths in tile-space units, for depths 0 to maxDepth.
    static constexpr std::int32_t voxelDataWidth(int depth) { return widths[depth]; }
    static constexpr std::int32_t tileVoxelWidth(int depth) { return W * widths[depth]; }
    static constexpr std::int32_t voxelWidth(int depth) { return cellVoxels * widths[depth]; }

private:
    static constexpr std::array<std::int32_t, levels> widths = [] {
        std::array<std::int32_t, levels> w{};
        for (int depth = 0; depth < levels; ++depth) w[depth] = detail::power(B, maxDepth - depth);
        return w;
    }();
};

using BinaryTraits = Traits<2, 4, 1>;
using QuinaryTraits = Traits<5, 5, 1>;

/// Position of a tile in its level, and the level. (-1, -1) means no particular tile.
struct TreeIndex {
    int64 index = -1;
    std::int32_t depth = -1;
    constexpr bool valid() const { return index >= 0 && depth >= 0; }
    friend constexpr bool operator==(TreeIndex const&, TreeIndex const&) = default;
};

/// A place in tile space and a depth.
struct VoxelCoord {
    std::int32_t i = 0, j = 0, k = 0, depth = 0;
    constexpr VoxelCoord() = default;
    constexpr VoxelCoord(std::int32_t i_, std::int32_t j_, std::int32_t k_, std::int32_t depth_) : i(i_), j(j_), k(k_), depth(depth_) {}
    constexpr VoxelCoord(int3 const& ijk, std::int32_t depth_) : i(ijk.x), j(ijk.y), k(ijk.z), depth(depth_) {}
    friend constexpr auto operator<=>(VoxelCoord const&, VoxelCoord const&) = default;
};

/// An element (voxel or point) of a tile.
struct ElementTreeIndex {
    TreeIndex tile;
    std::int32_t element = 0;
    friend constexpr bool operator==(ElementTreeIndex const&, ElementTreeIndex const&) = default;
};

/// A move of one element; see `Channel::updateElements`.
struct ElementToFrom {
    ElementTreeIndex to, from;
};

/// Where in its cell a voxel's sample lies: bits 0, 1, 2 put x, y, z at the low corner instead of the centre.
enum VoxelOffsetType : int {
    kCenter = 0,
    kFaceX = 1,
    kFaceY = 2,
    kEdgeZ = 3,
    kFaceZ = 4,
    kEdgeY = 5,
    kEdgeX = 6,
    kCorner = 7
};

/// The offset in voxels, each component 0 or 0.5.
constexpr float3 voxelOffset(VoxelOffsetType type)
{
    return {type & 1 ? 0.0f : 0.5f, type & 2 ? 0.0f : 0.5f, type & 4 ? 0.0f : 0.5f};
}

/// How a channel fills new tiles from coarser ones (`initializeTileData`).
enum DataElementInitializerType : int { kInitializeNone = 0, kInitializeInject = 1, kInitializeLinear = 2 };

/// Value (dx+1)*9 + (dy+1)*3 + (dz+1) for an offset of one tile per axis; 13 is the tile itself.
enum NeighborDirection : int { kNeighborSelf = 13 };

constexpr NeighborDirection neighborDirection(int dx, int dy, int dz)
{
    return NeighborDirection((dx + 1) * 9 + (dy + 1) * 3 + (dz + 1));
}
constexpr int3 neighborOffset(NeighborDirection direction)
{
    return {direction / 9 - 1, direction / 3 % 3 - 1, direction % 3 - 1};
}

/// Flat index of a voxel, child cell or halo position in a cube of `n` per axis: i fastest.
constexpr int flatIndex(int n, int i, int j, int k)
{
    return i + n * (j + n * k);
}
constexpr int3 cubeIndex(int n, int flat)
{
    return {flat % n, flat / n % n, flat / (n * n)};
}

}  // namespace OST::TileTree3D
