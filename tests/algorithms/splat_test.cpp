#include "TilegridOps/algorithms/splat.h"
#include "TilegridOps/nodes/transfer.h"
#include "cancelled_node.h"
#include "field_errors.h"
#include "level_set_volume.h"
#include "support/jobs.h"

#include <map>
#include <numeric>

namespace tilegrid::test {
namespace {

using namespace VolumeGL::TileTree3D;
using Ostara::Geometry::sPointPosition;
using Places = Corvid::Array<float3>;

HostPtr cloudOf(Places const& positions)
{
    auto cloud = Corvid::makeMutable<Host>(Ostara::Geometry::getPointCloudPrototype());
    cloud->set(sPointPosition, positions);
    return cloud;
}
template <class T> HostPtr cloudWith(Places const& positions, Corvid::String const& name, Corvid::Array<T> const& values)
{
    HostPtr shared = cloudOf(positions);
    auto cloud = Corvid::toMutable(shared);
    cloud->set(name, values);
    return cloud;
}

/// With the points' own factors on the radius.
template <class T> HostPtr cloudWith(Places const& positions, Corvid::String const& name, Corvid::Array<T> const& values, Corvid::Array<float> const& radii)
{
    HostPtr shared = cloudWith(positions, name, values);
    auto cloud = Corvid::toMutable(shared);
    cloud->set(Corvid::String("point_radius"), radii);
    return cloud;
}

/// Places in a cube around the origin of that half width, world units.
Places randomPlaces(int count, double half, std::uint64_t seed)
{
    Random random(seed);
    Places places;
    const auto coordinate = [&] { return float((double(random.below(1 << 24)) / (1 << 23) - 1) * half); };
    for (int n = 0; n < count; ++n) {
        const float x = coordinate(), y = coordinate(), z = coordinate();
        places.push_back({x, y, z});
    }
    return places;
}
Corvid::Array<float> someValues(std::size_t count, float least = -4)
{
    Corvid::Array<float> values;
    for (std::size_t n = 0; n < count; ++n) values.push_back(float(n % 17) + least);
    return values;
}

constexpr float kVoxel = 0.5f;

/// Points in a cube, and such that lie on voxels, half-way between them, on the corner, an edge and a face of tiles, and next to those.
template <class Tr> Places manyPlaces(int count, double half, std::uint64_t seed)
{
    Places places = randomPlaces(count, half, seed);
    const float border = kVoxel * float(Tr::rangeMin % Tr::width + Tr::width), inside = std::nextafter(border, 9.0f), outside = std::nextafter(border, -9.0f);
    for (float3 const& odd : {float3(0, 0, 0), float3(1, -1.5f, 0.5f), float3(0.25f, 0.75f, -0.25f), float3(border, border, border),
                              float3(border, border, 0.3f), float3(0.1f, border, 0.7f), float3(inside, 0.2f, outside)})
        places.push_back(odd);
    return places;
}
template <class Tr> Corvid::MutablePtr<Native> emptyTarget()
{
    return nativeVolume<Tr>([](Tree<Tr>& tree) { tree.tileAccessor().addTile(0, 0, 0, 0); }, kVoxel);
}

template <class Tr> double sumAtFinest(Native const& volume, Corvid::String const& name)
{
    const auto channel = volume.component<PlainChannel<Tr>>(name);
    double sum = 0;
    for (OST::int64 n = 0; n < channel->tileCount(Tr::maxDepth); ++n)
        for (float v : channel->tileData(n, Tr::maxDepth)) sum += v;
    return sum;
}

/// The finest voxels, by their numbers, that a sum over all points and all voxels near them gives, in double.
using Sums = std::map<std::array<int, 3>, double>;
Sums bruteSums(Places const& positions, Corvid::Array<float> const& values, double radius, double (*weight)(double))
{
    Sums sums;
    for (std::size_t n = 0; n < positions.size(); ++n) {
        std::map<std::array<int, 3>, double> own;
        double total = 0;
        const double3 at = (1.0 / kVoxel) * double3(positions[n]);
        const int reach = int(radius) + 1;
        for (int k = -reach; k <= reach + 1; ++k)
            for (int j = -reach; j <= reach + 1; ++j)
                for (int i = -reach; i <= reach + 1; ++i) {
                    const std::array<int, 3> site{int(std::floor(at.x)) + i, int(std::floor(at.y)) + j, int(std::floor(at.z)) + k};
                    double w = 1;
                    for (int axis = 0; axis < 3; ++axis) w *= weight(std::abs(site[std::size_t(axis)] - at[axis]) / radius);
                    if (w > 0) total += own[site] = w;
                }
        for (auto const& [site, w] : own) sums[site] += values[n] * w / total;
    }
    return sums;
}
double hat(double q) { return std::max(0.0, 1 - q); }
double spline(double q)
{
    const double t = 1.5 * q;
    return t < 0.5 ? 0.75 - t * t : t < 1.5 ? 0.5 * (1.5 - t) * (1.5 - t) : 0;
}

/// Differences from the sums, over all finest voxels.
template <class Tr> Errors errorsAgainst(Sums sums, Native const& volume, Corvid::String const& name)
{
    Errors errors;
    forLeafVoxels<Tr, float>(volume, name, [&](double3 const& p, float v, int depth, auto const&, int) {
        if (depth != Tr::maxDepth) return;
        const std::array<int, 3> site{int(std::lround(p.x / kVoxel)), int(std::lround(p.y / kVoxel)), int(std::lround(p.z / kVoxel))};
        const auto found = sums.find(site);
        errors.add(v - (found == sums.end() ? 0 : found->second));
        if (found != sums.end()) sums.erase(found);
    });
    EXPECT_TRUE(sums.empty()) << sums.size() << " voxels with weight have no tile";
    return errors;
}

template <class Tr> class SplatTest : public ::testing::Test {};
TYPED_TEST_SUITE(SplatTest, Structures, StructureNames);

TYPED_TEST(SplatTest, keeps_the_sum_of_the_values)
{
    const Places places = manyPlaces<TypeParam>(500, 8, 1);
    // Of both signs, and of one.
    for (float least : {-4.0f, 1.0f}) {
        const auto values = someValues(places.size(), least);
        const double exact = std::accumulate(values.begin(), values.end(), 0.0);
        for (float radius : {0.0f, 0.5f, 0.75f, 1.3f, 2.2f}) {
            const auto run = [&]<class Kernel>() {
                auto volume = emptyTarget<TypeParam>();
                ASSERT_TRUE(splatPoints<Kernel>(radius, 0, 0, 1, 1, false, "q", *cloudWith(places, "q", values), *volume));
                EXPECT_NEAR(sumAtFinest<TypeParam>(*volume, "q"), exact, 1e-5 * std::abs(exact)) << radius;
            };
            run.template operator()<Splat::LinearKernel>();
            run.template operator()<Splat::QuadraticKernel>();
        }
    }
}

TYPED_TEST(SplatTest, keeps_the_sum_of_points_whose_footprints_leave_tile_space)
{
    // Floats nearest to the ends: up to 10 voxels from the low one, and up to 31 from the high one.
    const double first = double(TypeParam::rangeMin) * kVoxel, last = double(TypeParam::rangeMax) * kVoxel;
    const auto nearest = [](double end) { return std::abs(float(end)) > std::abs(end) ? std::nextafter(float(end), 0.0f) : float(end); };
    const float low = nearest(first), high = nearest(last);
    ASSERT_TRUE(low >= first && low - 12.0 * kVoxel < first && high <= last && high + 40.0 * kVoxel > last);
    Places places;
    for (float3 const& place : {float3(low, low, low), float3(low, 0.3f, -0.7f), float3(0.2f, high, 0.1f)}) places.push_back(place);
    const HostPtr cloud = cloudWith(places, "q", Corvid::Array<float>{1, 2, 5}, Corvid::Array<float>{12, 12, 40});
    const auto run = [&]<class Kernel>() {
        auto volume = emptyTarget<TypeParam>();
        ASSERT_TRUE(splatPoints<Kernel>(kVoxel, 0, 0, 1, 1, false, "q", *cloud, *volume));
        EXPECT_NEAR(sumAtFinest<TypeParam>(*volume, "q"), 8, 8e-5);
    };
    run.template operator()<Splat::LinearKernel>();
    run.template operator()<Splat::QuadraticKernel>();
}

TYPED_TEST(SplatTest, with_a_radius_of_one_voxel_is_cloud_in_cell)
{
    const Places places = manyPlaces<TypeParam>(300, 5, 2);
    const auto values = someValues(places.size());
    auto volume = emptyTarget<TypeParam>();
    ASSERT_TRUE(splatPoints<Splat::LinearKernel>(kVoxel, 0, 0, 1, 1, false, "q", *cloudWith(places, "q", values), *volume));
    // Trilinear weights in their own words: the eight corners of the cell.
    Sums cells;
    for (std::size_t n = 0; n < places.size(); ++n) {
        const double3 at = (1.0 / kVoxel) * double3(places[n]);
        for (int corner = 0; corner < 8; ++corner) {
            std::array<int, 3> site;
            double w = values[n];
            for (int axis = 0; axis < 3; ++axis) {
                const double low = std::floor(at[axis]), f = at[axis] - low;
                site[std::size_t(axis)] = int(low) + (corner >> axis & 1);
                w *= corner >> axis & 1 ? f : 1 - f;
            }
            if (w != 0) cells[site] += w;
        }
    }
    EXPECT_TRUE(areWithin(errorsAgainst<TypeParam>(cells, *volume, "q"), 1e-5, 2000));
}

TYPED_TEST(SplatTest, agrees_with_a_sum_over_all_points_for_both_kernels_and_any_radius)
{
    const Places places = manyPlaces<TypeParam>(120, 4, 3);
    const auto values = someValues(places.size());
    for (double voxels : {1.0, 1.5, 2.7, 4.0}) {
        auto linear = emptyTarget<TypeParam>(), quadratic = emptyTarget<TypeParam>();
        const HostPtr cloud = cloudWith(places, "q", values);
        ASSERT_TRUE(splatPoints<Splat::LinearKernel>(float(voxels) * kVoxel, 0, 0, 1, 1, false, "q", *cloud, *linear));
        ASSERT_TRUE(splatPoints<Splat::QuadraticKernel>(float(voxels) * kVoxel, 0, 0, 1, 1, false, "q", *cloud, *quadratic));
        const double radius = double(float(voxels) * kVoxel) / kVoxel;
        EXPECT_TRUE(areWithin(errorsAgainst<TypeParam>(bruteSums(places, values, radius, hat), *linear, "q"), 1e-5, 2000)) << voxels;
        EXPECT_TRUE(areWithin(errorsAgainst<TypeParam>(bruteSums(places, values, radius, spline), *quadratic, "q"), 1e-5, 2000)) << voxels;
    }
}

TYPED_TEST(SplatTest, normalized_keeps_a_constant)
{
    const Places places = manyPlaces<TypeParam>(400, 5, 4);
    const Corvid::Array<float> values(places.size(), 3.25f);
    const auto run = [&]<class Kernel>(double (*weight)(double)) {
        auto volume = emptyTarget<TypeParam>();
        ASSERT_TRUE(splatPoints<Kernel>(0.9f, 0, 0, 1, 1, true, "q", *cloudWith(places, "q", values), *volume));
        Sums means = bruteSums(places, values, double(0.9f) / kVoxel, weight);
        for (auto& [site, mean] : means) mean = 3.25;
        EXPECT_TRUE(areWithin(errorsAgainst<TypeParam>(means, *volume, "q"), 1e-6 * 3.25, 2000));
    };
    run.template operator()<Splat::LinearKernel>(hat);
    run.template operator()<Splat::QuadraticKernel>(spline);
}

TYPED_TEST(SplatTest, normalized_keeps_a_constant_of_points_of_three_depths)
{
    constexpr int D = TypeParam::maxDepth;
    const Places places = manyPlaces<TypeParam>(400, 5, 4);
    // Beyond 2 B and 2 B^2 voxels points go one and two depths up.
    const auto depthOf = [](std::size_t n) { return D - (n % 80 == 0 ? 2 : n % 16 == 5 ? 1 : 0); };
    Corvid::Array<float> values(places.size(), 3.25f), radii;
    for (std::size_t n = 0; n < places.size(); ++n) radii.push_back(2.2f * float(TypeParam::voxelDataWidth(depthOf(n))));
    const HostPtr cloud = cloudWith(places, "q", values, radii);
    const auto run = [&]<class Kernel>() {
        auto volume = emptyTarget<TypeParam>();
        ASSERT_TRUE(splatPoints<Kernel>(kVoxel, 0, 0, 1, 3, true, "q", *cloud, *volume));
        Errors byDepth[3];
        forFreeVoxels<TypeParam>(*volume, "q", [&](int depth, Point const& p, double value) {
            // A voxel of its lattice away from the rim of a point, which has weight there, also where it is interpolated.
            bool touched = false;
            for (std::size_t n = 0; n < places.size() && !touched; ++n) {
                double off = 0;
                for (int a = 0; a < 3; ++a) off = std::max(off, std::abs(p[std::size_t(a)] - double(places[n][a]) / kVoxel));
                touched = depth >= depthOf(n) && off < double(radii[n]) - TypeParam::voxelDataWidth(depthOf(n));
            }
            if (!touched && value == 0) return;
            ASSERT_GE(depth, D - 2);
            byDepth[D - depth].add(value * kVoxel / 3.25 - 1);
        });
        for (Errors const& errors : byDepth) EXPECT_TRUE(areWithin(errors, 1e-6, 30));
    };
    run.template operator()<Splat::LinearKernel>();
    run.template operator()<Splat::QuadraticKernel>();
}

TYPED_TEST(SplatTest, sends_large_points_to_coarse_tiles_and_every_depth_shows_both)
{
    constexpr int B = TypeParam::branching, D = TypeParam::maxDepth;
    // The first spans 2 B voxels and a bit, so it goes one depth up; the second stays.
    Places places;
    places.push_back({0.3f, 0.2f, -0.1f});
    places.push_back({1.1f, 0.4f, 0.6f});
    Corvid::Array<float> values{8.0f, 1.0f}, radii{2.0f * B * 1.1f, 1.0f};
    const HostPtr cloud = cloudWith(places, "q", values, radii);
    auto volume = emptyTarget<TypeParam>();
    ASSERT_TRUE(splatPoints<Splat::LinearKernel>(kVoxel, 0, 0, 1, 4, false, "q", *cloud, *volume));

    // The coarse point alone, on the coarse lattice, in double; finer voxels mix it.
    const double radius = 2.0 * B * double(1.1f) / B, H = kVoxel * B;
    const double low = double(TypeParam::rangeMin);
    const auto coarse = [&](double const (&site)[3]) {
        double product = 1;
        for (int axis = 0; axis < 3; ++axis) {
            const double at = (double(places[0][axis]) / kVoxel - low) / B;
            double sum = 0;
            for (double n = std::ceil(at - radius); n <= at + radius; ++n) sum += hat(std::abs(n - at) / radius);
            product *= hat(std::abs(site[axis] - at) / radius) / sum;
        }
        return 8 * product;
    };
    const auto expected = [&](double3 const& p) {
        double sum = 0;
        for (int corner = 0; corner < 8; ++corner) {
            double site[3], w = 1;
            for (int axis = 0; axis < 3; ++axis) {
                const double at = (p[axis] - low * kVoxel) / H, base = std::floor(at + 1e-9);
                site[axis] = base + (corner >> axis & 1);
                w *= corner >> axis & 1 ? at - base : 1 - (at - base);
            }
            sum += w * coarse(site);
        }
        for (int axis = 0, inside = 1; axis < 3; ++axis) {
            inside &= std::abs(p[axis] - double(places[1][axis])) < kVoxel;
            if (axis == 2 && inside) {
                double w = 1;
                for (int a = 0; a < 3; ++a) w *= 1 - std::abs(p[a] - double(places[1][a])) / kVoxel;
                sum += w;
            }
        }
        return sum;
    };
    int atCoarse = 0, atFine = 0;
    Errors errors;
    forLeafVoxels<TypeParam, float>(*volume, "q", [&](double3 const& p, float v, int depth, auto const&, int) {
        if (depth < D - 1) return;
        (depth == D ? atFine : atCoarse) += v != 0;
        errors.add(v - expected(p));
    });
    EXPECT_GT(atCoarse, 20);
    EXPECT_GT(atFine, 8);
    EXPECT_TRUE(areWithin(errors, 1e-5, 300));
}

TYPED_TEST(SplatTest, takes_values_of_any_real_type_and_ones_without)
{
    const Places places = randomPlaces(50, 3, 5);
    const auto run = [&]<class T>(T const& value) {
        auto volume = emptyTarget<TypeParam>();
        const Corvid::Array<T> values(places.size(), value);
        ASSERT_TRUE(splatPoints<Splat::LinearKernel>(0, 0, 0, 1, 1, true, "q", *cloudWith(places, "q", values), *volume));
        Errors errors;
        forLeafVoxels<TypeParam, T>(*volume, "q", [&](double3 const&, T const& v, int, auto const&, int) {
            using Element = Ostara::Math::ElementTraits<T>;
            if (Element::at(v, 0) == 0) return;
            for (int c = 0; c < Element::components; ++c) errors.add(double(Element::at(v, c)) / double(Element::at(value, c)) - 1);
        });
        EXPECT_TRUE(areWithin(errors, 1e-6, 100));
    };
    run(2.5f);
    run(Ostara::Math::float2(1, 2));
    run(float3(1, 2, 3));
    run(Ostara::Math::float4(4, 3, 2, 1));
    run(2.5);
    run(double3(3, 2, 1));
    auto volume = emptyTarget<TypeParam>();
    ASSERT_TRUE(splatPoints<Splat::LinearKernel>(0, 0, 0, 1, 1, false, "count", *cloudOf(places), *volume));
    EXPECT_NEAR(sumAtFinest<TypeParam>(*volume, "count"), 50, 1e-4);
}

TYPED_TEST(SplatTest, treats_odd_parameters_as_told)
{
    const Places places = randomPlaces(40, 3, 6);
    const auto bytes = [&](float radius, float least, float most, float scale, int depths) {
        auto volume = emptyTarget<TypeParam>();
        EXPECT_TRUE(splatPoints<Splat::LinearKernel>(radius, least, most, scale, depths, false, "q", *cloudOf(places), *volume));
        return bytesOf<TypeParam, float>(*volume, "q");
    };
    const float nan = std::nanf(""), inf = INFINITY;
    const std::string one = bytes(kVoxel, 0, 0, 1, 1);
    EXPECT_TRUE(bytes(0, 0, 0, 1, 1) == one) << "no radius is one voxel";
    EXPECT_TRUE(bytes(-3, 0, 0, 1, 1) == one);
    EXPECT_TRUE(bytes(nan, 0, 0, 1, 1) == one);
    EXPECT_TRUE(bytes(1e-20f, 0, 0, 1, 1) == one) << "never below a voxel";
    EXPECT_TRUE(bytes(kVoxel, nan, nan, nan, -5) == one);
    EXPECT_TRUE(bytes(kVoxel, 0, 0, 0, 1) == one) << "a factor of 0 would erase all";
    EXPECT_TRUE(bytes(inf, 0, 2, 1, 1) == bytes(2 * kVoxel, 0, 0, 1, 1)) << "the upper bound";
    EXPECT_TRUE(bytes(kVoxel, 3, 2, 1, 1) == bytes(3 * kVoxel, 0, 0, 1, 1)) << "the lower bound wins";
    EXPECT_FALSE(bytes(kVoxel, 0, 0, 2, 1) == one);
}

TYPED_TEST(SplatTest, passes_over_points_that_are_nowhere)
{
    Places places = randomPlaces(30, 3, 7), good = places;
    const float nan = std::nanf(""), inf = INFINITY;
    for (float3 const& bad : {float3(nan, 0, 0), float3(0, inf, 0), float3(0, 0, -inf), float3(3e38f, 0, 0), float3(0, -1e10f, 0)}) places.push_back(bad);
    Corvid::Array<float> values(places.size(), 1.0f), goodValues(good.size(), 1.0f);
    places.push_back({0, 0, 0});
    values.push_back(nan);
    auto volume = emptyTarget<TypeParam>(), expected = emptyTarget<TypeParam>();
    ASSERT_TRUE(splatPoints<Splat::QuadraticKernel>(1, 0, 0, 1, 1, false, "q", *cloudWith(places, "q", values), *volume));
    ASSERT_TRUE(splatPoints<Splat::QuadraticKernel>(1, 0, 0, 1, 1, false, "q", *cloudWith(good, "q", goodValues), *expected));
    EXPECT_TRUE((bytesOf<TypeParam, float>(*volume, "q") == bytesOf<TypeParam, float>(*expected, "q")));
}

TYPED_TEST(SplatTest, of_no_points_makes_the_property_and_of_no_positions_nothing)
{
    auto volume = emptyTarget<TypeParam>();
    EXPECT_TRUE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, "q", *cloudOf({}), *volume));
    const auto channel = volume->template component<PlainChannel<TypeParam>>("q");
    ASSERT_TRUE(channel);
    EXPECT_EQ(channel->defaultValue(), 0.0f);
    EXPECT_EQ(channel->dataElementInitializerType(), OST::TileTree3D::kInitializeLinear);
    const auto names = volume->componentRange();
    EXPECT_FALSE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, "r", *Ostara::createObject(), *volume));
    EXPECT_FALSE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, "r", *cloudWith(randomPlaces(5, 1, 1), "r", someValues(4)), *volume));
    EXPECT_FALSE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, "r", *cloudWith(randomPlaces(5, 1, 1), "point_radius", someValues(4)), *volume));
    EXPECT_EQ(volume->componentRange(), names);
}

