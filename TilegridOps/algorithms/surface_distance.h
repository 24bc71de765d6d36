#pragma once
#include "TilegridOps/algorithms/surface_points.h"
#include "TilegridOps/substrate/accessor.h"

namespace tilegrid {

/// How far a place is from the surface around a point of it, as the point's shape tells.
struct SurfaceFoot {
    double distance;
    /// Which side of the surface the place lies on: 1 outward, else -1.
    int side;
    /// The nearest place of the surface lies further from the point than the shape is trusted, or than it can tell.
    bool beyond;
    /// Then the way there: along `SurfaceShape::e1` and across it, as long as the shape is trusted.
    double t1, t2;
};

/// \param place  relative to the point
/// \param reach  how far the shape is trusted at the least
/// \par Source  one Newton step to the foot on the osculating paraboloid, kept within reach of the point; the distance is never above
///      that from the point itself
SurfaceFoot surfaceFoot(SurfaceShape const& shape, OST::TileTree3D::double3 const& place, double reach);

/// Distances from a surface to places, from the points that a wave has brought near them.
///
/// A wave now and then misses the nearest point: voxels hand on one each, and coarse ones are too few to hand on all that matter.
/// Where the shape at a point has the nearest place lie further along the surface than it is trusted, the voxels on the way there are
/// asked for a point that is nearer, and so on.
///
/// Cheap to make; for one thread. The wave must not run meanwhile; of tiles that came after it nothing is asked.
template <class Tr> class SurfaceDistances {
public:
    using Container = OST::TileTree3D::Container<Tr>;

    /// \param wave  that of the surface's points, over voxels of `tree`
    SurfaceDistances(Container const& tree, OST::TileTree3D::float3 const& offset, SurfacePoints<Tr> const& surface, Wave<Tr> const& wave)
        : offset_(offset), surface_(surface), wave_(wave), accessor_(tree)
    {
    }

    /// From a voxel's sample, in tile-space units, with the side on which it lies.
    /// \param point  what the wave brought to the voxel
    /// \param along  whether other voxels may be asked, as they may where the wave could go everywhere
    SurfaceFoot operator()(typename Container::Tile const& tile, int voxel, std::int32_t point, bool along = true) const;

private:
    SurfaceFoot from(std::int32_t point, OST::TileTree3D::double3 const& place, double width) const
    {
        SurfaceShape const& shape = surface_.shapes[std::size_t(point)];
        return surfaceFoot(shape, relative(point, place), reachAcrossJump<Tr>(shape.width, width));
    }
    OST::TileTree3D::double3 relative(std::int32_t point, OST::TileTree3D::double3 const& place) const
    {
        WavePoint const& p = surface_.points[std::size_t(point)];
        return {place.x - p.x, place.y - p.y, place.z - p.z};
    }
    std::int32_t nearerPoint(std::int32_t point, SurfaceFoot const& foot, OST::TileTree3D::double3 const& place) const;
    std::int32_t pointKnownAt(OST::TileTree3D::double3 const& place) const;

    OST::TileTree3D::float3 offset_;
    SurfacePoints<Tr> const& surface_;
    Wave<Tr> const& wave_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
};

extern template class SurfaceDistances<OST::TileTree3D::BinaryTraits>;
extern template class SurfaceDistances<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
