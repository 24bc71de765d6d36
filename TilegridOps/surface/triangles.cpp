#include "TilegridOps/surface/triangles.h"

#include <algorithm>
#include <cassert>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

float squaredDistance(float3 const& a, float3 const& b)
{
    const float3 d = a - b;
    return d.x * d.x + d.y * d.y + d.z * d.z;
}

template <class Tr> class Writer {
    static constexpr int W = Tr::width;

public:
    Writer(Container<Tr> const& tree, CellIndex<Tr> const& index, std::int64_t firstTriangle, Surface& surface) :
        tree_(&tree), index_(&index), vertices_(surface.vertices.data()), next_(surface.triangles.data() + firstTriangle)
    {}

    void write(TileCells<Tr> const& cells)
    {
        auto const& tiles = (*index_)[std::size_t(cells.tile.depth)];
        for (std::size_t n = 0; n < 8; ++n) around_[n] = cells.low[n] < 0 ? nullptr : tiles[std::size_t(cells.low[n])];
        around_[0] = &cells;
        for (int n = 0; n < Tr::voxelCount; ++n) {
            const CellEntry entry = cells.cell[std::size_t(n)];
            if (entry.empty() || !entry.isRegular()) continue;
            const int negative = entry.negative();
            const int3 cell = cubeIndex(W, n);
            if ((negative ^ negative >> 1) & 1) writeRegular<0>(cells, cell, negative & 1);
            if ((negative ^ negative >> 2) & 1) writeRegular<1>(cells, cell, negative & 1);
            if ((negative ^ negative >> 4) & 1) writeRegular<2>(cells, cell, negative & 1);
        }
        for (std::size_t n = cells.firstPolygon; n < cells.lastPolygon; ++n) writeIrregular(cells.chunk->polygons[n]);
    }

private:
    /// Around the edge from the cell's low corner.
    template <int axis> void writeRegular(TileCells<Tr> const& cells, int3 const& cell, bool lowInside)
    {
        constexpr int b = (axis + 1) % 3, c = (axis + 2) % 3;
        std::array<int, 4> corner;
        constexpr std::array<std::array<int, 2>, 4> kSteps{{{0, 0}, {1, 0}, {1, 1}, {0, 1}}};
        for (std::size_t n = 0; n < 4; ++n) {
            const int u = kSteps[n][0], v = kSteps[n][1];
            int3 at = cell;
            at[b] -= u;
            at[c] -= v;
            int tile = 0;
            if (at[b] < 0) {
                tile |= 1 << b;
                at[b] += W;
            }
            if (at[c] < 0) {
                tile |= 1 << c;
                at[c] += W;
            }
            assert(around_[std::size_t(tile)]);  // an edge that changes sign is in all four cells
            TileCells<Tr> const& holder = *around_[std::size_t(tile)];
            const int number = flatIndex(W, at.x, at.y, at.z);
            const CellEntry entry = holder.cell[std::size_t(number)];
            if (entry.isRegular())
                corner[n] = int(holder.firstVertex) + entry.firstVertex()
                    + entry.cellCase().sheetOf[std::size_t(edgeNumber(axis, u, v))];
            else
                corner[n] = sideVertex(holder, number, nodeOf(cells, cell), axis);
        }
        writePolygon(corner, 4, !lowInside);
    }

    void writeIrregular(IrregularPolygon const& polygon)
    {
        std::array<int, 4> corner{};
        for (std::size_t n = 0; n < std::size_t(polygon.corners); ++n) {
            auto const& at = polygon.corner[n];
            TileCells<Tr> const& holder = *(*index_)[std::size_t(at.tile.depth)][std::size_t(at.tile.index)];
            const CellEntry entry = holder.cell[std::size_t(at.cell)];
            if (!entry.isRegular()) {
                corner[n] = sideVertex(holder, at.cell, polygon.node, polygon.axis);
                continue;
            }
            const int3 low = nodeOf(holder, cubeIndex(W, at.cell));
            const int b = (polygon.axis + 1) % 3, c = (polygon.axis + 2) % 3;
            corner[n] = int(holder.firstVertex) + entry.firstVertex()
                + entry.cellCase().sheetOf[std::size_t(edgeNumber(polygon.axis, polygon.node[b] != low[b], polygon.node[c] != low[c]))];
        }
        writePolygon(corner, polygon.corners, polygon.reversed);
    }

    int3 nodeOf(TileCells<Tr> const& cells, int3 const& cell) const
    {
        auto const& tile = tree_->tile(cells.tile);
        const int width = tile.voxelDataWidth();
        return {tile.tijk().x + cell.x * width, tile.tijk().y + cell.y * width, tile.tijk().z + cell.z * width};
    }
    static int sideVertex(TileCells<Tr> const& cells, int number, int3 const& node, int axis)
    {
        auto const& sides = cells.chunk->sides;
        const auto found = std::lower_bound(sides.begin() + std::ptrdiff_t(cells.firstSide), sides.begin() + std::ptrdiff_t(cells.lastSide),
                                            SideOfCell{number, axis, node, 0});
        // The cell lies at the crossing, so the crossing is one of its sides.
        assert(found != sides.begin() + std::ptrdiff_t(cells.lastSide) && found->cell == number && found->node == node);
        return int(cells.firstVertex) + found->vertex;
    }

    void writePolygon(std::array<int, 4> const& v, int corners, bool reversed)
    {
        const auto triangle = [&](int a, int b, int c) { *next_++ = reversed ? int3(a, c, b) : int3(a, b, c); };
        if (corners == 3) return triangle(v[0], v[1], v[2]);
        if (squaredDistance(vertices_[v[0]], vertices_[v[2]]) <= squaredDistance(vertices_[v[1]], vertices_[v[3]])) {
            triangle(v[0], v[1], v[2]);
            triangle(v[0], v[2], v[3]);
        } else {
            triangle(v[0], v[1], v[3]);
            triangle(v[1], v[2], v[3]);
        }
    }

    Container<Tr> const* tree_;
    CellIndex<Tr> const* index_;
    float3 const* vertices_;
    int3* next_;
    std::array<TileCells<Tr> const*, 8> around_{};
};

}  // namespace

template <class Tr>
void writeTriangles(CellChunk<Tr> const& chunk, Container<Tr> const& tree, CellIndex<Tr> const& index, Surface& surface)
{
    Writer<Tr> writer(tree, index, chunk.firstTriangle, surface);
    for (TileCells<Tr> const& cells : chunk.tiles) writer.write(cells);
}

template void writeTriangles(CellChunk<BinaryTraits> const&, Container<BinaryTraits> const&, CellIndex<BinaryTraits> const&, Surface&);
template void writeTriangles(CellChunk<QuinaryTraits> const&, Container<QuinaryTraits> const&, CellIndex<QuinaryTraits> const&, Surface&);

}  // namespace tilegrid::surface
