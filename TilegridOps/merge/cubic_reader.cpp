#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/substrate/instances.h"

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

template <class Tr, class T> class CubicReader final : public PointReader {
public:
    explicit CubicReader(CubicSampler<Tr, T> const& sampler) : sampler_(sampler) {}
    void read(float3 const* places, int count, std::byte* values) override
    {
        auto* out = reinterpret_cast<T*>(values);
        for (int n = 0; n < count; ++n) out[n] = sampler_.sampleCubic(places[n], Tr::maxDepth, kWorldSpace);
    }
    std::unique_ptr<PointReader> clone() const override { return std::make_unique<CubicReader>(sampler_); }

private:
    CubicSampler<Tr, T> sampler_;
};

}  // namespace

template <class Tr, class T>
std::unique_ptr<PointReader> cubicReader(Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                                         Channel<Tr, T, Tr::width, 0> const& channel, CubicMode mode)
{
    return std::make_unique<CubicReader<Tr, T>>(CubicSampler<Tr, T>(tree, topology, &channel, mode, /*clampOutput*/ true,
                                                                    JumpPolicy::kTrilinearAtJump, nullptr, /*dofMask*/ 0,
                                                                    /*haloCacheCapacity*/ 0));
}

#define TILEGRID_CUBIC_READER(Tr, T) \
    template std::unique_ptr<PointReader> cubicReader( \
        Container<Tr> const&, VoxelTopology<Tr> const&, Channel<Tr, T, Tr::width, 0> const&, CubicMode);
TILEGRID_FOR_REAL_TYPES(TILEGRID_CUBIC_READER)
#undef TILEGRID_CUBIC_READER

}  // namespace tilegrid
