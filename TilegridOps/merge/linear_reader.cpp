#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/sampling/halo_cache.h"
#include "TilegridOps/sampling/linear_grid.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/instances.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

/// Differences of smaller numbers are finite.
constexpr float kLargestBound = 1e37f;

/// Values between the sites of a tile's compressed halo, one axis after the other: x, then y, then z, as a sampler mixes them.
template <class Tr, class T> void mixTile(T const* halo, std::array<SiteTaps, 3> const& taps, T* out)
{
    constexpr int W = Tr::width;
    const auto mixAt = [](SiteTap const& tap, T const* row, int stride) -> T {
        T const& low = row[tap.base * stride];
        return tap.fraction == 0 ? low : tilegrid::mixed<T>(low, row[(tap.base + 1) * stride], tap.fraction);
    };
    std::array<T, W*(W + 1) * (W + 1)> alongX;
    std::array<T, W * W*(W + 1)> alongY;
    auto const& [x, y, z] = taps;
    for (int k = 0; k < z.count; ++k)
        for (int j = 0; j < y.count; ++j)
            for (int i = 0; i < W; ++i)
                alongX[i + W * (j + (W + 1) * k)] = mixAt(x[i], halo + flatIndex(W + 1, x.low, y.low + j, z.low + k), 1);
    for (int k = 0; k < z.count; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) alongY[flatIndex(W, i, j, k)] = mixAt(y[j], &alongX[i + W * (W + 1) * k], W);
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) out[flatIndex(W, i, j, k)] = mixAt(z[k], &alongY[flatIndex(W, i, j, 0)], W * W);
}

/// Bounds of what `mixTile` gives, from the sites that it mixes; false where they are not finite.
template <class Tr> bool siteBounds(float const* halo, int3 const& distance, int width, int sourceWidth, float& low, float& high)
{
    int3 first, last;
    for (int axis = 0; axis < 3; ++axis) {
        const int end = distance[axis] + (Tr::width - 1) * width;
        first[axis] = distance[axis] / sourceWidth;
        last[axis] = (end + sourceWidth - 1) / sourceWidth;
    }
    float least = halo[flatIndex(Tr::width + 1, first.x, first.y, first.z)], most = least, sum = 0.0f;
    for (int k = first.z; k <= last.z; ++k)
        for (int j = first.y; j <= last.y; ++j) {
            float const* row = halo + flatIndex(Tr::width + 1, 0, j, k);
            for (int i = first.x; i <= last.x; ++i) {
                least = row[i] < least ? row[i] : least;
                most = row[i] > most ? row[i] : most;
                sum += 0.0f * row[i];
            }
        }
    const float size = std::max(std::fabs(least), std::fabs(most));
    if (!(sum == 0.0f) || !(size < kLargestBound)) return false;
    // Equal values mix to themselves. Else each of three steps is at most five roundings of numbers of twice the size off.
    const float margin = least < most ? 16.0f * FLT_EPSILON * size + FLT_MIN : 0.0f;
    low = least - margin;
    high = most + margin;
    return true;
}

template <class Tr, class T> class LinearReader final : public PointReader {
public:
    using Sampler = VoxelSamplerLinear<Tr, T, 1, float, float3, 0, 0, 1, 0>;
    LinearReader(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, Channel<Tr, T, Tr::width, 0> const& channel)
        : sampler_(tree, topology, &channel), grid_(tree, channel), channel_(&channel), accessor_(tree), offset_(topology.offsetType()), halos_(/*ways*/ 1)
    {
    }
    void read(float3 const* places, int count, std::byte* values) override
    {
        auto* out = reinterpret_cast<T*>(values);
        for (int n = 0; n < count; ++n) out[n] = sampler_.sampleLinear(places[n], Tr::maxDepth, kWorldSpace);
    }
    bool readGrid(float3 const* along, int count, std::byte* values) override
    {
        return offset_ == kCorner && grid_.read(along, count, reinterpret_cast<T*>(values));
    }
    bool prolongs() const override { return offset_ == kCorner; }
    bool prolong(TreeIndex const& source, int3 const& distance, int width, std::byte* values) override
    {
        if (offset_ != kCorner) return false;
        T const* halo = haloOf(source);
        const int sourceWidth = Tr::voxelDataWidth(source.depth);
        const auto along = [&](int axis) { return SiteTaps(Tr::width, distance[axis], width, sourceWidth, /*centred*/ false); };
        mixTile<Tr, T>(halo, {along(0), along(1), along(2)}, reinterpret_cast<T*>(values));
        return true;
    }
    bool prolongedBounds(TreeIndex const& source, int3 const& distance, int width, float& low, float& high) override
    {
        if constexpr (std::is_same_v<T, float>)
            return offset_ == kCorner &&
                   siteBounds<Tr>(haloOf(source), distance, width, Tr::voxelDataWidth(source.depth), low, high);
        return false;
    }
    std::unique_ptr<PointReader> clone() const override { return std::make_unique<LinearReader>(*this); }

private:
    T const* haloOf(TreeIndex const& source)
    {
        T const* halo = halos_.last(source);
        return halo ? halo : halos_.fetch(source, ++queries_, {*channel_, accessor_.container(), offset_});
    }

    Sampler sampler_;
    LinearGrid<Tr, T> grid_;
    Channel<Tr, T, Tr::width, 0> const* channel_;
    ConstTileAccessor<Tr> accessor_;
    VoxelOffsetType offset_;
    HaloCache<Tr, T> halos_;
    OST::uint64 queries_ = 0;
};

}  // namespace

template <class Tr, class T>
std::unique_ptr<PointReader> linearReader(Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                                          Channel<Tr, T, Tr::width, 0> const& channel)
{
    return std::make_unique<LinearReader<Tr, T>>(tree, topology, channel);
}

#define TILEGRID_LINEAR_READER(Tr, T) \
    template std::unique_ptr<PointReader> linearReader( \
        Container<Tr> const&, VoxelTopology<Tr> const&, Channel<Tr, T, Tr::width, 0> const&);
TILEGRID_FOR_REAL_TYPES(TILEGRID_LINEAR_READER)
#undef TILEGRID_LINEAR_READER

}  // namespace tilegrid
