#include "TilegridOps/algorithms/volume_depth.h"

#include "TilegridOps/algorithms/redistance.h"
#include "TilegridOps/stencils/kernels.h"
#include "TilegridOps/stencils/pass.h"

#include <cfloat>
#include <cmath>

namespace VolumeGL::TileTree3D::LevelSet {

namespace {

using namespace OST::TileTree3D;
using OST::int64;
namespace stencils = tilegrid::stencils;

constexpr int kMostPasses = 100;

template <class Tr> using Floats = Channel<Tr, float, Tr::width, 0>;

template <class Tr> TILEGRID_CLONES void smooth(stencils::StencilBlock<Tr> const& block, float* out)
{
    stencils::separable3<Tr>(block, out, 0.25f, 0.5f);
}

/// Distances to depths, in place.
template <class Tr> void toDepths(Container<Tr> const& tree, Floats<Tr>& values, float low, float high)
{
    for (int depth = values.minDepth(); depth <= std::min(values.depth(), tree.deepestDepth()); ++depth)
        tilegrid::parallel::loop(0, tree.tileCount(depth), 64, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n)
                for (float& value : values.tileData(n, depth)) value = value < 0 ? std::clamp(-value, std::max(low, 0.0f), high) : std::max(low, 0.0f);
        });
}

}  // namespace

template <class Tr>
void computeVolumeDepth(float minDepthWorld, float maxDepthWorld, int smoothingPasses, Container<Tr> const& container,
                        VoxelTopology<Tr> const& topology, Floats<Tr> const& channel, OST::Object& object)
{
    const float low = std::isfinite(minDepthWorld) ? minDepthWorld : 0.0f;
    const float high = maxDepthWorld > std::max(low, 0.0f) ? maxDepthWorld : FLT_MAX;
    const float outside = 0;
    auto depths = Corvid::makeMutable<Floats<Tr>>("voxel_depth", &outside, kInitializeLinear, false, true, channel.minDepth(), channel.depth());
    depths->updateTilesAdded(topology);
    for (int depth = channel.minDepth(); depth <= channel.depth(); ++depth)
        for (int64 n = 0; n < container.tileCount(depth); ++n) depths->tileData(n, depth).set(channel.tileData(n, depth));
    DofChannel<Tr> dofs("dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth);
    dofs.updateTilesAdded(topology);
    computeDofs<Tr>(container, dofs);
    levelSetRedistance<Tr>(container, topology, *depths, /*resetFar*/ true, /*resetCrossing*/ true, /*keepSigns*/ true, 0, Tr::maxDepth, nullptr,
                           nullptr, 1.0f, FLT_MAX, FLT_MAX, -1, -1, /*restoreDependents*/ true, /*unsignedResult*/ false, &dofs,
                           "Volume::compute_volume_depth.redistance", RedistancingScheme::kClosestPoint);
    toDepths<Tr>(container, *depths, low, high);
    for (int pass = std::min(smoothingPasses, kMostPasses); pass > 0; --pass) {
        const Floats<Tr> before = *depths;
        stencils::stencilPass<Tr>(container, before, *depths, stencils::Reach::kFacesEdgesCorners, topology.offsetType(), 0, Tr::maxDepth,
                                  [low](auto const&, auto const& block, float* out) {
                                      smooth<Tr>(block, out);
                                      float const* old = block.tiles[kNeighborSelf];
                                      for (int v = 0; v < Tr::voxelCount; ++v)
                                          if (!(old[v] > std::max(low, 0.0f))) out[v] = old[v];
                                  });
    }
    object.putComponent(std::move(depths));
}

template TILEGRID_API void computeVolumeDepth(float, float, int, Container<BinaryTraits> const&, VoxelTopology<BinaryTraits> const&,
                                              Channel<BinaryTraits, float, 4, 0> const&, OST::Object&);

}  // namespace VolumeGL::TileTree3D::LevelSet
