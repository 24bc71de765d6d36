#include "merge_volumes.h"

namespace tilegrid::test {
namespace {

using namespace Ostara::Math;

constexpr float kSize = 0.25f;

/// A value that differs from voxel to voxel and between components; some are 0, some negative.
template <class T> T noiseOf(TileKey const& key, int flat, std::uint64_t seed)
{
    using Element = ElementTraits<T>;
    T value{};
    for (int c = 0; c < Element::components; ++c) {
        std::uint64_t h = seed + std::uint64_t(c) * 977 + std::uint64_t(flat) * 131071;
        for (std::int64_t x : key.low) h = Random::mixed(h + std::uint64_t(x));
        h = Random::mixed(h + std::uint64_t(key.depth));
        Element::at(value, c) = typename Element::Scalar(double(h % 17) - 4) / 8;
    }
    return value;
}

/// A small cube of the finest tiles around the origin, and their ancestors.
template <class Tr> Corvid::MutablePtr<Native> block()
{
    return nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTiles({-6, -6, -6}, {6, 6, 6}, Tr::maxDepth); }, kSize);
}
template <class Tr, class T> void addNoise(Native& volume, Corvid::String const& name, std::uint64_t seed)
{
    addChannel<Plain<Tr, T>>(volume, name, T(0.75f), [seed](TileKey const& key, int flat) { return noiseOf<T>(key, flat, seed); });
}
template <class Tr> void addLevelSet(Native& volume, Distance const& distance)
{
    addField<Tr, float>(volume, sVoxelSignedDistance, 3 * kSize, [&](World const& p) { return float(distance(p)); });
}
template <class Tr, class T> HostPtr noiseVolume(std::uint64_t seed, Corvid::String const& name = "p")
{
    auto volume = block<Tr>();
    addNoise<Tr, T>(*volume, name, seed);
    return hostVolume(std::move(volume));
}

/// The definitions of the modes, on one number.
template <class S> S combined(int mode, S alpha, S o, S s)
{
    switch (mode) {
        case 0: return o + s;
        case 1: return o - s;
        case 2: return s > std::numeric_limits<S>::epsilon() ? o / s : o;
        case 3: return o * s;
        case 4: return o > s ? s : o;
        case 5: return s > o ? s : o;
        case 6: return (s + o) * S(0.5);
        case 7: return (S(1) - o) * s;
        case 8: return (S(1) - o) * s + o;
        case 9: return (S(1) - alpha) * o + alpha * s;
        default: return o;
    }
}

/// Voxels of the finest depth, which alone are read from where they are.
template <class Tr, class T> std::map<TileKey, std::vector<T>> finest(HostPtr const& volume, Corvid::String const& name = "p")
{
    auto values = valuesByTile<Tr, T>(volume, name);
    std::erase_if(values, [](auto const& entry) { return entry.first.depth != Tr::maxDepth; });
    return values;
}

template <class T> T const& componentOf(T const& v, int) { return v; }
template <Composite V> typename V::Scalar componentOf(V const& v, int c) { return v[c]; }

template <class Tr, class T> void checkMode(int mode, float alpha)
{
    using Element = ElementTraits<T>;
    using Scalar = typename Element::Scalar;
    const HostPtr a = noiseVolume<Tr, T>(1), b = noiseVolume<Tr, T>(2);
    MergeCase c;
    c.properties = PropertiesMode(mode);
    c.alpha = alpha;
    const auto result = finest<Tr, T>(merge({a, b}, c), "p"), first = finest<Tr, T>(a), second = finest<Tr, T>(b);
    ASSERT_EQ(result.size(), first.size());
    ASSERT_GT(result.size(), 0u);
    for (auto const& [key, values] : result)
        for (std::size_t n = 0; n < values.size(); ++n)
            for (int k = 0; k < Element::components; ++k) {
                // Without level sets the automatic mode adds.
                const Scalar expected = combined<Scalar>(mode == 10 ? 0 : mode, Scalar(alpha), componentOf(first.at(key)[n], k), componentOf(second.at(key)[n], k));
                ASSERT_EQ(componentOf(values[n], k), expected) << "mode " << mode << " component " << k << " of voxel " << n << " in " << key;
            }
}