TYPED_TEST(SplatTest, adds_to_what_is_there_or_replaces_it_where_points_are)
{
    const Places places = randomPlaces(60, 2, 8);
    const Corvid::Array<float> values(places.size(), 4.0f);
    auto alone = emptyTarget<TypeParam>(), added = boxVolume<TypeParam>(12, Layout::kUniform, kVoxel), mean = boxVolume<TypeParam>(12, Layout::kUniform, kVoxel);
    addField<TypeParam, float>(*added, "q", [](double3 const&) { return 10.0f; });
    addField<TypeParam, float>(*mean, "q", [](double3 const&) { return 10.0f; });
    const HostPtr cloud = cloudWith(places, "q", values);
    ASSERT_TRUE(splatPoints<Splat::LinearKernel>(0.8f, 0, 0, 1, 1, false, "q", *cloud, *added));
    ASSERT_TRUE(splatPoints<Splat::LinearKernel>(0.8f, 0, 0, 1, 1, true, "q", *cloud, *mean));
    const Sums sums = bruteSums(places, values, double(0.8f) / kVoxel, hat);
    const auto finest = [](double3 const&, int depth) { return depth == TypeParam::maxDepth; };
    const auto sumAt = [&sums](double3 const& p) {
        const auto found = sums.find({int(std::lround(p.x / kVoxel)), int(std::lround(p.y / kVoxel)), int(std::lround(p.z / kVoxel))});
        return found == sums.end() ? 0 : found->second;
    };
    const Errors more = fieldErrors<TypeParam, float>(*added, "q", finest, [&](double3 const& p, float v) { return v - (10 + sumAt(p)); });
    const Errors other = fieldErrors<TypeParam, float>(*mean, "q", finest, [&](double3 const& p, float v) { return v - (sumAt(p) > 0 ? 4 : 10); });
    EXPECT_TRUE(areWithin(more, 1e-5, 24 * 24 * 24));
    EXPECT_TRUE(areWithin(other, 1e-5, 24 * 24 * 24));
}

