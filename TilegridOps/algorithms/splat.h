#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/string.h"

namespace VolumeGL::TileTree3D {

/// How the value of a point falls off along an axis; the weight of a voxel is the product over the axes. q: distance by radius.
namespace Splat {

/// max(0, 1 - q). With a radius of one voxel, the weights of trilinear interpolation.
struct LinearKernel {
    static double weight(double q) { return q < 1 ? 1 - q : 0; }
};
/// The quadratic B-spline over t = 1.5 q. With a radius of 1.5 voxels its weights sum to 1.
struct QuadraticKernel {
    static double weight(double q)
    {
        const double t = 1.5 * q;
        return t < 0.5 ? 0.75 - t * t : t < 1.5 ? 0.5 * (1.5 - t) * (1.5 - t) : 0;
    }
};

}  // namespace Splat

/// Spreads the values of points over the voxels around them, and adds the tiles that this takes.
///
/// The value of a point is its entry in the points' array named `property` (float, float2 to float4, double, double3), or 1 if there is no
/// such array. Its radius is `radius`, times its entry in the array "point_radius" if there is one, kept between the bounds.
/// A point whose radius spans more than two voxels on either side may go to a coarser depth; finer tiles that are there
/// take the coarse contribution interpolated, coarser voxels the weighted mean of finer ones, so that every depth holds the
/// same field. Points that are not finite or outside of tile space are passed over.
///
/// \param radius          world units; not above 0, or NaN: one voxel of the finest depth. Wider than tile space, or infinite: as wide
/// \param minRadiusVoxels, maxRadiusVoxels  bounds of the radius in finest voxels, the lower one at least 1; an upper one not above 0 is
///                        none, one below the lower counts as that
/// \param scale           factor on values; 0 and NaN count as 1
/// \param depthCount      depths from the finest that points may use, at least 1
/// \param normalize       true: voxels get the weighted mean of the values, in place of what they held, where the weight is above 0. false: the
///                        weights of each point sum to 1 (so the sum over the voxels of one depth is that of the values), and the result is
///                        added to what the voxels held
/// \param property        a float channel, or one of the array's type, created if absent: default 0, initializer 2, all depths
/// \param points          holds `Corvid::Array<float3>` as `sPointPosition`, and arrays of equal length
/// \return false, and nothing changed, without positions, with an array of another length, without a tree, with a channel of the name of
///         another type, or with a voxel size that is 0 or not finite
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation; tiles may have been added then
/// \throws MemoryExceeded if the tiles, or the pairs of points and tiles that they touch, need more than `memoryLimit()`; nothing changed
/// \par Source  kernels: linear and quadratic B-splines. Points are added in their order, so results do not depend on the threads
template <class Kernel>
TILEGRID_API bool splatPoints(float radius, float minRadiusVoxels, float maxRadiusVoxels, float scale, int depthCount, bool normalize,
                              Corvid::String const& property, Ostara::Object const& points, OST::Object& target);

/// Voxels that `splatPoints` would touch, each point on its own: an upper bound of the work, for callers that refuse too much.
TILEGRID_API double splatWork(float radius, float minRadiusVoxels, float maxRadiusVoxels, int depthCount, Ostara::Object const& points,
                              OST::Object const& target);

extern template TILEGRID_API bool splatPoints<Splat::LinearKernel>(float, float, float, float, int, bool, Corvid::String const&,
                                                                   Ostara::Object const&, OST::Object&);
extern template TILEGRID_API bool splatPoints<Splat::QuadraticKernel>(float, float, float, float, int, bool, Corvid::String const&,
                                                                      Ostara::Object const&, OST::Object&);

}  // namespace VolumeGL::TileTree3D
