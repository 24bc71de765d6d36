// Volumes of several depths in chains: files that keep them, boxes that make them, checks and samples of them.
#include "graph/chain.h"
#include "graph/error.h"
#include "graph/plan.h"
#include "graph/run.h"
#include "io/error.h"
#include "support/files.h"
#include "support/paths.h"

#include <sstream>

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using tilegrid::test::TestFolder;
using Words = std::vector<std::string>;

const std::string kBunny = tilegrid::test::exampleFile("bunny.obj");

Plan planOf(Words const& words)
{
    return makePlan(parseChain(words, [](std::string const&) { return false; }));
}
/// What a chain prints.
std::string resultOf(Words const& words)
{
    std::ostringstream results;
    run(planOf(words), {.threads = 2, .maxBytes = std::uint64_t(1) << 30, .results = results, .messages = {}, .progress = {}});
    return results.str();
}
/// The words of `read` for a coarse bunny with finer ears.
Words finerBunny(std::string const& structure, std::string const& levels)
{
    return {"read", kBunny, "voxel=0.5", "structure=" + structure, "inside=-10,3,-10,10,10,10", "levels=" + levels};
}
Words operator+(Words words, Words const& more)
{
    words.push_back("!");
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(Levels, of_a_volume_survive_a_file_and_pass_validation)
{
    for (auto const& [structure, levels] : {std::pair("binary", "2"), std::pair("quinary", "1")}) {
        const TestFolder folder;
        const std::string file = folder.file("a.vdb");
        const Words words = finerBunny(structure, levels);
        const std::string before = resultOf(words + Words{"write", file, "layout=levels"} + Words{"info", "--json"});
        const std::string after = resultOf({"read", file, "!", "validate", "--json", "!", "info", "--json"});
        const std::size_t line = after.find('\n') + 1;
        EXPECT_TRUE(contains(after.substr(0, line), "\"good\":true")) << after;
        EXPECT_TRUE(contains(after.substr(0, line), "\"graded\":true")) << after;
        // All but the name, which is the mesh's before.
        const auto withoutName = [](std::string const& text) { return text.substr(text.find("\"structure\"")); };
        EXPECT_EQ(withoutName(before), withoutName(after.substr(line)));
    }
}

TEST(Levels, are_written_only_if_that_is_asked_for)
{
    const TestFolder folder;
    const Words words = finerBunny("binary", "1");
    resultOf(words + Words{"write", folder.file("a.vdb")} + Words{"write", folder.file("b.vdb"), "layout=flat"});
    EXPECT_EQ(folder.read("a.vdb"), folder.read("b.vdb"));
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { planOf({"read", "a.vdb", "!", "write", "a.ply", "layout=levels"}); }), "layout"));
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { planOf({"read", "a.vdb", "!", "write", "a.vdb", "layout=level"}); }), "Did you mean 'levels'?"));
}

TEST(FlatFiles, have_the_band_the_name_and_the_precision_that_were_asked_for)
{
    const TestFolder folder;
    const auto size = [&](Words const& options) {
        Words write{"write", folder.file("a.vdb")};
        write.insert(write.end(), options.begin(), options.end());
        resultOf(Words{"read", kBunny, "voxel=0.3"} + write);
        return folder.read("a.vdb").size();
    };
    const std::size_t usual = size({});
    EXPECT_TRUE(contains(resultOf({"info", folder.file("a.vdb")}), "surface\n"));
    EXPECT_LT(size({"half=yes"}), usual);
    EXPECT_GT(size({"band=5"}), usual);
    size({"name=hull"});
    EXPECT_TRUE(contains(resultOf({"info", folder.file("a.vdb")}), "hull\n"));
    const Words read{"read", kBunny, "voxel=0.5"};
    for (std::string const option : {"band=4", "name=a", "half=yes"}) {
        EXPECT_TRUE(contains(errorOf<UsageError>([&] { resultOf(read + Words{"write", folder.file("b.vdb"), "layout=levels", option}); }), "layout=flat"));
        EXPECT_THROW(planOf(read + Words{"write", "a.ply", option}), UsageError);
    }
    EXPECT_TRUE(contains(errorOf<UsageError>([&] { planOf(read + Words{"write", "a.vdb", "band=0.5"}); }), "band"));
}

TEST(FlatFiles, of_fog_are_as_dense_as_the_volume)
{
    const TestFolder folder;
    const Words fog{"sphere", "radius=1", "voxel=0.05"};
    resultOf(fog + Words{"fog", "width=0.3wu"} + Words{"write", folder.file("a.vdb")});
    // The middle of the ball, and a place half as deep as the width.
    const std::string points = folder.write("points.csv", "x,y,z\n0,0,0\n0,0.85,0\n");
    const std::string text = resultOf({"sample", folder.file("a.vdb"), points, "property=voxel_fog_density"});
    EXPECT_TRUE(contains(text, "0,0,0,1")) << text;
    EXPECT_TRUE(contains(text, "0,0.85,0,0.")) << text;
}

