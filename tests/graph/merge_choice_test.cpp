// What the step `merge` decides by itself: how exact the result is, and whether it is adaptive.
#include "graph/chain.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <iterator>
#include <sstream>

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;

constexpr double kScales[] = {10, 1, 0.1, 0.01};

struct Outcome {
    std::vector<nlohmann::json> results;
    std::string messages;
    nlohmann::json const& at(char const* key) const { return results.front().at(key); }
};

/// \param chain  words between blanks
Outcome outcomeOf(std::string const& chain, int threads = 2)
{
    std::istringstream text(chain);
    const std::vector<std::string> words(std::istream_iterator<std::string>(text), {});
    std::ostringstream results;
    Outcome outcome;
    const auto note = [&](Severity, Corvid::StringView said) { outcome.messages += std::string(std::string_view(said)) + "\n"; };
    const Plan plan = makePlan(parseChain(words, [](std::string const&) { return false; }));
    run(plan, {.threads = threads, .maxBytes = std::uint64_t(1) << 30, .results = results, .messages = note, .progress = {}});
    std::istringstream lines(results.str());
    for (std::string line; std::getline(lines, line);) outcome.results.push_back(nlohmann::json::parse(line));
    return outcome;
}

/// Text of a chain with lengths that all grow with the scene.
class Scene {
public:
    explicit Scene(double scale) : scale_(scale) {}
    std::string length(double x) const { return nlohmann::json(scale_ * x).dump(); }
    std::string sphere(std::string const& name, double x, double radius, double voxel) const
    {
        // Off the lattice: of symmetric tiles, all would fall to the same side of a tolerance by rounding.
        return "sphere center=" + length(x) + "," + length(0.013) + "," + length(0.029) + " radius=" + length(radius) + " voxel=" + length(voxel) +
               " as=" + name + " ! ";
    }
    std::string box(std::string const& name, double low, double high, double voxel) const
    {
        const auto corner = [&](double x) { return length(x) + "," + length(x) + "," + length(x); };
        return "box min=" + corner(low) + " max=" + corner(high) + " voxel=" + length(voxel) + " as=" + name + " ! ";
    }
    std::string ring(std::string const& name, double tube, double voxel) const
    {
        return "torus center=0,0,0 radius=" + length(1) + " tube=" + length(tube) + " voxel=" + length(voxel) + " as=" + name + " ! ";
    }

private:
    double scale_;
};

std::string twoSpheres(Scene const& scene)
{
    return scene.sphere("a", 0, 1, 0.05) + scene.sphere("b", 1.1, 1, 0.05);
}
std::string twoFineSpheres(Scene const& scene)
{
    return scene.sphere("a", 0, 1, 0.03) + scene.sphere("b", 1.1, 1, 0.03);
}
std::string sphereAndBox(Scene const& scene)
{
    return scene.sphere("a", 0, 1, 0.05) + scene.box("b", 0.3, 1.5, 0.05);
}
std::string thinRing(Scene const& scene)
{
    return scene.ring("a", 0.06, 0.03) + scene.sphere("b", 1, 0.15, 0.03);
}
std::string tinyProp(Scene const& scene)
{
    return scene.sphere("a", 0, 1, 0.1) + scene.sphere("b", 1, 0.03, 0.005);
}

TEST(MergeTolerance, has_the_same_effect_at_any_scale)
{
    double first = 0;
    for (double scale : kScales) {
        const Scene scene(scale);
        const auto outcome = outcomeOf(twoSpheres(scene) + "merge a b adaptive=yes tolerance=" + scene.length(0.005) + " as=m ! savings m a b --json");
        const double voxels = outcome.at("merged").at("voxels");
        if (first == 0) first = voxels;
        // A scale that is no power of two rounds places and distances anew: single tiles may fall to the other side of the tolerance.
        EXPECT_NEAR(voxels, first, 0.02 * first) << "scale " << scale;
    }
}

TEST(MergeTolerance, is_by_default_a_tenth_of_the_finest_voxel_or_the_inputs_own_error)
{
    const auto errorOf = [](std::string const& chain) { return double(outcomeOf(chain + "adaptive=yes as=m ! info m --json").at("refinement_error")); };
    const Scene scene(1);
    EXPECT_NEAR(errorOf(twoSpheres(scene) + "merge a b "), 0.1 * 0.05, 1e-6);
    // Two voxels of a fourth of the radius: interpolation is off by h^2 / (4 r) on a sphere, at other places than the surface by
    // up to a third more or less.
    const double own = 0.25 * 0.25 / (4 * 0.5);
    EXPECT_NEAR(errorOf(scene.sphere("a", 0, 0.5, 0.25) + scene.sphere("b", 0.4, 0.5, 0.25) + "merge a b "), own, 0.4 * own);
    // What was refined to a tolerance is as exact as that.
    EXPECT_NEAR(errorOf(twoSpheres(scene) + "merge a b adaptive=yes tolerance=0.02 as=c ! merge c c "), 0.02, 1e-6);
}

