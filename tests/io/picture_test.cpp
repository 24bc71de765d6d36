#include "io/error.h"
#include "io/image.h"
#include "io/slice.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

#include <png.h>

namespace tilegrid::test {
namespace {

using io::Image;
using io::InputError;
using io::sliceImage;
using io::SliceOptions;
using io::writePng;
using namespace OST::TileTree3D;

/// Decodes a file with the library's own reader.
Image decoded(std::string const& path)
{
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    EXPECT_TRUE(png_image_begin_read_from_file(&png, path.c_str())) << png.message;
    png.format = PNG_FORMAT_RGB;
    Image image{static_cast<int>(png.width), static_cast<int>(png.height),
                std::vector<std::uint8_t>(PNG_IMAGE_SIZE(png))};
    EXPECT_TRUE(png_image_finish_read(&png, nullptr, image.rgb.data(), 0, nullptr)) << png.message;
    return image;
}

std::array<int, 3> pixel(Image const& image, int x, int y)
{
    const std::size_t at = 3 * (static_cast<std::size_t>(y) * image.width + x);
    return {image.rgb[at], image.rgb[at + 1], image.rgb[at + 2]};
}
bool isBluish(std::array<int, 3> const& c) { return c[2] > c[0] + 10; }
bool isReddish(std::array<int, 3> const& c) { return c[0] > c[2] + 10; }
bool isDark(std::array<int, 3> const& c) { return c[0] < 60 && c[1] < 60 && c[2] < 60; }

TEST(PngWriter, writes_what_a_reader_reads)
{
    const TestFolder folder;
    Image image{37, 11, std::vector<std::uint8_t>(3 * 37 * 11)};
    Random random(5);
    for (std::uint8_t& byte : image.rgb) byte = static_cast<std::uint8_t>(random.below(256));
    image.set(36, 10, {1, 2, 3});
    writePng(folder.file("a.png"), image);
    const Image back = decoded(folder.file("a.png"));
    EXPECT_EQ(back.width, 37);
    EXPECT_EQ(back.height, 11);
    EXPECT_EQ(back.rgb, image.rgb);
    EXPECT_EQ(pixel(back, 36, 10), (std::array{1, 2, 3}));
}

TEST(PngWriter, leaves_the_old_file_when_there_is_no_picture)
{
    const TestFolder folder;
    folder.write("a.png", "old");
    EXPECT_TRUE(contains(errorOf<InputError>([&] { writePng(folder.file("a.png"), Image()); }), "empty"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] {
                             writePng(folder.file("a.png"), Image{2, 2, {1, 2, 3}});
                         }),
                         "not of the size"));
    EXPECT_EQ(folder.read("a.png"), "old");
}

template <class Tr> class Slice : public ::testing::Test {};
TYPED_TEST_SUITE(Slice, Structures, StructureNames);

TYPED_TEST(Slice, of_a_sphere_is_blue_inside_red_outside_and_dark_on_the_circle)
{
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 5), 0.02f);
    SliceOptions options;
    options.legend = false;
    options.size = 400;
    for (options.axis = 0; options.axis < 3; ++options.axis) {
        const Image image = sliceImage(*volume, options);
        ASSERT_EQ(image.width, 400);
        ASSERT_EQ(image.height, 400);
        // The sphere is centred, with 6 % of its diameter as margin on each side.
        const double radius = 200.0 / 1.12;
        int rim = 0, dark = 0;
        for (int y = 0; y < 400; ++y)
            for (int x = 0; x < 400; ++x) {
                const double away = std::hypot(x + 0.5 - 200.0, y + 0.5 - 200.0) - radius;
                // Half a voxel is about two pixels here; colours near the rim fade to white within the first ones.
                rim += std::abs(away) < 0.7;
                dark += std::abs(away) < 0.7 && isDark(pixel(image, x, y));
                ASSERT_FALSE(away < -12.0 && isReddish(pixel(image, x, y))) << x << ", " << y;
                ASSERT_FALSE(away > 12.0 && isBluish(pixel(image, x, y))) << x << ", " << y;
            }
        EXPECT_GT(dark, 0.9 * rim);
        EXPECT_TRUE(isBluish(pixel(image, 201, 203)));
        EXPECT_TRUE(isReddish(pixel(image, 3, 5)));
    }
}

