#include "io/error.h"
#include "io/fog.h"
#include "io/level_set_from_shape.h"
#include "io/render.h"
#include "io/render_shading.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::Image;
using io::InputError;
using io::renderImage;
using io::RenderOptions;
using io::SurfaceColour;
using namespace OST::TileTree3D;

using Colour = std::array<int, 3>;

Colour colourAt(Image const& image, double x, double y)
{
    const std::size_t at = 3 * (std::size_t(y * image.height) * image.width + std::size_t(x * image.width));
    return {image.rgb[at], image.rgb[at + 1], image.rgb[at + 2]};
}
int brightness(Colour const& c) { return c[0] + c[1] + c[2]; }

RenderOptions frontView(int size)
{
    RenderOptions options;
    options.size = size;
    options.view = {0, 0};
    options.legend = false;
    return options;
}

/// A cube of tiles of the finest depth full of fog of one density, and a colour for all of it.
template <class Tr> Corvid::Ptr<Ostara::Object> foggyCube(int tiles, float density, float3 const& colour)
{
    std::vector<VoxelCoord> places;
    for (int n = 0; n < tiles * tiles * tiles; ++n)
        places.push_back(VoxelCoord(n % tiles * Tr::width, n / tiles % tiles * Tr::width, n / tiles / tiles * Tr::width, Tr::maxDepth));
    auto native = io::makeVolume<Tr>(places, 0.25f, kCorner);
    const auto fill = [](auto const& value) {
        return [value](Container<Tr> const& tree, auto& channel) {
            for (OST::int64 n = 0; n < tree.tileCount(Tr::maxDepth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat) channel.tileData(n, Tr::maxDepth)(flat) = value;
        };
    };
    io::addChannel<Tr>(*native, Ostara::Geometry::sVoxelFogDensity, 0.0f, fill(density));
    io::addChannel<Tr>(*native, "paint", colour, fill(colour));
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

template <class Tr> Corvid::Ptr<Ostara::Object> foggyTorus(bool keep)
{
    io::LevelSetOptions options;
    options.voxelSize = 0.1f;
    options.structure = structureOf<Tr>();
    options.finer = io::FinerBox{{0, -2, -2}, {2, 2, 2}, 1};
    return io::fogFromLevelSet(io::levelSetFromShape(io::Torus{{0, 0, 0}, 1, 0.4, 1}, options), 0.3f, keep, Corvid::RuntimeServices());
}

template <class Tr> class RenderFog : public ::testing::Test {};
TYPED_TEST_SUITE(RenderFog, Structures, StructureNames);

TYPED_TEST(RenderFog, takes_as_much_light_as_the_way_through_it_says)
{
    using Tr = TypeParam;
    constexpr int kTiles = 8;
    // Black fog scatters nothing: what is seen is the background, less what the fog takes.
    for (const float density : {1.0f, 40.0f}) {
        const auto cube = foggyCube<Tr>(kTiles, density, float3(0.0f));
        RenderOptions options = frontView(200);
        options.colour = SurfaceColour::kProperty;
        options.property = "paint";
        options.opacity = 0.05;
        const Image image = renderImage(*cube, options);
        // Between samples density falls linearly to 0 over a voxel on both sides, so the way through n voxels of density 1 is n, and the
        // content is n + 1 wide. 20 * 0.05 e-folds are lost over that width, whatever the largest density is.
        const double n = kTiles * Tr::width, left = std::exp(-n / (n + 1));
        const io::Light behind = io::fogBackgroundAt(0.5);
        const auto expected = io::toBytes(float(left) * behind);
        const Colour found = colourAt(image, 0.5, 0.5);
        // The ray leans by less than a pixel, and steps of half a voxel miss the four kinks by at most 1/32 of a voxel each: a byte.
        for (std::size_t c = 0; c < 3; ++c) EXPECT_NEAR(found[c], int(expected[c]), 2) << density;
        // Beside the cube is nothing.
        const auto clear = io::toBytes(io::fogBackgroundAt(0.5));
        const Colour side = colourAt(image, 0.01, 0.5);
        for (std::size_t c = 0; c < 3; ++c) EXPECT_NEAR(side[c], int(clear[c]), 1);
    }
}

TYPED_TEST(RenderFog, is_bright_towards_the_lamp_and_shadowed_behind)
{
    using Tr = TypeParam;
    io::LevelSetOptions ball;
    ball.voxelSize = 0.0625f;
    ball.structure = structureOf<Tr>();
    const auto fog = io::fogFromLevelSet(io::levelSetFromShape(io::Sphere{{0, 0, 0}, 1}, ball), 0.2f, /*keep*/ false, Corvid::RuntimeServices());
    const Image image = renderImage(*fog, frontView(160));
    // The lamp stands at the left above: of each of three colours a tenth of the range at least.
    EXPECT_GT(brightness(colourAt(image, 0.3, 0.25)), brightness(colourAt(image, 0.7, 0.8)) + 75);
}

TYPED_TEST(RenderFog, is_what_is_drawn_without_a_signed_distance_and_where_it_is_asked_for)
{
    using Tr = TypeParam;
    const auto both = foggyTorus<Tr>(true), alone = foggyTorus<Tr>(false);
    RenderOptions options = frontView(120);
    const auto drawn = [&](auto const& volume, io::RenderAs as) {
        options.as = as;
        return renderImage(*volume, options).rgb;
    };
    EXPECT_EQ(drawn(alone, io::RenderAs::kAutomatic), drawn(both, io::RenderAs::kFog));
    EXPECT_EQ(drawn(both, io::RenderAs::kAutomatic), drawn(both, io::RenderAs::kSurface));
    EXPECT_NE(drawn(both, io::RenderAs::kSurface), drawn(both, io::RenderAs::kFog));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { drawn(alone, io::RenderAs::kSurface); }), "no signed distance"));
}

