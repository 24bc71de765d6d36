#pragma once
#include "TilegridOps/substrate/element_types.h"

#include <string>

namespace tilegrid::test {

namespace detail {
template <class Tr, class T, class F> void forEachLayout(F& f)
{
    using OST::TileTree3D::Channel;
    f.template operator()<Channel<Tr, T, Tr::width, 0>>();
    f.template operator()<Channel<Tr, T, Tr::width + 1, 0>>();
    f.template operator()<Channel<Tr, T, Tr::width, 1>>();
}
}  // namespace detail

/// Calls `f.operator()<C>()` for the channel types C of all 18 element types in the three layouts of a structure.
template <class Tr, class F> void forEachChannelType(F f)
{
    [&]<class... Ts>(TypeList<Ts...>) { (detail::forEachLayout<Tr, Ts>(f), ...); }(ElementTypes());
}

template <class C> std::string channelTypeName()
{
    return std::string(elementTypeName<typename C::Element>()) + ", " + std::to_string(C::voxels) + " voxels, halo "
        + std::to_string(C::halo);
}

/// Sentences that turned out false. Not a template, so that checks over many types compile fast.
class Findings {
public:
    void expect(bool holds, char const* sentence)
    {
        if (!holds && text_.find(sentence) == std::string::npos) text_ += std::string(sentence) + "\n";
    }
    std::string const& text() const { return text_; }

private:
    std::string text_;
};

}  // namespace tilegrid::test
