#pragma once
#include "TilegridOps/substrate/traits.h"
#include "io/distance_source.h"
#include "io/level_set_from_mesh.h"

#include <functional>
#include <string>

namespace tilegrid::io {

/// What is known of a surface before its level set is made, in world units.
struct SurfaceExtent {
    /// What messages call it: "mesh", "sphere", ...
    std::string name;
    Ostara::Math::double3 low, high;
    double area = 0.0;
    /// The part of the area that lies in a box; more is no harm, only a larger estimate.
    std::function<double(FinerBox const&)> areaIn;
};

/// World size of the finest voxels.
template <class Tr> float finestVoxel(LevelSetOptions const& options);

/// \throws InputError for what `levelSetFromMesh` refuses of its options
template <class Tr> void checkLevelSetOptions(SurfaceExtent const& extent, LevelSetOptions const& options);

/// The level set of a surface, as `levelSetFromMesh` describes it. The unit of `surface` is `finestVoxel`, and the options are
/// checked.
/// \throws InputError if grading leads beyond the limit of memory
template <class Tr>
Corvid::Ptr<Ostara::Object> buildLevelSet(DistanceSource const& surface, LevelSetOptions const& options);

#define TILEGRID_LEVEL_SETS_FOR(KEYWORD, Tr)                                                                           \
    KEYWORD template float finestVoxel<Tr>(LevelSetOptions const&);                                                    \
    KEYWORD template void checkLevelSetOptions<Tr>(SurfaceExtent const&, LevelSetOptions const&);                      \
    KEYWORD template Corvid::Ptr<Ostara::Object> buildLevelSet<Tr>(DistanceSource const&, LevelSetOptions const&);
TILEGRID_LEVEL_SETS_FOR(extern, OST::TileTree3D::BinaryTraits)
TILEGRID_LEVEL_SETS_FOR(extern, OST::TileTree3D::QuinaryTraits)

}  // namespace tilegrid::io
