#include "TilegridOps/substrate/dependent_values.h"

#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/restriction.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace OST::TileTree3D {

namespace {

using tilegrid::parallel::FunctionRef;

template <class Tr> using TileOf = Tile<Tr, Tr::childCount>;
template <class Tr, class T> using PlainChannel = Channel<Tr, T, Tr::width, 0>;

/// A pass that does something to each tile, the same code for all element types.
template <class Tr>
void forTiles(Container<Tr> const& tree, TraversalMode mode, int minDepth, int maxDepth, FunctionRef<void(TileOf<Tr> const&)> work)
{
    using detail::Nothing;
    tree.traverse(Nothing(), Nothing(), [work](TileOf<Tr> const& tile) { work(tile); }, Nothing(), Nothing(), mode, TreeIndex(), minDepth,
                  maxDepth);
}

/// Calls `visit(ijk)` for the voxels of a child cell that take a value from the child.
template <class Tr, class Visit> void forVoxelsFromChild(ConstTileData<short, Tr::width, 0> const& dofs, int3 const& cell, Visit visit)
{
    constexpr int r = Tr::cellVoxels;
    for (int k = cell.z * r; k < (cell.z + 1) * r; ++k)
        for (int j = cell.y * r; j < (cell.y + 1) * r; ++j)
            for (int i = cell.x * r; i < (cell.x + 1) * r; ++i)
                if (dofs(i, j, k) & kDofFromChild) visit(int3(i, j, k));
}

/// Calls `visit(child, cell)` for the children of a tile.
template <class Tr, class Visit> void forChildren(TileOf<Tr> const& tile, Visit visit)
{
    if (tile.isLeaf()) return;
    for (int n = 0; n < Tr::childCount; ++n)
        if (!tile.isLeaf(n)) visit(TreeIndex{tile.childIndex(n), tile.depth() + 1}, cubeIndex(Tr::branching, n));
}

template <class Tr, class T>
void copyFromChildren(TileOf<Tr> const& tile, ConstTileData<short, Tr::width, 0> const& dofs, PlainChannel<Tr, T>& channel)
{
    const auto values = channel.tileData(tile.treeIndex());
    if (!values || !dofs) return;
    forChildren<Tr>(tile, [&](TreeIndex const& child, int3 const& cell) {
        const auto below = std::as_const(channel).tileData(child);
        if (!below) return;
        forVoxelsFromChild<Tr>(dofs, cell, [&](int3 const& ijk) { values(ijk) = below(TileOf<Tr>::childDataIJK(ijk.x, ijk.y, ijk.z)); });
    });
}

/// Weighted sum of a cube of values; (x,y,z) runs over 0 to n - 1, x fastest, and so do the weights.
template <class T, class At> T weightedSum(int n, float const* weights, At at)
{
    T sum{};
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) sum += *weights++ * at(x, y, z);
    return sum;
}

template <class T> void writeRestricted(T& target, T const& value, Restriction<T> const& restriction)
{
    const T scaled = restriction.scale * value;
    switch (restriction.write) {
        case kRestrictAssign: target = scaled; break;
        case kRestrictAdd: target += scaled; break;
        case kRestrictSubtract: target = target - scaled; break;
    }
}

constexpr float kEighths[8] = {0.125f, 0.125f, 0.125f, 0.125f, 0.125f, 0.125f, 0.125f, 0.125f};

/// Calls `visit(ijk)` for the voxels of the three low faces, each once.
template <class Tr, class Visit> void forLowFaces(Visit visit)
{
    constexpr int W = Tr::width;
    for (int j = 0; j < W; ++j)
        for (int i = 0; i < W; ++i) visit(int3(i, j, 0));
    for (int k = 1; k < W; ++k)
        for (int i = 0; i < W; ++i) visit(int3(i, 0, k));
    for (int k = 1; k < W; ++k)
        for (int j = 1; j < W; ++j) visit(int3(0, j, k));
}

constexpr bool needsInterpolation(short flags)
{
    return flags & kDofHanging && !(flags & kDofKeep);
}

template <class Tr> bool hasHangingVoxels(ConstTileData<short, Tr::width, 0> const& dofs)
{
    bool any = false;
    forLowFaces<Tr>([&](int3 const& ijk) { any = any || needsInterpolation(dofs(ijk)); });
    return any;
}

/// The samples one depth above that a tile lies between, from its low corner on: those of its parent, and of tiles beside
/// that on the high side. Where such a tile is missing, in a tree that is not graded, they are themselves interpolated.
template <class Tr, class T> class SamplesAbove {
public:
    /// Parent voxels that a tile covers on an axis, and one further sample.
    static constexpr int kCount = Tr::cellVoxels + 1;

    SamplesAbove(Container<Tr> const& tree, PlainChannel<Tr, T> const& channel, TileOf<Tr> const& tile)
    {
        const TreeIndex parent = tile.parentTreeIndex();
        if (!parent.valid() || !channel.tileData(parent)) {
            samples_.fill(channel.defaultValue());
            return;
        }
        const ConstTileAccessor<Tr> accessor(tree);
        const SiteReader<Tr, T> reader(VoxelView<T>(channel), accessor, kCorner, channel.defaultValue());
        reader.gather(parent, Tr::cellVoxels * tree.tile(parent).childIJK(tile), int3(kCount), samples_.data());
    }
    T const& operator()(int x, int y, int z) const { return samples_[std::size_t(flatIndex(kCount, x, y, z))]; }

private:
    std::array<T, kCount * kCount * kCount> samples_;
};

