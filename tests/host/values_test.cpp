#include "TilegridOps/host/any.h"
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/string.h"

#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <type_traits>
#include <vector>

namespace tilegrid::test {
namespace {

using Corvid::Array;
using Corvid::String;
using namespace Ostara::Math;

TEST(HostArray, of_bool_stores_elements_that_threads_may_write_side_by_side)
{
    static_assert(std::is_same_v<decltype(std::declval<Array<bool>&>()[0]), bool&>);
    Array<bool> flags(64 * 1024, false);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 8; ++t)
        threads.emplace_back([&flags, t] {
            for (std::size_t n = t; n < flags.size(); n += 8) flags[n] = n % 3 == 0;
        });
    for (std::thread& thread : threads) thread.join();
    for (std::size_t n = 0; n < flags.size(); ++n) ASSERT_EQ(flags[n], n % 3 == 0) << n;
    EXPECT_EQ(flags.data() + flags.size(), flags.end());
}

TEST(HostArray, grows_like_the_standard_vector)
{
    Array<String> ours;
    std::vector<std::string> theirs;
    for (int n = 0; n < 300; ++n) {
        if (n % 50 == 49) {
            ours.resize(static_cast<std::size_t>(n / 3), String("filled"));
            theirs.resize(static_cast<std::size_t>(n / 3), "filled");
        } else if (n % 70 == 69) {
            ours.resize(ours.size() + 9, String("filled"));
            theirs.resize(theirs.size() + 9, "filled");
        } else {
            ours.push_back(String(std::to_string(n)));
            theirs.push_back(std::to_string(n));
        }
        ASSERT_EQ(ours.size(), theirs.size());
        for (std::size_t i = 0; i < theirs.size(); ++i) ASSERT_EQ(ours[i].str(), theirs[i]);
    }
}

TEST(HostArray, takes_its_own_element_as_a_new_one)
{
    Array<String> array{String("first"), String("second")};
    for (int n = 0; n < 40; ++n) array.push_back(array[0]);
    array.resize(100, array[1]);
    EXPECT_EQ(array.back(), String("second"));
    EXPECT_EQ(array[41], String("first"));
}

TEST(HostArray, is_a_value)
{
    Array<int> a{1, 2, 3}, b = a;
    b[0] = 9;
    EXPECT_EQ(a[0], 1);
    a = b;
    EXPECT_TRUE(a == b);
    auto& same = a;
    a = same;
    EXPECT_EQ(a, (Array<int>{9, 2, 3}));
    const Array<int> c = std::move(a);
    EXPECT_EQ(c.size(), 3u);
    EXPECT_TRUE(Array<int>().empty());
    b.clear();
    EXPECT_TRUE(b.empty());
    const int values[] = {4, 5};
    EXPECT_EQ(Array<int>(values, values + 2), (Array<int>{4, 5}));
    EXPECT_FALSE((Array<int>{4, 5}) == (Array<int>{4, 5, 6}));
}

TEST(HostAny, tells_its_type_and_gives_the_value_of_no_other)
{
    const Corvid::Any none, number(3), text(String("a"));
    EXPECT_TRUE(none.empty());
    EXPECT_FALSE(none.holds<int>());
    ASSERT_TRUE(number.holds<int>());
    EXPECT_EQ(*number.get<int>(), 3);
    EXPECT_EQ(number.get<unsigned>(), nullptr);
    EXPECT_EQ(number.get<long>(), nullptr);
    EXPECT_EQ(*text.get<String>(), String("a"));
    EXPECT_TRUE(text.type() == typeid(String));
    const Corvid::Any copy = text;
    EXPECT_EQ(*copy.get<String>(), String("a"));
}

TEST(HostString, compares_joins_and_prints)
{
    const String a("voxel_"), b(std::string("fuel"));
    EXPECT_EQ(a + b, String("voxel_fuel"));
    EXPECT_TRUE(a + b == "voxel_fuel");
    EXPECT_TRUE(a > b);
    EXPECT_TRUE(String().empty());
    std::ostringstream out;
    out << a << b;
    EXPECT_EQ(out.str(), "voxel_fuel");
    EXPECT_EQ(Corvid::StringView(a), Corvid::StringView("voxel_"));
    EXPECT_EQ(std::hash<String>()(a), std::hash<String>()(String("voxel_")));
    EXPECT_EQ(String(std::string("with\0zero", 9)).size(), 9u);
}

TEST(HostMath, types_are_packed_and_trivially_copyable)
{
    static_assert(sizeof(float2) == 8 && sizeof(float3) == 12 && sizeof(float4) == 16 && sizeof(double3) == 24
                  && sizeof(int3) == 12);
    static_assert(sizeof(float3x3) == 36 && sizeof(float4x2) == 32 && sizeof(float4x4) == 64);
    static_assert(std::is_trivially_copyable_v<float3> && std::is_trivially_copyable_v<float4x4>);
    static_assert(ElementTraits<float>::components == 1 && ElementTraits<float4x2>::components == 8);
    EXPECT_EQ(float3(), float3(0, 0, 0));
}

TEST(HostMath, comparisons_of_vectors_hold_if_they_hold_in_every_component)
{
    const float3 low(1, 2, 3), high(4, 5, 6), mixed(0, 9, 9);
    EXPECT_TRUE(low < high);
    EXPECT_TRUE(high > low);
    EXPECT_FALSE(low < mixed);
    EXPECT_FALSE(low >= mixed);
    EXPECT_TRUE(low <= low);
    EXPECT_TRUE(low >= low);
    EXPECT_FALSE(low < low);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(float3(nan, 2, 3) <= high);
    EXPECT_FALSE(float3(nan, 2, 3) == float3(nan, 2, 3));
}

TEST(HostMath, arithmetic_works_by_component)
{
    const float3 a(1, 2, 3), b(4, -5, 6);
    EXPECT_EQ(a + b, float3(5, -3, 9));
    EXPECT_EQ(a - b, float3(-3, 7, -3));
    EXPECT_EQ(-a, float3(-1, -2, -3));
    EXPECT_EQ(2.0f * a, float3(2, 4, 6));
    EXPECT_EQ(a * 2.0f, float3(2, 4, 6));
    EXPECT_EQ(dot(a, b), 12);
    EXPECT_EQ(cross(float3(1, 0, 0), float3(0, 1, 0)), float3(0, 0, 1));
    EXPECT_EQ(length(float3(2, 3, 6)), 7);
    float3 c = a;
    c += b;
    c -= a;
    EXPECT_EQ(c, b);
    EXPECT_EQ(int3(float3(1.9f, -1.9f, 3)), int3(1, -1, 3));
    for (int n = 0; n < 3; ++n) EXPECT_EQ(b[n], n == 0 ? b.x : n == 1 ? b.y : b.z);
    float4x2 m;
    m(2, 1) = 7;
    EXPECT_EQ(m[5], 7) << "row by row";
    EXPECT_EQ(float3x3(2.0f) + float3x3(1.0f), float3x3(3.0f));
    std::ostringstream out;
    out << int3(1, -2, 3);
    EXPECT_EQ(out.str(), "(1, -2, 3)");
}

TEST(HostMath, boxes_are_empty_until_something_is_added)
{
    bbox<int3, int> box;
    EXPECT_TRUE(box.empty());
    box.add(bbox<int3, int>());
    EXPECT_TRUE(box.empty());
    box.add(int3(3, -4, 5));
    EXPECT_FALSE(box.empty());
    EXPECT_EQ(box.min, int3(3, -4, 5));
    EXPECT_EQ(box.max, int3(3, -4, 5));
    bbox<int3, int> other;
    other.add(int3(0, 0, 9));
    box.add(other);
    EXPECT_EQ(box.min, int3(0, -4, 5));
    EXPECT_EQ(box.max, int3(3, 0, 9));
}

}  // namespace
}  // namespace tilegrid::test
