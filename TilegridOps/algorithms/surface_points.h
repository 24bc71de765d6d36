#pragma once
#include "TilegridOps/algorithms/wave.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/dofs.h"

#include <algorithm>

/// The surface of a level set as points with the shape of the surface around them.
namespace tilegrid {

/// The surface near a point as a paraboloid. Lengths in tile-space units.
struct SurfaceShape {
    /// Points outward: to where the level set is positive.
    OST::TileTree3D::float3 normal;
    /// The direction of the curvature `k1`; that of `k2` is across it and the normal. A sphere has positive curvatures.
    OST::TileTree3D::float3 e1;
    float k1, k2;
    /// Voxel width of the edge that the point lies on.
    float width;
    /// How far along the surface from the point the shape is trusted, in tile-space units.
    float reach;
};

/// A voxel of width w beside tiles of another depth may have to do with a point up to a half diagonal of its faces, 0.71 w, from its
/// foot: one jump of depth away, no more, since where the steps are larger the shape means nothing.
template <class Tr> double reachAcrossJump(double pointWidth, double voxelWidth)
{
    return 0.75 * std::min(voxelWidth, Tr::branching * pointWidth);
}

/// Where the surface of a level set crosses the edges between voxels.
template <class Tr> struct SurfacePoints {
    std::vector<WavePoint> points;
    std::vector<SurfaceShape> shapes;
    /// Of each point: its edge in its tile, 3 * voxel + axis.
    std::vector<std::uint16_t> edges;
    /// Of each depth: the first point of each tile and, behind the last tile, the end. Points lie in order of depth, tile,
    /// voxel and axis.
    std::array<std::vector<std::int32_t>, Tr::levels> first;

    bool empty() const { return points.empty(); }
    bool inDepth(int depth) const
    {
        auto const& f = first[std::size_t(depth)];
        return !f.empty() && f.front() < f.back();
    }
};

/// What is read to find the surface.
template <class Tr> struct SurfaceInput {
    using Floats = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;
    OST::TileTree3D::Container<Tr> const& tree;
    Floats const& levelSet;
    OST::TileTree3D::VoxelOffsetType offset;
    /// Cells of depth `maxDepth` count as leaves.
    int minDepth, maxDepth;
    /// No crossing is looked for at edges that touch a voxel with a value of 0 or more here. Null: at all.
    Floats const* blocked = nullptr;
    /// Flags for the tree as it is, or null: then nothing hangs.
    OST::TileTree3D::DofChannel<Tr> const* dofs = nullptr;
};

/// Finds the crossings of all edges of leaf voxels, along the three axes to the next voxel, and the shape of the surface there.
/// An edge is crossed if exactly one of its ends is negative; ends that are not finite cross nothing. Values beside a coarser
/// tile, and hanging ones, are taken from the voxels one depth above by cubic interpolation rather than linear: with linear ones
/// every call would move the surface there.
/// \par Source  roots of the cubic with limited end curvatures, which has one root between values of different sign; normal and
///      curvatures from central differences at both ends, mixed along the edge (R. Goldman, Computer Aided Geometric Design 22,
///      2005, for the formulas)
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
template <class Tr> SurfacePoints<Tr> findSurfacePoints(SurfaceInput<Tr> const& input);

/// Gives both ends of each crossed edge the nearer of their points to start a wave with.
template <class Tr>
void startWave(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::float3 const& offset, SurfacePoints<Tr> const& surface,
               Wave<Tr>& wave);

#define TILEGRID_DECLARE_SURFACE_POINTS(Tr)                                                                              \
    extern template TILEGRID_API SurfacePoints<Tr> findSurfacePoints(SurfaceInput<Tr> const&);                                        \
    extern template TILEGRID_API void startWave(OST::TileTree3D::Container<Tr> const&, OST::TileTree3D::float3 const&, SurfacePoints<Tr> const&, Wave<Tr>&);
TILEGRID_DECLARE_SURFACE_POINTS(OST::TileTree3D::BinaryTraits)
TILEGRID_DECLARE_SURFACE_POINTS(OST::TileTree3D::QuinaryTraits)
#undef TILEGRID_DECLARE_SURFACE_POINTS

}  // namespace tilegrid
