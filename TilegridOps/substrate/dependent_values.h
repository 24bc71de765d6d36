#pragma once
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/child_values.h"

/// Restoring the values that follow from others, by their flags (dofs.h).
namespace OST::TileTree3D {

/// What voxels above a child take. Other values leave them as they are.
enum NonDofMode : int {
    /// A weighted mean of the child's voxels around theirs.
    kNonDofRestrict = 1,
    /// The value of the child's coincident voxel.
    kNonDofCopy = 2
};

/// Restores the dependent voxels of a channel: those with `kDofFromChild`, finest depth first, and then the hanging ones without
/// `kDofKeep`, coarsest depth first. A hanging voxel is interpolated linearly between the samples one depth above of the
/// cell face, edge or corner it lies on, each along the lower-numbered axis first; in a tile without parent it takes the
/// channel's default. All other voxels keep their values. Corner samples.
///
/// \tparam T  float, double, or a vector or matrix of them
/// \param minDepth, maxDepth  clamped to the depths of the channel. Voxels of depth maxDepth take nothing from children
/// \param dofs   flags for the tree as it is; a tile without flags is left alone
/// \param mode   a `NonDofMode`
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; the values are then restored in part
template <class Tr, class T>
void setNonDOFValues(int minDepth, int maxDepth, Container<Tr> const& container, Channel<Tr, T, Tr::width, 0>& channel,
                     DofChannel<Tr> const& dofs, int mode);

/// The same for samples at any place of their cells, voxels above a child taking copies: only corner samples hang, and others above
/// children follow from these as `setNonLeafValueToChildValue` says.
/// \param dofs  for corner samples
template <class Tr, class T>
void restoreDependentValues(Container<Tr> const& container, Channel<Tr, T, Tr::width, 0>& channel, VoxelOffsetType offset,
                            DofChannel<Tr> const& dofs, int minDepth, int maxDepth)
{
    if (offset == kCorner)
        setNonDOFValues<Tr, T>(minDepth, maxDepth, container, channel, dofs, kNonDofCopy);
    else
        setNonLeafValueToChildValue(channel, container, offset, minDepth, maxDepth);
}

enum RestrictionKind : int { kRestrictMean = 1, kRestrictInject = 2 };
enum RestrictionWrite : int { kRestrictAssign = 1, kRestrictAdd = 2, kRestrictSubtract = 3 };

/// How values of children become values of their parents' voxels.
template <class T> struct Restriction {
    /// What is written (times the scale) for an offset type or kind that is not listed.
    T initial = T();
    /// Where the samples lie. Means exist for two: `kCenter`, over the 2x2x2 voxels from the coincident one on, and `kCorner`,
    /// over the 3x3x3 around it.
    VoxelOffsetType offset = kCorner;
    RestrictionWrite write = kRestrictAssign;
    float scale = 1;
    RestrictionKind kind = kRestrictMean;
    /// Weights of a mean in place of 1/8 or `Numerics::restrictionStencilOffsetCorner`: 8 or 27 of them, x fastest. Null for none.
    float const* weights = nullptr;
};

/// Writes the voxels of one tile that have `kDofFromChild`; no other tile is written, children and their neighbours of the
/// same depth are read. Where a 3x3x3 neighbourhood leaves the tree it counts zeros.
/// \param accessor  of the tree, the caller's own
/// \param scratch   an array that one thread may use again and again
template <class Tr, class T>
void restrictTile(Tile<Tr, Tr::childCount> const& tile, ConstTileData<short, Tr::width, 0> const& dofs,
                  Channel<Tr, T, Tr::width, 0>& channel, Restriction<T> const& restriction, ConstTileAccessor<Tr> const& accessor,
                  TileData<T, Tr::width, 1>& scratch);

// KEYWORD: extern here, nothing where the definitions are.
#define TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, T)                                                                                           \
    KEYWORD template TILEGRID_API void setNonDOFValues(int, int, Container<Tr> const&, Channel<Tr, T, Tr::width, 0>&,                       \
                                                       DofChannel<Tr> const&, int);                                                         \
    KEYWORD template TILEGRID_API void restrictTile(Tile<Tr, Tr::childCount> const&, ConstTileData<short, Tr::width, 0> const&,             \
                                                    Channel<Tr, T, Tr::width, 0>&, Restriction<T> const&, ConstTileAccessor<Tr> const&,    \
                                                    TileData<T, Tr::width, 1>&);
#define TILEGRID_ALL_DEPENDENT_VALUES(KEYWORD, Tr)                          \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, float)                           \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float2)            \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float3)            \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float4)            \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float3x3)          \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float4x2)          \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::float4x4)          \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, double)                          \
    TILEGRID_DEPENDENT_VALUES(KEYWORD, Tr, Ostara::Math::double3)
TILEGRID_ALL_DEPENDENT_VALUES(extern, BinaryTraits)
TILEGRID_ALL_DEPENDENT_VALUES(extern, QuinaryTraits)

}  // namespace OST::TileTree3D