TYPED_TEST(SplatTest, refuses_a_property_of_another_type)
{
    auto volume = boxVolume<TypeParam>(6, Layout::kUniform, kVoxel);
    addField<TypeParam, float3>(*volume, "q", [](double3 const& p) { return float3(p); });
    const std::string before = bytesOf<TypeParam, float3>(*volume, "q");
    EXPECT_FALSE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, "q", *cloudOf(randomPlaces(9, 30, 1)), *volume));
    EXPECT_FALSE(splatPoints<Splat::LinearKernel>(1, 0, 0, 1, 1, false, sVoxelTileTree, *cloudOf(randomPlaces(9, 30, 1)), *volume));
    EXPECT_TRUE((bytesOf<TypeParam, float3>(*volume, "q") == before)) << "values and tiles";
}

TYPED_TEST(SplatTest, gives_the_same_bytes_on_any_number_of_threads)
{
    const Places places = randomPlaces(20000, 10, 9);
    Corvid::Array<float> radii;
    for (std::size_t n = 0; n < places.size(); ++n) radii.push_back(n % 500 ? 1.0f : 12.0f);
    const HostPtr cloud = cloudWith(places, "point_radius", radii);
    const auto run = [&]<class Kernel>(bool mean) {
        std::string first;
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                auto volume = emptyTarget<TypeParam>();
                ASSERT_TRUE(splatPoints<Kernel>(0.8f, 0, 0, 1, 4, mean, "q", *cloud, *volume));
                const std::string bytes = bytesOf<TypeParam, float>(*volume, "q");
                if (first.empty()) first = bytes;
                EXPECT_TRUE(bytes == first) << threads << " threads";
            });
        EXPECT_GT(first.size(), 100000u);
    };
    for (bool mean : {false, true}) {
        run.template operator()<Splat::LinearKernel>(mean);
        run.template operator()<Splat::QuadraticKernel>(mean);
    }
}

