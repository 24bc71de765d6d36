#pragma once
#include "TilegridOps/substrate/element_types.h"

#include <array>

namespace tilegrid {

/// The types of properties that are merged, in the order in which a property is looked for.
using MergeTypes = TypeList<float, Ostara::Math::float2, Ostara::Math::float3, Ostara::Math::float4, Ostara::Math::float3x3,
                            Ostara::Math::float4x2, Ostara::Math::float4x4, double, Ostara::Math::double3>;

/// What passes need to know of one of these types.
struct ElementKind {
    /// Place in `MergeTypes`, -1 for none.
    int number = -1;
    int components = 0;
    bool isDouble = false;
    explicit operator bool() const { return number >= 0; }
    friend bool operator==(ElementKind const&, ElementKind const&) = default;
};

inline constexpr int kFloatKind = 0;

/// Calls `f.template operator()<T>()` for the types in order until it returns true.
/// \return the kind of that type, or none
template <class F> ElementKind firstKind(F&& f)
{
    ElementKind kind;
    int number = 0;
    const auto attempt = [&]<class T>() {
        using Element = Ostara::Math::ElementTraits<T>;
        if (!f.template operator()<T>()) return ++number, false;
        kind = {number, Element::components, std::is_same_v<typename Element::Scalar, double>};
        return true;
    };
    [&]<class... Ts>(TypeList<Ts...>) { (void)(attempt.template operator()<Ts>() || ...); }(MergeTypes());
    return kind;
}

/// The type under which a volume holds a plain channel of structure Tr.
template <class Tr> ElementKind plainKindOf(OST::Object const& volume, Corvid::String const& name)
{
    const auto component = volume.component<OST::Component>(name);
    if (!component) return {};
    return firstKind([&]<class T>() {
        return dynamic_cast<OST::TileTree3D::Channel<Tr, T, Tr::width, 0> const*>(component.get()) != nullptr;
    });
}

}  // namespace tilegrid