TYPED_TEST(Slice, draws_borders_where_tiles_of_different_depth_meet)
{
    using Tr = TypeParam;
    // A tile of the finest depth at the origin of its parent: the picture of a constant shows nothing but borders.
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    io::addChannel<Tr>(*native, "density", 0.0f, [](auto const&, auto&) {});
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    SliceOptions options;
    options.legend = false;
    options.size = 300;
    const Image image = sliceImage(*volume, options);
    const auto blank = pixel(image, image.width / 2, image.height / 2);
    EXPECT_FALSE(isDark(blank));
    int dark = 0;
    for (int x = 0; x < image.width; ++x) dark += pixel(image, x, image.height / 2) != blank;
    EXPECT_GE(dark, 2);   // both sides of the tile
    EXPECT_LE(dark, 24);  // lines, not areas: at most twelve borders of two pixels fit
}

TYPED_TEST(Slice, is_the_same_on_any_number_of_threads)
{
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 3), 0.05f);
    SliceOptions options;
    options.legend = false;
    options.size = 200;
    options.at = 0.3;
    Image first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            const Image image = sliceImage(*volume, options);
            if (first.rgb.empty()) first = image;
            EXPECT_EQ(image.rgb, first.rgb) << threads << " threads";
        });
}

TYPED_TEST(Slice, has_ticks_where_the_axis_has_round_numbers)
{
    const auto volume = levelSetOf<TypeParam>(boxMesh({-2, -0.5f, -0.25f}, {2, 0.5f, 0.25f}), 0.05f);
    for (const int size : {400}) {
        SliceOptions options;
        options.size = size;
        const Image image = sliceImage(*volume, options);
        EXPECT_EQ(image.width, size);
        // The lower side of the frame is the first row from below that is mostly ink; ticks hang from it.
        const auto isInk = [&](int x, int y) {
            const auto c = pixel(image, x, y);
            return c[0] < 110 && c[1] < 110 && c[2] < 120;
        };
        int bottom = image.height - 1;
        const auto inkIn = [&](int y) {
            int count = 0;
            for (int x = 0; x < image.width; ++x) count += isInk(x, y);
            return count;
        };
        while (inkIn(bottom) < image.width / 2) --bottom;
        std::vector<double> ticks;
        int begin = 1;  // of the frame: labels of the other axis lie further left, the bar further right
        while (!isInk(begin + 4, bottom)) ++begin;
        for (int x = begin + 8; x < image.width * 84 / 100; ++x)
            if (isInk(x, bottom + 2) && !isInk(x - 1, bottom + 2)) ticks.push_back(x + 0.5);
        // The inside reaches from -2 to 2 on x. What is shown is 0.24 wider on both sides: there are ticks at -2, -1, 0, 1 and 2, or
        // twice as many.
        int left = image.width, right = 0;
        for (int y = 0; y < bottom; ++y)
            for (int x = 0; x < image.width * 83 / 100; ++x)
                if (isBluish(pixel(image, x, y)) && !isInk(x, y)) left = std::min(left, x), right = std::max(right, x);
        ASSERT_TRUE(ticks.size() == 5 || ticks.size() == 9) << ticks.size() << " in " << size;
        // Near the surface colours are white, then comes its line: within 2 % of the length and three pixels.
        const double slack = 0.02 * (right - left) + 3;
        EXPECT_NEAR(ticks.front(), left, slack) << size;
        EXPECT_NEAR(ticks.back(), right, slack) << size;
        for (std::size_t n = 2; n < ticks.size(); ++n)
            EXPECT_NEAR(ticks[n] - ticks[n - 1], ticks[1] - ticks[0], 1.01) << size;
    }
    SliceOptions options;
    options.size = 239;
    const Image small = sliceImage(*volume, options);
    options.legend = false;
    EXPECT_EQ(small.rgb, sliceImage(*volume, options).rgb);
}

/// The world direction of a knob on a bar, by where the inside is in each slice: to the left or right, and above or below.
struct Sides {
    bool right, above;
};
template <class Tr> Sides sidesOf(Ostara::Object const& volume, int axis, io::UpAxis up)
{
    SliceOptions options;
    options.legend = false;
    options.size = 200;
    options.axis = axis;
    options.up = up;
    const Image image = sliceImage(volume, options);
    int right = 0, above = 0;
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            if (isBluish(pixel(image, x, y))) right += 2 * x > image.width ? 1 : -1, above += 2 * y < image.height ? 1 : -1;
    return {right > 0, above > 0};
}

