#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/string.h"

namespace VolumeGL::TileTree3D {

/// What `analyze` can make of a property. `h` is the voxel size of a depth in world units.
namespace Analyze {

/// float to float3, double to double3, float3 to float3x3 (row i is the gradient of component i). Central differences.
struct GradientOperator;
/// float, double: half the divergence of the unit gradient, so that a sphere of radius R with its inside negative has 1/R. 0 where
/// the gradient, in values per voxel, has a square of 1.1920929e-7 or less.
struct MeanCurvatureOperator;
/// float, float2 to float4, double, double3: the sum of the six neighbours less six times the value, by h squared.
struct LaplacianOperator;
/// float to float3, double to double3: the world position p of a voxel moved onto the surface, p - f g / |g|; p itself where the
/// gradient g is shorter than 1e-6.
struct ClosestPointOperator;
/// float3 to float, double3 to double.
struct DivergenceOperator;
/// float3, double3.
struct CurlOperator;
/// float, double: the absolute value; float2 to float4, double3: the Euclidean length.
struct MagnitudeOperator;
/// float2 to float4, double3: the vector at length 1, zero where it is not longer than 1.18e-38; float, double: -1, 0 or 1.
struct NormalizeOperator;

}  // namespace Analyze

/// Applies a differential operator to a property (plain layout) at all its depths.
///
/// Inside a depth the stencils are central and of second order; where the data ends they are one-sided with three points. Where a
/// stencil meets a coarser tile, the voxel takes the trilinear value of the result one depth above, whose lattice runs on
/// through the jump. Voxels with children hold their children's results, hanging voxels the interpolated ones. A NaN or infinity
/// reaches the voxels whose stencils touch it.
///
/// \param outputProperty    receives the result if `toOutputProperty`; empty means `property`. What channel had the name before is
///                          replaced, whatever its type
/// \param toOutputProperty  false: the result takes the place of `property`
/// \return false, and nothing changed, if there is no such property, its type is none that the operator takes, or the name of the
///         result belongs to a component that is no channel
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation; nothing is changed then
/// \par Source  central differences; mean curvature as half the divergence of the normal written out in derivatives (R. Goldman,
///      Curvature formulas for implicit curves and surfaces, CAGD 22, 2005)
template <class Operator>
TILEGRID_API bool analyze(Corvid::String const& property, Corvid::String const& outputProperty, bool toOutputProperty, OST::Object& object);

#define TILEGRID_DECLARE_ANALYZE(Operator) \
    template <> TILEGRID_API bool analyze<Analyze::Operator>(Corvid::String const&, Corvid::String const&, bool, OST::Object&);
TILEGRID_DECLARE_ANALYZE(GradientOperator)
TILEGRID_DECLARE_ANALYZE(MeanCurvatureOperator)
TILEGRID_DECLARE_ANALYZE(LaplacianOperator)
TILEGRID_DECLARE_ANALYZE(ClosestPointOperator)
TILEGRID_DECLARE_ANALYZE(DivergenceOperator)
TILEGRID_DECLARE_ANALYZE(CurlOperator)
TILEGRID_DECLARE_ANALYZE(MagnitudeOperator)
TILEGRID_DECLARE_ANALYZE(NormalizeOperator)
#undef TILEGRID_DECLARE_ANALYZE

}  // namespace VolumeGL::TileTree3D
