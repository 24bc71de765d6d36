#include "TilegridOps/algorithms/affine_map.h"
#include "TilegridOps/nodes/transfer.h"
#include "TilegridOps/substrate/element_values.h"
#include "cancelled_node.h"
#include "support/field_volumes.h"
#include "support/jobs.h"

namespace tilegrid::test {
namespace {

using namespace Geometry::Volume;
using namespace Ostara::Math;
using Ostara::Geometry::sVoxelSignedDistance;
using Mode = Geometry::Volume::InterpolationMode;

float4x4 identity()
{
    float4x4 m;
    for (int n = 0; n < 4; ++n) m(n, n) = 1;
    return m;
}
float4x4 scaled(float x, float y, float z)
{
    float4x4 m = identity();
    m(0, 0) = x, m(1, 1) = y, m(2, 2) = z;
    return m;
}
float4x4 shifted(float x, float y, float z)
{
    float4x4 m = identity();
    m(3, 0) = x, m(3, 1) = y, m(3, 2) = z;
    return m;
}
/// Around the z axis, row vectors.
float4x4 turned(double degrees)
{
    const double a = degrees * 3.14159265358979323846 / 180;
    float4x4 m = identity();
    m(0, 0) = m(1, 1) = float(std::cos(a));
    m(0, 1) = float(std::sin(a));
    m(1, 0) = -m(0, 1);
    return m;
}

template <class Tr> HostPtr sphereVolume(double radius, int half, Layout layout = Layout::kUniform)
{
    auto volume = boxVolume<Tr>(half, layout);
    addField<Tr, float>(*volume, sVoxelSignedDistance, [radius](double3 const& p) { return float(length(p) - radius); });
    return hostVolume(std::move(volume));
}
template <class Tr> HostPtr linearVolume(int half, Layout layout)
{
    auto volume = boxVolume<Tr>(half, layout, 0.5f);
    addField<Tr, float>(*volume, "f", [](double3 const& p) { return float(1 + 2 * p.x - 3 * p.y + p.z); });
    return hostVolume(std::move(volume));
}

struct Call {
    Corvid::String property;
    float4x4 transform = identity();
    float voxelSize = 0;
    AutoSubdivisionStructure structure = AutoSubdivisionStructure::kAutomatic;
    Mode mode = Mode::kLinear;
    HostPtr target = {};
};
HostPtr resampled(HostPtr const& source, Call const& call, Messages const& messages = Messages())
{
    HostPtr output;
    resample_volume(*source, call.target, call.property, call.transform, call.voxelSize, call.structure, call.mode, output, messages.services());
    return output;
}

template <class Tr> class Resample : public ::testing::Test {
public:
    using Other = std::conditional_t<Tr::branching == 2, QuinaryTraits, BinaryTraits>;
};
TYPED_TEST_SUITE(Resample, Structures, StructureNames);

TYPED_TEST(Resample, by_the_identity_keeps_tiles_and_bits)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        const HostPtr source = sphereVolume<TypeParam>(11.3, 20, layout);
        const HostPtr result = resampled(source, {.property = sVoxelSignedDistance});
        ASSERT_TRUE(result && result->native());
        // New tiles may stand in another order: values are compared by place.
        const auto collect = [&](Native const& native) {
            std::map<TileKey, std::string> found;
            const auto tree = treeOf<TypeParam>(native);
            const auto channel = native.component<PlainChannel<TypeParam>>(sVoxelSignedDistance);
            for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
                const auto data = channel->tileData(tree->tile(n).treeIndex());
                found[keyOf(tree->tile(n))] = std::string(reinterpret_cast<char const*>(data.data()), std::size_t(data.size()) * sizeof(float));
            }
            return found;
        };
        EXPECT_TRUE(collect(*source->native()) == collect(*result->native()));
        EXPECT_TRUE(Host::isA(*result, *Ostara::Geometry::getLevelSetPrototype()));
    }
}

