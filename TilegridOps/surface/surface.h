#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

#include <vector>

namespace tilegrid::surface {

/// Triangles over shared vertices, world units, counter-clockwise seen from outside.
struct Surface {
    std::vector<Ostara::Math::float3> vertices;
    /// One per vertex, of length 1, pointing outward: the gradient of the linear sampler there. Zero where it is zero or NaN.
    std::vector<Ostara::Math::float3> normals;
    std::vector<Ostara::Math::int3> triangles;
};

/// The zero surface of a level set, in the leaf cells of every depth. `value < 0` is inside; all else, zero and NaN too, is
/// outside. Beyond tile space the level set goes on as it is at the low corner of tile space.
///
/// One vertex per leaf cell and sheet of the surface in it, inside the cell; one polygon around every piece of lattice edge
/// whose ends differ in sign, as triangles (a quad is cut along its shorter diagonal). The mesh has no open edge, whatever the
/// values and the tree are, graded or not. An edge can lie in four triangles where two sheets touch in one cell face; such
/// faces are split the other way where that parts them, so that smooth fields give none.
///
/// Samples off the corners are brought to the corners first, by the mean of the two samples beside them per axis; that moves the
/// surface by no more than second order in the voxel size.
///
/// \param levelSet  only read. Non-leaf values are not used where finer tiles tell the same place. A depth deeper than the channel
///                  shows the channel's deepest values; above the channel's lowest depth there is no surface
/// \return empty if no sign changes; the same bytes for any number of threads. Vertices and triangles follow the tiles
/// \throws std::invalid_argument if the channel has not the tiles of the tree; std::length_error if 32 bits cannot number the
///         vertices; std::runtime_error (OST::exceptionMessage) on cancellation
/// \par Source  Ju, Losasso, Schaefer, Warren, SIGGRAPH 2002 (dual contouring on trees: polygons around minimal edges); Nielson,
///      Visualization 2004 (a vertex per sheet); Schaefer, Ju, Warren, TVCG 13, 2007 (sheets on trees); Wenger, Isosurfaces, 2013
///      (splitting a doubled face the other way)
template <class Tr>
Surface extractSurface(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                       OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const& levelSet);

#define TILEGRID_EXTRACT_SURFACE(KEYWORD, Tr)                                                                             \
    KEYWORD template TILEGRID_API Surface extractSurface(                                                                 \
        OST::TileTree3D::Container<OST::TileTree3D::Tr> const&, OST::TileTree3D::VoxelTopology<OST::TileTree3D::Tr> const&, \
        OST::TileTree3D::Channel<OST::TileTree3D::Tr, float, OST::TileTree3D::Tr::width, 0> const&);
TILEGRID_EXTRACT_SURFACE(extern, BinaryTraits)
TILEGRID_EXTRACT_SURFACE(extern, QuinaryTraits)

}  // namespace tilegrid::surface