TYPED_TEST(RenderFog, is_the_same_on_any_number_of_threads)
{
    const auto volume = foggyTorus<TypeParam>(false);
    for (const SurfaceColour colour : {SurfaceColour::kPlain, SurfaceColour::kDepth, SurfaceColour::kProperty}) {
        RenderOptions options = frontView(260);
        options.view = {30, 40};
        options.colour = colour;
        options.property = "voxel_fog_density";
        options.legend = true;
        Image first;
        for (const int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                const Image image = renderImage(*volume, options);
                if (first.rgb.empty()) first = image;
                EXPECT_EQ(image.rgb, first.rgb) << threads << " threads";
            });
    }
}

TYPED_TEST(RenderFog, stops_when_its_job_is_cancelled)
{
    const auto volume = foggyCube<TypeParam>(2, 1.0f, float3(1.0f));
    const auto work = [&] { renderImage(*volume, frontView(16)); };
    cancelAtEveryPoll([] {}, work, [] {});
}

TYPED_TEST(RenderFog, survives_densities_that_are_not_finite_and_refuses_what_it_cannot_draw)
{
    using Tr = TypeParam;
    constexpr float kInfinity = std::numeric_limits<float>::infinity(), kNaN = std::numeric_limits<float>::quiet_NaN();
    const auto complaint = [](auto const& volume, RenderOptions const& options) {
        return errorOf<InputError>([&] { renderImage(*volume, options); });
    };
    for (const float density : {0.0f, -1.0f, kNaN, -kInfinity, kInfinity})
        EXPECT_TRUE(contains(complaint(foggyCube<Tr>(1, density, float3(1.0f)), frontView(32)), "no fog to draw")) << density;
    for (const float density : {1e-38f, 3e38f}) EXPECT_EQ(renderImage(*foggyCube<Tr>(1, density, float3(1.0f)), frontView(32)).width, 32) << density;

    const auto cube = foggyCube<Tr>(1, 1.0f, float3(1.0f));
    RenderOptions options = frontView(32);
    options.colour = SurfaceColour::kNormal;
    EXPECT_TRUE(contains(complaint(cube, options), "no normals"));
    for (const double opacity : {0.0, -1.0, double(kInfinity), double(kNaN)}) {
        options = frontView(32);
        options.opacity = opacity;
        EXPECT_TRUE(contains(complaint(cube, options), "opacity")) << opacity;
    }
}

}  // namespace
}  // namespace tilegrid::test
