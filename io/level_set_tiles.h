#pragma once
#include "TilegridOps/substrate/traits.h"
#include "io/triangle_tree.h"

#include <vector>

namespace tilegrid::io {

/// A box of tile space.
struct TileSpaceBox {
    Ostara::Math::double3 low, high;
};

/// Low corners, in Morton order, of all tiles of a depth with a voxel (sample at its low corner) at most `band` from the
/// surface, that meet the box if there is one. The tree's vertices and `band` are in tile space.
template <class Tr>
std::vector<Ostara::Math::int3> tilesNearSurface(TriangleTree const& tree, double band, int depth = Tr::maxDepth,
                                                 TileSpaceBox const* inside = nullptr);

/// What a level set of a surface will take, in bytes, from its area: tiles, child tables and one float channel.
/// \param area, size  of the surface and of the longest side of its box, in finest voxels
template <class Tr> double estimatedLevelSetBytes(double area, double size, double band);

extern template std::vector<Ostara::Math::int3>
tilesNearSurface<OST::TileTree3D::BinaryTraits>(TriangleTree const&, double, int, TileSpaceBox const*);
extern template std::vector<Ostara::Math::int3>
tilesNearSurface<OST::TileTree3D::QuinaryTraits>(TriangleTree const&, double, int, TileSpaceBox const*);
extern template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
extern template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
