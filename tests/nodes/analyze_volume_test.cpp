#include "TilegridOps/nodes/analysis.h"
#include "support/components.h"
#include "support/field_volumes.h"

namespace tilegrid::test {
namespace {

using namespace Geometry::Volume;

template <class Tr> HostPtr twoFields()
{
    auto volume = boxVolume<Tr>(10, Layout::kUniform);
    addField<Tr, float>(*volume, "f", [](double3 const& p) { return float(p.x * p.x + p.y); });
    addField<Tr, float3>(*volume, "v", [](double3 const& p) { return float3(double3(p.y, 2 * p.z, 3 * p.x)); });
    return hostVolume(std::move(volume));
}
HostPtr analyzed(HostPtr const& volume, char const* property, int mode, char const* result, int outputMode = 0)
{
    HostPtr output;
    Messages messages;
    analyze_volume(volume, property, AnalyzeMode(mode), result, AnalyzeOutputMode(outputMode), output, messages.services());
    EXPECT_TRUE(messages.list().empty());
    return output;
}

template <class Tr> class AnalyzeVolume : public ::testing::Test {};
TYPED_TEST_SUITE(AnalyzeVolume, Structures, StructureNames);

TYPED_TEST(AnalyzeVolume, runs_the_operator_of_its_mode)
{
    const HostPtr volume = twoFields<TypeParam>();
    // One voxel in the middle of the box, where every value is known.
    const auto at = [&]<class T>(HostPtr const& result) {
        T found{};
        forLeafVoxels<TypeParam, T>(*result->native(), "r", [&](double3 const& p, T const& v, int, auto const&, int) {
            if (length(p - double3(2, 1, 3)) < 0.1) found = v;
        });
        return found;
    };
    const auto vector = [&](char const* property, int mode) { return at.template operator()<float3>(analyzed(volume, property, mode, "r")); };
    const auto number = [&](char const* property, int mode) { return at.template operator()<float>(analyzed(volume, property, mode, "r")); };
    EXPECT_LE(length(vector("f", 0) - float3(4, 1, 0)), 1e-5f);
    // (yy + zz) x^2 + (xx + zz) y^2 + ... over 2 g^3, with x = 4, y = 1, xx = 2.
    EXPECT_NEAR(number("f", 1), 2 / (2 * std::pow(17.0, 1.5)), 1e-6);
    EXPECT_NEAR(number("f", 2), 2, 1e-5);
    EXPECT_LE(length(double3(vector("f", 3)) - (double3(2, 1, 3) - (5 / std::sqrt(17.0)) * double3(4, 1, 0))), 1e-5);
    EXPECT_NEAR(number("v", 4), 0, 1e-6);
    EXPECT_LE(length(vector("v", 5) - float3(-2, -3, -1)), 1e-5f);
    EXPECT_NEAR(number("v", 6), std::sqrt(1.0 + 36 + 36), 1e-5);
    EXPECT_LE(length(double3(vector("v", 7)) - (1 / std::sqrt(73.0)) * double3(1, 6, 6)), 1e-6);
}

TYPED_TEST(AnalyzeVolume, with_mode_8_returns_the_volume_unchanged_in_content_but_moved_out_and_back)
{
    for (int mode : {8, -1, 1000}) {
        HostPtr volume = twoFields<TypeParam>(), output;
        const std::string before = bytesOf<TypeParam, float>(*volume->native(), "f");
        const auto components = componentsOf(volume);
        EXPECT_GE(components.size(), 4u);
        // With one owner nothing is copied: the same components come back.
        analyze_volume(std::move(volume), "f", AnalyzeMode(mode), "r", AnalyzeOutputMode(0), output, Messages().services());
        ASSERT_TRUE(output && output->native());
        EXPECT_EQ(componentsOf(output), components);
        EXPECT_TRUE((bytesOf<TypeParam, float>(*output->native(), "f") == before));
    }
}

TYPED_TEST(AnalyzeVolume, replaces_the_property_for_every_output_mode_but_0)
{
    for (int outputMode : {1, 2, -7}) {
        const HostPtr output = analyzed(twoFields<TypeParam>(), "f", 0, "r", outputMode);
        EXPECT_FALSE(output->native()->hasComponentFromName("r"));
        EXPECT_TRUE((output->native()->template hasComponentFromName<PlainChannel<TypeParam, float3>>("f")));
    }
}

TYPED_TEST(AnalyzeVolume, is_silent_about_what_it_cannot_do)
{
    for (char const* property : {"missing", "voxel_tile_tree", "v"}) {
        const HostPtr output = analyzed(twoFields<TypeParam>(), property, 1, "r");
        EXPECT_FALSE(output->native()->hasComponentFromName("r")) << property;
    }
}

}  // namespace
}  // namespace tilegrid::test
