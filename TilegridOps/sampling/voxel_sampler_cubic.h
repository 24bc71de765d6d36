#pragma once
#include "TilegridOps/sampling/cubic_block.h"
#include "TilegridOps/sampling/tile_neighborhood.h"
#include "TilegridOps/sampling/voxel_sampler.h"
#include "TilegridOps/substrate/coarse_read.h"

#include <list>
#include <map>
#include <optional>
#include <vector>

namespace OST::TileTree3D {

/// What the cubic sampler does where its stencil meets a tile of another depth, or none. Values without a name act as
/// `kHierarchical`.
enum class JumpPolicy : std::int32_t {
    /// Interpolates along one axis after the other at the spacing that it finds, with the non-uniform kernels.
    kHierarchical = 0,
    /// Mixes the eight sites around the position linearly.
    kTrilinearAtJump = 1
};

/// The flags of voxels that are not free, in either layout; null for none.
template <class Tr> class DofFlags {
public:
    DofFlags(std::nullptr_t = nullptr) {}
    DofFlags(Channel<Tr, short, Tr::width, 0> const* channel) { if (channel) view_.emplace(*channel); }
    DofFlags(Channel<Tr, short, Tr::width, 1> const* channel) { if (channel) view_.emplace(*channel); }
    explicit operator bool() const { return view_.has_value(); }
    /// Whether a voxel has a flag of the mask; false where the channel has no data.
    bool meets(TreeIndex const& tile, int3 const& voxel, std::int32_t mask) const
    {
        short const* flags = view_ ? view_->tile(tile) : nullptr;
        return flags && (flags[view_->index(voxel.x, voxel.y, voxel.z)] & mask) != 0;
    }

private:
    std::optional<VoxelView<short>> view_;
};

template <class Tr, class T> class CubicQuery;

/// Reads a channel with a stencil of 4 x 4 x 4 voxels. See `VoxelSampler` for threads and lifetimes, cubic_kernels.h for what
/// the modes give, `JumpPolicy` for other places than a uniform stretch of the tree.
///
/// With `kHierarchical`, positions of samples along an axis are those of low corners of voxels: meant for corner samples. The
/// result is 0 and a report goes to standard output where it comes out NaN (cubic_diagnostics.h).
template <class Tr, class T, class S, class Pos, int B0, int B1>
class TILEGRID_API VoxelSamplerCubic final : public VoxelSampler<Tr, S, Pos> {
    static_assert(B0 == 0 && B1 == 0);

public:
    using Element = T;
    using ChannelT = Channel<Tr, T, Tr::width, 0>;

    /// \param channel      null reads as zero everywhere
    /// \param cubicMode    a number without a mode reads as 0 away from jumps
    /// \param clampOutput  keeps every result between the middle values of its stencil, by component
    /// \param dofChannel, dofMask  `kHierarchical` takes the value of a voxel that has a flag of the mask from the tile above
    /// \param haloCacheCapacity  tiles that are kept with their halo, in (W+3)^3 elements each, for corner samples and
    ///                     `kTrilinearAtJump`; 0 or less for none. A kept tile is read with the uniform kernel whatever its
    ///                     neighbours are: where they are coarser, from linearly interpolated values; 0 where there are none
    VoxelSamplerCubic(Container<Tr> const& container, VoxelTopology<Tr> const& topology, ChannelT const* channel, CubicMode cubicMode,
                      bool clampOutput, JumpPolicy jumpPolicy, DofFlags<Tr> dofChannel, std::int32_t dofMask, int64 haloCacheCapacity);
    /// The copy has a cache of the same size, and nothing in it.
    VoxelSamplerCubic(VoxelSamplerCubic const& other);
    VoxelSamplerCubic& operator=(VoxelSamplerCubic const&) = delete;
    ~VoxelSamplerCubic() override = default;

    void interpolationModeName(Corvid::String& out) const override { out = interpolationName(cubicMode_); }

    /// The value at a position as `locateVoxel` gives it for `min(maxDepth, depth)`, with maxDepth that of the channel.
    /// \param depth  the deepest level that takes part
    /// \param flag   has no meaning yet; false
    /// \return the channel's default for no tile, a tile above the channel's `minDepth`, and numbers that no position has
    T getValue(TreeIndex const& ti, int3 const& lijk, float3 const& frac, int depth, bool flag) const;