TYPED_TEST(Slice, has_y_up_or_the_axis_that_is_asked_for)
{
    using Tr = TypeParam;
    // Most of it lies at high x, y and z in every plane through the middle: an arm of a cross is wide there.
    const auto volume = levelSetOf<Tr>(joined(joined(boxMesh({-1, -0.2f, -0.2f}, {1, 0.2f, 0.2f}), boxMesh({-0.2f, -1, -0.2f}, {0.2f, 1, 0.2f})),
                                              joined(boxMesh({-0.2f, -0.2f, -1}, {0.2f, 0.2f, 1}), boxMesh({-0.1f, -0.1f, -0.1f}, {0.9f, 0.9f, 0.9f}))),
                                       0.05f);
    const auto check = [&](int axis, io::UpAxis up, bool right, bool above) {
        const Sides sides = sidesOf<Tr>(*volume, axis, up);
        EXPECT_EQ(sides.right, right) << axis;
        EXPECT_EQ(sides.above, above) << axis;
    };
    // From the left: z to the right, y up. From above: x to the right, z down. From the front: x to the right, y up.
    check(0, io::UpAxis::kY, true, true);
    check(1, io::UpAxis::kY, true, false);
    check(2, io::UpAxis::kY, true, true);
    // y to the right, z up; x to the right, z up; x to the right, y up.
    for (int axis = 0; axis < 3; ++axis) check(axis, io::UpAxis::kZ, true, true);
}

TYPED_TEST(Slice, from_the_left_has_y_up_where_z_and_y_differ)
{
    // Long along y: the picture is tall. With z up it lies on its side.
    const auto volume = levelSetOf<TypeParam>(boxMesh({-0.5f, -2, -0.5f}, {0.5f, 2, 0.5f}), 0.05f);
    SliceOptions options;
    options.legend = false;
    options.size = 100;
    options.axis = 0;
    const Image tall = sliceImage(*volume, options);
    EXPECT_LT(tall.width, tall.height / 2);
    options.up = io::UpAxis::kZ;
    const Image wide = sliceImage(*volume, options);
    EXPECT_LT(wide.height, wide.width / 2);
}

TYPED_TEST(Slice, shows_every_kind_of_property_and_survives_values_that_are_not_finite)
{
    using Tr = TypeParam;
    auto native =
        io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth), VoxelCoord(64, 0, 0, Tr::maxDepth)}, 1.0f, kCenter);
    io::addChannel<Tr>(*native, "velocity", float3(0, 0, 0), [](auto const&, auto& channel) {
        channel.tileData(0, Tr::maxDepth)(0) = {3, 0, 4};
    });
    io::addChannel<Tr>(*native, "wild", 0.0f, [](auto const&, auto& channel) {
        channel.tileData(0, Tr::maxDepth)(0) = std::numeric_limits<float>::quiet_NaN();
        channel.tileData(0, Tr::maxDepth)(1) = std::numeric_limits<float>::infinity();
        channel.tileData(0, Tr::maxDepth)(2) = -std::numeric_limits<float>::infinity();
    });
    io::addChannel<Tr>(*native, "mark", static_cast<unsigned char>(1), [](auto const&, auto&) {});
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    SliceOptions options;
    options.legend = false;
    options.size = 64;
    options.at = 0.0;
    for (const std::string name : {"velocity", "wild", "mark", ""}) {
        options.property = name;
        EXPECT_EQ(sliceImage(*volume, options).width, 64) << name;
    }
}

TEST(SliceOptionsCheck, names_the_properties_when_one_is_missing)
{
    const auto volume = levelSetOf<BinaryTraits>(boxMesh({0, 0, 0}, {1, 1, 1}), 0.1f);
    SliceOptions options;
    options.legend = false;
    options.property = "temperature";
    const std::string text = errorOf<InputError>([&] { sliceImage(*volume, options); });
    EXPECT_TRUE(contains(text, "'temperature'") && contains(text, "voxel_signed_distance")) << text;
}

TEST(SliceOptionsCheck, refuses_options_out_of_range)
{
    const auto volume = levelSetOf<BinaryTraits>(boxMesh({0, 0, 0}, {1, 1, 1}), 0.1f);
    const auto complaint = [&](int axis, double at, int size) {
        SliceOptions options;
        options.legend = false;
        options.axis = axis, options.at = at, options.size = size;
        return errorOf<InputError>([&] { sliceImage(*volume, options); });
    };
    EXPECT_TRUE(contains(complaint(3, 0.5, 100), "axis"));
    EXPECT_TRUE(contains(complaint(-1, 0.5, 100), "axis"));
    EXPECT_TRUE(contains(complaint(0, -0.1, 100), "place"));
    EXPECT_TRUE(contains(complaint(0, std::numeric_limits<double>::quiet_NaN(), 100), "place"));
    EXPECT_TRUE(contains(complaint(0, 0.5, 0), "size"));
    EXPECT_TRUE(contains(complaint(0, 0.5, 1 << 30), "size"));
    EXPECT_TRUE(contains(errorOf<InputError>([] { sliceImage(Ostara::Object(), {}); }), "no volume"));
}

}  // namespace
}  // namespace tilegrid::test
