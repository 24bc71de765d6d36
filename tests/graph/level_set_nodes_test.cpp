// Steps that make level sets, place meshes, and make fog: what reaches the library, and what a person is told.
#include "graph/error.h"
#include "io/error.h"
#include "support/files.h"
#include "support/meshes.h"
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

/// What `info --json` prints of the chain's result.
Json infoOf(Words words)
{
    words.insert(words.end(), {"!", "info", "--json"});
    Trial run;
    run(planOf(words));
    EXPECT_TRUE(run.messages.empty());
    return Json::parse(run.results.str());
}

void expectNear(Json const& found, std::array<double, 3> const& wanted, double error)
{
    for (std::size_t axis = 0; axis < 3; ++axis) EXPECT_NEAR(found[axis].get<double>(), wanted[axis], error) << found;
}

TEST(ShapeSteps, make_the_shape_asked_for_in_the_structure_asked_for)
{
    constexpr double kPi = std::numbers::pi;
    for (char const* structure : {"binary", "quinary"}) {
        const std::string asked = std::string("structure=") + structure;
        // The box is that of the zero crossings on the voxels' edges: exact where a face lies on the lattice, or an axis
        // meets the surface at right angles. The volume is that of flat pieces, whose sag goes with the voxel squared.
        const Json sphere = infoOf({"sphere", "center=1,2,3", "radius=0.5", "voxel=0.025", asked});
        EXPECT_EQ(sphere["structure"], structure);
        EXPECT_EQ(sphere["name"], "sphere");
        expectNear(sphere["level_set"]["bounds_min"], {0.5, 1.5, 2.5}, 1e-5);
        expectNear(sphere["level_set"]["bounds_max"], {1.5, 2.5, 3.5}, 1e-5);
        EXPECT_NEAR(sphere["level_set"]["volume"].get<double>(), kPi / 6, 0.005 * kPi / 6);

        const Json box = infoOf({"box", "min=-1,0,0.5", "max=1,0.25,1", "voxel=0.025", asked});
        EXPECT_EQ(box["name"], "box");
        expectNear(box["level_set"]["bounds_min"], {-1, 0, 0.5}, 1e-5);
        expectNear(box["level_set"]["bounds_max"], {1, 0.25, 1}, 1e-5);

        const Json torus = infoOf({"torus", "radius=1", "tube=0.25", "axis=x", "voxel=0.025", asked});
        EXPECT_EQ(torus["name"], "torus");
        expectNear(torus["level_set"]["bounds_min"], {-0.25, -1.25, -1.25}, 1e-5);
        expectNear(torus["level_set"]["bounds_max"], {0.25, 1.25, 1.25}, 1e-5);
        EXPECT_NEAR(torus["level_set"]["volume"].get<double>(), 2 * kPi * kPi / 16, 0.01 * 2 * kPi * kPi / 16);
    }
}

TEST(ShapeSteps, take_the_band_in_voxels_or_world_units_and_a_finer_box)
{
    const auto bandOf = [](char const* band) {
        return infoOf({"sphere", "radius=1", "voxel=0.125", band})["properties"][0]["default"].get<float>();
    };
    EXPECT_EQ(bandOf("band=4"), 0.5f);
    EXPECT_EQ(bandOf("band=0.25wu"), 0.25f);
    EXPECT_EQ(infoOf({"sphere", "radius=1", "voxel=0.125"})["properties"][0]["default"].get<float>(), 0.375f);
    EXPECT_EQ(
        infoOf({"sphere", "radius=1", "voxel=0.125", "inside=0,0,0,1,1,1", "levels=2"})["voxel_size"].get<float>(),
        0.03125f);
}

