#pragma once
#include "TilegridOps/host/string.h"
#include "TilegridOps/sampling/interpolation.h"
#include "TilegridOps/substrate/accessor.h"
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

/// What follows of a tile from its depth and a place in it.
template <class Tr> class TileGeometry {
public:
    /// Low corner of the tile of a depth that holds the place.
    static int3 corner(int3 const& place, int depth)
    {
        return {place.x - within(place.x, depth), place.y - within(place.y, depth), place.z - within(place.z, depth)};
    }
    /// 1 / voxelDataWidth(depth), rounded once.
    static float inverseWidth(int depth) { return kInverseWidth[depth]; }

private:
    static std::int32_t within(std::int32_t v, int depth)
    {
        const std::uint32_t fromLow = std::uint32_t(v) - std::uint32_t(Tr::rangeMin), width = std::uint32_t(Tr::tileVoxelWidth(depth));
        if constexpr (Tr::branching == 2)
            return std::int32_t(fromLow & (width - 1));
        else
            return std::int32_t(fromLow - kByTile[depth](fromLow) * width);
    }
    static constexpr std::array<float, Tr::levels> kInverseWidth = [] {
        std::array<float, Tr::levels> inverse{};
        for (int depth = 0; depth < Tr::levels; ++depth) inverse[depth] = static_cast<float>(1.0 / Tr::voxelDataWidth(depth));
        return inverse;
    }();
    static constexpr std::array<WidthDivider, Tr::levels> kByTile = [] {
        std::array<WidthDivider, Tr::levels> divider{};
        for (int depth = 0; depth < Tr::levels; ++depth) divider[depth] = WidthDivider(std::uint32_t(Tr::tileVoxelWidth(depth)));
        return divider;
    }();
};

/// Local coordinates that miss 0 by no more than rounding count as 0, so that they do not reach for the tile below.
inline constexpr float kSnap = -1e-5f;
inline float snapped(float local) { return local > kSnap ? std::max(0.0f, local) : local; }

}  // namespace detail

/// Base of the readers of a volume at positions that are not voxels. A sampler is small and cheap to copy, and has state that
/// makes the next query near the last one quick: it serves one thread at a time, and each thread has a copy. It owns nothing;
/// what it reads must outlive it and not change meanwhile.
///
/// T: the type of weights (float). Pos: the type of positions (float3). Value queries are not virtual.
template <class Tr, class T, class Pos> class VoxelSampler {
    static_assert(std::is_same_v<T, float> && std::is_same_v<Pos, float3>);

public:
    /// Finds no voxel; there to be assigned to.
    VoxelSampler() : accessor_(detail::emptyContainer<Tr>()) {}
    /// A voxel size of 0 leads all world positions to the origin.
    VoxelSampler(Container<Tr> const& container, VoxelTopology<Tr> const& topology)
        : accessor_(container), invVoxelSize_(container.voxelSize() == 0 ? 0.0f : 1.0f / container.voxelSize()),
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
        const Pos p = coordinateSpace == kWorldSpace ? invVoxelSize_ * position : position;
        const float3 below(std::floor(p.x), std::floor(p.y), std::floor(p.z));
        if (!(std::fabs(below.x) < kReach && std::fabs(below.y) < kReach && std::fabs(below.z) < kReach)) return notFound(located);
        const int3 place(static_cast<int>(below.x), static_cast<int>(below.y), static_cast<int>(below.z));
        if (!isCurrent(place, depth)) {
            const TreeIndex found = accessor_.find(place.x, place.y, place.z, depth);
            if (!found.valid()) return notFound(located);
            makeCurrent(found, place);
        }
        located.treeIndex = current_.tile;
        const float perVoxel = current_.inverseWidth;
        locateOnAxis(p.x, current_.corner.x, perVoxel, offset_.x, located.lijk.x, located.frac.x);
        locateOnAxis(p.y, current_.corner.y, perVoxel, offset_.y, located.lijk.y, located.frac.y);
        locateOnAxis(p.z, current_.corner.z, perVoxel, offset_.z, located.lijk.z, located.frac.z);
        if (halfInverseWidth) *halfInverseWidth = 0.5f * perVoxel;
        return true;
    }

protected:
    Container<Tr> const& container() const { return accessor_.container(); }
    /// Low corner of the tile that `locateVoxel` found last.
    int3 const& currentCorner() const { return current_.corner; }

    ConstTileAccessor<Tr> accessor_;
    float invVoxelSize_ = 0.0f;
    float3 offset_;
    VoxelOffsetType offsetType_ = kCorner;

private:
    /// Above all of tile space, and such that places fit 32 bits.
    static constexpr float kReach = 1073741824.0f;

    struct CurrentTile {
        TreeIndex tile;
        int3 corner;
        std::uint32_t width = 0;
        float inverseWidth = 0.0f;
        uint64 version = 0;
    };
    bool isCurrent(int3 const& place, int depth) const
    {
        return current_.tile.depth == depth && std::uint32_t(place.x) - std::uint32_t(current_.corner.x) < current_.width &&
               std::uint32_t(place.y) - std::uint32_t(current_.corner.y) < current_.width &&
               std::uint32_t(place.z) - std::uint32_t(current_.corner.z) < current_.width && current_.version == container().version();
    }
    void makeCurrent(TreeIndex const& tile, int3 const& place) const
    {
        using Geometry = detail::TileGeometry<Tr>;
        current_ = {tile, Geometry::corner(place, tile.depth), std::uint32_t(Tr::tileVoxelWidth(tile.depth)),
                    Geometry::inverseWidth(tile.depth), container().version()};
    }
    static bool notFound(LocatedVoxel& located)
    {
        located.treeIndex = {};
        return false;
    }
    static void locateOnAxis(float p, std::int32_t corner, float perVoxel, float offset, std::int32_t& voxel, float& fraction)
    {
        // The difference is right to the last bit wherever in tile space the corner lies, which a float may not hold.
        const float local = detail::snapped(static_cast<float>(double(p) - double(corner)) * perVoxel - offset);
        voxel = std::min(static_cast<std::int32_t>(std::floor(local)), Tr::width - 1);
        fraction = local - static_cast<float>(voxel);
    }

    mutable CurrentTile current_;
};

}  // namespace OST::TileTree3D
