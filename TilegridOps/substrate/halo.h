#pragma once
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/element_values.h"
#include "TilegridOps/substrate/neighbor_walk.h"

/// Gathering a tile together with a border of values around it, for stencils that cross tile borders and jumps of depth.
///
/// A position of the border belongs to one of three classes. *Same depth*: a tile of the tile's depth lies there, and the
/// position takes its voxel; where finer tiles lie it is the voxel of their ancestor, which callers keep in step with them
/// (`setNonLeafValueToChildValue`). *Coarser*: only a coarser tile lies there, and the mode decides. *Nothing*: outside tile
/// space, or only at depths that the channel does not have.
namespace OST::TileTree3D {

/// What a border position takes where only a coarser tile lies. Values not listed act as `kHaloLinear`; types without a
/// fraction (integers, markers) take `kHaloInject` for the two linear modes.
enum HaloMode : int {
    /// The fill value: nothing crosses depths.
    kHaloSameDepth = 0,
    /// The voxel of the deepest covering tile whose cell holds the position.
    kHaloInject = 1,
    /// Linear from the voxels one depth above, which are made in the same way where they are missing in turn.
    kHaloFromParent = 2,
    /// Linear from the voxels of the covering tile, however far above it is. On graded trees the same values as
    /// `kHaloFromParent`.
    kHaloLinear = 4
};

/// Which positions are written, as a sum of bits; the others keep what the target held. A position lies on a face, edge or
/// corner by how many of its coordinates lie outside 0 to W-1.
enum HaloType : int {
    kHaloFaces = 1,
    kHaloEdges = 2,
    kHaloInterior = 4,
    kHaloFacesAndInterior = 5,
    kHaloCorners = 8,
    kHaloAll = 15
};

namespace detail {

/// The array that a gather writes: elements `low` to `high` - 1 per axis around voxel 0, i fastest.
template <class T> struct HaloTarget {
    T* data;
    int low, high;
};

/// The body of all tree-index forms. At most W positions on either side of the tile.
template <class Tr, class T>
TILEGRID_API void gatherHalo(TreeIndex const& tile, Channel<Tr, T, Tr::width, 0> const& channel, HaloMode mode,
                             HaloType type, ConstTileAccessor<Tr> const& accessor, HaloTarget<T> const& out,
                             T const& fill, float weight, VoxelOffsetType offset);

/// The body of the compressed form; `parent` and `parentHalo` are null together.
template <class Tr, class T>
TILEGRID_API void gatherCompressedHalo(Tile<Tr, Tr::childCount> const& tile, Tile<Tr, Tr::childCount> const* parent,
                                       Channel<Tr, T, Tr::width, 0> const& channel, T const* parentHalo, HaloMode mode,
                                       ConstTileAccessor<Tr> const& accessor, T* out);

/// The same in mode `kHaloFromParent`, for callers who know the tiles around.
/// \param cell    of the tile in its parent; of no account without one
/// \param around  of which only the directions without a step to the low side are read
/// \param out     all elements become the default of a channel that does not have the tile
template <class Tr, class T>
TILEGRID_API void gatherCompressedHalo(TreeIndex const& tile, int3 const& cell, Surroundings const& around,
                                       Channel<Tr, T, Tr::width, 0> const& channel, T const* parentHalo, T* out);

}  // namespace detail

/// Gathers a tile of a channel with `H` layers around it, and `E` + `Up` further ones on the high side: positions -H to
/// W + E + Up + H - 1 per axis. Source halo S is 0.
///
/// \param tile      a tile of the accessor's tree; any other index writes nothing. A tile deeper than the channel is read from
///                  its ancestor as if it lay beside it
/// \param channel   values of other tiles of its depth and above are read, none are written
/// \param out       caller's array, with all elements; positions that `type` does not select keep their values
/// \param fillValue stands where nothing is, in every component; integers saturate, NaN becomes 0 in them
/// \param weight    border positions become fillValue + weight * (value - fillValue); 1 leaves the value itself. No effect on
///                  integers
/// \param offset    where samples lie, per axis: corner axes mix sites at low corners, the others at voxel centres
/// \par Source  trilinear interpolation along x, then y, then z as (high - low) * fraction + low with float fractions; an axis
///      on which a site of the coarser lattice coincides is not mixed at all, so that such a position has the site's bits
template <class Tr, class T, int S, int H, int E, int Up>
void setHaloTile(TreeIndex const& tile, Channel<Tr, T, Tr::width, S> const& channel, HaloMode mode, HaloType type,
                 ConstTileAccessor<Tr> const& accessor, TileData<T, Tr::width + E + Up, H>& out, float fillValue,
                 float weight, VoxelOffsetType offset);

/// Gathers the compressed halo of a tile: its W^3 voxels and one further layer on the high side of each axis. Corner samples.
///
/// \param parent      the tile's parent, or null: then positions without a tile of the same depth take the channel's default
/// \param parentHalo  the parent's compressed halo, from which `kHaloFromParent` mixes; empty without a parent. The other modes
///                    read the channel itself, with its default for the fill value
template <class Tr, class T, int S, int H, int E, int Up>
void setHaloTile(Tile<Tr, Tr::childCount> const& tile, Tile<Tr, Tr::childCount> const* parent,
                 Channel<Tr, T, Tr::width, S> const& channel, TileData<T, Tr::width + E, 0> const& parentHalo,
                 HaloMode mode, ConstTileAccessor<Tr> const& accessor, TileData<T, Tr::width + E, 0>& out)
{
    static_assert(S == 0 && H == 0 && E == 1 && Up == 0, "the compressed form has one layer on the high side");
    const bool usable = parent && parentHalo;
    detail::gatherCompressedHalo<Tr, T>(tile, usable ? parent : nullptr, channel, usable ? parentHalo.data() : nullptr,
                                        mode, accessor, out.data());
}

/// Fills the compressed-halo form of a channel: for every tile its voxels and one further layer on the high side, as the
/// compressed `setHaloTile` in mode `kHaloFromParent` gives it, parents first.
///
/// \param in        corner samples; S, H, E, Up are 0, 0, 1, 0
/// \param out       has the tiles of the tree; tiles outside the depth range of `in` are left as they are
/// \param minDepth, maxDepth  clamped to the depths of both channels; -1, -1 means all. At the lowest depth of the pass no parent
///                  is used: positions without a tile of the same depth take the default of `in`
/// \throws std::runtime_error(exceptionMessage) on cancellation
template <class Tr, class T, int S, int H, int E, int Up>
TILEGRID_API void computeHalo(Channel<Tr, T, Tr::width, S> const& in, Container<Tr> const& container,
                              Channel<Tr, T, Tr::width + E, H>& out, int minDepth, int maxDepth);

template <class Tr, class T, int S, int H, int E, int Up>
void setHaloTile(TreeIndex const& tile, Channel<Tr, T, Tr::width, S> const& channel, HaloMode mode, HaloType type,
                 ConstTileAccessor<Tr> const& accessor, TileData<T, Tr::width + E + Up, H>& out, float fillValue,
                 float weight, VoxelOffsetType offset)
{
    static_assert(S == 0 && H >= 0 && E >= 0 && Up >= 0 && H + E + Up <= Tr::width,
                  "layers come from the 26 neighbours");
    const detail::HaloTarget<T> target{out.data(), -H, Tr::width + E + Up + H};
    detail::gatherHalo<Tr, T>(tile, channel, mode, type, accessor, target, tilegrid::elementOf<T>(fillValue), weight,
                              offset);
}

}  // namespace OST::TileTree3D
