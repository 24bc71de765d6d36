#include "TilegridOps/algorithms/field_reader.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/instances.h"

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

template <class Tr, class T> using LinearSampler = VoxelSamplerLinear<Tr, T, 1, float, float3, 0, 0, 1, 0>;

/// Keeps alive what the samplers refer to.
template <class Tr, class T> struct Source {
    Corvid::Ptr<Container<Tr>> tree;
    Corvid::Ptr<VoxelTopology<Tr>> topology;
    Corvid::Ptr<Channel<Tr, T, Tr::width, 0>> channel;
    /// Null unless it was made.
    std::shared_ptr<Channel<Tr, T, Tr::width + 1, 0>> halos;
};

template <class Tr, class T> class LinearReader final : public FieldReader<T> {
public:
    explicit LinearReader(Source<Tr, T> source)
        : source_(std::move(source)), sampler_(source_.halos ? LinearSampler<Tr, T>(*source_.tree, *source_.topology, source_.halos.get())
                                                              : LinearSampler<Tr, T>(*source_.tree, *source_.topology, source_.channel.get()))
    {
    }
    std::unique_ptr<FieldReader<T>> copy() const override { return std::make_unique<LinearReader>(*this); }
    void read(float3 const* places, int count, int depth, T* values) override
    {
        for (int n = 0; n < count; ++n) values[n] = sampler_.sampleLinear(places[n], depth, kTileSpace);
    }
    T defaultValue() const override { return source_.channel->defaultValue(); }

private:
    Source<Tr, T> source_;
    LinearSampler<Tr, T> sampler_;
};

template <class Tr, class T> class CubicReader final : public FieldReader<T> {
public:
    CubicReader(Source<Tr, T> source, CubicMode mode)
        : source_(std::move(source)), sampler_(*source_.tree, *source_.topology, source_.channel.get(), mode, /*clampOutput*/ true,
                                               JumpPolicy::kTrilinearAtJump, nullptr, 0, 0)
    {
    }
    std::unique_ptr<FieldReader<T>> copy() const override { return std::make_unique<CubicReader>(*this); }
    void read(float3 const* places, int count, int depth, T* values) override
    {
        for (int n = 0; n < count; ++n) values[n] = sampler_.sampleCubic(places[n], depth, kTileSpace);
    }
    T defaultValue() const override { return source_.channel->defaultValue(); }

private:
    Source<Tr, T> source_;
    CubicSampler<Tr, T> sampler_;
};

}  // namespace

template <class Tr, class T>
std::unique_ptr<FieldReader<T>> makeFieldReader(OST::Object const& volume, Corvid::String const& property, InterpolationMode interpolation)
{
    Source<Tr, T> source{volume.component<Container<Tr>>(sVoxelTileTree), volume.component<VoxelTopology<Tr>>(sVoxelComp),
                         volume.component<Channel<Tr, T, Tr::width, 0>>(property), nullptr};
    if (!source.tree || !source.topology || !source.channel) return nullptr;
    if (interpolation != kLinear) return std::make_unique<CubicReader<Tr, T>>(std::move(source), cubicMode(interpolation));
    if (source.topology->offsetType() == kCorner) {
        const T outside = source.channel->defaultValue();
        source.halos = std::make_shared<Channel<Tr, T, Tr::width + 1, 0>>(Corvid::String(), &outside, kInitializeNone, /*poolBacked*/ true,
                                                                          /*callElementConstructor*/ false, source.channel->minDepth(),
                                                                          source.channel->depth());
        source.halos->updateTilesAdded(*source.tree);
        computeHalo<Tr, T, 0, 0, 1, 0>(*source.channel, *source.tree, *source.halos, -1, -1);
    }
    return std::make_unique<LinearReader<Tr, T>>(std::move(source));
}

#define TILEGRID_INSTANTIATE_FOR(Tr, T) \
    template std::unique_ptr<FieldReader<T>> makeFieldReader<Tr, T>(OST::Object const&, Corvid::String const&, InterpolationMode);
TILEGRID_FOR_REAL_TYPES(TILEGRID_INSTANTIATE_FOR)

}  // namespace tilegrid
