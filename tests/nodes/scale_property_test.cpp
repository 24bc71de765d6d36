#include "TilegridOps/nodes/property.h"
#include "support/channel_types.h"
#include "support/output.h"
#include "support/volumes.h"

#include <cmath>
#include <limits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Geometry::Volume::scale_property;

/// The product that an element of one number has to become. Integers: the float product cut towards zero, compared with the
/// ends of the type in more digits than any of them has.
template <class T> T product(T value, float factor)
{
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(factor) * value;
    } else {
        const float f = factor * static_cast<float>(value);
        if (std::isnan(f)) return 0;
        const long double cut = std::trunc(static_cast<long double>(f));
        if (cut >= static_cast<long double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
        if (cut <= static_cast<long double>(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
        return static_cast<T>(cut);
    }
}

std::uint64_t addressValueOf(TileKey const& key, int n)
{
    std::uint64_t h = static_cast<std::uint64_t>(n) * 0x9e3779b97f4a7c15ull + static_cast<std::uint64_t>(key.depth);
    for (std::int64_t x : key.low) h = Random::mixed(h ^ static_cast<std::uint64_t>(x));
    return h;
}

/// A value worth scaling: small ones of both signs mostly, the ends of the type now and then.
template <class T> T interesting(TileKey const& key, int element)
{
    using Element = Ostara::Math::ElementTraits<T>;
    using Scalar = typename Element::Scalar;
    T value{};
    for (int c = 0; c < Element::components; ++c) {
        const auto h = addressValueOf(key, element * 16 + c);
        Scalar& s = Element::at(value, c);
        switch (h % 9) {
        case 0: s = std::numeric_limits<Scalar>::max(); break;
        case 1: s = std::numeric_limits<Scalar>::lowest(); break;
        case 2: s = 0; break;
        case 3: s = static_cast<Scalar>(std::numeric_limits<Scalar>::max() / 3); break;
        default: s = static_cast<Scalar>(static_cast<int>(h >> 8 & 0xff) - 100); break;
        }
    }
    return value;
}

template <class Tr> Corvid::MutablePtr<Native> smallVolume()
{
    return nativeVolume<Tr>(
        [](Tree<Tr>& tree) {
            tree.tileAccessor().addTiles({-5, -5, -5}, {5, 5, 5}, Tr::maxDepth);
        },
        0.5f);
}

template <class C> std::string faultsAfterScaling(float factor, int minDepth, int depth)
{
    using Tr = typename C::Traits;
    using T = typename C::Element;
    auto volume = smallVolume<Tr>();
    addChannel<C>(*volume, "p", interesting<T>(TileKey(), 5), interesting<T>, minDepth, depth);
    HostPtr output;
    Messages messages;
    scale_property(hostVolume(std::move(volume)), "p", factor, output, messages.services());
    if (!output || !output->native() || !messages.list().empty()) return "no volume came out, or a message";
    const auto tree = treeOf<Tr>(*output->native());
    const auto channel = output->native()->template component<C>("p");
    if (!tree || !channel) return "the tree or the property is gone";
    Findings findings;
    constexpr int side = C::voxels + 2 * C::halo;
    for (int d = 0; d <= Tr::maxDepth; ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n) {
            const auto data = channel->tileData(n, d);
            findings.expect(bool(data) == (d >= minDepth && d <= depth), "the depths of the property are those before");
            if (!data) continue;
            for (int e = 0; e < data.size(); ++e) {
                const int3 at = cubeIndex(side, e) - int3(C::halo);
                const bool voxel = std::min({at.x, at.y, at.z}) >= 0 && std::max({at.x, at.y, at.z}) < Tr::width;
                T expected = interesting<T>(keyOf(tree->tile(n, d)), e);
                using Element = Ostara::Math::ElementTraits<T>;
                for (int c = 0; voxel && c < Element::components; ++c)
                    Element::at(expected, c) = product(Element::at(expected, c), factor);
                for (int c = 0; c < Element::components; ++c) {
                    const auto got = Element::at(data(e), c), wanted = Element::at(expected, c);
                    const bool same = got == wanted || (got != got && wanted != wanted);
                    findings.expect(same, voxel ? "a voxel is not its product" : "an element that is no voxel changed");
                }
            }
        }
    return findings.text();
}

template <class Tr> class ScaleProperty : public ::testing::Test {};
TYPED_TEST_SUITE(ScaleProperty, Structures, StructureNames);

TYPED_TEST(ScaleProperty, multiplies_every_type_in_every_layout_in_its_own_arithmetic)
{
    const float inf = std::numeric_limits<float>::infinity();
    forEachChannelType<TypeParam>([&]<class C>() {
        for (float factor : {2.5f, -1.0f, 0.0f, 0.3f, 1e30f, -1e30f, inf, -inf, 1.0000003f})
            EXPECT_EQ(faultsAfterScaling<C>(factor, 0, TypeParam::maxDepth), "")
                << channelTypeName<C>() << " by " << factor;
        EXPECT_EQ(faultsAfterScaling<C>(3.0f, 2, TypeParam::maxDepth - 1), "")
            << channelTypeName<C>() << " in some depths";
    });
}

TYPED_TEST(ScaleProperty, hands_the_volume_through_for_a_factor_that_counts_as_1)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (float factor : {1.0f, 1.0f + 1e-8f, 1.0f + std::numeric_limits<float>::epsilon(),
                         1.0f - std::numeric_limits<float>::epsilon() / 2, nan}) {
        HostPtr input = hostVolume(smallVolume<TypeParam>()), output;
        Host const* address = input.get();
        void const* native = input->native().get();
        Messages messages;
        scale_property(std::move(input), "p", factor, output, messages.services());
        EXPECT_EQ(output.get(), address) << factor;
        EXPECT_EQ(output->native().get(), native) << "nothing is even moved";
        EXPECT_TRUE(messages.list().empty());
    }
    // The first factor above: 1 + 2 epsilon is a factor like any other.
    HostPtr input = hostVolume(smallVolume<TypeParam>()), output;
    Host const* address = input.get();
    const HostPtr keep = input;
    scale_property(std::move(input), "p", 1.0f + 2 * std::numeric_limits<float>::epsilon(), output,
                   Messages().services());
    EXPECT_NE(output.get(), address);
}

TYPED_TEST(ScaleProperty, with_the_wrong_type_and_a_factor_of_1_still_says_so)
{
    HostPtr output;
    Messages messages;
    scale_property(Ostara::createObject(), "p", 1.0f, output, messages.services());
    EXPECT_EQ(messages.list().size(), 1u);
}

TYPED_TEST(ScaleProperty, leaves_the_volume_as_it_was_if_the_property_is_missing_or_of_no_known_type)
{
    using Odd = Channel<TypeParam, bool, TypeParam::width, 0>;
    using Wide = Channel<TypeParam, float, TypeParam::width, 2>;
    auto volume = smallVolume<TypeParam>();
    addChannel<Odd>(*volume, "odd", false, [](TileKey const&, int e) { return e % 2 == 0; });
    addChannel<Wide>(*volume, "wide", 0.0f, [](TileKey const&, int e) { return float(e); });
    HostPtr volumePtr = hostVolume(std::move(volume));
    for (char const* name : {"missing", "odd", "wide", "", "voxel_tile_tree"}) {
        HostPtr output;
        Messages messages;
        scale_property(volumePtr, name, 7.0f, output, messages.services());
        ASSERT_TRUE(output && output->native()) << name;
        EXPECT_TRUE(messages.list().empty()) << name;
        const auto odd = output->native()->template component<Odd>("odd");
        const auto wide = output->native()->template component<Wide>("wide");
        ASSERT_TRUE(odd && wide && treeOf<TypeParam>(*output->native()));
        for (int e = 0; e < wide->tileData(0).size(); ++e) EXPECT_EQ(wide->tileData(0)(e), float(e));
        for (int e = 0; e < odd->tileData(0).size(); ++e) EXPECT_EQ(odd->tileData(0)(e), e % 2 == 0);
    }
}

TYPED_TEST(ScaleProperty, reports_the_channel_before_and_after_above_verbose_level_0)
{
    using C = Channel<TypeParam, float, TypeParam::width, 0>;
    auto volume = smallVolume<TypeParam>();
    addChannel<C>(*volume, "heat", 0.0f,
                  [](TileKey const& key, int e) { return key.depth == 0 && e == 0 ? -3.0f : 4.0f; });
    const HostPtr input = hostVolume(std::move(volume));
    const VerboseLevel verbose(1);
    const CapturedStream out;
    HostPtr output;
    scale_property(input, "heat", 2.0f, output, Messages().services());
    const auto lines = out.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines.front(), "scale_property.begin");
    EXPECT_EQ(lines.back(), "scale_property.end");
    int before = 0, after = 0;
    for (std::string const& line : lines) {
        const bool isBefore = line.rfind("Scale property before heat", 0) == 0,
                   isAfter = line.rfind("Scale property after heat", 0) == 0;
        before += isBefore;
        after += isAfter;
        if (isBefore || isAfter) {
            for (char const* fragment : {"] : ", " at ", " and "})
                EXPECT_NE(line.find(fragment), std::string::npos) << line;
        }
    }
    EXPECT_GT(before, 0);
    EXPECT_EQ(before, after);
}

}  // namespace
}  // namespace tilegrid::test
