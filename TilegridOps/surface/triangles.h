#pragma once
#include "TilegridOps/surface/surface.h"
#include "TilegridOps/surface/tile_cells.h"

namespace tilegrid::surface {

/// By depth and index, the entry of a tile; null for tiles without surface, and for depths without any.
template <class Tr> using CellIndex = std::array<std::vector<TileCells<Tr> const*>, Tr::levels>;

/// The second pass: writes the triangles of a chunk from its own first one on, as many as it has. All vertices are there.
template <class Tr> void writeTriangles(CellChunk<Tr> const& chunk, Container<Tr> const& tree, CellIndex<Tr> const& index, Surface& surface);

extern template void writeTriangles(CellChunk<OST::TileTree3D::BinaryTraits> const&, Container<OST::TileTree3D::BinaryTraits> const&,
                                    CellIndex<OST::TileTree3D::BinaryTraits> const&, Surface&);
extern template void writeTriangles(CellChunk<OST::TileTree3D::QuinaryTraits> const&, Container<OST::TileTree3D::QuinaryTraits> const&,
                                    CellIndex<OST::TileTree3D::QuinaryTraits> const&, Surface&);

}  // namespace tilegrid::surface
