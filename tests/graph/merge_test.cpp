// Volumes joined in chains, and compared.
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "io/error.h"
#include "support/files.h"
#include "support/paths.h"

#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using Words = std::vector<std::string>;

const std::string kBunny = tilegrid::test::exampleFile("bunny.obj");

struct Outcome {
    std::string results, messages;
};

Outcome outcomeOf(Words const& words, std::uint64_t maxBytes = std::uint64_t(1) << 30)
{
    std::ostringstream results;
    Outcome outcome;
    const auto note = [&](Severity, Corvid::StringView text) { outcome.messages += std::string(std::string_view(text)) + "\n"; };
    const Plan plan = makePlan(parseChain(words, [](std::string const&) { return false; }));
    run(plan, {.threads = 2, .maxBytes = maxBytes, .results = results, .messages = note, .progress = {}});
    outcome.results = results.str();
    return outcome;
}
nlohmann::json infoOf(std::string const& results)
{
    return nlohmann::json::parse(results);
}
/// The bunny twice, with voxels of two sizes and in two structures, and a step after it.
Words twoBunnies(Words const& step)
{
    Words words = {"read", kBunny, "voxel=0.4", "as=a", "!", "read", kBunny, "voxel=0.6", "structure=quinary", "as=b", "!"};
    words.insert(words.end(), step.begin(), step.end());
    return words;
}
Words operator+(Words words, Words const& more)
{
    words.push_back("!");
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/// What `validate` says of a merge, of its file of levels, and of the same with fog; no step fails.
TEST(Merge, leaves_what_validate_calls_good_also_from_a_file_of_levels)
{
    const tilegrid::test::TestFolder folder;
    const std::string file = folder.file("merged.vdb");
    for (char const* adaptive : {"adaptive=yes", "adaptive=no"})
        for (char const* voxel : {"voxel=0.03", "voxel=0.04"}) {
            SCOPED_TRACE(std::string(adaptive) + " " + voxel);
            // Voxels of the two sizes meet nowhere, so that what lies above children was read from other voxels than these.
            const Words merge = {"sphere", "radius=1", "voxel=0.05", "as=a", "!", "fog", "a", "keep=yes", "as=f", "!",
                                 "box", "min=-0.3,-0.3,-0.3", "max=1.2,1.2,1.2", voxel, "as=b", "!", "merge", "b", "f", adaptive, "as=m", "!"};
            Words checked = merge;
            for (char const* word : {"validate", "m", "!", "write", "m", file.c_str(), "layout=levels"}) checked.push_back(word);
            std::string report = outcomeOf(checked).results;
            report += outcomeOf({"read", file, "!", "validate"}).results;
            EXPECT_TRUE(contains(report, "verdict     good")) << report;
            EXPECT_FALSE(contains(report, "verdict     wrong")) << report;
            EXPECT_FALSE(contains(report, "off by")) << report;
        }
}

TEST(Validate, calls_a_plain_level_set_from_a_vdb_good_and_tells_no_error_of_what_is_not_wrong)
{
    const tilegrid::test::TestFolder folder;
    for (char const* structure : {"structure=binary", "structure=quinary"}) {
        const std::string file = folder.file("ball.vdb");
        outcomeOf({"sphere", "radius=1", "voxel=0.05", "!", "write", file});
        const std::string report = outcomeOf({"read", file, structure, "!", "validate"}).results;
        EXPECT_TRUE(contains(report, "verdict     good")) << report;
        EXPECT_TRUE(contains(report, "hanging voxels wrong\n")) << report;
        EXPECT_FALSE(contains(report, "off by")) << report;
    }
}

TEST(Merge, takes_any_number_of_volumes_and_the_finest_voxel)
{
    for (Words const& names : {Words{"a", "b"}, Words{"a", "b", "a", "b"}}) {
        Words step = {"merge", "adaptive=no"};
        step.insert(step.end(), names.begin(), names.end());
        const Outcome outcome = outcomeOf(twoBunnies(step) + Words{"info", "--json"});
        const auto info = infoOf(outcome.results);
        EXPECT_EQ(info["structure"], "binary");
        EXPECT_FLOAT_EQ(float(info["voxel_size"]), 0.4f);
        EXPECT_FALSE(info.contains("refinement_error"));
        EXPECT_NEAR(double(info["level_set"]["volume"]), 194.3, 2.0);
        EXPECT_TRUE(contains(outcome.messages, "merged binary, voxel size 0.4")) << outcome.messages;
    }
}

TEST(Merge, passes_its_parameters_on)
{
    const auto forced = infoOf(outcomeOf(twoBunnies({"merge", "a", "b", "structure=quinary"}) + Words{"info", "--json"}).results);
    EXPECT_EQ(forced["structure"], "quinary");
    // Nothing is left of a volume without itself: all of it lies outside.
    const auto empty = infoOf(outcomeOf({"read", kBunny, "voxel=0.5", "as=a", "!", "merge", "a", "a", "mode=difference", "!", "info", "--json"}).results);
    EXPECT_LE(std::abs(double(empty["level_set"]["volume"])), 1e-3);
    const auto both = infoOf(outcomeOf({"read", kBunny, "voxel=0.5", "as=a", "!", "merge", "a", "a", "mode=intersection", "!", "info", "--json"}).results);
    const auto one = infoOf(outcomeOf({"read", kBunny, "voxel=0.5", "!", "info", "--json"}).results);
    EXPECT_EQ(both["level_set"]["volume"], one["level_set"]["volume"]);
}

TEST(Merge, takes_its_tolerance_as_a_length_or_relative_to_the_finest_voxel)
{
    // The bunny is longer than 1, so that the voxel alone counts for the relative one.
    for (std::string const tolerance : {"tolerance=0.02", "tolerance=0.02wu", "tolerance=0.05vx", "max_relative_error=0.05"}) {
        const Outcome outcome = outcomeOf(twoBunnies({"merge", "a", "b", "adaptive=yes", tolerance}) + Words{"info", "--json"});
        EXPECT_FLOAT_EQ(float(infoOf(outcome.results)["refinement_error"]), 0.02f) << tolerance;
        EXPECT_TRUE(contains(outcome.messages, "within 0.02 world units")) << outcome.messages;
    }
    EXPECT_THROW(outcomeOf(twoBunnies({"merge", "a", "b", "tolerance=0.02", "max_relative_error=0.05"})), UsageError);
    const auto scaled = infoOf(outcomeOf(twoBunnies({"merge", "a", "b", "--adaptive", "scale=2"}) + Words{"info", "--json"}).results);
    EXPECT_FLOAT_EQ(float(scaled["voxel_size"]), 0.8f);
}

TEST(Merge, of_one_volume_gives_it_back_and_says_so)
{
    const Words read = {"read", kBunny, "voxel=0.5"};
    const Outcome merged = outcomeOf(read + Words{"merge"} + Words{"info", "--json"});
    EXPECT_TRUE(contains(merged.messages, "one volume only")) << merged.messages;
    EXPECT_EQ(infoOf(merged.results)["level_set"], infoOf(outcomeOf(read + Words{"info", "--json"}).results)["level_set"]);
}

TEST(Merge, refuses_what_would_not_fit_before_it_grows)
{
    const Words tiny = twoBunnies({"merge", "a", "b", "--adaptive", "scale=0.001", "tolerance=1e-6"});
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { outcomeOf(tiny); }), "the result may need"));
}

