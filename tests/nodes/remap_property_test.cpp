#include "TilegridOps/nodes/property.h"
#include "support/jobs.h"
#include "support/volumes.h"

#include <cmath>
#include <limits>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Geometry::Volume::remap_property;
using Ostara::Math::double3;
using Ostara::Math::float2;
using Ostara::Math::float3;
using Ostara::Math::float3x3;
using Ostara::Math::float4;
using Ostara::Math::float4x2;
using Ostara::Math::float4x4;

template <class Tr, class T> using Plain = Channel<Tr, T, Tr::width, 0>;
template <class T> using Values = std::function<T(TileKey const&, int)>;

template <class Tr, class T>
HostPtr volumeWith(T const& defaultValue, Values<T> const& values, int minDepth = 0, int depth = Tr::maxDepth)
{
    auto volume = nativeVolume<Tr>([](Tree<Tr>& tree) {
        tree.tileAccessor().addTiles({-9, -9, -9}, {9, 9, 9}, Tr::maxDepth);
    });
    addChannel<Plain<Tr, T>>(*volume, "p", defaultValue, values, minDepth, depth);
    return hostVolume(std::move(volume));
}

template <class Tr, class T> HostPtr remapped(HostPtr const& input, T const& newMin, T const& newMax)
{
    Messages messages;
    HostPtr output;
    remap_property(*input, "p", newMin, newMax, output, messages.services());
    EXPECT_TRUE(messages.list().empty());
    return output;
}

/// Whether every element of every stored tile is what `expected` says.
template <class Tr, class T> std::string faults(HostPtr const& volume, Values<T> const& expected)
{
    if (!volume || !volume->native()) return "no volume";
    const auto tree = treeOf<Tr>(*volume->native());
    const auto channel = volume->native()->template component<Plain<Tr, T>>("p");
    if (!tree || !channel) return "no tree or no channel";
    std::ostringstream out;
    for (int d = channel->minDepth(); d <= channel->depth(); ++d)
        for (OST::int64 n = 0; n < tree->tileCount(d); ++n)
            for (int e = 0; e < Tr::voxelCount; ++e) {
                using Element = Ostara::Math::ElementTraits<T>;
                const T got = channel->tileData(n, d)(e), wanted = expected(keyOf(tree->tile(n, d)), e);
                for (int c = 0; c < Element::components; ++c) {
                    const auto g = Element::at(got, c), w = Element::at(wanted, c);
                    if (g == w || (g != g && w != w)) continue;
                    out << keyOf(tree->tile(n, d)) << ", element " << e << ", component " << c << ": " << g
                        << " instead of " << w;
                    return out.str();
                }
            }
    return "";
}

template <class Tr> class RemapProperty : public ::testing::Test {};
TYPED_TEST_SUITE(RemapProperty, Structures, StructureNames);

TYPED_TEST(RemapProperty, of_a_constant_5_with_default_0_gives_the_new_maximum)
{
    const HostPtr input = volumeWith<TypeParam, float>(0.0f, [](auto&&...) { return 5.0f; });
    EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, 10.0f, 20.0f), [](auto&&...) { return 20.0f; })),
              "");
}

TYPED_TEST(RemapProperty, of_zeros_with_default_0_gives_the_new_minimum)
{
    const HostPtr input = volumeWith<TypeParam, float>(0.0f, [](auto&&...) { return 0.0f; });
    EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, 10.0f, 20.0f), [](auto&&...) { return 10.0f; })),
              "");
}

TYPED_TEST(RemapProperty, takes_the_default_value_into_the_range_with_its_sign_reversed_above)
{
    // Default 1, values 2 to 3: the seed is (1, -1), so the range is 1 to 3.
    const auto value = [](TileKey const&, int e) { return 2.0f + float(e % 5) / 4.0f; };
    const HostPtr input = volumeWith<TypeParam, float>(1.0f, value);
    EXPECT_EQ((faults<TypeParam, float>(
                  remapped<TypeParam>(input, 0.0f, 8.0f),
                  [&](TileKey const& key, int e) { return (value(key, e) - 1.0f) / 2.0f * 8.0f + 0.0f; })),
              "");
    // Default -4, values -1 to 1: the seed is (-4, 4), and both ends come from it.
    const auto small = [](TileKey const&, int e) { return float(e % 3) - 1.0f; };
    const HostPtr other = volumeWith<TypeParam, float>(-4.0f, small);
    EXPECT_EQ((faults<TypeParam, float>(
                  remapped<TypeParam>(other, 1.0f, 3.0f),
                  [&](TileKey const& key, int e) { return (small(key, e) - -4.0f) / 8.0f * 2.0f + 1.0f; })),
              "");
}

