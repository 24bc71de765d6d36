#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/sampling/halo_cache.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/instances.h"

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

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

template <class Tr, class T> class LinearReader final : public PointReader {
public:
    using Sampler = VoxelSamplerLinear<Tr, T, 1, float, float3, 0, 0, 1, 0>;
    LinearReader(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, Channel<Tr, T, Tr::width, 0> const& channel)
        : sampler_(tree, topology, &channel), channel_(&channel), accessor_(tree), offset_(topology.offsetType()), halos_(/*ways*/ 1)
    {
    }
    void read(float3 const* places, int count, std::byte* values) override
    {
        auto* out = reinterpret_cast<T*>(values);
        for (int n = 0; n < count; ++n) out[n] = sampler_.sampleLinear(places[n], Tr::maxDepth, kWorldSpace);
    }
    bool prolong(TreeIndex const& source, int3 const& distance, int width, std::byte* values) override
    {
        if (offset_ != kCorner) return false;
        T const* halo = halos_.last(source);
        if (!halo) halo = halos_.fetch(source, ++queries_, {*channel_, accessor_, offset_});
        const int sourceWidth = Tr::voxelDataWidth(source.depth);
        const auto along = [&](int axis) { return SiteTaps(Tr::width, distance[axis], width, sourceWidth, /*centred*/ false); };
        mixTile<Tr, T>(halo, {along(0), along(1), along(2)}, reinterpret_cast<T*>(values));
        return true;
    }
    std::unique_ptr<PointReader> clone() const override { return std::make_unique<LinearReader>(*this); }

private:
    Sampler sampler_;
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
