#include "io/error.h"
#include "io/fog.h"
#include "io/level_set_from_shape.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"

namespace tilegrid::test {
namespace {

using io::fogFromLevelSet;
using io::InputError;
using Ostara::Geometry::sVoxelFogDensity;
using Ostara::Geometry::sVoxelSignedDistance;
using namespace OST::TileTree3D;

template <class Tr> class Fog : public ::testing::Test {};
TYPED_TEST_SUITE(Fog, Structures, StructureNames);

template <class Tr> Corvid::Ptr<Ostara::Object> ball(double radius = 1.0)
{
    io::LevelSetOptions options;
    options.voxelSize = 0.06f;
    options.structure = structureOf<Tr>();
    return io::levelSetFromShape(io::Sphere{{0.1, 0.2, 0.3}, radius}, options);
}

/// A level set of four tiles whose distances are cut off at 0.3.
template <class Tr> Corvid::Ptr<Ostara::Object> clampedSlab(float shift, float deepest = 0.3f)
{
    auto native =
        io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth), VoxelCoord(64, 0, 0, Tr::maxDepth)}, 0.1f, kCorner);
    io::addChannel<Tr>(*native, sVoxelSignedDistance, 0.3f, [&](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            for (OST::int64 n = 0; n < tree.tileCount(depth); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat)
                    channel.tileData(n, depth)(flat) =
                        std::clamp(shift + 0.15f * float(flat % Tr::width), -deepest, 0.3f);
    });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

TYPED_TEST(Fog, is_the_depth_below_the_surface_in_widths_held_between_0_and_1_at_every_depth)
{
    using Tr = TypeParam;
    const float width = 0.25f;  // more than the band
    const auto levelSet = ball<Tr>();
    const auto fog = fogFromLevelSet(levelSet, width, /*keep*/ true, {});
    const auto tree = treeOf<Tr>(*fog);
    const auto distance = channelOf<Tr>(*levelSet), density = channelOf<Tr>(*fog, sVoxelFogDensity);
    ASSERT_TRUE(density);
    EXPECT_EQ(density->defaultValue(), 0.0f);
    int full = 0, empty = 0, between = 0;
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n)
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const float d = distance->tileData(n, depth)(flat), found = density->tileData(n, depth)(flat);
                if (d >= 0.0f) {
                    ASSERT_EQ(found, 0.0f) << "depth " << depth;
                    ++empty;
                } else if (d <= -width) {
                    ASSERT_EQ(found, 1.0f) << "depth " << depth;
                    ++full;
                } else {
                    ASSERT_NEAR(found, -double(d) / 0.25, 0x1p-24) << "depth " << depth;
                    ++between;
                }
            }
    EXPECT_GT(full, 0);
    EXPECT_GT(empty, 0);
    EXPECT_GT(between, 0);
}

TYPED_TEST(Fog, stands_beside_the_level_set_or_in_its_place)
{
    using Tr = TypeParam;
    const auto both = fogFromLevelSet(ball<Tr>(), 0.2f, /*keep*/ true, {});
    EXPECT_TRUE(channelOf<Tr>(*both));
    EXPECT_TRUE(Ostara::Object::isA(*both, *Ostara::Geometry::getLevelSetPrototype()));
    const auto fog = fogFromLevelSet(ball<Tr>(), 0.2f, /*keep*/ false, {});
    EXPECT_FALSE(channelOf<Tr>(*fog));
    EXPECT_TRUE(channelOf<Tr>(*fog, sVoxelFogDensity));
    EXPECT_FALSE(Ostara::Object::isA(*fog, *Ostara::Geometry::getLevelSetPrototype()));
    EXPECT_TRUE(Ostara::Object::isA(*fog, *Ostara::Geometry::getVolumePrototype()));
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        EXPECT_EQ((differencesAt<Tr, float>(depth, *both, *fog, sVoxelFogDensity)), "");
}

TYPED_TEST(Fog, leaves_a_volume_alone_that_others_hold_and_replaces_an_older_fog)
{
    using Tr = TypeParam;
    const auto levelSet = ball<Tr>();
    auto fog = fogFromLevelSet(levelSet, 0.2f, /*keep*/ true, {});
    EXPECT_FALSE(channelOf<Tr>(*levelSet, sVoxelFogDensity));
    const auto wanted = fogFromLevelSet(levelSet, 0.1f, /*keep*/ true, {});
    fog = fogFromLevelSet(std::move(fog), 0.1f, /*keep*/ true, {});
    for (int depth = 0; depth <= Tr::maxDepth; ++depth)
        EXPECT_EQ((differencesAt<Tr, float>(depth, *fog, *wanted, sVoxelFogDensity)), "");
}

TYPED_TEST(Fog, says_where_distances_that_were_cut_off_end_it)
{
    KeptMessages cut, thin, narrow;
    fogFromLevelSet(clampedSlab<TypeParam>(-0.4f), 0.6f, true, cut.services());
    EXPECT_TRUE(cut.mention("density ends at 0.5")) << cut.texts().size();
    // A body that is no thicker is not cut off, and a width within the distances reaches 1.
    fogFromLevelSet(clampedSlab<TypeParam>(-0.4f, 0.29f), 0.6f, true, thin.services());
    EXPECT_TRUE(thin.texts().empty());
    fogFromLevelSet(clampedSlab<TypeParam>(-0.4f), 0.3f, true, narrow.services());
    EXPECT_TRUE(narrow.texts().empty());
}

TYPED_TEST(Fog, hands_a_value_that_is_no_number_on)
{
    using Tr = TypeParam;
    const auto fog = fogFromLevelSet(clampedSlab<Tr>(std::numeric_limits<float>::quiet_NaN()), 0.3f, true, {});
    EXPECT_TRUE(std::isnan(channelOf<Tr>(*fog, sVoxelFogDensity)->tileData(0, Tr::maxDepth)(0)));
}

TYPED_TEST(Fog, gives_the_same_bytes_on_any_number_of_threads)
{
    using Tr = TypeParam;
    const auto levelSet = ball<Tr>();
    Corvid::Ptr<Ostara::Object> first;
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            const auto fog = fogFromLevelSet(levelSet, 0.2f, true, {});
            if (!first) first = fog;
            for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                EXPECT_EQ((differencesAt<Tr, float>(depth, *first, *fog, sVoxelFogDensity)), "")
                    << threads << " threads";
        });
}

TYPED_TEST(Fog, refuses_widths_and_volumes_that_make_no_sense)
{
    using Tr = TypeParam;
    for (float bad : {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()})
        EXPECT_TRUE(contains(errorOf<InputError>([&] { fogFromLevelSet(ball<Tr>(), bad, true, {}); }), "width"));
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    const Corvid::Ptr<Ostara::Object> empty = Ostara::Geometry::move_ost_volume_to_object(*native);
    EXPECT_TRUE(
        contains(errorOf<InputError>([&] { fogFromLevelSet(empty, 1.0f, true, {}); }), "voxel_signed_distance"));
    EXPECT_THROW(fogFromLevelSet(Ostara::createObject(), 1.0f, true, {}), InputError);
    EXPECT_THROW(fogFromLevelSet({}, 1.0f, true, {}), InputError);
}

}  // namespace
}  // namespace tilegrid::test
