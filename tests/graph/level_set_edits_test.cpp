// Steps that change level sets, and those that carry values into volumes: what they do to a sphere, and what a person is told.
#include "graph/error.h"
#include "io/error.h"
#include "support/files.h"
#include "trial.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <numbers>

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using tilegrid::test::planOf;
using tilegrid::test::TestFolder;
using tilegrid::test::Trial;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

/// A sphere of radius 1 with voxels of 1/16, and steps after it.
Words sphereThen(Words const& steps, char const* structure = "binary")
{
    Words words = {"sphere", "radius=1", "voxel=0.0625", std::string("structure=") + structure, "!"};
    words.insert(words.end(), steps.begin(), steps.end());
    return words;
}
/// What the chain prints. Some steps tell that they begin and end; nothing else is to be said.
std::string resultOf(Words const& words)
{
    Trial run;
    run(planOf(words));
    for (std::string const& message : run.messages) EXPECT_TRUE(message.ends_with(".begin") || message.ends_with(".end")) << message;
    return run.results.str();
}
/// What the last step of the chain prints, with --json.
Json lastOf(Words words, char const* step)
{
    words.insert(words.end(), {"!", step, "--json"});
    return Json::parse(resultOf(words));
}
template <class Error> std::string complaint(Words const& words)
{
    Trial run;
    return errorOf<Error>([&] { run(planOf(words)); });
}
Json propertyOf(Json const& info, char const* name)
{
    for (Json const& property : info["properties"])
        if (property["name"] == name) return property;
    ADD_FAILURE() << "no property " << name << " in " << info;
    return {};
}
std::int64_t finestTiles(Json const& info) { return info["tiles_by_depth"].back().get<std::int64_t>(); }
/// A sphere of radius 1 has the volume 4/3 pi; flat pieces in voxels of 1/16 miss 1/200 of it at most (two dihedral sags of h^2/8).
void expectSphere(Json const& info, double radius = 1)
{
    const double volume = 4.0 / 3 * std::numbers::pi * radius * radius * radius;
    EXPECT_NEAR(info["level_set"]["volume"].get<double>(), volume, volume / 200) << info;
}

/// Steps that want a level set say which property is missing, or that it holds no single floats.
void expectToWantFloats(std::string const& step, Words const& more)
{
    Words words = {"create_empty_volume", "1", "!", step};
    words.insert(words.end(), more.begin(), more.end());
    EXPECT_TRUE(contains(complaint<io::InputError>(words), "the volume has no property 'voxel_signed_distance'")) << step;
    Words vectors = sphereThen({"update_voxel_position", "!", step, "property=voxel_position"});
    vectors.insert(vectors.end(), more.begin(), more.end());
    EXPECT_TRUE(contains(complaint<io::InputError>(vectors), "does not hold one float per voxel")) << step;
}

TEST(RebuildStep, makes_a_scaled_level_set_a_distance_again)
{
    for (char const* structure : {"binary", "quinary"}) {
        const Words scaled = sphereThen({"scale_property", "voxel_signed_distance", "1.5"}, structure);
        Words rebuilt = scaled;
        rebuilt.insert(rebuilt.end(), {"!", "rebuild_level_set"});
        const Json before = lastOf(scaled, "slope")["gradient"].back(), after = lastOf(rebuilt, "slope")["gradient"].back();
        EXPECT_NEAR(before["median"].get<double>(), 0.5, 0.01);
        EXPECT_EQ(before["steep"]["voxels"], before["voxels"]);
        EXPECT_LE(after["median"].get<double>(), 0.01);
        expectSphere(lastOf(rebuilt, "info"));
    }
}
TEST(RebuildStep, wants_a_level_set)
{
    expectToWantFloats("rebuild_level_set", {});
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"rebuild_level_set", "property=voxel_signed_distanc"})), "Did you mean 'voxel_signed_distance'?"));
}

TEST(CoarsenStep, leaves_the_tiles_that_the_error_asks_for)
{
    const Json before = lastOf(sphereThen({"grade_volume"}), "info");
    const Json strict = lastOf(sphereThen({"grade_volume", "!", "coarsen_voxel_property", "1e-7"}), "info");
    const Json loose = lastOf(sphereThen({"grade_volume", "!", "coarsen_voxel_property", "0.05"}), "info");
    EXPECT_EQ(finestTiles(strict), finestTiles(before));
    EXPECT_LT(finestTiles(loose), finestTiles(before));
    const Json guarded = lastOf(sphereThen({"grade_volume", "!", "coarsen_voxel_property", "0.05", "protect_surface=true", "surface_band=2"}), "info");
    expectSphere(guarded);
}
TEST(CoarsenStep, wants_an_error_and_a_property_that_is_there)
{
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf(sphereThen({"coarsen_voxel_property"})); }), "'error' is missing"));
    EXPECT_THROW(planOf(sphereThen({"coarsen_voxel_property", "-1"})), UsageError);
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"coarsen_voxel_property", "0.1", "property=heat"})), "no property 'heat'"));
}