TYPED_TEST(SplatTest, work_counts_the_voxels_that_points_touch)
{
    auto volume = emptyTarget<TypeParam>();
    Places places;
    places.push_back({0.1f, 0.1f, 0.1f});
    EXPECT_EQ(splatWork(kVoxel, 0, 0, 1, *cloudOf(places), *volume), 8);
    EXPECT_GT(splatWork(1e5f, 0, 0, 1, *cloudOf(places), *volume), 1e15);
    EXPECT_LT(splatWork(1e5f, 0, 0, 28, *cloudOf(places), *volume), 5e4);
}

using namespace Geometry::Volume;

TYPED_TEST(SplatTest, node_with_a_bad_points_input_gives_an_empty_object)
{
    for (bool owned : {false, true}) {
        HostPtr volume = hostVolume(emptyTarget<TypeParam>());
        HostPtr const kept = owned ? HostPtr() : volume;
        Messages messages;
        // The volume is taken already, and does not come back.
        splat_points_into_volume(std::move(volume), *Ostara::createObject(), false, "q", SplatKernelType::kLinear, 1, 0, 0, 1, 1, volume, messages.services());
        EXPECT_TRUE(isEmptyObject(volume));
        EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'points' is not a point cloud."}}));
        EXPECT_TRUE(!kept || (kept->native() && !kept->native()->hasComponentFromName("q")));
    }
}

