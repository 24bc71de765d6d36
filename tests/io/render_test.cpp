#include "io/error.h"
#include "io/level_set_from_shape.h"
#include "io/render.h"
#include "io/render_shading.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::Image;
using io::InputError;
using io::renderImage;
using io::RenderOptions;
using io::SurfaceColour;
using namespace OST::TileTree3D;
using Ostara::Geometry::sVoxelSignedDistance;

using Rgb = std::array<int, 3>;

Rgb colourAt(Image const& image, int x, int y)
{
    const std::size_t at = 3 * (static_cast<std::size_t>(y) * image.width + x);
    return {image.rgb[at], image.rgb[at + 1], image.rgb[at + 2]};
}
int brightness(Rgb const& c) { return c[0] + c[1] + c[2]; }

template <class Tr>
Corvid::Ptr<Ostara::Object> levelSetOfShape(io::Shape const& shape, float voxelSize,
                                            std::optional<io::FinerBox> finer = {})
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.structure = structureOf<Tr>();
    options.finer = finer;
    return io::levelSetFromShape(shape, options);
}

/// The volume with a channel whose value is `valueAt(world place)`.
template <class Tr, class T, class Value>
Corvid::Ptr<Ostara::Object> withProperty(Corvid::Ptr<Ostara::Object> volume, char const* name, Value const& valueAt)
{
    const auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(volume));
    io::addChannel<Tr>(*native, name, T(), [&](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, depth)(flat) =
                        valueAt(tree.voxelSize()
                                * (float3(tree.tile(n, depth).tijk())
                                   + float(Tr::voxelDataWidth(depth)) * float3(cubeIndex(Tr::width, flat))));
    });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

RenderOptions optionsOf(int size, io::View const& view = {0, 0}, SurfaceColour colour = SurfaceColour::kNormal)
{
    RenderOptions options;
    options.size = size;
    options.view = view;
    options.colour = colour;
    options.legend = false;
    return options;
}

template <class Tr> class Render : public ::testing::Test {};
TYPED_TEST_SUITE(Render, Structures, StructureNames);

TYPED_TEST(Render, shows_a_ball_as_a_disc_that_fills_the_picture_up_to_the_margin)
{
    constexpr int kSize = 300;
    // The ball is seen as a circle, since its middle is that of the picture.
    const auto volume = levelSetOfShape<TypeParam>(io::Sphere{{1, 2, 3}, 1}, 1.0f / 64);
    for (io::View const& view : {io::View{0, 0}, io::View{37, -53}}) {
        const Image image = renderImage(*volume, optionsOf(kSize, view));
        ASSERT_EQ(std::max(image.width, image.height), kSize);
        ASSERT_GE(std::min(image.width, image.height), kSize - 3);
        const double radius = 0.5 * kSize / 1.12;
        for (int y = 0; y < image.height; ++y) {
            // Nothing of the surface is ever grey; the background is, nearly.
            const Rgb side = colourAt(image, 0, y);
            for (int x = 0; x < image.width; ++x) {
                const double away = std::hypot(x + 0.5 - 0.5 * image.width, y + 0.5 - 0.5 * image.height) - radius;
                // The frame is known to a voxel, 1/128 of the disc's width.
                if (away > radius / 64 + 1.5) {
                    ASSERT_EQ(colourAt(image, x, y), side) << x << ", " << y;
                } else if (away < -radius / 64 - 1.5) {
                    ASSERT_NE(colourAt(image, x, y), side) << x << ", " << y;
                }
            }
        }
    }
}