TYPED_TEST(RemapProperty, gives_the_new_minimum_if_the_range_does_not_open)
{
    // Default 4, constant 4: min 4 and max 4. Default 4 and 2: min 2, max 2.
    for (float constant : {4.0f, 2.0f}) {
        const HostPtr input = volumeWith<TypeParam, float>(4.0f, [constant](auto&&...) { return constant; });
        EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, 7.0f, 9.0f), [](auto&&...) { return 7.0f; })),
                  "")
            << constant;
    }
}

TYPED_TEST(RemapProperty, may_turn_the_range_around_or_close_it)
{
    const auto value = [](TileKey const&, int e) { return float(e % 5); };
    const HostPtr input = volumeWith<TypeParam, float>(0.0f, value);
    EXPECT_EQ((faults<TypeParam, float>(
                  remapped<TypeParam>(input, 6.0f, -2.0f),
                  [&](TileKey const& key, int e) { return (value(key, e) - 0.0f) / 4.0f * -8.0f + 6.0f; })),
              "");
    EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, 6.0f, 6.0f), [](auto&&...) { return 6.0f; })), "");
}

/// Values whose components rise together, so that they are in order whatever the order of elements is.
template <class T> T ramp(TileKey const& key, int e)
{
    using Element = Ostara::Math::ElementTraits<T>;
    T value{};
    for (int c = 0; c < Element::components; ++c)
        Element::at(value, c) = static_cast<typename Element::Scalar>(1 + c)
            * static_cast<typename Element::Scalar>((e * 7 + key.depth) % 11) / 8;
    return value;
}

TYPED_TEST(RemapProperty, works_for_every_overload_component_by_component)
{
    const auto check = [&]<class T>(char const* name) {
        using Element = Ostara::Math::ElementTraits<T>;
        using Scalar = typename Element::Scalar;
        T newMin{}, newMax{};
        for (int c = 0; c < Element::components; ++c) {
            Element::at(newMin, c) = static_cast<Scalar>(c);
            Element::at(newMax, c) = static_cast<Scalar>(0.7) * static_cast<Scalar>(c * c + 3);
        }
        const HostPtr input = volumeWith<TypeParam, T>(T{}, ramp<T>);
        const auto expected = [&](TileKey const& key, int e) {
            T value = ramp<T>(key, e);
            for (int c = 0; c < Element::components; ++c) {
                const Scalar max = static_cast<Scalar>(1 + c) * 10 / 8, min = 0;
                const Scalar range = max - min, outRange = Element::at(newMax, c) - Element::at(newMin, c);
                Element::at(value, c) = (Element::at(value, c) - min) / range * outRange + Element::at(newMin, c);
            }
            return value;
        };
        EXPECT_EQ((faults<TypeParam, T>(remapped<TypeParam>(input, newMin, newMax), expected)), "") << name;
    };
    check.template operator()<float>("float");
    check.template operator()<double>("double");
    check.template operator()<double3>("double3");
    check.template operator()<float2>("float2");
    check.template operator()<float3>("float3");
    check.template operator()<float3x3>("float3x3");
    check.template operator()<float4>("float4");
    check.template operator()<float4x2>("float4x2");
    check.template operator()<float4x4>("float4x4");
}

TYPED_TEST(RemapProperty, needs_all_components_closed_to_give_the_new_minimum)
{
    // The default (0,2,0) puts the seed at (0,2,0) and (0,-2,0); no value beats it, and the range is (0,-4,0).
    const HostPtr closed = volumeWith<TypeParam, float3>(float3(0, 2, 0), [](auto&&...) { return float3(0, 2, 0); });
    EXPECT_EQ((faults<TypeParam, float3>(remapped<TypeParam>(closed, float3(1, 2, 3), float3(4, 5, 6)),
                                         [](auto&&...) { return float3(1, 2, 3); })),
              "");
    // The default (-1,0,0) opens the range to (2,-0,-0), the upper end being (1,-0,-0): two components divide by a negative
    // zero, and nothing guards them.
    const HostPtr open = volumeWith<TypeParam, float3>(float3(-1, 0, 0), [](auto&&...) { return float3(1, 0, 5); });
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    EXPECT_EQ((faults<TypeParam, float3>(remapped<TypeParam>(open, float3(1, 2, 3), float3(4, 5, 6)),
                                         [&](auto&&...) { return float3(4, nan, -inf); })),
              "");
}