TEST(Merge, takes_no_more_bytes_than_the_plain_result_by_default)
{
    using Make = std::string (*)(Scene const&);
    const std::pair<char const*, Make> scenes[] = {
        {"two spheres", twoSpheres}, {"sphere and box", sphereAndBox}, {"thin ring", thinRing}, {"tiny prop", tinyProp}};
    for (auto const& [name, make] : scenes)
        for (double scale : kScales) {
            const auto outcome = outcomeOf(make(Scene(scale)) + "merge a b as=m ! merge a b adaptive=no as=p ! info m --json ! info p --json");
            EXPECT_LE(double(outcome.results[0]["bytes"]), double(outcome.results[1]["bytes"])) << name << " at scale " << scale;
        }
}

TEST(Merge, is_adaptive_by_default_where_that_takes_fewer_bytes_and_tells_both_figures)
{
    const auto spheres = outcomeOf(twoFineSpheres(Scene(1)) + "merge a b tolerance=0.2vx as=m ! info m --json");
    EXPECT_TRUE(spheres.results[0].contains("refinement_error"));
    EXPECT_TRUE(contains(spheres.messages, "adaptive is smaller: ") && contains(spheres.messages, " plain.")) << spheres.messages;
    const auto prop = outcomeOf(tinyProp(Scene(1)) + "merge a b as=m ! info m --json");
    EXPECT_FALSE(prop.results[0].contains("refinement_error"));
    EXPECT_TRUE(contains(prop.messages, "plain is smaller: ") && contains(prop.messages, " adaptive within ")) << prop.messages;
}

TEST(Merge, is_no_less_exact_where_it_is_adaptive)
{
    const auto of = [](std::string const& adaptive) {
        const auto outcome = outcomeOf(sphereAndBox(Scene(1)) + "merge a b adaptive=" + adaptive + " as=m ! savings m a b --json");
        return double(outcome.results[0]["merged"]["error"]);
    };
    // At the crease no voxel of this size is exact; elsewhere the tolerance of a tenth of a voxel holds.
    EXPECT_LE(of("yes"), of("no") + 0.1 * 0.05);
}

TEST(Merge, is_graded_where_it_is_adaptive)
{
    const auto outcome = outcomeOf(tinyProp(Scene(1)) + "merge a b adaptive=yes tolerance=0.001 as=m ! validate m graded=yes --json");
    EXPECT_TRUE(outcome.results[0]["good"]) << outcome.results[0];
}

TEST(Merge, of_a_tiny_object_beside_a_large_one_stays_small)
{
    const std::string scene = "sphere center=0,0,0 radius=2 voxel=0.1 as=a ! sphere center=2.5,0,0 radius=0.001 voxel=0.0002 as=b ! ";
    const auto outcome = outcomeOf(scene + "merge a b as=m ! info a --json ! info b --json ! info m --json");
    // Tiles of coarse voxels come again with voxels less than one division finer: at most 8 times as many.
    EXPECT_LE(double(outcome.results[2]["bytes"]), 8 * double(outcome.results[0]["bytes"]) + 2 * double(outcome.results[1]["bytes"]));
    // What a tolerance of a length asks for is what is counted, not all of the surface in the finest voxels.
    EXPECT_NO_THROW(outcomeOf(scene + "merge a b adaptive=yes tolerance=0.01"));
}

TEST(Merge, is_plain_beside_other_properties_and_says_why)
{
    const std::string scene = twoSpheres(Scene(1)) + "fog b width=0.2wu keep=no as=f ! ";
    const auto outcome = outcomeOf(scene + "merge a f tolerance=0.2vx as=m ! merge a f adaptive=no as=p ! info m --json ! info p --json");
    EXPECT_EQ(outcome.results[0]["tiles_by_depth"], outcome.results[1]["tiles_by_depth"]);
    EXPECT_TRUE(contains(outcome.messages, "says nothing of 'voxel_fog_density'")) << outcome.messages;
}

TEST(Merge, that_must_not_be_adaptive_is_plain_for_refined_volumes_too)
{
    const auto outcome = outcomeOf(twoSpheres(Scene(1)) + "merge a b adaptive=yes tolerance=0.01 as=c ! merge c a adaptive=no as=m ! info m --json");
    EXPECT_FALSE(outcome.results[0].contains("refinement_error"));
    EXPECT_GT(double(outcome.results[0]["tiles_by_depth"].back()), 500);
}

TEST(Merge, decides_the_same_with_any_number_of_threads)
{
    std::string first;
    for (int threads : {1, 2, 8}) {
        const auto outcome = outcomeOf(sphereAndBox(Scene(1)) + "merge a b tolerance=0.15vx as=m ! info m --json", threads);
        if (first.empty()) first = outcome.messages;
        EXPECT_EQ(outcome.messages, first) << threads << " threads";
    }
}

}  // namespace
