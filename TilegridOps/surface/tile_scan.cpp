#include "TilegridOps/surface/tile_scan.h"

#include <algorithm>
#include <bit>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

/// The place one tile away, which may lie outside tile space only where there is no neighbour.
int3 neighborPlace(int3 const& corner, int3 const& offset, int width)
{
    return {corner.x + offset.x * width, corner.y + offset.y * width, corner.z + offset.z * width};
}

/// The cells of a tile that touch the tile in each direction.
template <class Tr> constexpr auto cellsAtSides()
{
    constexpr int W = Tr::width;
    std::array<CellBits<Tr>, 27> sides{};
    for (int n = 0; n < 27; ++n)
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const int3 offset = neighborOffset(NeighborDirection(n)), cell = cubeIndex(W, flat);
            bool touches = true;
            for (int axis = 0; axis < 3; ++axis)
                touches = touches && (offset[axis] == 0 || cell[axis] == (offset[axis] < 0 ? 0 : W - 1));
            if (touches) sides[std::size_t(n)] |= CellBits<Tr>(1) << flat;
        }
    return sides;
}
template <class Tr> inline constexpr auto kCellsAtSides = cellsAtSides<Tr>();

template <class Bits> int lowestBit(Bits bits)
{
    const auto low = std::uint64_t(bits);
    if constexpr (sizeof(Bits) > 8)
        if (low == 0) return 64 + std::countr_zero(std::uint64_t(bits >> 64));
    return std::countr_zero(low);
}

}  // namespace

template <class Tr> CellSheets<Tr>& TileScan<Tr>::sheets()
{
    if (!sheets_) {
        field_ = std::make_unique<LeafField<Tr>>(*tree_, *levelSet_);
        sheets_ = std::make_unique<CellSheets<Tr>>(*field_);
    }
    return *sheets_;
}

template <class Tr> void TileScan<Tr>::scan(Tile const& tile, CellChunk<Tr>& chunk)
{
    if (!hasLeafCells(tile)) return;
    around_ = &walk_.around(tile);
    if (const Signs signs = signsAround(tile); signs != kBothSigns) {
        typename TileSigns<Tr>::Cells same;
        same.fill(signs);
        signs_->setCells(tile.treeIndex(), same);
        return;
    }
    readNodes(tile);
    compareCorners();
    if (!sortSides(tile)) {
        sortBlocks(tile);
        setCellSigns(tile);
        sortCells();
    }
    if (regular_ || irregular_) addCells(tile, chunk);
}

template <class Tr> bool TileScan<Tr>::hasLeafCells(Tile const& tile) const
{
    if (tile.depth() == signs_->deepest() || tile.isLeaf()) return true;
    return std::any_of(tile.childIndices(), tile.childIndices() + Tr::childCount, [](int64 child) { return child < 0; });
}

/// Of all samples that can decide about a leaf cell of the tile, and a few more.
template <class Tr> Signs TileScan<Tr>::signsAround(Tile const& tile) const
{
    Signs signs = signs_->ofTile(tile.treeIndex());
    for (int n = 0; n < 27 && signs != kBothSigns; ++n) {
        const TreeIndex at = (*around_)[std::size_t(n)];
        const int3 offset = neighborOffset(NeighborDirection(n));
        if (!at.valid())
            signs |= signs_->outside();
        else if (at.depth < tile.depth())
            signs |= signs_->ofCell(at, neighborPlace(tile.tijk(), offset, tile.tileVoxelWidth()));
        else if (offset.x >= 0 && offset.y >= 0 && offset.z >= 0)
            signs |= signs_->ofTile(at);
    }
    return signs;
}