TYPED_TEST(Resample, by_a_shift_reproduces_a_linear_field)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump})
        for (Mode mode : {Mode::kLinear, Mode::kQuadraticC0Averaged, Mode::kCubicC0, Mode::kCubicC1, Mode::kCubicC1Monotonic}) {
            const HostPtr result = resampled(linearVolume<TypeParam>(20, layout), {.property = "f", .transform = shifted(1.5f, 0, 0), .mode = mode});
            ASSERT_TRUE(result && result->native());
            double worst = 0;
            forLeafVoxels<TypeParam, float>(*result->native(), "f", [&](double3 const& p, float v, int, auto const&, int) {
                if (within(p, 5)) worst = std::max(worst, std::abs(v - (1 + 2 * (p.x - 1.5) - 3 * p.y + p.z)));
            });
            // Values up to 30.
            EXPECT_LE(worst, 1e-5) << int(mode);
        }
}

TYPED_TEST(Resample, by_a_turn_keeps_a_sphere)
{
    constexpr double kRadius = 20;
    for (Layout layout : {Layout::kUniform, Layout::kJump})
        for (Mode mode : {Mode::kLinear, Mode::kQuadraticC0Averaged, Mode::kCubicC1}) {
            const HostPtr result = resampled(sphereVolume<TypeParam>(kRadius, 30, layout), {.property = "", .transform = turned(30), .mode = mode});
            double worst = 0;
            int seen = 0;
            const double h = layout == Layout::kUniform ? 1 : TypeParam::branching;
            forLeafVoxels<TypeParam, float>(*result->native(), sVoxelSignedDistance, [&](double3 const& p, float v, int, auto const&, int) {
                if (std::abs(length(p) - kRadius) > 1) return;
                worst = std::max(worst, std::abs(v - (length(p) - kRadius)));
                ++seen;
            });
            EXPECT_GT(seen, 1000);
            // In voxels of the coarse side, whose error is h^2 / 4R.
            EXPECT_LE(worst, 0.02 * h * h) << int(mode);
        }
}

TYPED_TEST(Resample, by_a_scale_multiplies_distances)
{
    constexpr double kRadius = 20;
    const HostPtr source = sphereVolume<TypeParam>(kRadius, 30);
    for (float voxelSize : {0.0f, 1.0f}) {
        const HostPtr result = resampled(source, {.property = sVoxelSignedDistance, .transform = scaled(2, 2, 2), .voxelSize = voxelSize, .mode = Mode::kCubicC1});
        EXPECT_EQ(treeOf<TypeParam>(*result->native())->voxelSize(), voxelSize > 0 ? 1.0f : 2.0f);
        double worst = 0;
        forLeafVoxels<TypeParam, float>(*result->native(), sVoxelSignedDistance, [&](double3 const& p, float v, int, auto const&, int) {
            if (std::abs(length(p) - 2 * kRadius) <= 2) worst = std::max(worst, std::abs(v - (length(p) - 2 * kRadius)));
        });
        EXPECT_LE(worst, 0.02) << voxelSize;
    }
}

TYPED_TEST(Resample, into_a_volume_keeps_its_tiles_and_its_other_properties)
{
    using Other = typename TestFixture::Other;
    const HostPtr source = linearVolume<TypeParam>(30, Layout::kJump);
    auto native = boxVolume<Other>(12, Layout::kUniform, 0.4f);
    addField<Other, float>(*native, "kept", [](double3 const& p) { return float(p.x); });
    addField<Other, int>(*native, "f", [](double3 const&) { return 3; });
    const std::string kept = bytesOf<Other, float>(*native, "kept");
    Messages messages;
    const HostPtr result = resampled(source, {.property = "f", .transform = turned(17), .voxelSize = 9, .target = hostVolume(std::move(native))}, messages);
    EXPECT_TRUE(messages.list().empty());
    EXPECT_EQ((bytesOf<Other, float>(*result->native(), "kept")), kept);
    const AffineMap back = *AffineMap(turned(17)).inverse();
    double worst = 0;
    forLeafVoxels<Other, float>(*result->native(), "f", [&](double3 const& p, float v, int, auto const&, int) {
        const double3 s = back(p);
        if (within(p, 4.8)) worst = std::max(worst, std::abs(v - (1 + 2 * s.x - 3 * s.y + s.z)));
    });
    EXPECT_LE(worst, 2e-5);
}

