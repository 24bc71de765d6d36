#pragma once
#include "TilegridOps/substrate/traits.h"
#include "io/distance_source.h"

#include <vector>

namespace tilegrid::io {

/// A box of tile space.
struct TileSpaceBox {
    Ostara::Math::double3 low, high;
};

/// Low corners, in Morton order, of all tiles of a depth with a voxel (sample at its low corner) at most `band` from the
/// surface, that meet the box if there is one. `band` is in tile space.
template <class Tr>
std::vector<Ostara::Math::int3> tilesNearSurface(DistanceSource const& surface, double band, int depth = Tr::maxDepth,
                                                 TileSpaceBox const* inside = nullptr);

/// What a level set of a surface will take, in bytes, from its area: tiles, child tables and one float channel.
/// \param area, size  of the surface and of the longest side of its box, in finest voxels
template <class Tr> double estimatedLevelSetBytes(double area, double size, double band);

extern template std::vector<Ostara::Math::int3>
tilesNearSurface<OST::TileTree3D::BinaryTraits>(DistanceSource const&, double, int, TileSpaceBox const*);
extern template std::vector<Ostara::Math::int3>
tilesNearSurface<OST::TileTree3D::QuinaryTraits>(DistanceSource const&, double, int, TileSpaceBox const*);
extern template double estimatedLevelSetBytes<OST::TileTree3D::BinaryTraits>(double, double, double);
extern template double estimatedLevelSetBytes<OST::TileTree3D::QuinaryTraits>(double, double, double);

}  // namespace tilegrid::io