TEST(ShapeSteps, say_what_is_missing_or_wrong)
{
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf({"sphere", "radius=1"}); }), "'voxel' is missing"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf({"sphere", "voxel=1"}); }), "'radius' is missing"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf({"sphere", "radius=0", "voxel=1"}); }), "above 0"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] { planOf({"torus", "radius=1", "tube=-1", "voxel=1"}); }), "above 0"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] {
                             planOf({"sphere", "center=0,zero,0", "radius=1", "voxel=1"});
                         }),
                         "not a finite number"));
    const auto complaint = [](Words const& words) {
        Trial run;
        return errorOf<std::runtime_error>([&] { run(planOf(words)); });
    };
    EXPECT_TRUE(contains(complaint({"sphere", "center=0,0", "radius=1", "voxel=0.1"}), "'center' has 2 numbers"));
    EXPECT_TRUE(contains(complaint({"box", "min=0,0,0", "max=1,1,0", "voxel=0.1"}), "along z"));
    EXPECT_TRUE(contains(complaint({"box", "min=0,0,0", "max=1,1,1", "voxel=2"}), "larger than the box"));
    // Trial allows a gigabyte.
    EXPECT_TRUE(contains(complaint({"sphere", "radius=1", "voxel=1e-5"}), "would take about"));
}

TEST(Read, scales_turns_and_moves_a_mesh_in_this_order)
{
    const TestFolder folder;
    io::writeMesh(folder.file("m.obj"), test::boxMesh({0, 0, 0}, {1, 1, 1}));
    const Json plain = infoOf({"read", folder.file("m.obj"), "voxel=0.0625"});
    expectNear(plain["level_set"]["bounds_max"], {1, 1, 1}, 1e-5);
    // (2,1,1) about z becomes x from -1 to 0, y from 0 to 2; then it moves.
    const Json placed =
        infoOf({"read", folder.file("m.obj"), "voxel=0.0625", "scale=2,1,1", "rotate=0,0,90", "move=3,0,-0.5"});
    expectNear(placed["level_set"]["bounds_min"], {2, 0, -0.5}, 1e-5);
    expectNear(placed["level_set"]["bounds_max"], {3, 2, 0.5}, 1e-5);
    const Json larger = infoOf({"read", folder.file("m.obj"), "voxel=0.0625", "scale=2"});
    expectNear(larger["level_set"]["bounds_max"], {2, 2, 2}, 1e-5);
}

TEST(Read, says_which_placements_make_no_sense)
{
    const TestFolder folder;
    io::writeMesh(folder.file("m.obj"), test::boxMesh({0, 0, 0}, {1, 1, 1}));
    const auto complaint = [&](char const* parameter) {
        Trial run;
        return errorOf<UsageError>([&] { run(planOf({"read", folder.file("m.obj"), "voxel=0.1", parameter})); });
    };
    EXPECT_TRUE(contains(complaint("scale=0"), "give positive numbers"));
    EXPECT_TRUE(contains(complaint("scale=1,-1,1"), "give positive numbers"));
    EXPECT_TRUE(contains(complaint("scale=1,2"), "one, or three"));
    EXPECT_TRUE(contains(complaint("rotate=90"), "three, as x,y,z"));
    EXPECT_TRUE(contains(complaint("move=1,2,3,4"), "'move' has 4 numbers"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] {
                             planOf({"read", "a.vdb", "move=1,0,0"});
                         }),
                         "'move' means nothing for 'a.vdb'"));
}

TEST(FogStep, adds_the_density_and_keeps_the_level_set_unless_told_otherwise)
{
    const Words ball = {"sphere", "radius=1", "voxel=0.125", "!"};
    const auto namesOf = [&](Words const& fog) {
        Words words = ball, names;
        words.insert(words.end(), fog.begin(), fog.end());
        const Json info = infoOf(words);
        for (Json const& property : info["properties"]) names.push_back(property["name"]);
        return names;
    };
    EXPECT_EQ(namesOf({"fog"}), (Words{"voxel_fog_density", "voxel_signed_distance"}));
    EXPECT_EQ(namesOf({"fog", "keep=no"}), Words{"voxel_fog_density"});
    // In voxels, or in world units: the middle of the sphere is 1 deep, and a voxel lies there.
    for (char const* width : {"width=16vx", "width=16", "width=2wu"}) {
        Words words = ball;
        words.insert(words.end(), {"fog", width, "keep=no"});
        EXPECT_EQ(infoOf(words)["properties"][0]["max"].get<float>(), 0.5f) << width;
    }
}

TEST(FogStep, wants_a_level_set)
{
    Trial run;
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] {
                             run(planOf({"create_empty_volume", "1", "!", "fog"}));
                         }),
                         "voxel_signed_distance"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] {
                             planOf({"create_empty_volume", "1", "!", "fog", "width=0"});
                         }),
                         "above 0"));
}

}  // namespace