TEST(ResizeStep, gives_the_band_another_width)
{
    for (char const* structure : {"binary", "quinary"}) {
        const Json three = lastOf(sphereThen({"resize_level_set", "3"}, structure), "info"), nine = lastOf(sphereThen({"resize_level_set", "9"}, structure), "info");
        EXPECT_GT(finestTiles(nine), finestTiles(three));
        expectSphere(three);
        expectSphere(nine);
    }
}
TEST(ResizeStep, wants_a_level_set_and_a_width_that_fits_memory)
{
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf(sphereThen({"resize_level_set"})); }), "'bandwidth' is missing"));
    EXPECT_TRUE(contains(complaint<io::InputError>({"create_empty_volume", "1", "!", "resize_level_set", "3"}), "no property 'voxel_signed_distance'"));
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"resize_level_set", "1e6"})), "--max-memory"));
}

TEST(VoxelSizeStep, scales_the_volume_and_keeps_values)
{
    const Json info = lastOf(sphereThen({"set_voxel_size", "0.125"}), "info"), plain = lastOf(sphereThen({"set_voxel_size", "0.0625"}), "info");
    EXPECT_EQ(info["voxel_size"], 0.125);
    EXPECT_EQ(propertyOf(info, "voxel_signed_distance")["max"], propertyOf(plain, "voxel_signed_distance")["max"]);
    expectSphere(plain);
    expectSphere(info, 2);
}
TEST(VoxelSizeStep, wants_a_volume_and_a_number)
{
    const TestFolder folder;
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf(sphereThen({"set_voxel_size"})); }), "'voxel_size' is missing"));
    EXPECT_THROW(planOf(sphereThen({"set_voxel_size", "large"})), UsageError);
    Trial run;
    const Plan plan = planOf({"read", folder.write("p.csv", "x,y,z\n0,0,0\n"), "!", "set_voxel_size", "1"});
    EXPECT_TRUE(contains(errorOf<NodeError>([&] { run(plan); }), "step 2 (set_voxel_size)"));
    EXPECT_FALSE(run.messages.empty());
}

TEST(DepthStep, writes_how_deep_voxels_lie)
{
    const Json depth = propertyOf(lastOf(sphereThen({"compute_volume_depth"}), "info"), "voxel_depth");
    EXPECT_EQ(depth["min"], 0.0);
    // The middle is 1 deep, and a voxel lies there; paths along a lattice are no shorter than the straight one.
    EXPECT_GE(depth["max"].get<double>(), 0.95);
    const Json cut = propertyOf(lastOf(sphereThen({"compute_volume_depth", "largest=0.25"}), "info"), "voxel_depth");
    EXPECT_LE(cut["max"].get<double>(), 0.25);
}
TEST(DepthStep, wants_a_level_set_of_the_binary_structure)
{
    expectToWantFloats("compute_volume_depth", {});
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"compute_volume_depth"}, "quinary")), "binary structure only"));
}

TEST(SlopeStep, prints_each_depth_as_text_or_json)
{
    const std::string text = resultOf(sphereThen({"slope"}));
    EXPECT_TRUE(contains(text, "sphere\ngradient    depth 28: ")) << text;
    EXPECT_TRUE(contains(text, " in the median, ")) << text;
    const Json json = Json::parse(resultOf(sphereThen({"slope", "--json"})));
    EXPECT_EQ(json["name"], "sphere");
    EXPECT_GT(json["gradient"].back()["voxels"], 1000);
    // Radius 16 voxels: no crease.
    EXPECT_TRUE(json["gradient"].back()["steep"]["median_to_crease"].is_null() || json["gradient"].back()["steep"]["voxels"] == 0);
}
TEST(SlopeStep, wants_a_level_set)
{
    EXPECT_TRUE(contains(complaint<io::InputError>({"create_empty_volume", "1", "!", "slope"}), "no property 'voxel_signed_distance'"));
}

TEST(AnalyzeStep, gives_a_sphere_its_curvature_and_wants_a_known_mode)
{
    const Json curvature = propertyOf(lastOf(sphereThen({"analyze_volume", "voxel_signed_distance", "mean_curvature", "output_property=bend"}), "info"), "bend");
    EXPECT_EQ(curvature["type"], "float");
    EXPECT_THROW(planOf(sphereThen({"analyze_volume", "voxel_signed_distance", "bend"})), UsageError);
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"analyze_volume", "heat", "gradient"})), "no property 'heat'"));
}

TEST(ResampleSteps, move_a_sphere_and_want_properties_that_are_there)
{
    const Json moved = lastOf(sphereThen({"resample_volume", "transform=1,0,0,0,1,0,0,0,1,3,0,0"}), "info");
    expectSphere(moved);
    // The shift is whole voxels, so that the box stays exact.
    EXPECT_NEAR(moved["level_set"]["bounds_max"][0].get<double>(), 4, 1e-4);
    EXPECT_TRUE(contains(complaint<io::InputError>(sphereThen({"resample_volume", "property=heat"})), "no property 'heat'"));
    const Words target = {"as=s", "!", "sphere", "radius=1.1", "voxel=0.05", "as=t", "!", "resample_into_volume", "s", "t"};
    Words words = {"sphere", "radius=1", "voxel=0.0625"};
    words.insert(words.end(), target.begin(), target.end());
    expectSphere(lastOf(words, "info"));
    words.push_back("property=heat");
    EXPECT_TRUE(contains(complaint<io::InputError>(words), "no property 'heat'"));
    EXPECT_THROW(planOf({"sphere", "radius=1", "voxel=0.1", "as=s", "!", "resample_into_volume", "s"}), UsageError);
}

}  // namespace