template <class Tr> class MergedProperties : public ::testing::Test {};
TYPED_TEST_SUITE(MergedProperties, Structures, StructureNames);

TYPED_TEST(MergedProperties, follow_the_formula_of_each_mode_in_each_component)
{
    for (int mode = 0; mode <= 11; ++mode) {
        checkMode<TypeParam, float>(mode, 0.25f);
        checkMode<TypeParam, float3>(mode, 0.25f);
        checkMode<TypeParam, float4x4>(mode, 0.25f);
        checkMode<TypeParam, double>(mode, 0.25f);
    }
}

TYPED_TEST(MergedProperties, of_the_other_types_add_up_component_by_component)
{
    checkMode<TypeParam, float2>(0, 0.5f);
    checkMode<TypeParam, float4>(0, 0.5f);
    checkMode<TypeParam, float3x3>(0, 0.5f);
    checkMode<TypeParam, float4x2>(0, 0.5f);
    checkMode<TypeParam, double3>(0, 0.5f);
}

/// One property with the same value everywhere in each volume; what the result holds.
template <class Tr> float mergedConstants(PropertiesMode mode, float alpha, std::vector<float> const& values)
{
    std::vector<HostPtr> volumes;
    for (float value : values) {
        auto volume = block<Tr>();
        addField<Tr, float>(*volume, "p", value, [value](World const&) { return value; });
        volumes.push_back(hostVolume(std::move(volume)));
    }
    MergeCase c;
    c.properties = mode;
    c.alpha = alpha;
    return finest<Tr, float>(merge(volumes, c)).begin()->second[0];
}

TYPED_TEST(MergedProperties, divided_by_zero_keep_their_value)
{
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kDivide, 0, {3.0f, 0.0f}), 3.0f);
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kDivide, 0, {3.0f, -2.0f}), 3.0f);
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kDivide, 0, {3.0f, 1.1920929e-7f}), 3.0f);
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kDivide, 0, {3.0f, 2.0f}), 1.5f);
}

TYPED_TEST(MergedProperties, blended_with_weight_0_are_those_of_the_first_and_with_weight_1_those_of_the_last)
{
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kBlend, 0.0f, {3.0f, 5.0f, 7.0f}), 3.0f);
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kBlend, 1.0f, {3.0f, 5.0f, 7.0f}), 7.0f);
}

TYPED_TEST(MergedProperties, inversely_multiplied_are_the_complement_times_the_next)
{
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kInverseMultiply, 0, {0.25f, 0.5f}), 0.375f);
}

TYPED_TEST(MergedProperties, come_in_the_order_of_the_volumes_or_the_inverted_one)
{
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode::kSubtract, 0, {8.0f, 2.0f, 1.0f}), 5.0f);
    const HostPtr a = noiseVolume<TypeParam, float>(1), b = noiseVolume<TypeParam, float>(2);
    MergeCase c;
    for (int mode : {1, 2, 7, 8, 9}) {
        c.properties = PropertiesMode(mode);
        c.invertOrder = false;
        const auto ba = finest<TypeParam, float>(merge({b, a}, c));
        c.invertOrder = true;
        EXPECT_EQ(bitDifference(finest<TypeParam, float>(merge({a, b}, c)), ba), "") << "mode " << mode;
    }
}

TYPED_TEST(MergedProperties, of_a_mode_without_a_name_stay_those_of_the_first)
{
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode(11), 0, {3.0f, 5.0f}), 3.0f);
    EXPECT_EQ(mergedConstants<TypeParam>(PropertiesMode(-1), 0, {3.0f, 5.0f}), 3.0f);
}

