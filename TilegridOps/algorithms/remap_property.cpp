#include "TilegridOps/algorithms/properties.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/channel_services.h"
#include "TilegridOps/substrate/topology.h"

namespace tilegrid {

namespace {

using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

template <class T> T remapped(T const& value, T const& min, T const& range, T const& newMin, T const& newRange)
{
    using Element = Ostara::Math::ElementTraits<T>;
    T result = value;
    for (int c = 0; c < Element::components; ++c)
        Element::at(result, c) =
            (Element::at(value, c) - Element::at(min, c)) / Element::at(range, c) * Element::at(newRange, c) + Element::at(newMin, c);
    return result;
}

template <class Tr, class T>
void remapChannel(Container<Tr> const& tree, Channel<Tr, T, Tr::width, 0>& channel, T const& newMin, T const& newMax)
{
    // The default takes part in the range with its sign turned at the upper end: a positive default opens it downwards only.
    T min = channel.defaultValue();
    using Scalar = typename Ostara::Math::ElementTraits<T>::Scalar;
    T max = Scalar(-1) * channel.defaultValue();
    CoreGL::channelMinMax(tree, channel, std::max(channel.minDepth(), 0), std::min(channel.depth(), Tr::maxDepth), min, max, nullptr, nullptr);
    const T range = max - min, newRange = newMax - newMin;
    const bool flat = range <= T(Scalar(0));

    parallel::loop(0, channel.tileCount(-1), 1, [&](OST::int64 begin, OST::int64 end) {
        for (OST::int64 n = begin; n < end; ++n) {
            const auto values = channel.tileData(n);
            if (flat)
                values.set(newMin);
            else
                for (T& value : values) value = remapped(value, min, range, newMin, newRange);
        }
    });
}

template <class Tr, class T>
void remapIn(OST::Object& volume, Corvid::String const& property, T const& newMin, T const& newMax)
{
    auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
    auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp);
    auto channel = volume.extractComponent<Channel<Tr, T, Tr::width, 0>>(property);
    if (tree && topology && channel && !channel->empty()) remapChannel<Tr, T>(*tree, *channel, newMin, newMax);
    volume.putComponent(std::move(channel));
    volume.putComponent(std::move(topology));
    volume.putComponent(std::move(tree));
}

}  // namespace

template <class T> void remapProperty(OST::Object& volume, Corvid::String const& property, T const& newMin, T const& newMax)
{
    remapIn<BinaryTraits, T>(volume, property, newMin, newMax);
    remapIn<QuinaryTraits, T>(volume, property, newMin, newMax);
}

template void remapProperty(OST::Object&, Corvid::String const&, float const&, float const&);
template void remapProperty(OST::Object&, Corvid::String const&, double const&, double const&);
template void remapProperty(OST::Object&, Corvid::String const&, double3 const&, double3 const&);
template void remapProperty(OST::Object&, Corvid::String const&, Ostara::Math::float2 const&, Ostara::Math::float2 const&);
template void remapProperty(OST::Object&, Corvid::String const&, float3 const&, float3 const&);
template void remapProperty(OST::Object&, Corvid::String const&, Ostara::Math::float3x3 const&, Ostara::Math::float3x3 const&);
template void remapProperty(OST::Object&, Corvid::String const&, Ostara::Math::float4 const&, Ostara::Math::float4 const&);
template void remapProperty(OST::Object&, Corvid::String const&, Ostara::Math::float4x2 const&, Ostara::Math::float4x2 const&);
template void remapProperty(OST::Object&, Corvid::String const&, Ostara::Math::float4x4 const&, Ostara::Math::float4x4 const&);

}  // namespace tilegrid