/// The usual case: no child in or around the tile. Tells the cells by the tiles that they touch. \return false if there are children
template <class Tr> bool TileScan<Tr>::sortSides(Tile const& tile)
{
    std::array<Cells, 4> at{};  // by the signs of the coarser tiles there
    for (int n = 0; n < 27; ++n) {
        const TreeIndex side = (*around_)[std::size_t(n)];
        if (side.depth == tile.depth()) {
            if (side.depth < signs_->deepest() && !tree_->tile(side).isLeaf()) return false;
            continue;
        }
        const int3 place = neighborPlace(tile.tijk(), neighborOffset(NeighborDirection(n)), tile.tileVoxelWidth());
        at[side.valid() ? signs_->ofCell(side, place) : signs_->outside()] |= kCellsAtSides<Tr>[std::size_t(n)];
    }
    regular_ = anyInside_ & ~allInside_ & ~(at[kInside] | at[kOutside] | at[kBothSigns]);
    irregular_ = (at[kInside] & ~allInside_) | (at[kOutside] & anyInside_) | at[kBothSigns];
    return true;
}

template <class Tr> typename TileScan<Tr>::Block TileScan<Tr>::blockAt(Tile const& tile, int3 const& cell, Signs& signs) const
{
    int3 step, within;
    for (int axis = 0; axis < 3; ++axis) {
        step[axis] = cell[axis] < 0 ? -1 : cell[axis] < B ? 0 : 1;
        within[axis] = cell[axis] - step[axis] * B;
    }
    const TreeIndex at = (*around_)[std::size_t(neighborDirection(step.x, step.y, step.z))];
    if (at.depth == tile.depth())
        return at.depth == signs_->deepest() || tree_->tile(at).isLeaf(within) ? Block::kLeaf : Block::kDivided;
    signs = at.valid() ? signs_->ofCell(at, neighborPlace(tile.tijk(), cell, tile.voxelWidth())) : signs_->outside();
    return Block::kCoarser;
}

template <class Tr> void TileScan<Tr>::sortBlocks(Tile const& tile)
{
    for (int z = -1; z <= B; ++z)
        for (int y = -1; y <= B; ++y)
            for (int x = -1; x <= B; ++x) {
                const auto n = std::size_t(blockNumber(x, y, z));
                blockSigns_[n] = 0;
                block_[n] = blockAt(tile, {x, y, z}, blockSigns_[n]);
            }
}

/// The samples at the corners of the tile's cells. Where a tile is missing, the nearest sample stands for them: no regular cell has
/// such corners, and the blocks there speak for the others.
template <class Tr> void TileScan<Tr>::readNodes(Tile const& tile)
{
    const auto valuesAt = [&](int x, int y, int z) -> float const* {
        const TreeIndex at = (*around_)[std::size_t(neighborDirection(x, y, z))];
        return at.depth == tile.depth() ? levelSet_->tileData(at).data() : nullptr;
    };
    std::array<float const*, 8> from;
    for (int n = 0; n < 8; ++n) from[std::size_t(n)] = valuesAt(n & 1, n >> 1 & 1, n >> 2);
    for (int k = 0; k < N; ++k)
        for (int j = 0; j < N; ++j) {
            auto n = std::size_t((j == W ? 2 : 0) + (k == W ? 4 : 0));
            int at = W * (j % W + W * (k % W));
            if (!from[n]) {
                n = 0;
                at = W * (std::min(j, W - 1) + W * std::min(k, W - 1));
            }
            float* row = &nodes_[std::size_t(N * (j + N * k))];
            for (int i = 0; i < W; ++i) row[i] = from[n][at + i];
            row[W] = from[n + 1] ? from[n + 1][at] : row[W - 1];
            Row inside = 0;
            for (int i = 0; i < N; ++i) inside |= Row(isInside(row[i])) << i;
            inside_[std::size_t(j + N * k)] = inside;
        }
}

template <class Tr> void TileScan<Tr>::compareCorners()
{
    anyInside_ = allInside_ = 0;
    for (int k = W - 1; k >= 0; --k)
        for (int j = W - 1; j >= 0; --j) {
            Row const* row = &inside_[std::size_t(j + N * k)];
            const Row any = row[0] | row[1] | row[N] | row[N + 1], all = row[0] & row[1] & row[N] & row[N + 1];
            constexpr Row kCells = (1u << W) - 1;
            anyInside_ = anyInside_ << W | ((any | any >> 1) & kCells);
            allInside_ = allInside_ << W | (all & all >> 1 & kCells);
        }
}