TEST(Merge, refuses_parameters_without_meaning)
{
    for (std::string const word : {"mode=xor", "fog=automatic", "alpha=much", "tolerance=-1", "scale=0", "interpolation=best", "structure=octal",
                                   "adaptive=maybe"})
        EXPECT_THROW(outcomeOf(twoBunnies({"merge", "a", "b", word})), UsageError) << word;
    EXPECT_THROW(outcomeOf(twoBunnies({"merge", "a", "c"})), UsageError);
}

TEST(Compare, finds_nothing_between_a_volume_and_itself_and_more_where_voxels_are_larger)
{
    const auto same = infoOf(outcomeOf(twoBunnies({"compare", "a", "a", "--json"})).results);
    EXPECT_EQ(same["largest"], 0.0);
    EXPECT_GT(same["voxels"], 0);
    const auto coarser = infoOf(outcomeOf(twoBunnies({"compare", "b", "a", "within=1vx", "--json"})).results);
    EXPECT_GT(double(coarser["largest"]), 0.01);
    EXPECT_LT(double(coarser["largest"]), 0.6);
    EXPECT_LE(double(coarser["mean"]), double(coarser["root_mean_square"]));
    EXPECT_LE(double(coarser["root_mean_square"]), double(coarser["largest"]));
    EXPECT_LT(std::int64_t(coarser["voxels"]), std::int64_t(same["voxels"]));
    EXPECT_TRUE(contains(errorOf<io::InputError>([] { outcomeOf(twoBunnies({"compare", "a", "b", "property=colour"})); }), "no property 'colour'"));
    EXPECT_TRUE(contains(outcomeOf(twoBunnies({"compare", "b", "a"})).results, "difference  mean"));
}

}  // namespace
