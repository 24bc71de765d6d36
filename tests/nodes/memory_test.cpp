#include "TilegridOps/nodes/grading.h"
#include "TilegridOps/nodes/level_set.h"
#include "TilegridOps/nodes/merge.h"
#include "TilegridOps/nodes/transfer.h"
#include "support/clusters.h"
#include "support/field_volumes.h"
#include "support/jobs.h"
#include "support/volumes.h"

#include <functional>

/// A node whose result would need more memory than its services allow says so, gives an empty object, and leaves alone what
/// others share.
namespace tilegrid::test {
namespace {

using OST::TileTree3D::Channel;
using OST::TileTree3D::cubeIndex;
using namespace Ostara::Geometry;
using namespace Geometry::Volume;

constexpr std::uint64_t kMegabyte = 1 << 20;
constexpr float kVoxel = 0.1f;

/// Services with a limit, and the errors that went to them.
struct Limited {
    explicit Limited(std::uint64_t bytes)
        : services(nullptr, [this](Severity severity, Corvid::StringView text) { if (severity == Severity::kError) errors.push_back(std::string(text)); }, {}, bytes)
    {
    }
    Limited(Limited const&) = delete;
    Limited& operator=(Limited const&) = delete;
    std::vector<std::string> errors;
    Corvid::RuntimeServices services;
};

template <class Tr> HostPtr boxWith(std::function<float(TileKey const&, int)> const& value, int reach = 12)
{
    auto native = nativeVolume<Tr>([reach](Tree<Tr>& tree) { tree.tileAccessor().addTiles(int3(-reach), int3(reach), Tr::maxDepth); }, kVoxel);
    addChannel<Channel<Tr, float, Tr::width, 0>>(*native, sVoxelSignedDistance, 3 * kVoxel, value);
    return hostVolume(std::move(native));
}
template <class Tr> HostPtr ball()
{
    return boxWith<Tr>([](TileKey const& key, int e) {
        const int3 at = cubeIndex(Tr::width, e);
        const double w = double(TileSet<Tr>::voxelWidth(key.depth));
        return kVoxel * float(std::hypot(double(key.low[0]) + w * at.x, double(key.low[1]) + w * at.y, double(key.low[2]) + w * at.z) - 7.3);
    });
}
/// Random values of both signs at every depth, as in a level set whose coarse voxels nobody made distances.
template <class Tr> HostPtr noise(std::uint64_t seed)
{
    Random random(seed);
    return boxWith<Tr>([&](TileKey const&, int) { return float(double(random.below(2001)) - 1000) * kVoxel; });
}
HostPtr onePoint()
{
    auto cloud = Corvid::makeMutable<Host>(getPointCloudPrototype());
    cloud->set(sPointPosition, Corvid::Array<float3>{float3(0.3f, -0.2f, 0.1f)});
    return cloud;
}

using Node = std::function<void(HostPtr input, HostPtr& output, Corvid::RuntimeServices const&)>;

Node splat(float radius)
{
    return [radius](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        splat_points_into_volume(std::move(input), *onePoint(), false, "q", SplatKernelType::kLinear, radius, 0, 0, 1, 1, output, services);
    };
}
Node resize(float bandwidth)
{
    return [bandwidth](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        resize_level_set(std::move(input), bandwidth, output, services);
    };
}
Node resample(float voxelSize)
{
    return [voxelSize](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        Ostara::Math::float4x4 identity;
        for (int n = 0; n < 4; ++n) identity(n, n) = 1;
        resample_volume(*input, nullptr, "", identity, voxelSize, AutoSubdivisionStructure::kAutomatic, InterpolationMode::kLinear, output, services);
    };
}

template <class Tr> class MemoryLimits : public ::testing::Test {
public:
    /// Runs a node on a volume that somebody else holds too.
    static void expectRefusal(HostPtr const& volume, Node const& node, std::uint64_t bytes)
    {
        const std::string before = bytesOf<Tr, float>(*volume->native(), sVoxelSignedDistance);
        std::string said;
        for (int threads : kThreadCounts) {
            Limited limited(bytes);
            HostPtr output = Ostara::createObject(), input = volume;
            parallel::runJob(nullptr, threads, [&] { node(input, output, limited.services); });
            ASSERT_EQ(limited.errors.size(), 1u);
            EXPECT_EQ(limited.errors[0].rfind(std::string(kNeedsMoreMemory) + " It takes ", 0), 0u) << limited.errors[0];
            if (said.empty()) said = limited.errors[0];
            EXPECT_EQ(limited.errors[0], said) << threads << " threads";
            EXPECT_TRUE(isEmptyObject(output));
            EXPECT_TRUE((bytesOf<Tr, float>(*volume->native(), sVoxelSignedDistance) == before));
        }
    }
    static void expectResult(HostPtr const& volume, Node const& node, std::uint64_t bytes)
    {
        Limited limited(bytes);
        HostPtr output;
        node(volume, output, limited.services);
        EXPECT_EQ(limited.errors, std::vector<std::string>());
        EXPECT_TRUE(output && output->native());
    }
};
TYPED_TEST_SUITE(MemoryLimits, Structures, StructureNames);

TYPED_TEST(MemoryLimits, refuse_a_point_whose_radius_no_memory_holds)
{
    // The first would fill tile space; 100 world units are a cube of 2000^3 voxels.
    for (float radius : {1e10f, INFINITY, 100.0f}) {
        SCOPED_TRACE(radius);
        this->expectRefusal(ball<TypeParam>(), splat(radius), 1000 * kMegabyte);
    }
    this->expectResult(ball<TypeParam>(), splat(1), 1000 * kMegabyte);
}

TYPED_TEST(MemoryLimits, hold_a_radius_beyond_tile_space_at_the_coarsest_depth)
{
    HostPtr output;
    Limited limited(100 * kMegabyte);
    splat_points_into_volume(ball<TypeParam>(), *onePoint(), false, "q", SplatKernelType::kLinear, INFINITY, 0, 0, 1, 100, output, limited.services);
    EXPECT_EQ(limited.errors, std::vector<std::string>());
    ASSERT_TRUE(output && output->native());
    EXPECT_TRUE(output->native()->hasComponentFromName("q"));
}

TYPED_TEST(MemoryLimits, refuse_many_points_that_touch_more_tiles_than_can_be_listed)
{
    auto cloud = Corvid::makeMutable<Host>(getPointCloudPrototype());
    cloud->set(sPointPosition, Corvid::Array<float3>(std::size_t(100'000), float3(0.05f)));
    const HostPtr points(std::move(cloud));
    // Each touches some thousand tiles, the same ones; 8 bytes for each point and tile.
    this->expectRefusal(ball<TypeParam>(), [points](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        splat_points_into_volume(std::move(input), *points, false, "q", SplatKernelType::kLinear, 2.5f, 0, 0, 1, 1, output, services);
    }, 100 * kMegabyte);
}

TYPED_TEST(MemoryLimits, refuse_a_band_that_no_memory_holds)
{
    for (float bandwidth : {1e30f, INFINITY, 3000.0f}) {
        SCOPED_TRACE(bandwidth);
        this->expectRefusal(ball<TypeParam>(), resize(bandwidth), 1000 * kMegabyte);
    }
    // Found while it grows.
    this->expectRefusal(ball<TypeParam>(), resize(24), 2 * kMegabyte);
    this->expectResult(ball<TypeParam>(), resize(24), 1000 * kMegabyte);
}

TYPED_TEST(MemoryLimits, refuse_a_refinement_along_noise)
{
    const auto structure = TypeParam::branching == 2 ? AutoSubdivisionStructure::kBinary : AutoSubdivisionStructure::kQuinary;
    const HostPtr other = noise<TypeParam>(2);
    this->expectRefusal(noise<TypeParam>(1), [&](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        merge_volumes_internal({input, other}, true, false, LevelSetMode::kUnion, FogDensityMode::kAdd, 0.5f, Properties::Mode::kAutomatic,
                               InterpolationMode::kLinear, /*enable_adaptivity*/ true, 1, 1e-6f, structure, output, services);
    }, 20 * kMegabyte);
}

TYPED_TEST(MemoryLimits, refuse_a_plain_merge_whose_inputs_are_larger)
{
    const HostPtr other = ball<TypeParam>();
    this->expectRefusal(ball<TypeParam>(), [&](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        merge_volumes_internal({input, other}, true, false, LevelSetMode::kUnion, FogDensityMode::kAdd, 0.5f, Properties::Mode::kAutomatic,
                               InterpolationMode::kLinear, /*enable_adaptivity*/ false, 1, 0.01f, AutoSubdivisionStructure::kAutomatic, output, services);
    }, kMegabyte / 16);
}

TYPED_TEST(MemoryLimits, refuse_to_resample_to_more_tiles_than_there_is_memory_for)
{
    // The depth with voxels not above those of the volume has some eight times as many tiles as it.
    this->expectRefusal(ball<TypeParam>(), resample(0.053f), kMegabyte / 8);
    this->expectResult(ball<TypeParam>(), resample(0.07f), 50 * kMegabyte);
}

TYPED_TEST(MemoryLimits, refuse_to_grade_a_tree_that_has_no_room_left)
{
    // A finest tile in the corner of a tile of depth 2, beside others of depth 1.
    constexpr int kCornerAt = TypeParam::rangeMin + TypeParam::tileVoxelWidth(2);
    auto native = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTile(kCornerAt, kCornerAt, kCornerAt, TypeParam::maxDepth); }, kVoxel);
    addChannel<Channel<TypeParam, float, TypeParam::width, 0>>(*native, sVoxelSignedDistance, 1.0f, [](TileKey const&, int) { return 1.0f; });
    const double tiles = double(treeOf<TypeParam>(*native)->tileCount(-1)), bytes = double(TypeParam::voxelCount) * sizeof(float);
    const Node grade = [](HostPtr input, HostPtr& output, Corvid::RuntimeServices const& services) {
        output = std::move(input);
        grade_volume(output, services);
    };
    const HostPtr volume = hostVolume(std::move(native));
    // Room for a few tiles more than there are, where each level needs seven and more.
    this->expectRefusal(volume, grade, std::uint64_t((tiles + 3) * (bytes + 100)));
    this->expectResult(volume, grade, kMegabyte * 100);
}

}  // namespace
}  // namespace tilegrid::test
