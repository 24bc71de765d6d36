#include "io/error.h"
#include "io/info.h"
#include "io/surface_measure.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/meshes.h"
#include "support/paths.h"
#include "support/structures.h"

#include <numbers>

namespace tilegrid::test {
namespace {

using io::describeVolume;
using io::VolumeInfo;
using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;
using namespace OST::TileTree3D;

const std::string kBunny = exampleFile("bunny.obj");

template <class Tr> class VolumeDescription : public ::testing::Test {};
TYPED_TEST_SUITE(VolumeDescription, Structures, StructureNames);

TYPED_TEST(VolumeDescription, measures_the_bunny_within_three_thousandths_of_its_mesh)
{
    const io::TriangleMesh bunny = io::readMesh(kBunny, 0, {});
    const VolumeInfo info = describeVolume(*levelSetOf<TypeParam>(bunny, 0.0387f));  // 256 voxels across
    ASSERT_TRUE(info.levelSet);
    EXPECT_NEAR(info.levelSet->volume / io::enclosedVolume(bunny), 1.0, 0.003);
    // Every fold of the mesh is cut across by cells half a voxel from it on the mean; its folds lie about ten voxels
    // apart.
    EXPECT_NEAR(info.levelSet->area / io::surfaceArea(bunny), 1.0, 0.01);
}

TYPED_TEST(VolumeDescription, comes_closer_to_a_sphere_with_the_square_of_the_voxel_size)
{
    const io::TriangleMesh sphere = sphereMesh(1.0f, 6);
    const double volume = io::enclosedVolume(sphere), area = io::surfaceArea(sphere);
    double lastVolume = 1.0, lastArea = 1.0;
    for (float h : {0.2f, 0.1f, 0.05f}) {
        const auto info = describeVolume(*levelSetOf<TypeParam>(sphere, h));
        const double volumeError = std::abs(info.levelSet->volume / volume - 1.0),
                     areaError = std::abs(info.levelSet->area / area - 1.0);
        // Linear pieces on a sphere of curvature k leave k^2 h^2 at most, times a constant below one.
        EXPECT_LT(volumeError, h * h);
        EXPECT_LT(areaError, h * h);
        // Second order: a quarter at half the size. A third leaves room for how cells happen to lie.
        EXPECT_LT(volumeError, lastVolume / 3.0);
        EXPECT_LT(areaError, lastArea / 3.0);
        lastVolume = volumeError;
        lastArea = areaError;
    }
}

TYPED_TEST(VolumeDescription, counts_tiles_and_leaf_voxels_by_depth)
{
    using Tr = TypeParam;
    const auto volume = levelSetOf<Tr>(sphereMesh(1.0f, 3), 0.05f);
    const auto tree = treeOf<Tr>(*volume);
    const VolumeInfo info = describeVolume(*volume);
    EXPECT_EQ(info.structure, Tr::branching == 2 ? "binary" : "quinary");
    EXPECT_EQ(info.voxelSize, 0.05f);
    ASSERT_EQ(info.tilesByDepth.size(), std::size_t(Tr::levels));
    std::size_t used = 0, reserved = 0;
    for (Corvid::String const& name : volume->native()->componentRange())
        volume->native()->template component<OST::Component>(name)->memUse(used, reserved, false);
    EXPECT_EQ(info.bytes, used);
    for (int depth = 0; depth < Tr::levels; ++depth) {
        EXPECT_EQ(info.tilesByDepth[depth], tree->tileCount(depth));
        // Each child takes the voxels of its cell out of its parent.
        const OST::int64 children = depth < Tr::maxDepth ? tree->tileCount(depth + 1) : 0;
        EXPECT_EQ(info.leafVoxelsByDepth[depth],
                  tree->tileCount(depth) * Tr::voxelCount - children * Tr::voxelCount / Tr::childCount);
    }
}

TYPED_TEST(VolumeDescription, tells_type_default_and_range_of_each_property)
{
    using Tr = TypeParam;
    // One tile at the finest depth; its ancestors' leaf voxels keep the default.
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 0.5f, kCorner);
    io::addChannel<Tr>(*native, "speed", float3(1, 2, 3), [](auto const&, auto& channel) {
        channel.tileData(0, Tr::maxDepth)(0) = {-1.5f, 7, std::numeric_limits<float>::quiet_NaN()};
        channel.tileData(0, 0)(0) = {100, 100, 100};
    });
    io::addChannel<Tr>(*native, "count", short(5),
                       [](auto const&, auto& channel) { channel.tileData(0, Tr::maxDepth)(3) = -4; });
    const auto volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    const VolumeInfo info = describeVolume(*volume);
    ASSERT_EQ(info.properties.size(), 2u);
    EXPECT_EQ(info.properties[0].name, "count");
    EXPECT_EQ(info.properties[0].type, "short");
    EXPECT_EQ(info.properties[0].defaultValue, "5");
    EXPECT_EQ(info.properties[0].min, "-4");
    EXPECT_EQ(info.properties[0].max, "5");
    EXPECT_EQ(info.properties[1].name, "speed");
    EXPECT_EQ(info.properties[1].type, "float3");
    EXPECT_EQ(info.properties[1].defaultValue, "[1, 2, 3]");
    EXPECT_EQ(info.properties[1].min, "[-1.5, 2, 3]");
    EXPECT_EQ(info.properties[1].max, "[100, 100, 100]");  // the first voxel of the root is a leaf
    EXPECT_FALSE(info.levelSet);
    EXPECT_TRUE(
        contains(toText(info), "property    speed (float3), default [1, 2, 3], from [-1.5, 2, 3] to [100, 100, 100]"));
}

TYPED_TEST(VolumeDescription, is_the_same_on_any_number_of_threads)
{
    const auto volume = levelSetOf<TypeParam>(sphereMesh(1.0f, 3, {0.1f, 0.2f, 0.3f}), 0.04f);
    std::string first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            const std::string text = toJson(describeVolume(*volume));
            if (first.empty()) first = text;
            EXPECT_EQ(text, first) << threads << " threads";
        });
}