TYPED_TEST(Resample, makes_a_volume_of_the_structure_that_is_asked_for)
{
    const HostPtr source = linearVolume<TypeParam>(12, Layout::kUniform);
    const auto isBinary = [&](AutoSubdivisionStructure structure) {
        return bool(treeOf<BinaryTraits>(*resampled(source, {.property = "f", .structure = structure})->native()));
    };
    EXPECT_TRUE(isBinary(AutoSubdivisionStructure::kBinary));
    EXPECT_FALSE(isBinary(AutoSubdivisionStructure::kQuinary));
    EXPECT_EQ(isBinary(AutoSubdivisionStructure::kAutomatic), TypeParam::branching == 2);
    EXPECT_EQ(isBinary(AutoSubdivisionStructure(9)), TypeParam::branching == 2);
}

TYPED_TEST(Resample, carries_every_real_type_for_an_empty_name)
{
    auto native = boxVolume<TypeParam>(10, Layout::kUniform);
    const auto add = [&]<class T>(char const* name) { addField<TypeParam, T>(*native, name, [](double3 const& p) { return elementOf<T>(float(p.y)); }); };
    add.template operator()<float>("a");
    add.template operator()<float2>("b");
    add.template operator()<float3>("c");
    add.template operator()<float4>("d");
    add.template operator()<float3x3>("e");
    add.template operator()<float4x2>("f");
    add.template operator()<float4x4>("g");
    add.template operator()<double>("h");
    add.template operator()<double3>("i");
    add.template operator()<int>("j");
    const HostPtr result = resampled(hostVolume(std::move(native)), {.property = "", .transform = shifted(0, 0.25f, 0)});
    const auto check = [&]<class T>(char const* name) {
        forLeafVoxels<TypeParam, T>(*result->native(), name, [&](double3 const& p, T const& v, int, auto const&, int) {
            if (!within(p, 6)) return;
            for (int c = 0; c < ElementTraits<T>::components; ++c) EXPECT_NEAR(ElementTraits<T>::at(v, c), p.y - 0.25, 1e-5) << name;
        });
    };
    check.template operator()<float>("a");
    check.template operator()<float2>("b");
    check.template operator()<float3>("c");
    check.template operator()<float4>("d");
    check.template operator()<float3x3>("e");
    check.template operator()<float4x2>("f");
    check.template operator()<float4x4>("g");
    check.template operator()<double>("h");
    check.template operator()<double3>("i");
    EXPECT_FALSE(result->native()->hasComponentFromName("j"));
}

TYPED_TEST(Resample, gives_the_default_outside_of_the_source)
{
    auto native = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTiles({-8, -8, -8}, {8, 8, 8}, TypeParam::maxDepth); });
    // Only the finest depth has values, so that there is an outside.
    addChannel<PlainChannel<TypeParam>>(*native, sVoxelSignedDistance, 5.0f, [](TileKey const&, int) { return 1.0f; }, TypeParam::maxDepth);
    const HostPtr result = resampled(hostVolume(std::move(native)), {.property = sVoxelSignedDistance, .transform = scaled(2, 2, 2),
                                                                     .target = hostVolume(boxVolume<TypeParam>(60, Layout::kUniform))});
    bool inside = false, outside = false;
    forLeafVoxels<TypeParam, float>(*result->native(), sVoxelSignedDistance, [&](double3 const& p, float v, int, auto const&, int) {
        if (within(p, 10)) inside |= v == 2.0f;
        if (!within(p, 40) && within(p, 60)) outside |= v == 10.0f;
        if (within(p, 10)) { EXPECT_EQ(v, 2.0f); }
    });
    EXPECT_TRUE(inside && outside);
}

TYPED_TEST(Resample, reads_coarse_depths_for_coarse_voxels)
{
    // A property that tells its depth, so that what was read can be seen.
    auto native = boxVolume<TypeParam>(40, Layout::kUniform);
    addChannel<PlainChannel<TypeParam>>(*native, "depth", 0.0f, [](TileKey const& key, int) { return float(key.depth); });
    const HostPtr source = hostVolume(std::move(native));
    constexpr int B = TypeParam::branching, D = TypeParam::maxDepth;
    for (auto [voxelSize, depth] : {std::pair(1.0f, D), {float(B), D - 1}, {float(B) * 0.99f, D}, {float(B) * 1.5f, D - 1}}) {
        const HostPtr result = resampled(source, {.property = "depth", .voxelSize = voxelSize});
        forLeafVoxels<TypeParam, float>(*result->native(), "depth", [&](double3 const& p, float v, int at, auto const&, int) {
            if (within(p, 20) && at == D) { EXPECT_EQ(v, float(depth)) << voxelSize; }
        });
    }
}