TYPED_TEST(SplatTest, node_with_a_bad_volume_gives_an_empty_object)
{
    HostPtr output;
    Messages messages;
    splat_points_into_volume(Ostara::createObject(), *cloudOf({}), false, "q", SplatKernelType::kLinear, 1, 0, 0, 1, 1, output, messages.services());
    EXPECT_TRUE(isEmptyObject(output));
    EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Input 'volume' is not a volume."}}));
}

TYPED_TEST(SplatTest, node_runs_both_kernels_and_no_other)
{
    const HostPtr cloud = cloudOf(randomPlaces(20, 2, 3));
    for (int kernel : {0, 1, 2, -1}) {
        HostPtr output;
        Messages messages;
        splat_points_into_volume(hostVolume(emptyTarget<TypeParam>()), *cloud, false, "q", SplatKernelType(kernel), 1, 0, 0, 1, 1, output, messages.services());
        ASSERT_TRUE(output && output->native());
        EXPECT_TRUE(messages.list().empty());
        EXPECT_EQ(output->native()->hasComponentFromName("q"), kernel == 0 || kernel == 1);
        EXPECT_EQ(messages.progress().empty() ? "" : messages.progress().front(), "Geometry::Volume::splat_points_into_volume");
    }
}

TYPED_TEST(SplatTest, node_gives_an_empty_object_when_cancelled_at_any_poll)
{
    const HostPtr cloud = cloudOf(randomPlaces(20, 2, 3));
    const auto run = [&](Job& job) {
        HostPtr output;
        const Messages messages(&job);
        splat_points_into_volume(hostVolume(emptyTarget<TypeParam>()), *cloud, true, "q", SplatKernelType::kLinear, 1, 0, 0, 1, 1, output, messages.services());
        return output;
    };
    expectEmptyWhenCancelled("splat_points_into_volume", run);
}

TYPED_TEST(SplatTest, node_takes_points_that_its_output_alone_owns)
{
    const auto splat = [](HostPtr& output, Host const& points) {
        splat_points_into_volume(hostVolume(emptyTarget<TypeParam>()), points, true, "q", SplatKernelType::kLinear, 1, 0, 0, 1, 1, output, Messages().services());
        return bytesOf<TypeParam, float>(*output->native(), "q");
    };
    HostPtr apart, alias = cloudOf(randomPlaces(20, 2, 3));
    const std::string expected = splat(apart, *cloudOf(randomPlaces(20, 2, 3)));
    Host const& owned = *alias;
    EXPECT_TRUE(splat(alias, owned) == expected);
}

}  // namespace
}  // namespace tilegrid::test
