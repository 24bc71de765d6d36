#include "TilegridOps/sampling/voxel_sampler_cubic.h"

#include "TilegridOps/sampling/cubic_query.h"
#include "TilegridOps/substrate/halo.h"

namespace OST::TileTree3D {

namespace {

/// Copies a stencil from the arrays of eight tiles (number x + 2 y + 4 z).
/// \param low  its lowest voxel; of each row, `First` voxels lie in the tile on the low side
template <int First, int W, class T> void gatherRows(T const* const (&values)[8], int3 const& low, CubicBlock<T>& block)
{
    for (int k = 0; k < 4; ++k) {
        const int z = low.z + k, zBit = z >= W;
        for (int j = 0; j < 4; ++j) {
            const int y = low.y + j, yBit = y >= W;
            T const* const* pair = values + 2 * yBit + 4 * zBit;
            const int row = flatIndex(W, 0, y - W * yBit, z - W * zBit);
            block.template setRow<First>(j, k, pair[0] + row + low.x, pair[1] + row);
        }
    }
}

}  // namespace

template <class Tr, class T, class S, class Pos, int B0, int B1>
VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::VoxelSamplerCubic(Container<Tr> const& container, VoxelTopology<Tr> const& topology,
                                                            ChannelT const* channel, CubicMode cubicMode, bool clampOutput,
                                                            JumpPolicy jumpPolicy, DofFlags<Tr> dofChannel, std::int32_t dofMask,
                                                            int64 haloCacheCapacity)
    : VoxelSampler<Tr, S, Pos>(container, topology), channel_(channel), cubicMode_(cubicMode),
      clampOutput_(clampOutput), jumpPolicy_(jumpPolicy), dofs_(dofChannel), dofMask_(dofMask)
{
    if (channel) {
        defaultValue_ = channel->defaultValue();
        minDepth_ = channel->minDepth();
        maxDepth_ = channel->depth();
    }
    for (int64 n = 0; n < haloCacheCapacity; ++n) cacheData_.emplace_back(CachedTile::elements);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::VoxelSamplerCubic(VoxelSamplerCubic const& other)
    : VoxelSampler<Tr, S, Pos>(other), channel_(other.channel_),
      defaultValue_(other.defaultValue_), cubicMode_(other.cubicMode_), clampOutput_(other.clampOutput_),
      jumpPolicy_(other.jumpPolicy_), dofs_(other.dofs_), dofMask_(other.dofMask_), minDepth_(other.minDepth_),
      maxDepth_(other.maxDepth_)
{
    for (std::size_t n = 0; n < other.cacheData_.size(); ++n) cacheData_.emplace_back(CachedTile::elements);
}

/// Whether `locateVoxel` may give this: a tile of the tree that the channel has, and a voxel in it or one below.
template <class Tr, class T, class S, class Pos, int B0, int B1>
bool VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::isPlace(TreeIndex const& ti, int3 const& lijk, float3 const& frac) const
{
    const auto voxel = [](std::int32_t v) { return std::uint32_t(v) + 1u <= std::uint32_t(W); };
    const auto fraction = [](float f) { return f >= 0.0f && f < 2.0f; };
    return ti.depth <= Tr::maxDepth && ti.index < this->container().tileCount(ti.depth) && channel_->tileData(ti) && voxel(lijk.x) &&
           voxel(lijk.y) && voxel(lijk.z) && fraction(frac.x) && fraction(frac.y) && fraction(frac.z);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
T VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::getValue(TreeIndex const& ti, int3 const& lijk, float3 const& frac, int depth,
                                                     bool flag) const
{
    if (!channel_ || ti.index < 0 || ti.depth < 0 || ti.depth < minDepth_ || !isPlace(ti, lijk, frac)) return defaultValue_;
    if (jumpPolicy_ != JumpPolicy::kTrilinearAtJump)
        return CubicQuery<Tr, T>(*this, ti, lijk, frac, std::min(maxDepth_, depth), flag).value();
    if (!cacheData_.empty() && this->offsetType_ == kCorner && lijk.x >= 0 && lijk.y >= 0 && lijk.z >= 0)
        return cachedValue(ti, lijk, frac);
    auto const& near = neighborhood(ti, this->container().tile(ti).tijk(), lijk);
    return near.atResolutionJump() ? trilinearValue(near, ti, lijk, frac) : uniformValue(near, lijk, frac);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
TileNeighborhood<Tr> const& VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::neighborhood(TreeIndex const& ti, int3 const& corner,
                                                                                   int3 const& lijk) const
{
    constexpr int kAllAxes = 7;
    const int3 first = TileNeighborhood<Tr>::firstPlace(lijk, kAllAxes);
    const std::int32_t width = Tr::tileVoxelWidth(ti.depth);
    const int3 low(corner.x + first.x * width, corner.y + first.y * width, corner.z + first.z * width);
    const uint64 version = this->container().version();
    if (last_.depth == ti.depth && last_.version == version && last_.low.x == low.x && last_.low.y == low.y && last_.low.z == low.z) {
        last_.tiles.setFirst(first);
        return last_.tiles;
    }
    last_.tiles.fetchTiles(this->accessor(), ti, corner, lijk, kAllAxes);
    last_.depth = ti.depth;
    last_.low = low;
    last_.version = version;
    return last_.tiles;
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
T VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::uniformValue(TileNeighborhood<Tr> const& near, int3 const& lijk, float3 const& frac) const
{
    T const* values[8];
    for (int n = 0; n < 8; ++n) {
        values[n] = channel_->tileData(near[n]).data();
        if (!values[n]) return defaultValue_;
    }
    // The lowest voxel of the stencil, from the low corner of the first place.
    int3 const& first = near.first();
    const int3 low(lijk.x - 1 - W * first.x, lijk.y - 1 - W * first.y, lijk.z - 1 - W * first.z);
    CubicBlock<T> block;
    switch (W - low.x) {
    case 1: gatherRows<1, W>(values, low, block); break;
    case 2: gatherRows<2, W>(values, low, block); break;
    case 3: gatherRows<3, W>(values, low, block); break;
    default: gatherRows<4, W>(values, low, block);
    }
    return block.interpolate(cubicMode_, frac, clampOutput_);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
T VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::trilinearValue(TileNeighborhood<Tr> const& near, TreeIndex const& ti, int3 const& lijk,
                                                           float3 const& frac) const
{
    // A voxel from the low corner of the first place: in the first or the second.
    const auto at = [&](int i, int j, int k) -> T {
        const int3 voxel(lijk.x + i - W * near.first().x, lijk.y + j - W * near.first().y, lijk.z + k - W * near.first().z);
        const int3 bit(voxel.x >= W, voxel.y >= W, voxel.z >= W);
        TreeIndex const& tile = near[bit.x + 2 * bit.y + 4 * bit.z];
        if (tile.depth == ti.depth) {
            if (const auto data = channel_->tileData(tile)) return data(voxel.x - W * bit.x, voxel.y - W * bit.y, voxel.z - W * bit.z);
        }
        auto const& own = this->container().tile(ti);
        return getVoxelValueAtTijk(own.tijk() + own.voxelDataWidth() * (lijk + int3(i, j, k)), ti.depth, this->offsetType_, *channel_,
                                   this->accessor());
    };
    return mixSites<T>({0, frac.x}, {0, frac.y}, {0, frac.z}, at);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
T VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::cachedValue(TreeIndex const& ti, int3 const& lijk, float3 const& frac) const
{
    CachedTile const& tile = cachedTile(ti);
    CubicBlock<T> block;
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < 4; ++j)
            block.template setRow<4>(j, k, &tile(lijk.x - 1, lijk.y - 1 + j, lijk.z - 1 + k), nullptr);
    return block.interpolate(cubicMode_, frac, clampOutput_);
}

template <class Tr, class T, class S, class Pos, int B0, int B1>
auto VoxelSamplerCubic<Tr, T, S, Pos, B0, B1>::cachedTile(TreeIndex const& ti) const -> CachedTile const&
{
    if (!lruList_.empty() && lruList_.front().tile == ti) return cacheData_[lruList_.front().slot];
    if (const auto found = lruMap_.find(ti); found != lruMap_.end()) {
        lruList_.splice(lruList_.begin(), lruList_, found->second);
        return cacheData_[lruList_.front().slot];
    }
    if (lruList_.size() < cacheData_.size()) {
        lruList_.push_front({lruList_.size(), {}});
    } else {
        lruMap_.erase(lruList_.back().tile);
        lruList_.splice(lruList_.begin(), lruList_, std::prev(lruList_.end()));
        lruList_.front().tile = {};
    }
    CacheEntry& entry = lruList_.front();
    setHaloTile<Tr, T, 0, 1, 1, 0>(ti, *channel_, kHaloLinear, kHaloAll, this->accessor(), cacheData_[entry.slot], 0.0f, 1.0f, kCorner);
    lruMap_.emplace(ti, lruList_.begin());
    entry.tile = ti;
    return cacheData_[entry.slot];
}

#define TILEGRID_INSTANTIATE(T)                                           \
    template class VoxelSamplerCubic<BinaryTraits, T, float, float3, 0, 0>; \
    template class VoxelSamplerCubic<QuinaryTraits, T, float, float3, 0, 0>;
TILEGRID_INSTANTIATE(float)
TILEGRID_INSTANTIATE(double)
TILEGRID_INSTANTIATE(Ostara::Math::double3)
TILEGRID_INSTANTIATE(Ostara::Math::float2)
TILEGRID_INSTANTIATE(Ostara::Math::float3)
TILEGRID_INSTANTIATE(Ostara::Math::float3x3)
TILEGRID_INSTANTIATE(Ostara::Math::float4)
TILEGRID_INSTANTIATE(Ostara::Math::float4x2)
TILEGRID_INSTANTIATE(Ostara::Math::float4x4)

}  // namespace OST::TileTree3D