TYPED_TEST(RemapProperty, reaches_the_stored_depths_only_and_leaves_the_input_alone)
{
    constexpr int D = TypeParam::maxDepth;
    const auto value = [](TileKey const& key, int e) { return float(key.depth + e % 3); };
    const HostPtr input = volumeWith<TypeParam, float>(0.0f, value, 3, D - 2);
    const HostPtr output = remapped<TypeParam>(input, 0.0f, 1.0f);
    EXPECT_EQ((faults<TypeParam, float>(
                  output, [&](TileKey const& key, int e) { return (value(key, e) - 0.0f) / float(D) * 1.0f + 0.0f; })),
              "");
    EXPECT_EQ((faults<TypeParam, float>(input, value)), "") << "the input never changes";
    const auto channel = output->native()->template component<Plain<TypeParam, float>>("p");
    EXPECT_EQ(channel->minDepth(), 3);
    EXPECT_EQ(channel->depth(), D - 2);
    EXPECT_EQ(channel->defaultValue(), 0.0f);
}

TYPED_TEST(RemapProperty, of_another_type_or_layout_or_name_returns_the_volume_unchanged)
{
    const auto value = [](TileKey const&, int e) { return float(e); };
    const HostPtr input = volumeWith<TypeParam, float>(0.0f, value);
    EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, float3(1, 1, 1), float3(2, 2, 2)), value)), "");
    EXPECT_EQ((faults<TypeParam, float>(remapped<TypeParam>(input, 1.0, 2.0), value)), "");
    Messages messages;
    HostPtr output;
    remap_property(*input, "q", 1.0f, 2.0f, output, messages.services());
    EXPECT_EQ((faults<TypeParam, float>(output, value)), "");

    using Halo = Channel<TypeParam, float, TypeParam::width, 1>;
    auto volume = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTile(0, 0, 0, 1); });
    addChannel<Halo>(*volume, "p", 0.0f, value);
    const HostPtr haloInput = hostVolume(std::move(volume)), haloOutput = remapped<TypeParam>(haloInput, 1.0f, 2.0f);
    const auto halo = haloOutput->native()->template component<Halo>("p");
    ASSERT_TRUE(halo);
    for (int e = 0; e < halo->tileData(0).size(); ++e) EXPECT_EQ(halo->tileData(0)(e), float(e));
    EXPECT_TRUE(messages.list().empty());
}

TYPED_TEST(RemapProperty, of_an_empty_volume_returns_it)
{
    auto volume = nativeVolume<TypeParam>([](Tree<TypeParam>&) {});
    addChannel<Plain<TypeParam, float>>(*volume, "p", 0.0f, [](auto&&...) { return 0.0f; });
    const HostPtr output = remapped<TypeParam>(hostVolume(std::move(volume)), 1.0f, 2.0f);
    ASSERT_TRUE(output && output->native());
    EXPECT_TRUE(output->native()->hasComponentFromName("p"));
    EXPECT_TRUE(treeOf<TypeParam>(*output->native())->empty());
}

TYPED_TEST(RemapProperty, gives_the_same_bytes_on_any_number_of_threads)
{
    const auto value = [](TileKey const& key, int e) { return std::sin(float(e + key.low[0] * 3 + key.low[1])); };
    const HostPtr input = volumeWith<TypeParam, float>(0.25f, value);
    std::vector<std::vector<float>> results;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            const HostPtr output = remapped<TypeParam>(input, -1.5f, 7.25f);
            const auto channel = output->native()->template component<Plain<TypeParam, float>>("p");
            results.emplace_back();
            for (OST::int64 n = 0; n < channel->tileCount(-1); ++n)
                results.back().insert(results.back().end(), channel->tileData(n).begin(), channel->tileData(n).end());
        });
    EXPECT_TRUE(results[0] == results[1] && results[0] == results[2]);
    EXPECT_FALSE(results[0].empty());
}

}  // namespace
}  // namespace tilegrid::test
