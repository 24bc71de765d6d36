#include "io/legend.h"
#include "support/structures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace tilegrid::test {
namespace {

using namespace io;

Image paper(int width, int height) { return {width, height, std::vector<std::uint8_t>(std::size_t(3) * width * height, 255)}; }

std::string bytesOf(Image const& image) { return {image.rgb.begin(), image.rgb.end()}; }

/// The columns or rows of a picture that are not white.
std::pair<int, int> inkRange(Image const& image, bool rows)
{
    int first = std::numeric_limits<int>::max(), last = -1;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (image.rgb[3 * (std::size_t(y) * image.width + x)] < 250) first = std::min(first, rows ? y : x), last = std::max(last, rows ? y : x);
    return {first, last};
}

TEST(Lettering, gives_every_printable_character_a_look_of_its_own)
{
    std::set<std::string> looks;
    for (char letter = ' '; letter <= '~'; ++letter) {
        Image image = paper(40, 40);
        drawText(image, 8, 28, std::string(1, letter), {14, {0, 0, 0}});
        EXPECT_TRUE(looks.insert(bytesOf(image)).second) << letter;
    }
    Image unknown = paper(40, 40);
    drawText(unknown, 8, 28, "\xc3", {14, {0, 0, 0}});
    EXPECT_FALSE(looks.contains(bytesOf(unknown)));
}

TEST(Lettering, is_as_wide_and_as_high_as_it_says)
{
    for (const double height : {7.0, 14.0, 40.0}) {
        Image image = paper(800, 100);
        // Without tails, and upright at both ends: what sticks out is half of a stroke, a fourteenth of the height, and a pixel of rim.
        drawText(image, 20, 70, "HEIGHT 10 H", {height, {0, 0, 0}});
        const auto [left, right] = inkRange(image, false);
        const auto [top, bottom] = inkRange(image, true);
        const double slack = height / 14 + 1.5;
        EXPECT_NEAR(left, 20, slack) << height;
        EXPECT_NEAR(right, 20 + textWidth("HEIGHT 10 H", height), slack) << height;
        EXPECT_NEAR(top, 70 - height, slack) << height;
        EXPECT_NEAR(bottom, 70, slack) << height;
    }
}

TEST(Lettering, leaves_out_what_lies_outside_the_picture)
{
    Image image = paper(30, 12);
    for (const double x : {-1e9, -20.0, 25.0, 1e9})
        for (const double y : {-1e9, -3.0, 14.0, 1e9}) drawText(image, x, y, "outside", {9, {0, 0, 0}});
    drawLine(image, {-1e6, 6}, {1e6, 6}, 1, {0, 0, 0});
    for (int x = 0; x < 30; ++x) EXPECT_LT(image.rgb[3 * (5 * 30 + std::size_t(x))], 200) << x;
}

TEST(Ticks, are_round_numbers_within_the_range)
{
    const auto labels = [](double low, double high, int most) { return ticksOver(low, high, most).labels; };
    using Labels = std::vector<std::string>;
    EXPECT_EQ(labels(0, 1, 6), (Labels{"0", "0.2", "0.4", "0.6", "0.8", "1.0"}));
    EXPECT_EQ(labels(-3.2, 3.2, 4), (Labels{"-2", "0", "2"}));
    EXPECT_EQ(labels(0.0093, 0.0107, 4), (Labels{"0.0095", "0.0100", "0.0105"}));
    EXPECT_EQ(labels(0, 3e-9, 4), (Labels{"0", "1e-09", "2e-09", "3e-09"}));
    EXPECT_EQ(labels(9.9e7, 1.02e8, 4), (Labels{"9.9e+07", "1.00e+08", "1.01e+08", "1.02e+08"}));
}

TEST(Ticks, are_different_and_no_more_than_asked_for)
{
    Random random(7);
    for (int n = 0; n < 2000; ++n) {
        const double scale = std::pow(10.0, random.between(-30, 30)), low = scale * random.between(-1000, 1000) / 300.0;
        const double high = low + scale * random.between(1, 1000) / 200.0;
        const int most = random.between(2, 12);
        const Ticks ticks = ticksOver(low, high, most);
        ASSERT_LE(ticks.values.size(), std::size_t(most)) << low << ", " << high;
        ASSERT_EQ(std::set<std::string>(ticks.labels.begin(), ticks.labels.end()).size(), ticks.labels.size()) << low << ", " << high << ", " << most;
        for (std::size_t t = 0; t < ticks.values.size(); ++t) {
            ASSERT_GE(ticks.values[t], low - 1e-8 * (high - low));
            ASSERT_LE(ticks.values[t], high + 1e-8 * (high - low));
            // The label is the value: the distance of two ticks is at least a twelfth of what their digits tell.
            ASSERT_NEAR(std::stod(ticks.labels[t]), ticks.values[t], 1e-6 * (high - low)) << low << ", " << high << ", " << most;
        }
    }
}

TEST(Ticks, do_not_exist_for_ranges_that_have_none)
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity(), kNaN = std::numeric_limits<double>::quiet_NaN();
    for (auto const& [low, high] : {std::pair{1.0, 1.0}, std::pair{2.0, 1.0}, std::pair{0.0, kInfinity}, std::pair{kNaN, 1.0},
                                    std::pair{1e30, 1e30 + 1e15}})
        EXPECT_TRUE(ticksOver(low, high, 5).values.empty()) << low << ", " << high;
}

TEST(ColourBar, shows_the_colour_of_each_value_from_the_lowest_at_the_foot_to_the_highest)
{
    const LegendStyle style(1000);
    ColourBar bar;
    bar.low = -1, bar.high = 1;
    bar.colour = [](double value) { return Rgb{std::uint8_t(std::lround(127.5 + 127.5 * value)), 0, 0}; };
    for (const bool more : {false, true}) {
        bar.below = bar.above = more;
        Image image = paper(200, 400);
        drawColourBar(image, 20, 10, 390, bar, style);
        // Along the middle of the bar red falls evenly from above; the ends may be a point of 0.8 times the width.
        const int x = int(20 + 0.8 * style.letter), end = more ? int(1.3 * style.letter) + 3 : 3;
        for (int y = 10 + end; y < 390 - end; ++y) {
            const double share = (390 - end - y) / (380.0 - 2 * end);
            EXPECT_NEAR(image.rgb[3 * (std::size_t(y) * 200 + x)], 255 * share, 4) << y;
        }
        // Without a point the corner has the colour of the end.
        EXPECT_EQ(image.rgb[3 * (std::size_t(12) * 200 + 22) + 1] == 255, more);
    }
}

TEST(Shortened, keeps_the_beginning_of_what_is_too_wide)
{
    EXPECT_EQ(shortened("density", 10, 1000), "density");
    const std::string part = shortened("a_property_with_a_long_name", 10, 100);
    EXPECT_LE(textWidth(part, 10), 100);
    EXPECT_TRUE(part.starts_with("a_prop") && part.ends_with("..."));
    EXPECT_EQ(shortened("density", 10, 1), "");
}

}  // namespace
}  // namespace tilegrid::test
