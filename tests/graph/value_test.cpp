#include "graph/error.h"
#include "graph/value.h"
#include "support/files.h"

#include <limits>

namespace {

using namespace tilegrid::graph;
using tilegrid::test::contains;
using tilegrid::test::errorOf;

std::string refusal(ParameterInfo const& parameter, std::string const& text)
{
    return errorOf<UsageError>([&] { parseValue(parameter, text); });
}

Length lengthIn(ParameterInfo const& parameter, std::string const& text)
{
    return std::get<Length>(parseValue(parameter, text));
}

TEST(Value, of_a_length_counts_what_its_unit_says_and_else_what_the_parameter_says)
{
    const ParameterInfo world{.name = "width", .type = ParameterType::kLength, .help = ""};
    const ParameterInfo voxels{.name = "band", .type = ParameterType::kLength, .help = "", .bareUnit = LengthUnit::kVoxels};
    EXPECT_EQ(lengthIn(world, "2").unit, LengthUnit::kWorld);
    EXPECT_EQ(lengthIn(world, "2vx").unit, LengthUnit::kVoxels);
    EXPECT_EQ(lengthIn(voxels, "2").unit, LengthUnit::kVoxels);
    EXPECT_EQ(lengthIn(voxels, "2wu").unit, LengthUnit::kWorld);
    for (char const* text : {"2.5", "2.5vx", "2.5wu"}) EXPECT_EQ(lengthIn(world, text).value, 2.5) << text;
}

TEST(Value, of_a_length_has_no_voxels_where_there_is_no_volume)
{
    const ParameterInfo size{.name = "voxel", .type = ParameterType::kLength, .help = "", .voxelsAllowed = false};
    EXPECT_TRUE(contains(refusal(size, "2vx"), "Give world units"));
    for (char const* text : {"", "vx", "2px", "2 vx", "two", "nan", "inf"}) EXPECT_NE(refusal(size, text), "") << text;
}

TEST(Value, of_a_float_is_finite_and_survives_the_way_into_a_float)
{
    const ParameterInfo number{.name = "factor", .type = ParameterType::kFloat, .help = ""};
    EXPECT_EQ(std::get<double>(parseValue(number, "-2.5e-3")), -2.5e-3);
    for (char const* text : {"", "1x", " 1", "0x1p3x", "nan", "inf", "1e39", "1e-60", "1e999"}) EXPECT_NE(refusal(number, text), "") << text;
}

TEST(Value, lies_within_its_bounds)
{
    const ParameterInfo positive{.name = "voxel", .type = ParameterType::kFloat, .help = "", .range = {.min = 0, .aboveMin = true}};
    EXPECT_TRUE(contains(refusal(positive, "0"), "above 0"));
    EXPECT_EQ(std::get<double>(parseValue(positive, "1e-30")), 1e-30);
    const ParameterInfo part{.name = "at", .type = ParameterType::kFloat, .help = "", .range = {.min = 0, .max = 1}};
    for (char const* text : {"0", "1"}) EXPECT_NO_THROW(parseValue(part, text)) << text;
    EXPECT_TRUE(contains(refusal(part, "1.0001"), "0 to 1"));
    const ParameterInfo count{.name = "size", .type = ParameterType::kInt, .help = "", .range = {.min = 1, .max = 9}};
    EXPECT_EQ(std::get<std::int64_t>(parseValue(count, "9")), 9);
    for (char const* text : {"0", "10", "2.5", "99999999999999999999"}) EXPECT_NE(refusal(count, text), "") << text;
}

TEST(Value, of_a_choice_is_its_place)
{
    const ParameterInfo axis{.name = "axis", .type = ParameterType::kEnum, .help = "", .choices = {"x", "y", "z"}};
    EXPECT_EQ(std::get<std::int64_t>(parseValue(axis, "y")), 1);
    EXPECT_TRUE(contains(refusal(axis, "w"), "x, y, z"));
    EXPECT_NE(refusal(axis, ""), "");
}

TEST(Value, of_a_vector_is_a_list_without_gaps)
{
    const ParameterInfo vector{.name = "new_min", .type = ParameterType::kVector, .help = ""};
    EXPECT_EQ(std::get<std::vector<double>>(parseValue(vector, "1,-2,0.5")), (std::vector<double>{1, -2, 0.5}));
    EXPECT_EQ(std::get<std::vector<double>>(parseValue(vector, "7")), std::vector<double>{7});
    for (char const* text : {"", ",", "1,", ",1", "1,,2", "1;2", "1,nan"}) EXPECT_NE(refusal(vector, text), "") << text;
}

TEST(Value, of_a_file_ends_as_one_of_its_formats_in_any_case)
{
    const ParameterInfo file{.name = "file", .type = ParameterType::kOutputFile, .help = "", .endings = {".vdb", ".ply"}};
    for (char const* text : {"a.vdb", "out.d/a.PLY"}) EXPECT_NO_THROW(parseValue(file, text)) << text;
    for (char const* text : {"", "a", "vdb", "a.vdb/b", "a.vdb.txt"}) EXPECT_NE(refusal(file, text), "") << text;
}

TEST(Value, as_text_is_the_shortest_that_leads_back)
{
    EXPECT_EQ(shortest(0.0387f), "0.0387");
    EXPECT_EQ(shortest(0.1), "0.1");
    EXPECT_EQ(asWritten(0.0387f), 0.0387);
    const float odd = std::numeric_limits<float>::denorm_min();
    EXPECT_EQ(float(asWritten(odd)), odd);
}

}  // namespace