TEST(VolumeDescriptionText, has_the_keys_of_the_json_form_in_order)
{
    const auto volume = levelSetOf<BinaryTraits>(boxMesh({0, 0, 0}, {1, 1, 1}), 0.1f);
    const std::string json = toJson(describeVolume(*volume));
    std::size_t at = 0;
    for (char const* key :
         {"\"structure\": \"binary\"", "\"voxel_size\": 0.1", "\"tiles_by_depth\": [", "\"leaf_voxels_by_depth\": [",
          "\"bytes\": ", "\"properties\": [", "\"name\": \"voxel_signed_distance\"", "\"type\": \"float\"",
          "\"default\": 0.3", "\"min\": ", "\"max\": ", "\"level_set\": {", "\"bounds_min\": [", "\"bounds_max\": [",
          "\"volume\": ", "\"area\": "}) {
        const std::size_t found = json.find(key, at);
        ASSERT_NE(found, std::string::npos) << key << " is missing after byte " << at << " of\n" << json;
        at = found;
    }
}

TEST(VolumeDescriptionText, refuses_an_object_without_a_tree)
{
    EXPECT_TRUE(contains(errorOf<io::InputError>([] { describeVolume(Ostara::Object()); }), "no volume"));
}

/// The part of a cube below a plane, for a linear field: marching a linear function is exact.
TEST(SurfaceMeasure, is_exact_for_a_plane_through_a_cell)
{
    // x + y + z = s cuts the unit cube: for s <= 1 a corner of volume s^3 / 6 and a triangle of area sqrt(3) s^2 / 2.
    for (double s : {0.125, 0.3, 0.75, 1.0}) {
        std::array<double, 8> values;
        for (int n = 0; n < 8; ++n) values[n] = (n & 1) + (n >> 1 & 1) + (n >> 2) - s;
        const io::SurfaceMeasure measure = io::measureCell({0, 0, 0}, 1.0, values);
        // Only the plane counts for the volume; the faces of the cube through the origin add nothing to the divergence
        // sum.
        EXPECT_NEAR(measure.volume, s * s * s / 6.0, 1e-15);
        EXPECT_NEAR(measure.area, std::numbers::sqrt3 * s * s / 2.0, 1e-15);
        for (double& v : values) v = -v;  // the other side
        EXPECT_NEAR(io::measureCell({0, 0, 0}, 1.0, values).volume, -s * s * s / 6.0, 1e-15);
    }
}

TEST(SurfaceMeasure, is_nothing_where_all_corners_are_on_one_side)
{
    for (double v : {-1.0, 0.0, 1.0, std::numeric_limits<double>::quiet_NaN()}) {
        std::array<double, 8> values;
        values.fill(v);
        EXPECT_EQ(io::measureCell({1, 2, 3}, 2.0, values).area, 0.0);
    }
}

}  // namespace
}  // namespace tilegrid::test
