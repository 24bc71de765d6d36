#pragma once
#include "TilegridOps/substrate/traits.h"
#include "io/triangle_tree.h"

#include <vector>

namespace tilegrid::io {

/// Low corners, in Morton order, of all finest tiles with a voxel (sample at its low corner) at most `band` from the
/// surface. The tree's vertices and `band` are in tile space.
template <class Tr> std::vector<Ostara::Math::int3> tilesNearSurface(TriangleTree const& tree, double band);

/// What a level set of a surface will take, in bytes, from its area: tiles, child tables and one float channel.
/// \param area, size  of the surface and of the longest side of its box, in finest voxels
template <class Tr> double estimatedLevelSetBytes(double area, double size, double band);

extern template std::vector<Ostara::Math::int3> tilesNearSurface<OST::TileTree3D::BinaryTraits>(TriangleTree const&,
                                                                                                double);
extern template std::vector<Ostara::Math::int3> tilesNearSurface<OST::TileTree3D::QuinaryTraits>(TriangleTree const&,
                                                                                                 double);
extern template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
extern template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
