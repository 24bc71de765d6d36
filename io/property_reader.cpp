#include "io/property_reader.h"

#include "TilegridOps/sampling/voxel_sampler_cubic.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "io/plain_channel.h"
#include "io/volume_access.h"

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

template <class T> void writeComponents(T const& value, double* out)
{
    using Traits = Ostara::Math::ElementTraits<T>;
    for (int c = 0; c < Traits::components; ++c) out[c] = static_cast<double>(Traits::at(value, c));
}

template <class Tr, class T> class LinearReader final : public PlaceReader {
public:
    using Sampler = VoxelSamplerLinear<Tr, T, 1, float, float3, 0, 0, 1, 0>;
    explicit LinearReader(Sampler const& sampler) : sampler_(sampler) {}
    void read(float3 const& place, double* components) const override
    {
        writeComponents<T>(sampler_.sampleLinear(place, Tr::maxDepth, kTileSpace), components);
    }

private:
    Sampler sampler_;
};

template <class Tr, class T> class CubicReader final : public PlaceReader {
public:
    explicit CubicReader(CubicSampler<Tr, T> const& sampler) : sampler_(sampler) {}
    void read(float3 const& place, double* components) const override
    {
        writeComponents<T>(sampler_.sampleCubic(place, Tr::maxDepth, kTileSpace), components);
    }

private:
    CubicSampler<Tr, T> sampler_;
};

CubicMode cubicModeOf(SampleMode mode)
{
    switch (mode) {
        case SampleMode::kCubic: return CubicMode::kCubicC0;
        case SampleMode::kCubicC1: return CubicMode::kCubicC1;
        case SampleMode::kCubicMonotonic: return CubicMode::kCubicC1Monotonic;
        default: return CubicMode::kQuadraticC0Averaged;
    }
}

/// \param owner  keeps the channel
template <class Tr, class T>
PropertyReaders readersFor(Container<Tr> const& tree, VoxelTopology<Tr> const& topology,
                           PlainChannel<Tr, T> const& channel, std::shared_ptr<void const> owner, SampleMode mode)
{
    PropertyReaders readers;
    readers.components = Ostara::Math::ElementTraits<T>::components;
    if (mode == SampleMode::kLinear)
        readers.make = [&tree, &topology, &channel, owner] {
            return std::make_unique<LinearReader<Tr, T>>(typename LinearReader<Tr, T>::Sampler(tree, topology, &channel));
        };
    else
        readers.make = [&tree, &topology, &channel, owner, kind = cubicModeOf(mode)] {
            // The kernels for jumps place samples at the low corners of voxels.
            const auto jumps = topology.offsetType() == kCorner ? JumpPolicy::kHierarchical : JumpPolicy::kTrilinearAtJump;
            return std::make_unique<CubicReader<Tr, T>>(CubicSampler<Tr, T>(tree, topology, &channel, kind, /*clampOutput*/ false, jumps,
                                                                            nullptr, /*dofMask*/ 0, /*haloCacheCapacity*/ 0));
        };
    return readers;
}

}  // namespace

PropertyReaders readersOf(Ostara::Object const& volume, std::string const& property, SampleMode mode)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            PropertyReaders readers;
            const Corvid::String name(property);
            const bool found = tryElements<Tr>(native, name, [&]<class C>() {
                using T = typename C::Element;
                if constexpr (canInterpolate<T>) {
                    const auto channel = native.component<C>(name);
                    if constexpr (std::is_same_v<C, PlainChannel<Tr, T>>) {
                        readers = readersFor<Tr, T>(tree, topology, *channel, std::make_shared<Corvid::Ptr<C>>(channel), mode);
                    } else {
                        const auto copy = std::make_shared<PlainChannel<Tr, T>>(plainCopy<Tr>(tree, *channel));
                        readers = readersFor<Tr, T>(tree, topology, *copy, copy, mode);
                    }
                }
            });
            if (!found) throw InputError("the volume has no property '" + property + "'");
            return readers;
        });
}

}  // namespace tilegrid::io