template <class Tr> Signs TileScan<Tr>::signsOfBlock(int3 const& cell) const
{
    Signs signs = 0;
    constexpr Row kNodes = (2u << r) - 1;
    for (int k = cell.z * r; k <= cell.z * r + r; ++k)
        for (int j = cell.y * r; j <= cell.y * r + r; ++j) {
            const Row row = inside_[std::size_t(j + N * k)] >> (cell.x * r) & kNodes;
            signs |= Signs((row ? kInside : 0) | (row != kNodes ? kOutside : 0));
        }
    for (int n = 0; n < 27 && signs != kBothSigns; ++n) {
        const int3 offset = neighborOffset(NeighborDirection(n));
        signs |= blockSigns_[std::size_t(blockNumber(cell.x + offset.x, cell.y + offset.y, cell.z + offset.z))];
    }
    return signs;
}

template <class Tr> void TileScan<Tr>::setCellSigns(Tile const& tile)
{
    for (int n = 0; n < Tr::childCount; ++n) {
        const int3 cell = cubeIndex(B, n);
        const bool isLeaf = block_[std::size_t(blockNumber(cell.x, cell.y, cell.z))] == Block::kLeaf;
        cellSigns_[std::size_t(n)] = isLeaf ? signsOfBlock(cell) : kBothSigns;
    }
    signs_->setCells(tile.treeIndex(), cellSigns_);
}

template <class Tr> bool TileScan<Tr>::leafAround(int3 const& cell) const
{
    for (int z = (cell.z + r - 1) / r - 1; z <= (cell.z + 1) / r; ++z)
        for (int y = (cell.y + r - 1) / r - 1; y <= (cell.y + 1) / r; ++y)
            for (int x = (cell.x + r - 1) / r - 1; x <= (cell.x + 1) / r; ++x)
                if (block_[std::size_t(blockNumber(x, y, z))] != Block::kLeaf) return false;
    return true;
}

/// The general case, by child cells.
template <class Tr> void TileScan<Tr>::sortCells()
{
    regular_ = irregular_ = 0;
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 cell = cubeIndex(W, flat), block{cell.x / r, cell.y / r, cell.z / r};
        if (block_[std::size_t(blockNumber(block.x, block.y, block.z))] != Block::kLeaf) continue;
        if (cellSigns_[std::size_t(flatIndex(B, block.x, block.y, block.z))] != kBothSigns) continue;
        (leafAround(cell) ? regular_ : irregular_) |= Cells(1) << flat;
    }
    regular_ &= anyInside_ & ~allInside_;
}

template <class Tr> int TileScan<Tr>::negativeCorners(int3 const& cell) const
{
    Row const* row = &inside_[std::size_t(cell.y + N * cell.z)];
    const auto pair = [&cell](Row bits) { return bits >> cell.x & 3; };
    return int(pair(row[0]) | pair(row[1]) << 2 | pair(row[N]) << 4 | pair(row[N + 1]) << 6);
}

template <class Tr> TileCells<Tr>& TileScan<Tr>::open(Tile const& tile, CellChunk<Tr>& chunk) const
{
    TileCells<Tr>& cells = chunk.tiles.emplace_back();
    cells.tile = tile.treeIndex();
    cells.chunk = &chunk;
    cells.firstVertex = std::int64_t(chunk.vertices.size());
    cells.firstSide = chunk.sides.size();
    cells.firstPolygon = chunk.polygons.size();
    for (int n = 0; n < 8; ++n) {
        const TreeIndex at = (*around_)[std::size_t(neighborDirection(-(n & 1), -(n >> 1 & 1), -(n >> 2)))];
        cells.low[std::size_t(n)] = at.depth == tile.depth() ? at.index : -1;
    }
    return cells;
}

