// Values between voxels: from points in a table, and in pictures.
#include "io/error.h"
#include "io/sample.h"
#include "io/slice.h"
#include "io/volume_builder.h"
#include "support/files.h"
#include "support/jobs.h"
#include "support/level_sets.h"
#include "support/structures.h"
#include "support/volumes.h"

#include "TilegridOps/substrate/grading.h"

namespace tilegrid::test {
namespace {

using io::InputError;
using io::samplePlaces;
using io::SampleMode;
using Ostara::Math::float3;
using namespace OST::TileTree3D;

constexpr SampleMode kModes[] = {SampleMode::kLinear, SampleMode::kQuadratic, SampleMode::kCubic, SampleMode::kCubicC1,
                                 SampleMode::kCubicMonotonic};
constexpr double kSlope[3] = {1.0, -2.0, 0.5};
constexpr float kVoxel = 0.25f;

/// A graded tree around the origin with the linear field (slope . world place) as float, float3 and int.
template <class Tr> HostPtr linearVolume()
{
    auto native = nativeVolume<Tr>(
        [](Tree<Tr>& tree) {
            tree.tileAccessor().addTile(0, 0, 0, Tr::maxDepth);
            CoreGL::TileTree3D::gradeTileTree<Tr>(tree, nullptr, nullptr, 0, Tr::maxDepth);
        },
        kVoxel);
    const auto at = [](TileKey const& tile, int flat) {
        const int3 ijk = cubeIndex(Tr::width, flat);
        double sum = 0.0;
        for (int a = 0; a < 3; ++a)
            sum += kSlope[a] * kVoxel * (double(tile.low[std::size_t(a)]) + double(ijk[a]) * Tr::voxelDataWidth(tile.depth));
        return float(sum);
    };
    test::addChannel<Channel<Tr, float, Tr::width, 0>>(*native, "a", 7.0f, at);
    test::addChannel<Channel<Tr, float, Tr::width + 1, 0>>(*native, "halo", 7.0f, [&](TileKey const& tile, int flat) {
        constexpr int N = Tr::width + 1;
        const int3 ijk = cubeIndex(N, flat);
        // What lies in the halo must not matter: it is made anew.
        if (ijk.x == Tr::width || ijk.y == Tr::width || ijk.z == Tr::width) return 1e6f;
        return at(tile, flatIndex(Tr::width, ijk.x, ijk.y, ijk.z));
    });
    test::addChannel<Channel<Tr, float3, Tr::width, 0>>(*native, "v", float3(0), [&](TileKey const& tile, int flat) {
        return float3(at(tile, flat), 1.0f, -at(tile, flat));
    });
    test::addChannel<Channel<Tr, int, Tr::width, 0>>(*native, "n", 0, [](TileKey const&, int) { return 3; });
    return hostVolume(std::move(native));
}

/// Places around the finest tile and across the jumps beside it, in world units.
std::vector<float3> placesAround(int tileWidth)
{
    Random random(4);
    std::vector<float3> places;
    const auto coordinate = [&] { return kVoxel * float(random.between(-3000, 3000)) / 1000.0f * float(tileWidth); };
    for (int n = 0; n < 500; ++n) places.emplace_back(coordinate(), coordinate(), coordinate());
    return places;
}

template <class Tr> class SampledPlaces : public ::testing::Test {};
TYPED_TEST_SUITE(SampledPlaces, Structures, StructureNames);

TYPED_TEST(SampledPlaces, hold_a_linear_field_in_every_mode_across_jumps)
{
    using Tr = TypeParam;
    const HostPtr volume = linearVolume<Tr>();
    const auto places = placesAround(Tr::width);
    for (const SampleMode mode : kModes) {
        const auto a = samplePlaces(*volume, "a", mode, places), halo = samplePlaces(*volume, "halo", mode, places),
                   v = samplePlaces(*volume, "v", mode, places);
        ASSERT_EQ(a.components, 1);
        ASSERT_EQ(v.components, 3);
        for (std::size_t n = 0; n < places.size(); ++n) {
            double wanted = 0.0;
            for (int axis = 0; axis < 3; ++axis) wanted += kSlope[axis] * double(places[n][axis]);
            // 64 products of samples from up to some tiles away, whose values are a few times the width of the coarsest
            // tile that takes part.
            const double rounding = 64 * 0x1p-24 * 4 * kVoxel * Tr::tileVoxelWidth(Tr::maxDepth - 2) * 3.5;
            ASSERT_NEAR(a.values[n], wanted, rounding) << int(mode) << " " << places[n];
            ASSERT_EQ(halo.values[n], a.values[n]);
            ASSERT_NEAR(v.values[3 * n], wanted, rounding);
            ASSERT_NEAR(v.values[3 * n + 1], 1.0, rounding);
            ASSERT_NEAR(v.values[3 * n + 2], -wanted, rounding);
        }
    }
}

TYPED_TEST(SampledPlaces, hold_the_same_bytes_for_any_number_of_threads_and_the_default_outside)
{
    using Tr = TypeParam;
    const HostPtr volume = linearVolume<Tr>();
    const auto places = placesAround(Tr::width);
    for (const SampleMode mode : kModes) {
        std::vector<double> first;
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                const auto samples = samplePlaces(*volume, "a", mode, places);
                if (first.empty()) first = samples.values;
                EXPECT_EQ(samples.values, first);
            });
        EXPECT_EQ(samplePlaces(*volume, "a", mode, {float3(1e30f, 0, 0)}).values, std::vector<double>{7.0});
    }
    EXPECT_TRUE(contains(errorOf<InputError>([&] { samplePlaces(*volume, "n", SampleMode::kLinear, places); }), "without a fraction"));
    EXPECT_TRUE(contains(errorOf<InputError>([&] { samplePlaces(*volume, "b", SampleMode::kLinear, places); }), "no property 'b'"));
}

