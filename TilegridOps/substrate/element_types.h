#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/channel.h"

/// Element types and layouts as data. The order of the lists is the order in which a property is looked for.
namespace tilegrid {

template <class... Ts> struct TypeList {};

using ElementTypes = TypeList<float, Ostara::Math::float2, Ostara::Math::float3, Ostara::Math::float4, Ostara::Math::float3x3,
                              Ostara::Math::float4x2, Ostara::Math::float4x4, double, Ostara::Math::double3, signed char, short, int,
                              Ostara::Math::int3, OST::int64, unsigned char, unsigned short, unsigned int, OST::uint64>;

/// The name of an element type as people write it ("float", "float3", "int64", ...).
template <class T> constexpr char const* elementTypeName();
template <> constexpr char const* elementTypeName<float>() { return "float"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float2>() { return "float2"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float3>() { return "float3"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float4>() { return "float4"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float3x3>() { return "float3x3"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float4x2>() { return "float4x2"; }
template <> constexpr char const* elementTypeName<Ostara::Math::float4x4>() { return "float4x4"; }
template <> constexpr char const* elementTypeName<double>() { return "double"; }
template <> constexpr char const* elementTypeName<Ostara::Math::double3>() { return "double3"; }
template <> constexpr char const* elementTypeName<signed char>() { return "signed char"; }
template <> constexpr char const* elementTypeName<short>() { return "short"; }
template <> constexpr char const* elementTypeName<int>() { return "int"; }
template <> constexpr char const* elementTypeName<Ostara::Math::int3>() { return "int3"; }
template <> constexpr char const* elementTypeName<OST::int64>() { return "int64"; }
template <> constexpr char const* elementTypeName<unsigned char>() { return "unsigned char"; }
template <> constexpr char const* elementTypeName<unsigned short>() { return "unsigned short"; }
template <> constexpr char const* elementTypeName<unsigned int>() { return "unsigned int"; }
template <> constexpr char const* elementTypeName<OST::uint64>() { return "uint64"; }

/// Calls `op.template operator()<C>()` with the channel type C under which the object holds `name`, in the order plain,
/// compressed halo, halo within an element type. The first match ends the search.
/// \return true if there was one
template <class Tr, class T, class Op> bool tryLayouts(OST::Object const& object, Corvid::String const& name, Op& op)
{
    constexpr int W = Tr::width;
    const auto attempt = [&]<class C>() {
        if (!object.hasComponentFromName<C>(name)) return false;
        op.template operator()<C>();
        return true;
    };
    using OST::TileTree3D::Channel;
    return attempt.template operator()<Channel<Tr, T, W, 0>>() || attempt.template operator()<Channel<Tr, T, W + 1, 0>>() ||
           attempt.template operator()<Channel<Tr, T, W, 1>>();
}

/// The same over all 18 element types of one structure.
template <class Tr, class Op> bool tryElements(OST::Object const& object, Corvid::String const& name, Op&& op)
{
    return [&]<class... Ts>(TypeList<Ts...>) { return (tryLayouts<Tr, Ts>(object, name, op) || ...); }(ElementTypes());
}

}  // namespace tilegrid