TYPED_TEST(Resample, refuses_singular_maps_and_leaves_the_target)
{
    const HostPtr source = linearVolume<TypeParam>(8, Layout::kUniform), target = linearVolume<TypeParam>(5, Layout::kUniform);
    const float nan = std::nanf(""), inf = INFINITY;
    for (float4x4 const& matrix : {float4x4(), scaled(1, 0, 1), scaled(1, 1, nan), shifted(inf, 0, 0), scaled(1e-30f, 1, 1)}) {
        Messages messages;
        const HostPtr result = resampled(source, {.property = "f", .transform = matrix, .target = target}, messages);
        EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Resample transform is not invertible."}}));
        EXPECT_EQ((bytesOf<TypeParam, float>(*result->native(), "f")), (bytesOf<TypeParam, float>(*target->native(), "f")));
    }
}

TYPED_TEST(Resample, says_when_the_property_is_missing)
{
    auto native = boxVolume<TypeParam>(8, Layout::kUniform);
    addField<TypeParam, int>(*native, "i", [](double3 const&) { return 1; });
    const HostPtr source = hostVolume(std::move(native)), target = linearVolume<TypeParam>(5, Layout::kUniform);
    for (char const* name : {"missing", "i", "voxel_tile_tree"}) {
        Messages messages;
        resampled(source, {.property = name, .target = target}, messages);
        EXPECT_EQ(messages.list(), (Messages::List{{Severity::kError, "Resample property not found."}})) << name;
    }
}

/// The distance to the surface of a body of revolution around the z axis whose section is an ellipse; the sign by its equation.
double spheroidDistance(double3 const& p, double a, double c)
{
    const double rho = std::hypot(p.x, p.y), z = std::abs(p.z);
    const auto square = [&](double t) { return std::pow(a * std::cos(t) - rho, 2) + std::pow(c * std::sin(t) - z, 2); };
    constexpr int kSteps = 100;
    const double step = 1.5707963267948966 / kSteps;
    int nearest = 0;
    for (int n = 1; n <= kSteps; ++n)
        if (square(n * step) < square(nearest * step)) nearest = n;
    double low = (nearest - 1) * step, high = (nearest + 1) * step;
    for (int n = 0; n < 60; ++n) {
        const double third = (high - low) / 3;
        (square(low + third) < square(high - third) ? high : low) = square(low + third) < square(high - third) ? high - third : low + third;
    }
    const double distance = std::sqrt(square(0.5 * (low + high)));
    return rho * rho / (a * a) + z * z / (c * c) < 1 ? -distance : distance;
}

TYPED_TEST(Resample, makes_distances_anew_where_they_are_stretched_unevenly)
{
    const HostPtr source = sphereVolume<TypeParam>(12, 20);
    auto target = boxVolume<TypeParam>(20, Layout::kJump);
    addField<TypeParam, float>(*target, "other", [](double3 const&) { return 0.0f; });
    for (HostPtr const& into : {HostPtr(), hostVolume(std::move(target))}) {
        SCOPED_TRACE(into ? "into a volume" : "a new volume");
        Messages messages;
        const Call call{.property = sVoxelSignedDistance, .transform = scaled(1, 1, 1.5f), .mode = Mode::kCubicC1, .target = into};
        const HostPtr result = resampled(source, call, messages);
        EXPECT_EQ(messages.list(), Messages::List());
        const auto tree = treeOf<TypeParam>(*result->native());
        double worst = 0;
        int seen = 0;
        forLeafVoxels<TypeParam, float>(*result->native(), sVoxelSignedDistance, [&](double3 const& p, float v, int depth, auto const&, int) {
            if (depth != TypeParam::maxDepth || std::abs(length(p) - 15) > 5) return;
            const double exact = spheroidDistance(p, 12, 18);
            if (std::abs(exact) > 2) return;
            worst = std::max(worst, std::abs(v - exact) / double(tree->voxelSize()));
            ++seen;
        });
        EXPECT_GT(seen, 1000);
        // As of a copy that is scaled evenly: the cubic's error, which the stretch enlarges; the scaled values alone are off by 0.4.
        EXPECT_LE(worst, 0.02);
        EXPECT_FALSE(result->native()->hasComponentFromName(Ostara::Geometry::sVoxelDegreeOfFreedom));
    }
}

