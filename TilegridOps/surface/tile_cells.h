#pragma once
#include "TilegridOps/surface/cell_cases.h"
#include "TilegridOps/surface/leaf_field.h"

#include <array>
#include <tuple>
#include <vector>

/// What the first pass leaves for the second: the vertices, and which cells they belong to.
namespace tilegrid::surface {

using Ostara::Math::float3;

/// The surface in one cell of a tile, packed. 0 if there is none.
class CellEntry {
public:
    CellEntry() = default;
    /// A cell among leaf cells of its own depth on all sides.
    static CellEntry regular(int negative, bool flipped, int firstVertex)
    {
        return CellEntry(std::uint32_t(negative) | std::uint32_t(flipped) << 8 | std::uint32_t(firstVertex) << 10);
    }
    /// Any other cell: its sides tell the vertices.
    static CellEntry irregular() { return CellEntry(kIrregular); }

    bool empty() const { return bits_ == 0; }
    bool isRegular() const { return !(bits_ & kIrregular); }
    int negative() const { return int(bits_ & 255); }
    CellCase const& cellCase() const { return kCellCases[bits_ >> 8 & 1][bits_ & 255]; }
    /// Of a regular cell, in the tile.
    int firstVertex() const { return int(bits_ >> 10); }

private:
    static constexpr std::uint32_t kIrregular = 512;
    explicit CellEntry(std::uint32_t bits) : bits_(bits) {}
    std::uint32_t bits_ = 0;
};

/// A crossing at the border of an irregular cell, with the vertex of its sheet. Sides lie in order.
struct SideOfCell {
    std::int32_t cell, axis;
    int3 node;
    std::int32_t vertex;  // in the tile
    friend bool operator<(SideOfCell const& a, SideOfCell const& b)
    {
        return std::tie(a.cell, a.axis, a.node.x, a.node.y, a.node.z) < std::tie(b.cell, b.axis, b.node.x, b.node.y, b.node.z);
    }
};

/// The polygon around a crossing that an irregular cell owns, counter-clockwise around its axis.
struct IrregularPolygon {
    struct Corner {
        TreeIndex tile;
        int cell;
    };
    int3 node;
    std::int8_t axis, corners;
    /// The low end is outside, so that the polygon turns the other way.
    bool reversed;
    std::array<Corner, 4> corner;
};

template <class Tr> struct CellChunk;

/// A tile with surface in it.
template <class Tr> struct TileCells {
    TreeIndex tile;
    CellChunk<Tr> const* chunk;
    /// In the chunk, until all chunks are counted; then in the mesh.
    std::int64_t firstVertex;
    std::int64_t triangles;
    std::size_t firstSide, lastSide, firstPolygon, lastPolygon;
    /// The tiles beside this one by low steps: bit 0, 1, 2 of the place is set for a step along x, y, z. -1: none of this depth.
    std::array<std::int64_t, 8> low;
    std::array<CellEntry, Tr::voxelCount> cell;
};

/// The tiles of one task, in order.
template <class Tr> struct CellChunk {
    std::vector<TileCells<Tr>> tiles;
    std::vector<SideOfCell> sides;
    std::vector<IrregularPolygon> polygons;
    std::vector<float3> vertices, normals;
    std::int64_t firstVertex = 0, firstTriangle = 0, triangles = 0;
};

}  // namespace tilegrid::surface