    /// The value at a position, world or tile space, from tiles not deeper than `depth`; the default outside every tile.
    T sampleCubic(Pos const& position, int depth = Tr::maxDepth, int coordinateSpace = kWorldSpace) const
    {
        LocatedVoxel at;
        const int limit = std::min(maxDepth_, depth);
        return this->locateVoxel(position, coordinateSpace, limit, at) ? getValue(at.treeIndex, at.lijk, at.frac, limit, false)
                                                                      : defaultValue_;
    }

    /// The value of the sample in the voxel of a depth with low corner `tijk`: the voxel itself, or where no tile of the depth
    /// has it, the trilinear mix of the sites of the tile that covers it. The channel's default outside. Halos in mode
    /// `kHaloLinear` hold the same values.
    static T getVoxelValueAtTijk(int3 const& tijk, int depth, VoxelOffsetType offsetType, ChannelT const& channel,
                                 ConstTileAccessor<Tr> const& accessor)
    {
        const SiteReader<Tr, T> reader(VoxelView<T>(channel), accessor, offsetType, channel.defaultValue());
        return reader.valueAt(tijk, std::min(channel.depth(), depth));
    }

private:
    friend class CubicQuery<Tr, T>;
    static constexpr int W = Tr::width;
    using CachedTile = TileData<T, W + 1, 1>;
    struct ByDepth {
        bool operator()(TreeIndex const& a, TreeIndex const& b) const
        {
            return a.depth != b.depth ? a.depth < b.depth : a.index < b.index;
        }
    };
    struct CacheEntry {
        std::size_t slot;
        TreeIndex tile;
    };

    bool isPlace(TreeIndex const& ti, int3 const& lijk, float3 const& frac) const;
    TileNeighborhood<Tr> const& neighborhood(TreeIndex const& ti, int3 const& corner, int3 const& lijk) const;
    T uniformValue(TileNeighborhood<Tr> const& near, int3 const& lijk, float3 const& frac) const;
    T trilinearValue(TileNeighborhood<Tr> const& near, TreeIndex const& ti, int3 const& lijk, float3 const& frac) const;
    T cachedValue(TreeIndex const& ti, int3 const& lijk, float3 const& frac) const;
    CachedTile const& cachedTile(TreeIndex const& ti) const;

    ChannelT const* channel_;
    T defaultValue_{};
    CubicMode cubicMode_;
    bool clampOutput_;
    JumpPolicy jumpPolicy_;
    DofFlags<Tr> dofs_;
    std::int32_t dofMask_;
    int minDepth_ = 0, maxDepth_ = Tr::maxDepth;

    /// The tiles around the last query, which serve the next one beside it, in another of them too.
    struct LastNeighborhood {
        TileNeighborhood<Tr> tiles;
        int3 low;
        int depth = -1;
        uint64 version = 0;
    };
    mutable LastNeighborhood last_;

    // Most recently used first; the map leads to the list's entries.
    mutable std::vector<CachedTile> cacheData_;
    mutable std::list<CacheEntry> lruList_;
    mutable std::map<TreeIndex, typename std::list<CacheEntry>::iterator, ByDepth> lruMap_;
};

template <class Tr, class T> using CubicSampler = VoxelSamplerCubic<Tr, T, float, float3, 0, 0>;

#define TILEGRID_DECLARE_CUBIC(T) \
    extern template class VoxelSamplerCubic<BinaryTraits, T, float, float3, 0, 0>; \
    extern template class VoxelSamplerCubic<QuinaryTraits, T, float, float3, 0, 0>;
TILEGRID_DECLARE_CUBIC(float)
TILEGRID_DECLARE_CUBIC(double)
TILEGRID_DECLARE_CUBIC(Ostara::Math::double3)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float2)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float3)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float3x3)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float4)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float4x2)
TILEGRID_DECLARE_CUBIC(Ostara::Math::float4x4)
#undef TILEGRID_DECLARE_CUBIC

}  // namespace OST::TileTree3D