TYPED_TEST(Render, shows_the_normals_of_a_ball_as_colours)
{
    constexpr int kSize = 257;
    constexpr double kPi = 3.14159265358979;
    const auto volume = levelSetOfShape<TypeParam>(io::Sphere{{0, 0, 0}, 1}, 1.0f / 64);
    const Image image = renderImage(*volume, optionsOf(kSize));
    // The camera's eye: the ball around the box, of radius sqrt 3, fills an angle of 13 degrees on each side. The circle seen
    // has the tangent cone's slope.
    const double eye = std::sqrt(3.0) / std::sin(13.0 * kPi / 180.0), slope = 1.0 / std::sqrt(eye * eye - 1.0);
    const double pixel = slope / (0.5 * kSize / 1.12);
    for (const auto& [dx, dy] : {std::pair{0, 0}, std::pair{60, 0}, std::pair{0, 60}, std::pair{-40, -50}}) {
        const double x = dx * pixel, y = -dy * pixel;
        // Nearest crossing of the line from (0,0,eye) along (x,y,-1) with the unit ball.
        const double a = x * x + y * y + 1.0, t = (eye - std::sqrt(eye * eye - a * (eye * eye - 1.0))) / a;
        const double normal[3] = {t * x, t * y, eye - t};
        const Rgb found = colourAt(image, image.width / 2 + dx, image.height / 2 + dy);
        // One voxel of the frame is 1/64 of the radius, one pixel 1/115; a byte is 2/255.
        for (std::size_t c = 0; c < 3; ++c)
            EXPECT_NEAR(found[c] / 127.5 - 1.0, normal[c], 0.04) << dx << ", " << dy << ", " << c;
    }
}

TYPED_TEST(Render, looks_from_the_side_that_its_angles_name)
{
    const auto volume = levelSetOfShape<TypeParam>(io::Box{{-1, -1, -1}, {1, 1, 1}}, 0.0625f);
    const std::pair<io::View, Rgb> sides[] = {{{0, 0}, {128, 128, 255}},  {{180, 0}, {128, 128, 0}},
                                              {{-90, 0}, {0, 128, 128}},  {{90, 0}, {255, 128, 128}},
                                              {{0, 90}, {128, 255, 128}}, {{0, -90}, {128, 0, 128}}};
    for (const auto& [view, colour] : sides) {
        const Image image = renderImage(*volume, optionsOf(64, view));
        const Rgb found = colourAt(image, image.width / 2, image.height / 2);
        for (std::size_t c = 0; c < 3; ++c)
            EXPECT_NEAR(found[c], colour[c], 1) << view.azimuth << ", " << view.elevation;
    }
}

TYPED_TEST(Render, has_x_to_the_right_and_y_up_from_the_front_and_minus_z_up_from_above)
{
    // A bar with a knob at its far end along x, y and -z.
    const auto volume = levelSetOf<TypeParam>(
        joined(boxMesh({-1, -1, -1}, {1, -0.5f, 1}), boxMesh({0.5f, -0.6f, -1}, {1, 1, -0.5f})), 0.05f);
    const auto isSurface = [](Image const& image, double x, double y) {
        const int px = static_cast<int>(x * image.width), py = static_cast<int>(y * image.height);
        return colourAt(image, px, py) != colourAt(image, 0, py);
    };
    const Image front = renderImage(*volume, optionsOf(200));
    EXPECT_TRUE(isSurface(front, 0.8, 0.2));
    EXPECT_FALSE(isSurface(front, 0.2, 0.2));
    EXPECT_TRUE(isSurface(front, 0.2, 0.85));
    // From above the knob's top, nearer than the bar, covers the right upper corner: all of it looks up.
    const Image left = renderImage(*volume, optionsOf(200, {-90, 0}));
    // From the left, -z is to the left.
    EXPECT_TRUE(isSurface(left, 0.2, 0.2));
    EXPECT_FALSE(isSurface(left, 0.8, 0.2));
}

TYPED_TEST(Render, takes_the_shape_of_the_picture_from_the_content)
{
    const auto volume = levelSetOfShape<TypeParam>(io::Box{{0, 0, 0}, {4, 1, 1}}, 0.0625f);
    const Image wide = renderImage(*volume, optionsOf(400)), tall = renderImage(*volume, optionsOf(400, {90, 0}));
    EXPECT_EQ(wide.width, 400);
    EXPECT_LT(wide.height, 200);
    EXPECT_NEAR(tall.width, tall.height, 2);
}

