#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/topology.h"

namespace VolumeGL::TileTree3D::LevelSet {

/// How distances are made. Any other value acts as `kClosestPoint`.
enum class RedistancingScheme : int { kClosestPoint = 0 };

/// Makes a level set the signed distance to its zero crossing again, in world units, on every voxel of the depths given, and
/// leaves the crossing where it is. Negative is inside.
///
/// The crossing is taken at the edges of leaf voxels, with the shape of the surface there; a wave brings to each voxel a nearby
/// point of the surface, and the voxel takes the distance to the surface around that point. So errors do not grow with the
/// distance, and jumps of depth need no care. Without any crossing nothing is changed (but see `blockField`). Hanging voxels are no
/// distances but follow from the depth above; in a tree that is not graded they may lie many voxels off.
///
/// \param levelSet     rewritten in place. NaN voxels first get the side of most of their finite neighbours (`giveNansSides`), whether
///                     anything is crossed or not; infinite ones cross nothing and count by their sign
/// \param resetFar     for voxels that are not next to the crossing: true rewrites all; false keeps, bit for bit, what has the
///                     right sign and differs by at most 0.02 voxels from the new distance
/// \param resetCrossing  the same for voxels next to the crossing
/// \param keepSigns    true: no voxel changes sign (below 0 or not), and blocked voxels keep their bits. A negative voxel on the
///                     surface gets -1e-6 voxels. False: blocked voxels take distance and side from the surface as it is shaped before the wall
/// \param minDepth, maxDepth  clamped to the depths of the channel; cells of depth maxDepth count as leaves
/// \param blockField   null, or a channel whose voxels of value 0 or more block: no edge at them is crossed, and the wave does not
///                     pass through. Walls thinner than the voxels of a depth let that depth pass. Where then nothing is crossed at
///                     all, other voxels are pushed to at least the default and 3 voxels of the finest depth
/// \param mask         null, or bytes: 0 on entry freezes a voxel. On return 0 frozen, 1 not reached, 2 rewritten
/// \param redistanceBand  in voxels of the depth: within this distance of the crossing, and next to it, the search for the nearest
///                     point runs to its end whatever the pass limits
/// \param maxOutside, maxInside  world units: larger magnitudes are cut to it on the positive and the negative side. FLT_MAX, NaN
///                     or not above 0: not at all
/// \param preSmoothingPasses, postSmoothingPasses  upper limits for the rounds of exchange per depth from fine to coarse and back;
///                     at least 2 are run, negative means no limit
/// \param restoreDependents  finish with `setNonDOFValues` (copies) if there are `dof`s
/// \param unsignedResult  write magnitudes
/// \param dof          flags for the tree as it is; null: nothing hangs, and nothing is restored
/// \param stageName    timer
/// Nothing happens for an empty tree, minDepth above maxDepth, or a voxel size that is not above 0 and finite.
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; the values may then be restored or written in part
/// \par Source  closest points with local quadrics; compare R. Saye, CAMCoS 9, 2014. Order 3 near a smooth surface, 1 at creases
template <class Tr>
void levelSetRedistance(OST::TileTree3D::Container<Tr> const& container, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                        OST::TileTree3D::Channel<Tr, float, Tr::width, 0>& levelSet, bool resetFar, bool resetCrossing, bool keepSigns,
                        int minDepth, int maxDepth, OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const* blockField,
                        OST::TileTree3D::Channel<Tr, unsigned char, Tr::width, 0>* mask, float redistanceBand, float maxOutside,
                        float maxInside, int preSmoothingPasses, int postSmoothingPasses, bool restoreDependents, bool unsignedResult,
                        OST::TileTree3D::DofChannel<Tr> const* dof, Corvid::String const& stageName, RedistancingScheme scheme);

#define TILEGRID_REDISTANCE(KEYWORD, Tr)                                                                                              \
    KEYWORD template TILEGRID_API void levelSetRedistance(                                                                            \
        OST::TileTree3D::Container<Tr> const&, OST::TileTree3D::VoxelTopology<Tr> const&,                                             \
        OST::TileTree3D::Channel<Tr, float, Tr::width, 0>&, bool, bool, bool, int, int,                                               \
        OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const*, OST::TileTree3D::Channel<Tr, unsigned char, Tr::width, 0>*, float,   \
        float, float, int, int, bool, bool, OST::TileTree3D::DofChannel<Tr> const*, Corvid::String const&, RedistancingScheme);
TILEGRID_REDISTANCE(extern, OST::TileTree3D::BinaryTraits)
TILEGRID_REDISTANCE(extern, OST::TileTree3D::QuinaryTraits)

}  // namespace VolumeGL::TileTree3D::LevelSet