TEST(Validation, ends_the_run_with_an_error_that_says_what_is_wrong)
{
    // A band alone is not graded, which is wrong only where that is asked for.
    EXPECT_TRUE(contains(resultOf(Words{"read", kBunny, "voxel=0.5"} + Words{"validate"}), "verdict     good, but not graded"));
    std::ostringstream results;
    std::vector<std::string> messages;
    const Plan plan = planOf(Words{"read", kBunny, "voxel=0.5"} + Words{"validate", "graded=true"} + Words{"get_voxel_size"});
    const auto message = [&](Severity, Corvid::StringView text) { messages.emplace_back(std::string_view(text)); };
    EXPECT_TRUE(contains(errorOf<NodeError>([&] {
                             run(plan, {.threads = 2, .maxBytes = std::uint64_t(1) << 30, .results = results, .messages = message, .progress = {}});
                         }),
                         "step 2 (validate)"));
    EXPECT_TRUE(contains(results.str(), "verdict     wrong")) << results.str();
    EXPECT_FALSE(contains(results.str(), "\n0.5\n")) << "later steps do not run";
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(contains(messages.front(), "'bunny' is wrong: tiles that touch differ by two levels")) << messages.front();
}

TEST(Validation, passes_after_grading_or_reading_graded)
{
    for (std::string const structure : {"structure=binary", "structure=quinary"})
        for (char const* voxel : {"voxel=0.16", "voxel=0.5"}) {
            const std::string after = resultOf(Words{"read", kBunny, voxel, structure} + Words{"grade_volume"} + Words{"validate", "graded=true"});
            EXPECT_TRUE(contains(after, "verdict     good\n")) << after;
            const std::string read = resultOf(Words{"read", kBunny, voxel, structure, "graded=true"} + Words{"validate", "graded=true"});
            EXPECT_TRUE(contains(read, "verdict     good\n")) << read;
            EXPECT_EQ(after.substr(0, after.find("property")), read.substr(0, read.find("property"))) << "the same tiles";
        }
}

TEST(Levels, mean_nothing_without_a_box)
{
    const std::string text = errorOf<UsageError>([&] { planOf({"read", kBunny, "voxel=0.5", "levels=2"}); });
    EXPECT_TRUE(contains(text, "'levels' means nothing without 'inside'. Give both, or leave it out.")) << text;
}

TEST(FinerBoxes, that_are_none_are_refused)
{
    const auto with = [](std::string const& inside, std::string const& levels) {
        return Words{"read", kBunny, "voxel=0.5", "inside=" + inside, "levels=" + levels};
    };
    for (char const* box : {"1,2,3", "1,2,3,4,5,6,7"})
        EXPECT_TRUE(contains(errorOf<UsageError>([&] { resultOf(with(box, "1")); }), "xmin,ymin,zmin,xmax,ymax,zmax")) << box;
    for (char const* box : {"", "a,b,c,d,e,f", "0,0,0,1,1,nan"}) EXPECT_THROW(planOf(with(box, "1")), UsageError) << box;
    for (char const* levels : {"0", "27", "1.5"}) EXPECT_THROW(planOf(with("0,0,0,9,9,9", levels)), UsageError) << levels;
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(with("0,0,0,-1,9,9", "1")); }), "low corner first"));
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(with("100,0,0,101,9,9", "1")); }), "nothing of it would be finer"));
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(with("-10,-10,-10,10,10,10", "14")); }), "limit"));
}

TEST(Samples, go_to_the_results_or_to_a_file)
{
    const TestFolder folder;
    const std::string points = folder.write("p.csv", "x,y,z\n0,3,0\n0,50,0\n"), output = folder.file("new/o.csv");
    const Words words = finerBunny("binary", "1");
    std::string linear;
    for (std::string const mode : {"linear", "quadratic", "cubic", "cubic_c1", "cubic_monotonic"}) {
        const std::string text = resultOf(words + Words{"sample", points, "mode=" + mode});
        EXPECT_TRUE(text.starts_with("x,y,z,voxel_signed_distance\n0,3,0,-")) << text;
        if (linear.empty()) linear = text;
    }
    EXPECT_EQ(resultOf(words + Words{"sample", points, "output=" + output}), "");
    EXPECT_EQ(folder.read("new/o.csv"), linear);
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(words + Words{"sample", folder.write("bad.csv", "1,2\n")}); }), "line 1"));
    EXPECT_TRUE(contains(errorOf<io::InputError>([&] { resultOf(words + Words{"sample", points, "property=nothing"}); }), "no property 'nothing'"));
    EXPECT_THROW(planOf(words + Words{"sample", points, "mode=best"}), UsageError);
    EXPECT_THROW(planOf(words + Words{"sample", points, "output="}), UsageError);
}

}  // namespace