/// Where voxel i of a tile lies between the samples above.
template <class Tr> constexpr SiteTap tapAbove(int i)
{
    return {i / Tr::childStride, float(i % Tr::childStride) / float(Tr::childStride)};
}

template <class Tr, class T>
void interpolateHanging(Container<Tr> const& tree, TileOf<Tr> const& tile, ConstTileData<short, Tr::width, 0> const& dofs,
                        PlainChannel<Tr, T>& channel)
{
    const auto values = channel.tileData(tile.treeIndex());
    if (!values || !dofs || !hasHangingVoxels<Tr>(dofs)) return;
    const SamplesAbove<Tr, T> above(tree, channel, tile);
    forLowFaces<Tr>([&](int3 const& ijk) {
        // An axis on which the voxel lies in a low face has the fraction 0 and takes no part.
        if (needsInterpolation(dofs(ijk)))
            values(ijk) = mixSites<T>(tapAbove<Tr>(ijk.x), tapAbove<Tr>(ijk.y), tapAbove<Tr>(ijk.z), above);
    });
}

}  // namespace

template <class Tr, class T>
void restrictTile(TileOf<Tr> const& tile, ConstTileData<short, Tr::width, 0> const& dofs, PlainChannel<Tr, T>& channel,
                  Restriction<T> const& restriction, ConstTileAccessor<Tr> const& accessor, TileData<T, Tr::width, 1>& scratch)
{
    const auto values = channel.tileData(tile.treeIndex());
    if (!values || !dofs) return;
    const bool corner = restriction.offset == kCorner;
    float const* weights = restriction.weights ? restriction.weights : corner ? &Numerics::restrictionStencilOffsetCorner[0][0][0] : kEighths;
    forChildren<Tr>(tile, [&](TreeIndex const& child, int3 const& cell) {
        bool gathered = false;
        forVoxelsFromChild<Tr>(dofs, cell, [&](int3 const& ijk) {
            // Once for all voxels of the cell.
            if (!gathered)
                setHaloTile<Tr, T, 0, 1, 0, 0>(child, channel, kHaloSameDepth, corner ? kHaloAll : kHaloInterior, accessor, scratch, 0.0f, 1.0f,
                                               restriction.offset);
            gathered = true;
            const int3 at = TileOf<Tr>::childDataIJK(ijk.x, ijk.y, ijk.z);
            T value = restriction.initial;
            if (restriction.kind == kRestrictInject)
                value = scratch(at);
            else if (restriction.kind == kRestrictMean && corner)
                value = weightedSum<T>(3, weights, [&](int x, int y, int z) { return scratch(at.x + x - 1, at.y + y - 1, at.z + z - 1); });
            else if (restriction.kind == kRestrictMean && restriction.offset == kCenter)
                value = weightedSum<T>(2, weights, [&](int x, int y, int z) { return scratch(at.x + x, at.y + y, at.z + z); });
            writeRestricted(values(ijk), value, restriction);
        });
    });
}

namespace {

template <class Tr, class T>
void restrictDepths(int minDepth, int maxDepth, Container<Tr> const& tree, PlainChannel<Tr, T>& channel, DofChannel<Tr> const& dofs)
{
    using Scratch = TileData<T, Tr::width, 1>;
    tilegrid::parallel::PerThread<Scratch> scratch;
    const Restriction<T> restriction;
    // Depth by depth, since a stencil reaches into other children than the tile's own.
    for (int depth = maxDepth - 1; depth >= minDepth; --depth)
        forTiles<Tr>(tree, kByLevel, depth, depth, [&](TileOf<Tr> const& tile) {
            if (tile.isLeaf()) return;
            Scratch& mine = scratch.local([] { return std::make_unique<Scratch>(Scratch::elements); });
            restrictTile<Tr, T>(tile, dofs.tileData(tile.treeIndex()), channel, restriction, ConstTileAccessor<Tr>(tree), mine);
        });
}

}  // namespace

template <class Tr, class T>
void setNonDOFValues(int minDepth, int maxDepth, Container<Tr> const& container, PlainChannel<Tr, T>& channel, DofChannel<Tr> const& dofs,
                     int mode)
{
    const bool talkative = CoreGL::Logger::verboseLevel() > 1;
    if (talkative) std::cout << "setNonDOFValues.begin" << std::endl;
    const int first = std::max({minDepth, channel.minDepth(), 0}), last = std::min({maxDepth, channel.depth(), Tr::maxDepth});
    if (mode == kNonDofCopy)
        forTiles<Tr>(container, kBottomUp, first, last - 1,
                     [&](TileOf<Tr> const& tile) { copyFromChildren<Tr, T>(tile, dofs.tileData(tile.treeIndex()), channel); });
    if (mode == kNonDofRestrict) restrictDepths<Tr, T>(first, last, container, channel, dofs);
    // Depths ascending: what a hanging voxel is interpolated from may hang itself.
    forTiles<Tr>(container, kByLevel, std::max(first, 1), last,
                 [&](TileOf<Tr> const& tile) { interpolateHanging<Tr, T>(container, tile, dofs.tileData(tile.treeIndex()), channel); });
    if (talkative) std::cout << "setNonDOFValues.end" << std::endl;
}

TILEGRID_ALL_DEPENDENT_VALUES(, BinaryTraits)
TILEGRID_ALL_DEPENDENT_VALUES(, QuinaryTraits)

}  // namespace OST::TileTree3D
