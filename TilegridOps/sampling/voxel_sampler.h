#pragma once
#include "TilegridOps/host/string.h"
#include "TilegridOps/sampling/interpolation.h"
#include "TilegridOps/sampling/tile_finder.h"
#include "TilegridOps/substrate/topology.h"

#include <algorithm>
#include <cmath>

namespace OST::TileTree3D {

/// What the coordinates of a position mean. Any value but `kWorldSpace` stands for tile space, whose unit is a voxel of the
/// finest depth.
enum CoordinateSpace : int { kTileSpace = 0, kWorldSpace = 2 };

/// A position as a reader of voxels needs it: the tile, the sample site at or below the position on every axis, counted in
/// voxels of the tile, and the way from there to the next site.
struct LocatedVoxel {
    TreeIndex treeIndex;
    /// At most W-1 per axis. -1 on a cell-centred axis for a position between the tile's low face and its first sample.
    int3 lijk;
    /// In voxels, from 0; it may reach 1 and pass it by rounding at the high end of a tile.
    float3 frac;
};

namespace detail {

/// A tree without tiles, over which a sampler reads nothing.
template <class Tr> TILEGRID_API Container<Tr> const& emptyContainer();
extern template TILEGRID_API Container<BinaryTraits> const& emptyContainer();
extern template TILEGRID_API Container<QuinaryTraits> const& emptyContainer();

/// Local coordinates that miss 0 by no more than rounding count as 0, so that they do not reach for the tile below.
inline constexpr float kSnap = -1e-5f;
inline Lanes snapped(Lanes local) { return local > kSnap ? (local > 0.0f ? local : Lanes{}) : local; }

}  // namespace detail

/// Base of the readers of a volume at positions that are not voxels. A sampler takes some kilobytes, is cheap to copy, and
/// has state that makes the next query near the last ones quick: it serves one thread at a time, and each thread has a copy. It owns nothing;
/// what it reads must outlive it and not change meanwhile.
///
/// T: the type of weights (float). Pos: the type of positions (float3). Value queries are not virtual.
template <class Tr, class T, class Pos> class VoxelSampler {
    static_assert(std::is_same_v<T, float> && std::is_same_v<Pos, float3>);

public:
    /// Finds no voxel; there to be assigned to.
    VoxelSampler() : tiles_(detail::emptyContainer<Tr>()) {}
    /// A voxel size of 0 leads all world positions to the origin.
    VoxelSampler(Container<Tr> const& container, VoxelTopology<Tr> const& topology)
        : tiles_(container), invVoxelSize_(container.voxelSize() == 0 ? 0.0f : 1.0f / container.voxelSize()),
          offset_(topology.offset()), offsetType_(topology.offsetType())
    {
    }
    virtual ~VoxelSampler() = default;
    VoxelSampler(VoxelSampler const&) = default;
    VoxelSampler& operator=(VoxelSampler const&) = default;

    /// The name of the interpolation, as in `interpolationName`; "kNone" for the base.
    virtual void interpolationModeName(Corvid::String& out) const { out = "kNone"; }

    /// Finds the voxel of a position in the finest tile not deeper than `depth`.
    /// \param coordinateSpace   `kWorldSpace`, or anything else for tile space. A position on the common face of two tiles
    ///                          belongs to the higher one
    /// \param located           tile (-1,-1) if there is none there; NaN and infinite positions lie outside every tile
    /// \param halfInverseWidth  receives 0.5 / voxelDataWidth of the tile, if asked for and found
    /// \return whether there is such a tile
    bool locateVoxel(Pos const& position, int coordinateSpace, int depth, LocatedVoxel& located, float* halfInverseWidth = nullptr) const
    {
        auto const& found = locate(position, coordinateSpace, depth, located);
        if (halfInverseWidth && found.tile.valid()) *halfInverseWidth = 0.5f * found.inverseWidth;
        return found.tile.valid();
    }

protected:
    using FoundTile = typename TileFinder<Tr>::Found;

    /// `locateVoxel`, with what is known of the tile. The reference lives until the next look-up.
    /// \tparam nearLast  whether the position is expected in the tile of the last one
    template <bool nearLast = true> FoundTile const& locate(Pos const& position, int coordinateSpace, int depth, LocatedVoxel& located) const
    {
        using namespace detail;
        Lanes p = lanes(position);
        if (coordinateSpace == kWorldSpace) p *= invVoxelSize_;
        const IntLanes place = floored(withinReach(p));
        FoundTile const& found = nearLast ? tiles_.find(place, depth) : tiles_.findElsewhere(place, depth);
        located.treeIndex = found.tile;
        if (!found.tile.valid()) [[unlikely]] return found;
        const Lanes local = snapped(found.local(p) * found.inverseWidth - lanes(offset_));
        IntLanes voxel = floored(local);
        voxel = voxel < Tr::width ? voxel : lanes(Tr::width - 1);
        const Lanes fraction = local - toFloat(voxel);
        located.lijk = {voxel[0], voxel[1], voxel[2]};
        located.frac = {fraction[0], fraction[1], fraction[2]};
        return found;
    }
    ConstTileAccessor<Tr> const& accessor() const { return tiles_.accessor(); }
    Container<Tr> const& container() const { return accessor().container(); }

    TileFinder<Tr> tiles_;
    float invVoxelSize_ = 0.0f;
    float3 offset_;
    VoxelOffsetType offsetType_ = kCorner;

private:
    /// Positions far outside tile space, and NaN, at places outside it that fit 32 bits.
    static detail::Lanes withinReach(detail::Lanes p)
    {
        constexpr float kReach = 1073741824.0f;
        p = p > -kReach ? p : detail::lanes(-kReach);
        return p < kReach ? p : detail::lanes(kReach);
    }
};

}  // namespace OST::TileTree3D
