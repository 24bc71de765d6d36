// The step that draws a surface: what reaches the library, and what a person is told.
#include "graph/error.h"
#include "io/error.h"
#include "support/files.h"
#include "trial.h"

namespace {

using namespace tilegrid;
using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;
using tilegrid::test::planOf;
using tilegrid::test::TestFolder;
using tilegrid::test::Trial;
using Words = std::vector<std::string>;

/// A box whose sides differ, then the step.
Words rendering(std::string const& file, Words const& parameters)
{
    Words words = {
        "box",    "min=-1,-0.5,-0.25", "max=1,0.5,0.25", "voxel=0.1", "!", "update_voxel_position", "!", "render", file,
        "size=64"};
    words.insert(words.end(), parameters.begin(), parameters.end());
    return words;
}

std::string pictureOf(TestFolder const& folder, Words const& parameters)
{
    Trial run;
    run(planOf(rendering(folder.file("new/a.png"), parameters)));
    EXPECT_TRUE(run.messages.empty());
    const std::string picture = folder.read("new/a.png");
    EXPECT_TRUE(picture.starts_with("\x89PNG"));
    return picture;
}

TEST(RenderStep, draws_each_side_by_its_name_or_its_angles)
{
    const TestFolder folder;
    const std::pair<char const*, char const*> same[] = {{"view=front", "view=0,0"},  {"view=back", "view=180,0"},
                                                        {"view=left", "view=-90,0"}, {"view=right", "view=90,0"},
                                                        {"view=top", "view=0,90"},   {"view=bottom", "view=0,-90"}};
    std::vector<std::string> pictures;
    for (auto const& [name, angles] : same) {
        pictures.push_back(pictureOf(folder, {name, "color=normal"}));
        EXPECT_EQ(pictures.back(), pictureOf(folder, {angles, "color=normal"})) << name;
    }
    for (std::size_t n = 0; n < pictures.size(); ++n)
        for (std::size_t m = 0; m < n; ++m)
            EXPECT_NE(pictures[n], pictures[m]) << same[n].first << ", " << same[m].first;
    EXPECT_EQ(pictureOf(folder, {}), pictureOf(folder, {"view=-30,20", "color=plain"}));
}

TEST(RenderStep, colours_by_what_it_is_told)
{
    const TestFolder folder;
    std::vector<std::string> pictures;
    for (char const* colour :
         {"color=plain", "color=depth", "color=normal", "color=voxel_position", "color=voxel_signed_distance"})
        pictures.push_back(pictureOf(folder, {colour}));
    for (std::size_t n = 0; n < pictures.size(); ++n)
        for (std::size_t m = 0; m < n; ++m) EXPECT_NE(pictures[n], pictures[m]) << n << ", " << m;
}

TEST(RenderStep, draws_fog_legends_and_the_axis_that_points_up_as_it_is_told)
{
    const TestFolder folder;
    const auto fog = [&](Words const& parameters) {
        Words words = {"box", "min=-1,-0.5,-0.25", "max=1,0.5,0.25", "voxel=0.1", "!", "fog", "!", "render", folder.file("a.png"), "size=300", "color=depth"};
        words.insert(words.end(), parameters.begin(), parameters.end());
        Trial run;
        run(planOf(words));
        return folder.read("a.png");
    };
    EXPECT_EQ(fog({}), fog({"draw=surface", "up=y", "legend=yes", "opacity=1.5"}));
    const std::vector<std::string> pictures = {fog({}), fog({"draw=fog"}), fog({"draw=fog", "opacity=3"}), fog({"up=z"}), fog({"legend=no"})};
    for (std::size_t n = 0; n < pictures.size(); ++n)
        for (std::size_t m = 0; m < n; ++m) EXPECT_NE(pictures[n], pictures[m]) << n << ", " << m;
}

TEST(SliceStep, draws_its_legend_and_the_axis_that_points_up_as_it_is_told)
{
    const TestFolder folder;
    const auto slice = [&](Words const& parameters) {
        Words words = {"box", "min=-1,-0.5,-0.25", "max=1,0.5,0.25", "voxel=0.1", "!", "slice", folder.file("a.png"), "axis=x", "size=300"};
        words.insert(words.end(), parameters.begin(), parameters.end());
        Trial run;
        run(planOf(words));
        return folder.read("a.png");
    };
    EXPECT_EQ(slice({}), slice({"up=y", "legend=yes"}));
    EXPECT_NE(slice({}), slice({"up=z"}));
    EXPECT_NE(slice({}), slice({"legend=no"}));
}

TEST(RenderStep, says_what_it_cannot_draw)
{
    const TestFolder folder;
    const auto complaint = [&](Words const& words) {
        Trial run;
        return errorOf<std::runtime_error>([&] { run(planOf(words)); });
    };
    const std::string file = folder.file("a.png");
    EXPECT_TRUE(contains(complaint(rendering(file, {"view=frnt"})), "Did you mean 'front'?"));
    for (char const* view : {"view=1", "view=1,2,3", "view=a,b", "view=0,91", "view=nan,0", "view="})
        EXPECT_TRUE(contains(complaint(rendering(file, {view})), "two angles in degrees")) << view;
    EXPECT_TRUE(contains(complaint(rendering(file, {"color=voxel_positon"})), "Did you mean 'voxel_position'?"));
    EXPECT_TRUE(contains(complaint({"create_empty_volume", "1", "!", "render", file}), "no signed distance"));
    EXPECT_TRUE(contains(errorOf<UsageError>([&] {
                             planOf({"sphere", "radius=1", "voxel=0.1", "!", "render", file, "size=5000"});
                         }),
                         "16 to 4096"));
    EXPECT_TRUE(contains(errorOf<UsageError>([] {
                             planOf({"sphere", "radius=1", "voxel=0.1", "!", "render", "a.jpg"});
                         }),
                         ".png"));
    EXPECT_EQ(folder.fileCount(), 0u);
}

}  // namespace