template <class Tr> void TileScan<Tr>::addCells(Tile const& tile, CellChunk<Tr>& chunk)
{
    TileCells<Tr>& cells = open(tile, chunk);
    for (Cells left = regular_ | irregular_; left; left &= left - 1) {
        const int number = lowestBit(left);
        if (regular_ >> number & 1)
            addRegular(tile, cubeIndex(W, number), cells, chunk);
        else
            addIrregular(tile, cubeIndex(W, number), cells, chunk);
    }
    cells.lastSide = chunk.sides.size();
    cells.lastPolygon = chunk.polygons.size();
    chunk.triangles += cells.triangles;
    // Irregular cells may have turned out to hold nothing.
    if (cells.firstVertex == std::int64_t(chunk.vertices.size())) chunk.tiles.pop_back();
}

template <class Tr>
void TileScan<Tr>::addRegular(Tile const& tile, int3 const& cell, TileCells<Tr>& cells, CellChunk<Tr>& chunk)
{
    const int negative = negativeCorners(cell);
    bool flipped = false;
    if (const int face = kCellCases[0][std::size_t(negative)].doubledFace; face != kNoFace) {
        const int width = tile.voxelDataWidth();
        flipped = sheets().flips(neighborPlace(tile.tijk(), cell, width), tile.depth(), face);
    }
    CellCase const& cellCase = kCellCases[flipped][std::size_t(negative)];
    cells.cell[std::size_t(flatIndex(W, cell.x, cell.y, cell.z))] =
        CellEntry::regular(negative, flipped, int(std::int64_t(chunk.vertices.size()) - cells.firstVertex));
    // The edges from the cell's low corner are its own: cells of the same depth lie around them.
    cells.triangles += 2 * (int((negative ^ negative >> 1) & 1) + int((negative ^ negative >> 2) & 1) + int((negative ^ negative >> 4) & 1));

    CellFunction function;
    for (int n = 0; n < 8; ++n)
        function.corner[std::size_t(n)] = nodes_[std::size_t(flatIndex(N, cell.x + (n & 1), cell.y + (n >> 1 & 1), cell.z + (n >> 2)))];
    std::array<std::array<float, 3>, 4> sum{};
    std::array<float, 4> count{};
    for (unsigned left = cellCase.edges; left; left &= left - 1) {
        const int edge = std::countr_zero(left), low = edgeCorner(edge), axis = edge / 4;
        const auto sheet = std::size_t(cellCase.sheetOf[std::size_t(edge)]);
        auto& point = sum[sheet];
        for (int a = 0; a < 3; ++a) point[std::size_t(a)] += float(low >> a & 1);
        point[std::size_t(axis)] += zeroBetween(function.corner[std::size_t(low)], function.corner[std::size_t(low | 1 << axis)]);
        count[sheet] += 1;
    }
    for (std::size_t sheet = 0; sheet < cellCase.sheets; ++sheet) {
        auto const& point = sum[sheet];
        addVertex(tile, cell, function, (1 / count[sheet]) * float3(point[0], point[1], point[2]), chunk);
    }
}

template <class Tr>
void TileScan<Tr>::addVertex(Tile const& tile, int3 const& cell, CellFunction const& function, float3 const& start,
                             CellChunk<Tr>& chunk) const
{
    float3 gradient;
    const float3 place = ontoZeroSet(function, start, gradient);
    const double width = tile.voxelDataWidth(), size = tree_->voxelSize();
    float3 vertex;
    for (int axis = 0; axis < 3; ++axis)
        vertex[axis] = float((tile.tijk()[axis] + (cell[axis] + double(place[axis])) * width) * size);
    chunk.vertices.push_back(vertex);
    chunk.normals.push_back(direction(gradient));
}

