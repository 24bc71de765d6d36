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
/// values and the tree are, graded or not. Two sheets that touch in a cell face would make an edge of four triangles; such a face
/// is split the other way, which parts them. With that no such edge is known, on noise neither, but it is not proven for cells
/// beside finer ones.
///
/// A node counts as the coarsest leaf cell around it tells it: by its sample at that depth, or by the trilinear mix of that cell.
/// On volumes whose dependent values are restored (`setNonDOFValues`) these are the values that the channel has there.
///
/// Samples off the corners are brought to the corners first, by the mean of the two samples beside them per axis; that moves the
/// surface by no more than second order in the voxel size.
///
/// \param levelSet  only read. Where the tree is deeper than the channel, the channel's deepest values show; leaf cells above its
///                  lowest depth hold its default and no surface
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
