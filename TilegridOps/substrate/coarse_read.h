#pragma once
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/element_values.h"

/// Reading a channel at the sample sites of a depth, where tiles of that depth may be missing.
///
/// The sites of a depth are one per voxel of its lattice, whether or not tiles exist there: at the low corner of the voxel on
/// an axis whose offset bit is set, at its middle otherwise. A site is named by the low corner of its voxel. Where no tile of
/// the depth covers a site, its value is the trilinear mix of the sites of the coarser tile that does; so every reader of a
/// coarser neighbour sees the same function.
namespace OST::TileTree3D {

/// The voxels of a channel, whatever its layout: `width` elements per axis, of which `halo` lie before voxel 0.
template <class T> struct VoxelView {
    VoxelChannelCore const* channel;
    int width, halo;

    template <class Tr, int N, int H>
    explicit VoxelView(Channel<Tr, T, N, H> const& c) : channel(&c), width(detail::arrayWidth<N, H>), halo(H)
    {}
    VoxelView(VoxelChannelCore const& c, int arrayWidth, int haloLayers)
        : channel(&c), width(arrayWidth), halo(haloLayers)
    {}

    int index(int i, int j, int k) const { return flatIndex(width, i, j, k); }
    /// Voxel (0,0,0) of a tile, null for a tile without data; voxel (i,j,k) lies `index(i,j,k)` further.
    T const* tile(TreeIndex const& tile) const
    {
        auto const* data = reinterpret_cast<T const*>(channel->tileBytes(tile.index, tile.depth));
        return data ? data + index(halo, halo, halo) : nullptr;
    }
};

/// Where a position falls between two neighbouring sites along an axis: `base`, and the fraction of the way to `base` + 1.
struct SiteTap {
    int base;
    float fraction;
};

/// The tap among the sites of a depth with voxels `siteWidth` wide for a site of a lattice with voxels `width` wide.
/// \param distance  from the low corner of site 0 to that of the position's voxel, in tile-space units
/// \param centred   the samples lie in the middle of their voxels
constexpr SiteTap siteTap(int64 distance, int64 width, int64 siteWidth, bool centred)
{
    // In half units, so that middles are whole numbers.
    const int64 position = 2 * distance + (centred ? width - siteWidth : 0), unit = 2 * siteWidth;
    const int64 base = position >= 0 ? position / unit : -((unit - 1 - position) / unit);
    return {static_cast<int>(base), static_cast<float>(double(position - base * unit) / double(unit))};
}

/// The taps of a run of positions along an axis, counted from the first site that they need.
struct SiteTaps {
    static constexpr int kMostPositions = 5;
    std::array<SiteTap, kMostPositions> tap{};
    int low = 0, count = 0;

    /// \param first  distance of the first position, as for `siteTap`; the others follow `width` apart
    SiteTaps(int positions, int64 first, int64 width, int64 siteWidth, bool centred)
    {
        low = siteTap(first, width, siteWidth, centred).base;
        for (int n = 0; n < positions; ++n) {
            tap[n] = siteTap(first + n * width, width, siteWidth, centred);
            tap[n].base -= low;
            count = tap[n].base + (tap[n].fraction == 0 ? 1 : 2);
        }
    }
    SiteTap const& operator[](int n) const { return tap[n]; }
};

/// Mixes the (up to) eight sites around a position, along x, then y, then z. An axis with fraction 0 takes one site as it is.
/// \param at  gives the value of the site (x, y, z)
template <class T, class At> T mixSites(SiteTap const& x, SiteTap const& y, SiteTap const& z, At const& at)
{
    const auto row = [&](int j, int k) -> T {
        T const& low = at(x.base, j, k);
        return x.fraction == 0 ? low : tilegrid::mixed<T>(low, at(x.base + 1, j, k), x.fraction);
    };
    const auto plane = [&](int k) -> T {
        const T low = row(y.base, k);
        return y.fraction == 0 ? low : tilegrid::mixed<T>(low, row(y.base + 1, k), y.fraction);
    };
    const T low = plane(z.base);
    return z.fraction == 0 ? low : tilegrid::mixed<T>(low, plane(z.base + 1), z.fraction);
}

/// How a site is read that only a tile several depths above covers.
enum class JumpRule {
    /// From the sites of the covering tile itself.
    kDirect,
    /// Depth by depth: from the sites one depth above, which are read in the same way.
    kStepwise
};

/// Reads one channel at sites. Small, one per thread (it uses the thread's accessor); made anew for each pass or tile.
template <class Tr, class T> class TILEGRID_API SiteReader {
    static_assert(tilegrid::canInterpolate<T>);

public:
    /// Sites per axis of the largest block that the functions below take.
    static constexpr int kMostSites = 4;
    static constexpr int kBlock = kMostSites * kMostSites * kMostSites;

    /// \param outside  value of sites that no tile covers, or none at a depth that the channel has
    SiteReader(VoxelView<T> const& voxels, ConstTileAccessor<Tr> const& accessor, VoxelOffsetType offset,
               T const& outside, JumpRule rule = JumpRule::kDirect);

    /// The value of the sample in the voxel of width `voxelDataWidth(depth)` with low corner `place`: the voxel, if a tile of
    /// that depth has one there, else a trilinear mix. A place off the lattice of `depth` is mixed as well (stepwise reading
    /// needs one on it).
    T valueAt(int3 const& place, int depth) const;
    /// The sites from `low` on, `count` per axis (at most `kMostSites`), of a tile's own depth, counted from its low corner;
    /// they lie in the tile or beside it (-1 to W). The tile has data. i fastest, packed.
    void gather(TreeIndex const& tile, int3 const& low, int3 const& count, T* sites) const;
    /// The sites of any depth from the one with low corner `place` on, depth by depth.
    void gatherStepwise(int depth, int3 const& place, int3 const& count, T* sites) const;

    bool centred(int axis) const { return !(offset_ >> axis & 1); }
    VoxelView<T> const& voxels() const { return voxels_; }
    T const& outside() const { return outside_; }

private:
    TreeIndex covering(int3 const& place, int depth) const;
    T mixedAt(TreeIndex const& tile, int3 const& place, int depth) const;
    VoxelView<T> voxels_;
    ConstTileAccessor<Tr> const& accessor_;
    VoxelOffsetType offset_;
    JumpRule rule_;
    T outside_;
};

}  // namespace OST::TileTree3D
