#pragma once
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/surface/cell_sheets.h"
#include "TilegridOps/surface/tile_cells.h"
#include "TilegridOps/surface/tile_signs.h"
#include "TilegridOps/surface/vertex.h"

#include <memory>

namespace tilegrid::surface {

/// A bit for each cell of a tile, x fastest.
template <class Tr> using CellBits = std::conditional_t<Tr::voxelCount <= 64, std::uint64_t, unsigned __int128>;

/// The first pass: finds the cells of a tile that hold surface, and places their vertices. One per thread.
template <class Tr> class TileScan {
public:
    using Tile = typename Container<Tr>::Tile;

    TileScan(Container<Tr> const& tree, LevelSet<Tr> const& levelSet, TileSigns<Tr>& signs) :
        tree_(&tree), levelSet_(&levelSet), signs_(&signs), walk_(tree)
    {}

    /// Adds the tile to the chunk if it holds surface, and sets its cells' signs. Tiles of lower depth come first.
    void scan(Tile const& tile, CellChunk<Tr>& chunk);

private:
    static constexpr int B = Tr::branching, W = Tr::width, r = Tr::cellVoxels, N = W + 1;
    /// What lies in the place of a child cell.
    enum class Block : std::uint8_t { kLeaf, kDivided, kCoarser };
    static constexpr int blockNumber(int x, int y, int z) { return flatIndex(B + 2, x + 1, y + 1, z + 1); }

    /// Bits of a row of nodes along x, and of all cells of the tile.
    using Row = std::uint32_t;
    using Cells = CellBits<Tr>;

    bool hasLeafCells(Tile const& tile) const;
    Signs signsAround(Tile const& tile) const;
    bool sortSides(Tile const& tile);
    void sortBlocks(Tile const& tile);
    Block blockAt(Tile const& tile, int3 const& cell, Signs& signs) const;
    void readNodes(Tile const& tile);
    void compareCorners();
    void setCellSigns(Tile const& tile);
    Signs signsOfBlock(int3 const& cell) const;
    bool leafAround(int3 const& cell) const;
    void sortCells();
    int negativeCorners(int3 const& cell) const;

    void addCells(Tile const& tile, CellChunk<Tr>& chunk);
    TileCells<Tr>& open(Tile const& tile, CellChunk<Tr>& chunk) const;
    void addRegular(Tile const& tile, int3 const& cell, TileCells<Tr>& cells, CellChunk<Tr>& chunk);
    void addIrregular(Tile const& tile, int3 const& cell, TileCells<Tr>& cells, CellChunk<Tr>& chunk);
    void addPolygon(Crossing const& crossing, TreeIndex const& tile, int number, TileCells<Tr>& cells, CellChunk<Tr>& chunk);
    void addVertex(Tile const& tile, int3 const& cell, CellFunction const& function, float3 const& start, CellChunk<Tr>& chunk) const;
    CellSheets<Tr>& sheets();

    Container<Tr> const* tree_;
    LevelSet<Tr> const* levelSet_;
    TileSigns<Tr>* signs_;
    OST::TileTree3D::NeighborWalk<Tr> walk_;
    OST::TileTree3D::Surroundings const* around_ = nullptr;
    std::array<Block, (B + 2) * (B + 2) * (B + 2)> block_;
    /// Of coarser blocks.
    std::array<Signs, (B + 2) * (B + 2) * (B + 2)> blockSigns_;
    std::array<Signs, Tr::childCount> cellSigns_;
    /// Cells that may hold surface, with leaf cells of the depth all around, and others.
    Cells regular_, irregular_;
    /// Cells with a corner inside, and with all corners.
    Cells anyInside_, allInside_;
    std::array<float, N * N * N> nodes_;
    /// A bit for each node of a row that is inside.
    std::array<Row, N * N> inside_;
    /// Made at the first irregular cell.
    std::unique_ptr<LeafField<Tr>> field_;
    std::unique_ptr<CellSheets<Tr>> sheets_;
};

extern template class TileScan<OST::TileTree3D::BinaryTraits>;
extern template class TileScan<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::surface