TYPED_TEST(Render, gives_each_depth_a_tone_and_draws_the_borders_of_tiles)
{
    const auto volume =
        levelSetOfShape<TypeParam>(io::Sphere{{0, 0, 0}, 1}, 0.125f, io::FinerBox{{0, -2, -2}, {2, 2, 2}, 1});
    const Image image = renderImage(*volume, optionsOf(300, {0, 0}, SurfaceColour::kDepth));
    int blue = 0, green = 0;
    for (int y = 60; y < 240; ++y) {
        const Rgb fine = colourAt(image, 240, y), coarse = colourAt(image, 60, y);
        blue += fine[2] > fine[1] && fine[1] > fine[0];
        green += coarse[1] > coarse[2] && coarse[2] > coarse[0];
    }
    EXPECT_EQ(blue, 180);
    EXPECT_EQ(green, 180);
    // Borders cross every row of the finer half, at most 34 pixels apart: there a pixel is darker than those two beside it.
    // A row that lies in a border itself shows nothing of that.
    int lines = 0;
    for (int y = 140; y < 160; ++y)
        for (int x = 160; x < 260; ++x)
            lines += brightness(colourAt(image, x, y)) + 30
                < std::min(brightness(colourAt(image, x - 2, y)), brightness(colourAt(image, x + 2, y)));
    EXPECT_GE(lines, 30);
}

TYPED_TEST(Render, shows_a_number_on_a_scale_from_the_least_to_the_largest_that_is_seen)
{
    using Tr = TypeParam;
    const auto volume = withProperty<Tr, float>(levelSetOfShape<Tr>(io::Sphere{{0, 0, 0}, 1}, 0.0625f), "heat",
                                                [](float3 const& p) { return 500.0f * p.x; });
    RenderOptions options = optionsOf(200, {0, 0}, SurfaceColour::kProperty);
    options.property = "heat";
    const Image image = renderImage(*volume, options);
    // Dark blue on the left, green in the middle, yellow on the right.
    const Rgb left = colourAt(image, 20, 100), middle = colourAt(image, 100, 100), right = colourAt(image, 180, 100);
    EXPECT_GT(left[2], left[1] + 20);
    EXPECT_GT(middle[1], middle[0] + 20);
    EXPECT_GT(right[0], right[2] + 30);
    EXPECT_GT(right[1], right[2] + 30);
}

TYPED_TEST(Render, shows_three_numbers_as_red_green_and_blue)
{
    using Tr = TypeParam;
    const auto ball = levelSetOfShape<Tr>(io::Sphere{{0, 0, 0}, 1}, 0.0625f);
    RenderOptions options = optionsOf(100, {0, 0}, SurfaceColour::kProperty);
    options.property = "paint";
    // Between 0 and 1 as they are: no blue at all, but for a glint.
    const Image orange = renderImage(
        *withProperty<Tr, float3>(ball, "paint", [](float3 const&) { return float3(1.0f, 0.5f, 0.0f); }), options);
    const Rgb found = colourAt(orange, 60, 60);
    EXPECT_GT(found[0], found[1] + 30);
    EXPECT_GT(found[1], found[2] + 30);
    // Beyond, from the least to the largest: here -7 and 7, so that 0 is half of the way.
    const Image wide = renderImage(
        *withProperty<Tr, float3>(ball, "paint", [](float3 const&) { return float3(7.0f, 0.0f, -7.0f); }), options);
    const Rgb same = colourAt(wide, 60, 60);
    for (std::size_t c = 0; c < 3; ++c) EXPECT_NEAR(same[c], found[c], 2);
}