/// Two overlapping half spaces with the property 1 in the first and 2 in the second.
template <class Tr> std::vector<HostPtr> halfSpaces(Distance const& first, Distance const& second, bool fogInSecond = false)
{
    std::vector<HostPtr> volumes;
    for (int n = 0; n < 2; ++n) {
        auto volume = block<Tr>();
        addLevelSet<Tr>(*volume, n == 0 ? first : second);
        const float value = float(n + 1);
        addField<Tr, float>(*volume, "p", 0.0f, [value](World const&) { return value; });
        if (fogInSecond && n == 1) addField<Tr, float>(*volume, sVoxelFogDensity, 0.0f, [](World const&) { return 1.0f; });
        volumes.push_back(hostVolume(std::move(volume)));
    }
    return volumes;
}

TYPED_TEST(MergedProperties, are_those_of_the_volume_whose_level_set_wins_and_of_the_later_one_in_a_tie)
{
    const Distance left = [](World const& p) { return p[0]; }, right = [](World const& p) { return -p[0]; };
    for (LevelSetMode mode : {LevelSetMode::kUnion, LevelSetMode::kIntersection, LevelSetMode::kDifference}) {
        MergeCase c;
        c.levelSet = mode;
        const auto result = finest<TypeParam, float>(merge(halfSpaces<TypeParam>(left, right), c));
        bool wonByFirst = false, wonBySecond = false;
        for (auto const& [key, values] : result)
            for (int flat = 0; flat < TypeParam::voxelCount; ++flat) {
                const double x = placeOf<TypeParam>(key, flat, kSize, 7)[0];
                const double o = x, s = mode == LevelSetMode::kDifference ? x : -x;
                const bool second = mode == LevelSetMode::kUnion ? s <= o : s >= o;
                EXPECT_EQ(values[std::size_t(flat)], second ? 2.0f : 1.0f) << "mode " << int(mode) << " at x = " << x;
                (second ? wonBySecond : wonByFirst) = true;
            }
        EXPECT_TRUE(wonBySecond);
        EXPECT_EQ(wonByFirst, mode != LevelSetMode::kDifference) << "the two are equal everywhere in the difference";
    }
}

TYPED_TEST(MergedProperties, of_a_level_set_mode_without_a_name_stay_those_of_the_first)
{
    const Distance left = [](World const& p) { return p[0]; }, right = [](World const& p) { return -p[0]; };
    MergeCase c;
    c.levelSet = LevelSetMode(3);
    const auto volumes = halfSpaces<TypeParam>(left, right);
    const HostPtr result = merge(volumes, c);
    for (auto const& [key, values] : finest<TypeParam, float>(result))
        for (float v : values) EXPECT_EQ(v, 1.0f);
    EXPECT_EQ(bitDifference(finest<TypeParam, float>(result, sVoxelSignedDistance), finest<TypeParam, float>(volumes[0], sVoxelSignedDistance)), "");
}

/// The automatic mode row by row: what a property with value 2 in the second volume and 5 in the first becomes.
template <class Tr> float automatic(bool fog, bool levelSetInFirst, bool levelSetInSecond)
{
    std::vector<HostPtr> volumes;
    for (int n = 0; n < 2; ++n) {
        auto volume = block<Tr>();
        // The second lies inside the first, so that it wins a union nowhere.
        if (n == 0 ? levelSetInFirst : levelSetInSecond) addLevelSet<Tr>(*volume, [n](World const&) { return n == 0 ? -2.0 : -1.0; });
        if (fog) addField<Tr, float>(*volume, sVoxelFogDensity, 0.0f, [n](World const&) { return n == 0 ? 7.0f : 3.0f; });
        addField<Tr, float>(*volume, "p", 0.0f, [n](World const&) { return n == 0 ? 5.0f : 2.0f; });
        volumes.push_back(hostVolume(std::move(volume)));
    }
    MergeCase c;
    c.fog = FogDensityMode::kMultiply;
    return finest<Tr, float>(merge(volumes, c)).begin()->second[0];
}

