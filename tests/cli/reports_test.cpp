// What reports say without being asked for more.
#include "command.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>

namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;

Words operator+(Words words, Words const& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

Json jsonOf(WorkFolder const& folder, Words const& words)
{
    const auto result = folder.run(words);
    EXPECT_EQ(result.status, 0) << result.err;
    return Json::parse(result.out);
}

std::vector<std::string> propertiesOf(Json const& info)
{
    std::vector<std::string> names;
    for (Json const& property : info.at("properties")) names.push_back(property.at("name"));
    return names;
}

TEST(Info, has_a_line_for_all_depths_in_a_row_that_have_as_many_tiles)
{
    const WorkFolder folder;
    const Words sphere = {"sphere", "radius=1", "voxel=0.25", "!", "info"};
    const Json info = jsonOf(folder, sphere + Words{"--json"});
    const std::vector<long long> tiles = info.at("tiles_by_depth"), leaves = info.at("leaf_voxels_by_depth");
    long long expected = 0, sum = 0;
    for (std::size_t depth = 0; depth < tiles.size(); ++depth) {
        sum += tiles[depth];
        if (tiles[depth] > 0 && (depth == 0 || tiles[depth] != tiles[depth - 1] || leaves[depth] != leaves[depth - 1])) ++expected;
    }
    ASSERT_LT(expected, 6) << "most depths lie above the content and are alike";

    std::istringstream lines(folder.run(sphere).out);
    long long rows = 0, told = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.front() != ' ' || line.find_first_not_of(' ') > 5) continue;
        std::istringstream row(line);
        std::string depths, count;
        row >> depths >> count;
        std::erase(count, ',');
        const std::size_t dash = depths.find('-');
        const long long first = std::stoll(depths), last = dash == std::string::npos ? first : std::stoll(depths.substr(dash + 1));
        told += (last - first + 1) * std::stoll(count);
        EXPECT_EQ(last > first, line.ends_with("each")) << line;
        ++rows;
    }
    EXPECT_EQ(rows, expected);
    EXPECT_EQ(told, sum) << "no tile is lost in the fold";
}

TEST(Info, tells_the_sizes_of_the_leaf_voxels_that_the_surface_crosses)
{
    const WorkFolder folder;
    const Words plain = {"sphere", "radius=1", "voxel=0.25"};
    const Json one = jsonOf(folder, plain + Words{"!", "info", "--json"}).at("level_set");
    EXPECT_EQ(one.at("voxel_min"), 0.25);
    EXPECT_EQ(one.at("voxel_max"), 0.25);
    // Finer by two levels in a box that holds a part of the surface.
    const Words adaptive = plain + Words{"inside=0,0,0,2,2,2", "levels=2", "structure=binary", "!", "info"};
    const Json two = jsonOf(folder, adaptive + Words{"--json"}).at("level_set");
    EXPECT_EQ(two.at("voxel_min"), 0.0625);
    EXPECT_EQ(two.at("voxel_max"), 0.25);
    EXPECT_NE(folder.run(adaptive).out.find("in leaf voxels of 0.0625 to 0.25\n"), std::string::npos);
    EXPECT_FALSE(jsonOf(folder, {"create_empty_volume", "1", "!", "update_voxel_position", "!", "info", "--json"}).contains("level_set"));
}

TEST(Compare, of_level_sets_is_in_the_narrower_band_unless_something_else_is_asked_for)
{
    const WorkFolder folder;
    // Bands of 0.3 and 0.15: both hold distances up to 0.15, less a voxel of 0.05.
    const Words spheres = {"sphere", "radius=1", "voxel=0.1", "as=a", "!", "sphere", "radius=1", "voxel=0.05", "as=b", "!"};
    for (Words const& pair : {Words{"a", "b"}, Words{"b", "a"}}) {
        const Json near = jsonOf(folder, spheres + Words{"compare"} + pair + Words{"--json"});
        EXPECT_NEAR(near.at("within"), 0.1, 1e-6) << "which is a float";
        EXPECT_GT(near.at("voxels"), 1000);
        // Exact distances of spheres; what is left is linear interpolation: h^2 / 8 times the sum of the second derivatives, which is
        // 2 / r, for r from 0.9 on and h = 0.1.
        EXPECT_LT(near.at("largest"), 0.1 * 0.1 / 8 * 2 / 0.8);
    }
    const Json everywhere = jsonOf(folder, spheres + Words{"compare", "b", "a", "within=0", "--json"});
    EXPECT_FALSE(everywhere.contains("within"));
    EXPECT_GT(everywhere.at("largest"), 1.0) << "far away there are no distances to compare";
    EXPECT_NE(folder.run(spheres + Words{"compare", "a", "b"}).out.find("voxels where the reference is within 0.1, the largest at"), std::string::npos);
}

TEST(Compare, of_other_properties_is_everywhere)
{
    const WorkFolder folder;
    const Words fogs = {"sphere", "radius=1", "voxel=0.25", "!", "fog", "as=a", "!"};
    const Json all = jsonOf(folder, fogs + Words{"compare", "a", "a", "property=voxel_fog_density", "--json"});
    EXPECT_FALSE(all.contains("within"));
    const std::vector<long long> leaves = jsonOf(folder, fogs + Words{"info", "a", "--json"}).at("leaf_voxels_by_depth");
    long long sum = 0;
    for (const long long count : leaves) sum += count;
    EXPECT_EQ(all.at("voxels"), sum);
}

TEST(Analyze, leaves_the_property_alone_unless_it_is_to_be_replaced)
{
    const WorkFolder folder;
    const Words sphere = {"sphere", "radius=1", "voxel=0.25", "!"};
    const Words look = {"!", "info", "--json"};
    const Json before = jsonOf(folder, sphere + Words{"info", "--json"}), after = jsonOf(folder, sphere + Words{"analyze_volume", "voxel_signed_distance", "gradient"} + look);
    EXPECT_EQ(propertiesOf(after), (Words{"voxel_signed_distance", "voxel_signed_distance_gradient"}));
    EXPECT_EQ(after.at("properties").at(0), before.at("properties").at(0));
    EXPECT_EQ(after.at("properties").at(1).at("type"), "float3");
    EXPECT_EQ(after.at("level_set"), before.at("level_set"));

    const Json named = jsonOf(folder, sphere + Words{"analyze_volume", "voxel_signed_distance", "laplacian", "output_property=bend"} + look);
    EXPECT_EQ(propertiesOf(named), (Words{"bend", "voxel_signed_distance"}));
    const Json replaced = jsonOf(folder, sphere + Words{"analyze_volume", "voxel_signed_distance", "gradient", "output_mode=replace"} + look);
    ASSERT_EQ(propertiesOf(replaced), Words{"voxel_signed_distance"});
    EXPECT_EQ(replaced.at("properties").at(0).at("type"), "float3");
}

}  // namespace