TYPED_TEST(Render, leaves_what_is_hidden_from_the_lamp_in_the_dark)
{
    using Tr = TypeParam;
    // A plate, and a ball high above it. Seen from above, the lamp stands to the left and up: the shadow falls to the right.
    const auto plate = boxMesh({-2, -0.2f, -2}, {2, 0, 2});
    const RenderOptions options = optionsOf(240, {0, 90}, SurfaceColour::kPlain);
    const Image alone = renderImage(*levelSetOf<Tr>(plate, 0.05f), options);
    const Image both = renderImage(*levelSetOf<Tr>(joined(plate, sphereMesh(0.3f, 3, {0, 0.8f, 0})), 0.05f), options);
    const auto darkest = [](Image const& image) {
        int least = 765;
        for (int y = image.height / 4; y < image.height * 3 / 4; ++y)
            for (int x = image.width * 6 / 10; x < image.width * 8 / 10; ++x)
                least = std::min(least, brightness(colourAt(image, x, y)));
        return least;
    };
    EXPECT_LT(darkest(both), darkest(alone) - 100);
}

TYPED_TEST(Render, with_z_up_looks_at_a_turned_world_as_without_at_the_world)
{
    using Tr = TypeParam;
    // Where y points up lies z in the other world, and -y where z looks at the viewer.
    const auto turned = [](io::TriangleMesh mesh) {
        for (float3& v : mesh.vertices) v = {v.x, -v.z, v.y};
        return mesh;
    };
    const auto mesh = joined(boxMesh({-1, -1, -1}, {1, -0.5f, 1}), boxMesh({0.5f, -0.6f, -1}, {1, 1, -0.5f}));
    RenderOptions options = optionsOf(150, {-30, 20});
    const Image world = renderImage(*levelSetOf<Tr>(mesh, 0.05f), options);
    options.view.up = io::UpAxis::kZ;
    const Image other = renderImage(*levelSetOf<Tr>(turned(mesh), 0.05f), options);
    ASSERT_EQ(world.width, other.width);
    ASSERT_EQ(world.height, other.height);
    // Normals are colours and turn with the world: red stays, blue becomes the opposite of green, green becomes blue.
    int different = 0;
    for (int y = 0; y < world.height; ++y)
        for (int x = 0; x < world.width; ++x) {
            const Rgb a = colourAt(world, x, y), b = colourAt(other, x, y);
            const bool isBackground = a == colourAt(world, 0, y);
            const Rgb expected = isBackground ? a : Rgb{a[0], 255 - a[2], a[1]};
            for (std::size_t c = 0; c < 3; ++c) different += std::abs(expected[c] - b[c]) > 6;
        }
    // Pixels at edges hold parts of the background, which does not turn.
    EXPECT_LT(different, 3 * 0.04 * world.width * world.height);
}

TYPED_TEST(Render, has_a_legend_of_the_voxel_sizes_that_are_seen_or_of_the_range_of_a_property)
{
    using Tr = TypeParam;
    const auto volume = withProperty<Tr, float>(
        levelSetOfShape<Tr>(io::Sphere{{0, 0, 0}, 1}, 0.125f, io::FinerBox{{0, -2, -2}, {2, 2, 2}, 1}), "heat",
        [](float3 const& p) { return 500.0f * p.x; });
    const auto coloursBeside = [](Image const& image, auto const& colour) {
        // To the right of the picture of a ball, which is as wide as it is high.
        int count = 0;
        for (int y = 0; y < image.height; ++y)
            for (int x = image.height; x < image.width; ++x) {
                const Rgb c = colourAt(image, x, y);
                count += c[0] == colour[0] && c[1] == colour[1] && c[2] == colour[2];
            }
        return count;
    };
    RenderOptions options = optionsOf(400, {0, 0}, SurfaceColour::kDepth);
    options.legend = true;
    const Image depths = renderImage(*volume, options);
    EXPECT_EQ(depths.width, 400);
    for (int coarser = 0; coarser < 2; ++coarser)
        EXPECT_GT(coloursBeside(depths, io::toBytes(io::depthMaterial(coarser))), 60) << coarser;
    EXPECT_EQ(coloursBeside(depths, io::toBytes(io::depthMaterial(2))), 0);
    options.colour = SurfaceColour::kProperty;
    options.property = "heat";
    const Image heat = renderImage(*volume, options);
    EXPECT_EQ(heat.width, 400);
    // The middle of the scale: rows of the bar, a pixel high, hold shares that are less than a two hundredth apart.
    int green = 0;
    for (int n = 0; n <= 20; ++n) green += coloursBeside(heat, io::toBytes(io::scaleMaterial(0.5 + 0.001 * (n - 10))));
    EXPECT_GT(green, 5);
    // What needs no explanation has none, and small pictures have no room.
    options.colour = SurfaceColour::kPlain;
    EXPECT_NEAR(renderImage(*volume, options).height, 400, 2);
    options.colour = SurfaceColour::kDepth;
    options.size = 239;
    const Image small = renderImage(*volume, options);
    options.legend = false;
    EXPECT_EQ(small.rgb, renderImage(*volume, options).rgb);
}

