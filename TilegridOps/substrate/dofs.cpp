#include "TilegridOps/substrate/dofs.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/traversal.h"

namespace OST::TileTree3D {

namespace {

/// The low part of a tile that touches a neighbour: voxels with coordinate 0 on the axes of the set (bit 0 is x).
struct LowPart {
    NeighborDirection direction;
    int axes;
};
constexpr std::array<LowPart, 7> kLowParts = {{{neighborDirection(-1, 0, 0), 1},
                                               {neighborDirection(0, -1, 0), 2},
                                               {neighborDirection(0, 0, -1), 4},
                                               {neighborDirection(-1, -1, 0), 3},
                                               {neighborDirection(-1, 0, -1), 5},
                                               {neighborDirection(0, -1, -1), 6},
                                               {neighborDirection(-1, -1, -1), 7}}};

/// Computes the flags of one tile after the other.
template <class Tr> class DofWriter {
public:
    using Tile = typename Container<Tr>::Tile;
    static constexpr int W = Tr::width;

    DofWriter(Container<Tr> const& tree, DofChannel<Tr>& dofs) : tree_(tree), dofs_(dofs), walk_(tree, NeighborWalk<Tr>::Sides::kLow) {}

    /// The children's flags are there already.
    void operator()(Tile const& tile)
    {
        const auto flags = dofs_.tileData(tile.treeIndex());
        if (!flags) return;
        lookAround(tile);
        if (anyRefined_)
            writeMixed(tile, flags);
        else
            writeUniform(flags);
    }

private:
    /// One layer of voxels on the low sides lies around the tile's own.
    static constexpr int kArray = W + 1;
    static constexpr int at(int i, int j, int k) { return flatIndex(kArray, i + 1, j + 1, k + 1); }

    void lookAround(Tile const& tile)
    {
        hanging_ = 0;
        std::array<Tile const*, 8> around{};
        around[0] = &tile;
        anyRefined_ = !tile.isLeaf();
        Surroundings const& surroundings = walk_.around(tile);
        for (LowPart const& part : kLowParts) {
            const TreeIndex found = surroundings[part.direction];
            if (!found.valid()) continue;
            if (found.depth < tile.depth()) {
                hanging_ |= 1 << part.axes;
            } else {
                around[part.axes] = &tree_.tile(found);
                anyRefined_ = anyRefined_ || !around[part.axes]->isLeaf();
            }
        }
        if (!anyRefined_) return;
        refined_.fill(false);
        for (int axes = 0; axes < 8; ++axes)
            if (around[axes] && !around[axes]->isLeaf()) markRefined(*around[axes], axes);
    }
    /// Marks the voxels of the array that have a child in `source`, the tile itself or its neighbour on the low side of the axes.
    void markRefined(Tile const& source, int axes)
    {
        const auto first = [axes](int axis) { return axes >> axis & 1 ? -1 : 0; };
        const auto last = [axes](int axis) { return axes >> axis & 1 ? 0 : W; };
        for (int k = first(2); k < last(2); ++k)
            for (int j = first(1); j < last(1); ++j)
                for (int i = first(0); i < last(0); ++i) {
                    const auto cell = [](int v) { return (v < 0 ? v + W : v) / Tr::cellVoxels; };
                    if (!source.isLeaf(cell(i), cell(j), cell(k))) refined_[at(i, j, k)] = true;
                }
    }
    bool hangs(int i, int j, int k) const
    {
        const int zeros = (i == 0) | (j == 0) << 1 | (k == 0) << 2;
        for (LowPart const& part : kLowParts)
            if (hanging_ >> part.axes & 1 && (zeros & part.axes) == part.axes) return true;
        return false;
    }
    /// No child anywhere near: all voxels are regular, and differ only where they hang.
    void writeUniform(TileData<short, W, 0> const& flags) const
    {
        flags.set(kDofFree | kDofRegular);
        for (LowPart const& part : kLowParts) {
            if (!(hanging_ >> part.axes & 1)) continue;
            const auto size = [&part](int axis) { return part.axes >> axis & 1 ? 1 : W; };
            for (int k = 0; k < size(2); ++k)
                for (int j = 0; j < size(1); ++j)
                    for (int i = 0; i < size(0); ++i) flags(i, j, k) = kDofHanging | kDofRegular;
        }
    }
    void writeMixed(Tile const& tile, TileData<short, W, 0> const& flags) const
    {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    const bool hanging = hanging_ && hangs(i, j, k);
                    short value = hanging ? kDofHanging : kDofFree;
                    if (refined_[at(i, j, k)]) {
                        if (!hanging && !childHangs(tile, i, j, k)) value = kDofFromChild;
                    } else if (!anyRefinedAt(i, j, k)) {
                        value |= kDofRegular;
                    }
                    flags(i, j, k) = value;
                }
    }
    /// Whether one of the eight cells that meet at the voxel's low corner has a child.
    bool anyRefinedAt(int i, int j, int k) const
    {
        bool any = false;
        for (int c = k - 1; c <= k; ++c)
            for (int b = j - 1; b <= j; ++b) any = any || refined_[at(i - 1, b, c)] || refined_[at(i, b, c)];
        return any;
    }
    bool childHangs(Tile const& tile, int i, int j, int k) const
    {
        const auto child = std::as_const(dofs_).tileData(tile.childTreeIndex(Tile::voxelChildIJK(i, j, k)));
        return child && child(Tile::childDataIJK(i, j, k)) & kDofHanging;
    }

    Container<Tr> const& tree_;
    DofChannel<Tr>& dofs_;
    NeighborWalk<Tr> walk_;
    /// A bit for each set of axes whose neighbour is coarser.
    int hanging_ = 0;
    bool anyRefined_ = false;
    std::array<bool, kArray * kArray * kArray> refined_{};
};

}  // namespace

template <class Tr> void computeDofs(Container<Tr> const& container, DofChannel<Tr>& dofs)
{
    using detail::Nothing;
    container.traverse(Nothing(), Nothing(), DofWriter<Tr>(container, dofs), Nothing(), Nothing(), kBottomUp);
}

template <class Tr> void createDofs(Corvid::String const& channelName, OST::Object& volume)
{
    // The tree is only read, so it stays where it is, shared or not.
    const auto tree = volume.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    const auto topology = volume.component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    if (!tree || !topology) return;
    if (!volume.hasComponentFromName<DofChannel<Tr>>(channelName))
        Command::createChannel<short, Tr::branching, Tr::width, Tr::width, 0>(channelName, *topology, volume, short(0), kInitializeNone, 0,
                                                                              Tr::maxDepth);
    auto dofs = volume.extractComponent<DofChannel<Tr>>(channelName);
    computeDofs(*tree, *dofs);
    volume.putComponent(std::move(dofs));
}

#define TILEGRID_INSTANTIATE_DOFS(Tr)                                                   \
    template TILEGRID_API void computeDofs(Container<Tr> const&, DofChannel<Tr>&);       \
    template TILEGRID_API void createDofs<Tr>(Corvid::String const&, OST::Object&);
TILEGRID_INSTANTIATE_DOFS(BinaryTraits)
TILEGRID_INSTANTIATE_DOFS(QuinaryTraits)
#undef TILEGRID_INSTANTIATE_DOFS

}  // namespace OST::TileTree3D
