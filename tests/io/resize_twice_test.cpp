#include "TilegridOps/nodes/level_set.h"
#include "io/level_set_from_shape.h"
#include "support/level_sets.h"
#include "support/structures.h"

#include <set>

/// A level set that was given a band keeps its tiles when it is given the same one again.
namespace tilegrid::test {
namespace {

using Ostara::Math::double3;

double between(Random& random, double low, double high) { return low + (high - low) * double(random.below(1 << 20)) / double(1 << 20); }
double3 place(Random& random, double reach)
{
    const double x = between(random, -reach, reach), y = between(random, -reach, reach), z = between(random, -reach, reach);
    return {x, y, z};
}

io::Shape someShape(Random& random)
{
    const double3 centre = place(random, 1);
    switch (random.below(3)) {
        case 0: return io::Sphere{centre, between(random, 0.15, 0.4)};
        case 1: {
            const double3 half(between(random, 0.1, 0.4), between(random, 0.1, 0.4), between(random, 0.1, 0.4));
            return io::Box{centre - half, centre + half};
        }
        default: return io::Torus{centre, between(random, 0.2, 0.45), between(random, 0.1, 0.28), int(random.below(3))};
    }
}

template <class Tr> std::set<std::tuple<int, int, int, int>> tilesOf(Ostara::Object const& volume)
{
    std::set<std::tuple<int, int, int, int>> tiles;
    const auto tree = treeOf<Tr>(volume);
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        tiles.insert({tile.depth(), tile.tijk().x, tile.tijk().y, tile.tijk().z});
    }
    return tiles;
}

/// The least value of voxels outside the box of the shape and its band: below 0 if a coarse voxel there got the wrong side.
template <class Tr> float leastFarOutside(Ostara::Object const& volume, double reach)
{
    const auto tree = treeOf<Tr>(volume);
    const auto values = channelOf<Tr>(volume);
    float least = std::numeric_limits<float>::max();
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        auto const& tile = tree->tile(n);
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const auto at = OST::TileTree3D::cubeIndex(Tr::width, v);
            double most = 0;
            for (int axis = 0; axis < 3; ++axis)
                most = std::max(most, std::abs((double(tile.tijk()[axis]) + double(at[axis]) * tile.voxelDataWidth()) * tree->voxelSize()));
            if (most > reach) least = std::min(least, values->tileData(tile.treeIndex())(v));
        }
    }
    return least;
}

template <class Tr> Corvid::Ptr<Ostara::Object> resized(Corvid::Ptr<Ostara::Object> const& volume, float bandwidth)
{
    Corvid::Ptr<Ostara::Object> output;
    Geometry::Volume::resize_level_set(volume, bandwidth, output, Corvid::RuntimeServices(nullptr, [](Severity, Corvid::StringView) {}));
    return output;
}

template <class Tr> void expectSameTwice(io::Shape const& shape, float voxelSize, float bandwidth)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.structure = structureOf<Tr>();
    const auto once = resized<Tr>(io::levelSetFromShape(shape, options), bandwidth);
    ASSERT_TRUE(once && once->native());
    // No shape and band is wider than 1.5 from its centre, which lies within 1 of the origin.
    EXPECT_GT(leastFarOutside<Tr>(*once, 4), 0);
    const auto tiles = tilesOf<Tr>(*once);
    const auto twice = resized<Tr>(once, bandwidth);
    EXPECT_EQ(tilesOf<Tr>(*twice), tiles) << tiles.size() << " tiles";
    EXPECT_EQ(tilesOf<Tr>(*resized<Tr>(twice, bandwidth)), tiles) << "a third time";
}

template <class Tr> class ResizeTwice : public ::testing::Test {};
TYPED_TEST_SUITE(ResizeTwice, Structures, StructureNames);

TYPED_TEST(ResizeTwice, a_torus_that_reaches_into_further_tiles_of_every_depth_gets_no_surface_there)
{
    // Its band crosses planes on which tiles of all depths end, so that tiles are added at every depth.
    expectSameTwice<TypeParam>(io::Torus{{-0.8757, 0.2575, -0.4406}, 0.4526, 0.2671, 1}, 0.05f, 0.968f);
}

TYPED_TEST(ResizeTwice, a_wall_thinner_than_coarse_voxels_stays_one_wall_in_new_tiles)
{
    // Five voxels thick. Above y = 0, where the band leads to, all tiles are new.
    constexpr double kVoxel = 0.05657;
    const io::Box wall{kVoxel * double3(-0.343, -9.274, -2.059), kVoxel * double3(12.657, -4.392, 10.501)};
    expectSameTwice<TypeParam>(wall, float(kVoxel), 3.4175f);
}

TYPED_TEST(ResizeTwice, random_shapes_keep_their_tiles)
{
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Random random(seed);
        const io::Shape shape = someShape(random);
        expectSameTwice<TypeParam>(shape, float(between(random, 0.04, 0.07)), float(between(random, 0, 6)));
        if (this->HasFailure()) return;
    }
}

}  // namespace
}  // namespace tilegrid::test