TYPED_TEST(Render, is_the_same_on_any_number_of_threads)
{
    using Tr = TypeParam;
    const auto volume = withProperty<Tr, float>(
        levelSetOfShape<Tr>(io::Torus{{0, 0, 0}, 1, 0.4, 1}, 0.1f, io::FinerBox{{0, -2, -2}, {2, 2, 2}, 1}), "heat",
        [](float3 const& p) { return p.y * p.x; });
    for (SurfaceColour colour :
         {SurfaceColour::kPlain, SurfaceColour::kDepth, SurfaceColour::kNormal, SurfaceColour::kProperty}) {
        RenderOptions options = optionsOf(120, {30, 40}, colour);
        options.property = "heat";
        Image first;
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                const Image image = renderImage(*volume, options);
                if (first.rgb.empty()) first = image;
                EXPECT_EQ(image.rgb, first.rgb) << threads << " threads";
            });
    }
}

TYPED_TEST(Render, stops_when_its_job_is_cancelled)
{
    const auto volume = levelSetOfShape<TypeParam>(io::Sphere{{0, 0, 0}, 1}, 0.25f);
    const auto work = [&] { renderImage(*volume, optionsOf(32, {0, 0}, SurfaceColour::kPlain)); };
    cancelAtEveryPoll([] {}, work, [] {});
}

TYPED_TEST(Render, refuses_volumes_without_a_surface_and_options_out_of_range)
{
    using Tr = TypeParam;
    const auto ball = levelSetOfShape<Tr>(io::Sphere{{0, 0, 0}, 1}, 0.25f);
    const auto complaint = [&](RenderOptions const& options) {
        return errorOf<InputError>([&] { renderImage(*ball, options); });
    };
    EXPECT_TRUE(contains(complaint(optionsOf(15)), "size"));
    EXPECT_TRUE(contains(complaint(optionsOf(5000)), "size"));
    EXPECT_TRUE(contains(complaint(optionsOf(64, {0, 91})), "-90 and 90"));
    EXPECT_TRUE(contains(complaint(optionsOf(64, {std::numeric_limits<double>::quiet_NaN(), 0})), "angles"));
    RenderOptions options = optionsOf(64, {0, 0}, SurfaceColour::kProperty);
    options.property = "heat";
    EXPECT_TRUE(contains(complaint(options), "'heat'"));
    const auto marked = withProperty<Tr, int>(ball, "mark", [](float3 const&) { return 1; });
    options.property = "mark";
    EXPECT_TRUE(contains(errorOf<InputError>([&] { renderImage(*marked, options); }), "without a fraction"));

    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    const Corvid::Ptr<Ostara::Object> bare = Ostara::Geometry::move_ost_volume_to_object(*native);
    EXPECT_TRUE(contains(errorOf<InputError>([&] { renderImage(*bare, optionsOf(64)); }), "no signed distance"));
    const auto empty = withProperty<Tr, float>(bare, sVoxelSignedDistance.c_str(), [](float3 const&) { return 1.0f; });
    EXPECT_TRUE(contains(errorOf<InputError>([&] { renderImage(*empty, optionsOf(64)); }), "no surface"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { renderImage(Ostara::Object(), optionsOf(64)); }), "no volume"));
}

}  // namespace
}  // namespace tilegrid::test
