#pragma once
#include "TilegridOps/substrate/tile.h"

namespace OST::TileTree3D {

template <class Tr> class TILEGRID_API Container;

enum TraversalMode : int {
    /// Every tile of the range, one after the other, parents first.
    kTreeSerialOrder = 2,
    /// The tiles of each depth in the range in parallel, depths ascending, with a barrier between them.
    kByLevel = 4,
    /// Every tile in the range, a parent only after its children.
    kBottomUp = 5,
    /// Every tile of the range once, children before parents, with a barrier between depths.
    kMarkingWalk = 6,
    /// Every tile in the range, in no particular order.
    kParallelTree = 7
};

enum VisitInteriorVoxelMode : int { kVoxels = 0, kChildCells = 1 };

/// What a pass does. The engine makes one clone per worker, so that a visitor's own state needs no lock; clones are
/// made on first use and destroyed on the calling thread.
template <class ContainerT> class Visitor;

template <class Tr> class TILEGRID_API Visitor<Container<Tr>> {
public:
    using Tile = TileTree3D::Tile<Tr, Tr::childCount>;

    Visitor() = default;
    Visitor(Visitor const&) = default;
    Visitor& operator=(Visitor const&) = default;

    /// Once before the first tile and once after the last, on the caller's visitor.
    virtual void beginTraverse() {}
    virtual void endTraverse() {}
    virtual void beginTile(Tile const&) {}
    virtual void beginTile(Tile&) {}
    virtual void endTile(Tile const&) {}
    virtual void endTile(Tile&) {}
    /// For every voxel or child cell with coordinates in the range of the pass. The result means something in growth only:
    /// true asks for the child.
    virtual bool visitInteriorVoxel(Tile const&, int3 const&) { return true; }
    virtual bool visitInteriorVoxel(Tile&, int3 const&) { return true; }
    /// Takes in the result of a visitor that saw later tiles.
    virtual void join(Visitor const&) {}
    virtual Visitor* clone() const = 0;
    virtual ~Visitor() = default;

    /// A run of tiles that lie side by side: for each one `beginTile`, the loop over [cellBegin, cellEnd) per axis with i
    /// fastest, `endTile`. Passes override it to keep these loops in their own code: one virtual call per run in place of one
    /// per voxel.
    virtual void runTiles(Tile const* tiles, int64 count, int cellBegin, int cellEnd, VisitInteriorVoxelMode)
    {
        for (int64 n = 0; n < count; ++n) runByCalls(tiles[n], cellBegin, cellEnd);
    }
    virtual void runTiles(Tile* tiles, int64 count, int cellBegin, int cellEnd, VisitInteriorVoxelMode)
    {
        for (int64 n = 0; n < count; ++n) runByCalls(tiles[n], cellBegin, cellEnd);
    }

    /// Read by growth. Gather the children that a tile wants before any of them is made; run without tasks, depth first.
    bool collectChildren = false;
    bool forceSerial = false;

private:
    template <class TileT> void runByCalls(TileT& tile, int cellBegin, int cellEnd)
    {
        beginTile(tile);
        for (int k = cellBegin; k < cellEnd; ++k)
            for (int j = cellBegin; j < cellEnd; ++j)
                for (int i = cellBegin; i < cellEnd; ++i) visitInteriorVoxel(tile, int3(i, j, k));
        endTile(tile);
    }
};

}  // namespace OST::TileTree3D