TYPED_TEST(Resample, keeps_distances_as_they_are_read_where_all_lengths_change_alike)
{
    // One that is no distance shows whether they were made anew.
    auto native = boxVolume<TypeParam>(10, Layout::kUniform);
    addField<TypeParam, float>(*native, sVoxelSignedDistance, [](double3 const& p) { return float(3 * (length(p) - 6)); });
    const HostPtr source = hostVolume(std::move(native));
    for (auto const& matrix : {scaled(2, 2, 2), turned(90), scaled(1, -1, 1)}) {
        const HostPtr result = resampled(source, {.property = sVoxelSignedDistance, .transform = matrix});
        const double scale = double(treeOf<TypeParam>(*result->native())->voxelSize());
        int seen = 0;
        forLeafVoxels<TypeParam, float>(*result->native(), sVoxelSignedDistance, [&](double3 const& p, float v, int depth, auto const&, int) {
            if (depth != TypeParam::maxDepth || length(p) > 9 * scale || ++seen > 1000) return;
            EXPECT_NEAR(v, 3 * (length(p) - 6 * scale), 1e-3);
        });
        EXPECT_GT(seen, 500);
    }
}

TYPED_TEST(Resample, of_a_source_that_is_no_volume_gives_the_target_back_with_no_message)
{
    Messages messages;
    const HostPtr target = linearVolume<TypeParam>(5, Layout::kUniform);
    const HostPtr result = resampled(Ostara::createObject(), {.property = "f", .target = target}, messages);
    EXPECT_TRUE(messages.list().empty());
    EXPECT_EQ((bytesOf<TypeParam, float>(*result->native(), "f")), (bytesOf<TypeParam, float>(*target->native(), "f")));
}

TYPED_TEST(Resample, of_a_volume_into_itself_reads_what_it_was)
{
    const HostPtr volume = linearVolume<TypeParam>(20, Layout::kUniform);
    const std::string before = bytesOf<TypeParam, float>(*volume->native(), "f");
    const HostPtr result = resampled(volume, {.property = "f", .transform = shifted(0.5f, 0, 0), .target = volume});
    EXPECT_EQ((bytesOf<TypeParam, float>(*volume->native(), "f")), before) << "shared with the caller";
    forLeafVoxels<TypeParam, float>(*result->native(), "f", [&](double3 const& p, float v, int, auto const&, int) {
        if (within(p, 5)) { EXPECT_NEAR(v, 1 + 2 * (p.x - 0.5) - 3 * p.y + p.z, 1e-5); }
    });
}

TYPED_TEST(Resample, takes_an_empty_source)
{
    auto native = nativeVolume<TypeParam>([](Tree<TypeParam>&) {});
    addField<TypeParam, float>(*native, "f", [](double3 const&) { return 0.0f; });
    const HostPtr result = resampled(hostVolume(std::move(native)), {.property = "f", .transform = turned(10)});
    ASSERT_TRUE(result && result->native());
    EXPECT_TRUE((result->native()->template hasComponentFromName<PlainChannel<TypeParam>>("f")));
}

TYPED_TEST(Resample, gives_the_same_bytes_on_any_number_of_threads)
{
    const HostPtr source = sphereVolume<TypeParam>(11, 16, Layout::kJump);
    for (Mode mode : {Mode::kLinear, Mode::kCubicC1}) {
        std::string first;
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                const HostPtr result = resampled(source, {.property = "", .transform = turned(33), .mode = mode});
                const std::string bytes = bytesOf<TypeParam, float>(*result->native(), sVoxelSignedDistance);
                if (first.empty()) first = bytes;
                EXPECT_TRUE(bytes == first) << threads << " threads";
            });
    }
}

TYPED_TEST(Resample, gives_an_empty_object_when_cancelled)
{
    const HostPtr source = sphereVolume<TypeParam>(4, 6);
    const auto run = [&](Job& job) {
        HostPtr output;
        const Messages messages(&job);
        resample_volume(*source, nullptr, "", turned(20), 0, AutoSubdivisionStructure::kAutomatic, Mode::kLinear, output, messages.services());
        return output;
    };
    expectEmptyWhenCancelled(run);
}

}  // namespace
}  // namespace tilegrid::test
