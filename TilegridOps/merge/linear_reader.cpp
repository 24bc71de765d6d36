#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/instances.h"

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

template <class Tr, class T> class LinearReader final : public PointReader {
public:
    using Sampler = VoxelSamplerLinear<Tr, T, 1, float, float3, 0, 0, 1, 0>;
    explicit LinearReader(Sampler const& sampler) : sampler_(sampler) {}
    void read(float3 const* places, int count, std::byte* values) override
    {
        auto* out = reinterpret_cast<T*>(values);
        for (int n = 0; n < count; ++n) out[n] = sampler_.sampleLinear(places[n], Tr::maxDepth, kWorldSpace);
    }
    std::unique_ptr<PointReader> clone() const override { return std::make_unique<LinearReader>(sampler_); }

private:
    Sampler sampler_;
};

}  // namespace

template <class Tr, class T>
std::unique_ptr<PointReader> linearReader(Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                                          Channel<Tr, T, Tr::width, 0> const& channel)
{
    return std::make_unique<LinearReader<Tr, T>>(typename LinearReader<Tr, T>::Sampler(tree, topology, &channel));
}

#define TILEGRID_LINEAR_READER(Tr, T) \
    template std::unique_ptr<PointReader> linearReader( \
        Container<Tr> const&, VoxelTopology<Tr> const&, Channel<Tr, T, Tr::width, 0> const&);
TILEGRID_FOR_REAL_TYPES(TILEGRID_LINEAR_READER)
#undef TILEGRID_LINEAR_READER

}  // namespace tilegrid