template <class Tr>
void TileScan<Tr>::addIrregular(Tile const& tile, int3 const& cell, TileCells<Tr>& cells, CellChunk<Tr>& chunk)
{
    // What rounding can move a mix by, in all its steps, as a part of the largest number in it: far above the truth.
    constexpr double kRounding = 1e-12;
    CellSheets<Tr>& found = sheets();
    const int width = tile.voxelDataWidth();
    const int3 low = neighborPlace(tile.tijk(), cell, width);
    CellFunction function;
    Signs signs = 0;
    for (int n = 0; n < 8; ++n) {
        const auto value = field_->at(neighborPlace(low, {n & 1, n >> 1 & 1, n >> 2}, width));
        function.corner[std::size_t(n)] = float(value.value);
        signs |= isInside(value.value) ? kInside : kOutside;
        // Nodes of finer cells between the corners lie between them, up to rounding.
        if (!(std::fabs(value.value) > kRounding * value.magnitude)) signs = kBothSigns;
    }
    if (signs != kBothSigns) return;
    found.analyze(low, tile.depth());
    if (found.sheets() == 0) return;

    const int number = flatIndex(W, cell.x, cell.y, cell.z);
    const int firstVertex = int(std::int64_t(chunk.vertices.size()) - cells.firstVertex);
    cells.cell[std::size_t(number)] = CellEntry::irregular();
    const std::size_t firstSide = chunk.sides.size();
    std::vector<Ostara::Math::double3> sum(std::size_t(found.sheets()));
    std::vector<int> count(std::size_t(found.sheets()));
    for (Crossing const& crossing : found.crossings()) {
        const auto sheet = std::size_t(crossing.sheet);
        Ostara::Math::double3 point;
        for (int axis = 0; axis < 3; ++axis) point[axis] = crossing.node[axis] - low[axis];
        point[crossing.axis] += zeroBetween(crossing.low, crossing.high) * Tr::voxelDataWidth(crossing.depth);
        sum[sheet] += point;
        ++count[sheet];
        chunk.sides.push_back({number, crossing.axis, crossing.node, firstVertex + crossing.sheet});
        if (crossing.depth == tile.depth()) addPolygon(crossing, tile.treeIndex(), number, cells, chunk);
    }
    std::sort(chunk.sides.begin() + std::ptrdiff_t(firstSide), chunk.sides.end());
    for (std::size_t sheet = 0; sheet < sum.size(); ++sheet)
        addVertex(tile, cell, function, float3((1.0 / (count[sheet] * double(width))) * sum[sheet]), chunk);
}

/// Adds the polygon around an edge of the cell if the cell owns it: the first of the deepest cells around, from the high side on.
template <class Tr>
void TileScan<Tr>::addPolygon(Crossing const& crossing, TreeIndex const& tile, int number, TileCells<Tr>& cells, CellChunk<Tr>& chunk)
{
    const int b = (crossing.axis + 1) % 3, c = (crossing.axis + 2) % 3;
    const auto cornerAt = [&](int quadrant) {
        int3 place = crossing.node;
        place[b] -= !(quadrant & 1);
        place[c] -= !(quadrant >> 1);
        const TreeIndex at = field_->leafTile(place);
        return IrregularPolygon::Corner{at, at.valid() ? field_->cellNumber(at, place) : 0};
    };
    constexpr std::array<int, 4> kCounterClockwise{3, 2, 0, 1};
    std::array<IrregularPolygon::Corner, 4> around;
    for (int q = 0; q < 4; ++q) around[std::size_t(q)] = cornerAt(q);
    int owner = 3;
    for (int q = 2; q >= 0; --q)
        if (around[std::size_t(q)].tile.depth > around[std::size_t(owner)].tile.depth) owner = q;
    if (around[std::size_t(owner)].tile != tile || around[std::size_t(owner)].cell != number) return;

    IrregularPolygon polygon{crossing.node, crossing.axis, 0, isInside(crossing.high), {}};
    const auto same = [](IrregularPolygon::Corner const& x, IrregularPolygon::Corner const& y) {
        return x.tile == y.tile && x.cell == y.cell;
    };
    for (int q : kCounterClockwise) {
        auto const& corner = around[std::size_t(q)];
        if (polygon.corners > 0 && same(corner, polygon.corner[std::size_t(polygon.corners - 1)])) continue;
        polygon.corner[std::size_t(polygon.corners++)] = corner;
    }
    if (polygon.corners > 1 && same(polygon.corner[0], polygon.corner[std::size_t(polygon.corners - 1)])) --polygon.corners;
    cells.triangles += polygon.corners - 2;
    chunk.polygons.push_back(polygon);
}

template class TileScan<BinaryTraits>;
template class TileScan<QuinaryTraits>;

}  // namespace tilegrid::surface