TYPED_TEST(SampledPlaces, fill_pictures_that_differ_by_mode_and_cells)
{
    using Tr = TypeParam;
    auto native = io::makeVolume<Tr>({VoxelCoord(0, 0, 0, Tr::maxDepth)}, 1.0f, kCorner);
    io::addChannel<Tr>(*native, "a", 0.0f, [](auto const&, auto& channel) {
        for (int flat = 0; flat < Tr::voxelCount; ++flat) channel.tileData(0, Tr::maxDepth)(flat) = float(flat % 3) - 1.0f;
    });
    const HostPtr volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    std::vector<std::vector<std::uint8_t>> pictures;
    io::SliceOptions options;
    options.size = 64;
    const auto draw = [&] { pictures.push_back(io::sliceImage(*volume, options).rgb); };
    draw();
    options.cells = 1;
    draw();
    options.cells = 3;
    draw();
    options.cells = 0;
    options.mode = SampleMode::kCubic;
    draw();
    options.mode = {};
    draw();
    for (std::size_t a = 0; a < pictures.size(); ++a)
        for (std::size_t b = 0; b < a; ++b) EXPECT_FALSE(pictures[a] == pictures[b]) << a << " and " << b;
    options.cells = -1;
    EXPECT_THROW(io::sliceImage(*volume, options), InputError);
    options.cells = 65;
    EXPECT_THROW(io::sliceImage(*volume, options), InputError);
}

TEST(PlaceTables, are_read_with_names_comments_and_blanks)
{
    const TestFolder folder;
    const auto places = io::readPlaces(folder.write("a.csv", "x, y, z\r\n# a comment\n\n0.5,1,-2\r\n  1e3 ,\t-0 , +7.25\n3,4,5"), 0);
    ASSERT_EQ(places.size(), 3u);
    EXPECT_TRUE(places[0] == float3(0.5f, 1, -2));
    EXPECT_TRUE(places[1] == float3(1000, 0, 7.25f));
    EXPECT_TRUE(places[2] == float3(3, 4, 5));
    EXPECT_TRUE(io::readPlaces(folder.write("b.csv", ""), 0).empty());
    EXPECT_TRUE(io::readPlaces(folder.write("c.csv", "x,y,z\n"), 0).empty());
}

TEST(PlaceTables, name_the_lines_that_are_no_places)
{
    const TestFolder folder;
    const auto says = [&](std::string const& content, std::vector<std::string> const& parts) {
        const std::string text = errorOf<InputError>([&] { io::readPlaces(folder.write("a.csv", content), 1 << 10); });
        for (std::string const& part : parts) EXPECT_TRUE(contains(text, part)) << "'" << part << "' in " << text;
    };
    says("1,2,3\n1,2\nx,y,z\n1,2,3,4\n", {"3 rows", "line 2: it has 2 values", "line 3: 'x' is no number", "line 4: it has 4 values"});
    says("x,y,z\nx,y,z\n", {"1 row", "line 2"});
    says("1,nan,3", {"line 1", "not finite"});
    says("1,2,1e39", {"too large"});
    says("1,,3", {"'' is no number"});
    says("1,2,3 4", {"'3 4'"});
    says("a\nb\nc\nd\ne\nf\ng\nh\n", {"7 rows", "and 2 more"});
    says(std::string(2000, '\n'), {"limit"});
    EXPECT_THROW(io::readPlaces(folder.file("none.csv"), 0), InputError);
    EXPECT_THROW(io::readPlaces(folder.file(""), 0), InputError);
}

TEST(PlaceTables, are_written_in_digits_that_lead_back)
{
    const std::vector<float3> places = {{0.1f, 1, -2}, {3, 4, 5}};
    EXPECT_EQ(io::toCsv(places, "a", {1, {double(0.3f), 1.0 / 3.0}}), "x,y,z,a\n0.1,1,-2,0.3\n3,4,5,0.3333333333333333\n");
    EXPECT_EQ(io::toCsv(places, "v", {2, {1, 2, 3, 4}}), "x,y,z,v.0,v.1\n0.1,1,-2,1,2\n3,4,5,3,4\n");
}

}  // namespace
}  // namespace tilegrid::test