TYPED_TEST(MergedProperties, add_in_automatic_mode_where_the_volume_has_both_fog_and_level_set)
{
    EXPECT_EQ(automatic<TypeParam>(true, true, true), 7.0f) << "although it is known who wins";
    EXPECT_EQ(automatic<TypeParam>(true, false, true), 7.0f);
}
TYPED_TEST(MergedProperties, follow_the_fog_in_automatic_mode_where_the_volume_has_only_fog)
{
    EXPECT_EQ(automatic<TypeParam>(true, false, false), 10.0f);
}
TYPED_TEST(MergedProperties, add_in_automatic_mode_where_the_volume_has_neither)
{
    EXPECT_EQ(automatic<TypeParam>(false, false, false), 7.0f);
}
TYPED_TEST(MergedProperties, follow_the_winner_in_automatic_mode_where_level_sets_were_merged)
{
    EXPECT_EQ(automatic<TypeParam>(false, true, true), 5.0f);
}
TYPED_TEST(MergedProperties, follow_the_fog_mode_in_automatic_mode_where_the_level_set_is_the_first)
{
    EXPECT_EQ(automatic<TypeParam>(false, false, true), 10.0f);
}

TYPED_TEST(MergedProperties, of_the_second_volume_only_hold_its_default_where_only_the_first_has_tiles)
{
    auto first = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTile(-500, 0, 0, TypeParam::maxDepth); }, kSize);
    addField<TypeParam, float>(*first, "other", 1.0f, [](World const&) { return 1.0f; });
    // The second has data at the finest depth alone, so that nothing coarser shows through.
    auto second = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTile(500, 0, 0, TypeParam::maxDepth); }, kSize);
    addChannel<Plain<TypeParam>>(*second, "p", 0.5f, [](TileKey const&, int) { return 4.0f; }, TypeParam::maxDepth, TypeParam::maxDepth);
    const auto result = finest<TypeParam, float>(merge({hostVolume(std::move(first)), hostVolume(std::move(second))}));
    ASSERT_EQ(result.size(), 2u);
    for (auto const& [key, values] : result)
        for (float v : values) EXPECT_EQ(v, key.low[0] > 0 ? 4.0f : 0.5f) << key;
}

TYPED_TEST(MergedProperties, of_one_name_and_two_types_are_those_of_the_first_volume)
{
    const HostPtr a = noiseVolume<TypeParam, float3>(1), b = noiseVolume<TypeParam, double>(2);
    const HostPtr result = merge({a, b});
    EXPECT_EQ(bitDifference(finest<TypeParam, float3>(result), finest<TypeParam, float3>(a)), "");
    const HostPtr other = merge({b, a});
    EXPECT_FALSE((channelIn<TypeParam, float3>(other, "p")));
    EXPECT_EQ(bitDifference(finest<TypeParam, double>(other), finest<TypeParam, double>(b)), "");
}

TYPED_TEST(MergedProperties, that_are_whole_numbers_are_left_away)
{
    auto volume = block<TypeParam>();
    addChannel<Plain<TypeParam, int>>(*volume, "labels", 0, [](TileKey const&, int) { return 1; });
    const HostPtr a = hostVolume(std::move(volume)), result = merge({a, a});
    EXPECT_FALSE(result->native()->hasComponentFromName("labels"));
}

TYPED_TEST(MergedProperties, of_fog_follow_their_own_mode_whatever_that_of_others_is)
{
    for (int mode = 0; mode <= 10; ++mode) {
        const HostPtr a = noiseVolume<TypeParam, float>(1, sVoxelFogDensity), b = noiseVolume<TypeParam, float>(2, sVoxelFogDensity);
        MergeCase c;
        c.fog = FogDensityMode(mode);
        c.properties = PropertiesMode::kMaximum;
        c.alpha = 0.25f;
        const auto result = finest<TypeParam, float>(merge({a, b}, c), sVoxelFogDensity);
        const auto first = finest<TypeParam, float>(a, sVoxelFogDensity), second = finest<TypeParam, float>(b, sVoxelFogDensity);
        for (auto const& [key, values] : result)
            for (std::size_t n = 0; n < values.size(); ++n)
                ASSERT_EQ(values[n], combined<float>(mode <= 9 ? mode : 0, 0.25f, first.at(key)[n], second.at(key)[n])) << "mode " << mode;
    }
}

}  // namespace
}  // namespace tilegrid::test
