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
    around_ = &walk_.around(tile);
    if (const Signs signs = signsAround(tile); signs != kBothSigns) {
        typename TileSigns<Tr>::Cells same;
        same.fill(signs);
        signs_->setCells(tile.treeIndex(), same);
        return;
    }
    allLeaf_ = isUniform(tile);
    if (!allLeaf_) fillBlocks(tile);
    readNodes(tile);
    if (!allLeaf_ || tile.depth() < signs_->deepest()) setCellSigns(tile);
    Rows rows;
    selectCells(rows);
    selectActive(rows);
    addCells(tile, rows, chunk);
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

template <class Tr> bool TileScan<Tr>::isUniform(Tile const& tile) const
{
    for (TreeIndex const& at : *around_)
        if (at.depth != tile.depth() || (at.depth < signs_->deepest() && !tree_->tile(at).isLeaf())) return false;
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
        return isLeafCell(tree_->tile(at), flatIndex(B, within.x, within.y, within.z)) ? Block::kLeaf : Block::kDivided;
    signs = at.valid() ? signs_->ofCell(at, neighborPlace(tile.tijk(), cell, tile.voxelWidth())) : signs_->outside();
    return Block::kCoarser;
}

template <class Tr> void TileScan<Tr>::fillBlocks(Tile const& tile)
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

template <class Tr> Signs TileScan<Tr>::signsOfBlock(int3 const& cell) const
{
    Signs signs = 0;
    constexpr Row kNodes = (2u << r) - 1;
    for (int k = cell.z * r; k <= cell.z * r + r; ++k)
        for (int j = cell.y * r; j <= cell.y * r + r; ++j) {
            const Row row = inside_[std::size_t(j + N * k)] >> (cell.x * r) & kNodes;
            signs |= Signs((row ? kInside : 0) | (row != kNodes ? kOutside : 0));
        }
    if (allLeaf_) return signs;
    for (int n = 0; n < 27; ++n) {
        const int3 offset = neighborOffset(NeighborDirection(n));
        signs |= blockSigns_[std::size_t(blockNumber(cell.x + offset.x, cell.y + offset.y, cell.z + offset.z))];
    }
    return signs;
}

template <class Tr> void TileScan<Tr>::setCellSigns(Tile const& tile)
{
    for (int n = 0; n < Tr::childCount; ++n) cellSigns_[std::size_t(n)] = signsOfBlock(cubeIndex(B, n));
    signs_->setCells(tile.treeIndex(), cellSigns_);
}

/// Leaf cells: regular ones with leaf cells of the depth all around, and others where both signs occur.
template <class Tr> void TileScan<Tr>::selectCells(Rows& rows) const
{
    if (allLeaf_) {
        rows.regular.fill((1u << W) - 1);
        rows.irregular.fill(0);
        return;
    }
    const auto leafAround = [this](int i, int j, int k) {
        for (int z = (k + r - 1) / r - 1; z <= (k + 1) / r; ++z)
            for (int y = (j + r - 1) / r - 1; y <= (j + 1) / r; ++y)
                for (int x = (i + r - 1) / r - 1; x <= (i + 1) / r; ++x)
                    if (block_[std::size_t(blockNumber(x, y, z))] != Block::kLeaf) return false;
        return true;
    };
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) {
            Row regular = 0, irregular = 0;
            for (int i = 0; i < W; ++i) {
                if (block_[std::size_t(blockNumber(i / r, j / r, k / r))] != Block::kLeaf) continue;
                if (leafAround(i, j, k))
                    regular |= 1u << i;
                else if (cellSigns_[std::size_t(flatIndex(B, i / r, j / r, k / r))] == kBothSigns)
                    irregular |= 1u << i;
            }
            rows.regular[std::size_t(j + W * k)] = regular;
            rows.irregular[std::size_t(j + W * k)] = irregular;
        }
}

/// Keeps the regular cells whose corners differ.
template <class Tr> void TileScan<Tr>::selectActive(Rows& rows) const
{
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) {
            Row const* row = &inside_[std::size_t(j + N * k)];
            const Row any = row[0] | row[1] | row[N] | row[N + 1], all = row[0] & row[1] & row[N] & row[N + 1];
            rows.regular[std::size_t(j + W * k)] &= (any | any >> 1) & ~(all & all >> 1);
        }
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

template <class Tr> void TileScan<Tr>::addCells(Tile const& tile, Rows const& rows, CellChunk<Tr>& chunk)
{
    TileCells<Tr>* cells = nullptr;
    for (int n = 0; n < W * W; ++n)
        for (Row left = rows.regular[std::size_t(n)] | rows.irregular[std::size_t(n)]; left; left &= left - 1) {
            const int3 cell{std::countr_zero(left), n % W, n / W};
            if (!cells) cells = &open(tile, chunk);
            if (rows.regular[std::size_t(n)] >> cell.x & 1)
                addRegular(tile, cell, *cells, chunk);
            else
                addIrregular(tile, cell, *cells, chunk);
        }
    if (!cells) return;
    cells->lastSide = chunk.sides.size();
    cells->lastPolygon = chunk.polygons.size();
    chunk.triangles += cells->triangles;
    // Irregular cells may have turned out to hold nothing.
    if (cells->firstVertex == std::int64_t(chunk.vertices.size())) chunk.tiles.pop_back();
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
    std::array<float3, 4> sum{};
    std::array<float, 4> count{};
    for (unsigned left = cellCase.edges; left; left &= left - 1) {
        const int edge = std::countr_zero(left), low = edgeCorner(edge), axis = edge / 4;
        const auto sheet = std::size_t(cellCase.sheetOf[std::size_t(edge)]);
        float3 point(float(low & 1), float(low >> 1 & 1), float(low >> 2));
        point[axis] += zeroBetween(function.corner[std::size_t(low)], function.corner[std::size_t(low | 1 << axis)]);
        sum[sheet] += point;
        count[sheet] += 1;
    }
    for (std::size_t sheet = 0; sheet < cellCase.sheets; ++sheet)
        addVertex(tile, cell, function, (1 / count[sheet]) * sum[sheet], chunk);
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
