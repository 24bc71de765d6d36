#include "TilegridOps/algorithms/channel_coarsen.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/grading.h"
#include "support/field_volumes.h"
#include "support/jobs.h"
#include "support/output.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Ostara::Geometry::sPointComp;
using Ostara::Geometry::sVoxelDegreeOfFreedom;
using VolumeGL::TileTree3D::channelCoarsen;

template <class Tr> Corvid::MutablePtr<Native> floatVolume(int half, Layout layout, std::function<double(double3 const&)> const& f)
{
    auto volume = boxVolume<Tr>(half, layout);
    addField<Tr, float>(*volume, "f", [&f](double3 const& p) { return float(f(p)); });
    return volume;
}

/// Links, grading, and as many tiles in every property as in the tree.
template <class Tr> std::string defectsOf(Native const& volume)
{
    const auto tree = treeOf<Tr>(volume);
    if (!tree) return "no tree";
    std::string text;
    for (std::string const& line : checkTree(*tree)) text += line + "\n";
    if (!CoreGL::TileTree3D::isGraded(*tree, 0, Tr::maxDepth)) text += "not graded\n";
    for (Corvid::String const& name : volume.componentRange())
        if (const auto channel = volume.component<VoxelChannelCore>(name))
            for (int d = channel->minDepth(); d <= channel->depth(); ++d)
                if (channel->tileCount(d) != tree->tileCount(d)) text += name.str() + " has another number of tiles\n";
    return text;
}
template <class Tr> OST::int64 tileCount(Native const& volume) { return treeOf<Tr>(volume)->tileCount(-1); }

/// By place, so that two trees can be compared.
template <class Tr> std::map<TileKey, std::vector<float>> valuesOf(Native const& volume, Corvid::String const& name)
{
    std::map<TileKey, std::vector<float>> values;
    const auto tree = treeOf<Tr>(volume);
    const auto channel = volume.component<PlainChannel<Tr>>(name);
    for (OST::int64 n = 0; n < tree->tileCount(-1); ++n) {
        const auto data = channel->tileData(tree->tile(n).treeIndex());
        values[keyOf(tree->tile(n))] = std::vector<float>(data.begin(), data.end());
    }
    return values;
}

template <class Tr> class ChannelCoarsen : public ::testing::Test {};
TYPED_TEST_SUITE(ChannelCoarsen, Structures, StructureNames);

TYPED_TEST(ChannelCoarsen, collapses_a_linear_field)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = floatVolume<TypeParam>(12, layout, [](double3 const& p) { return 1 + p.x + 2 * p.y - p.z; });
        // Floats of the coarse depths are rounded; beyond tile space nothing continues the field, so that the tiles next to its
        // border stay, and with them depth 2.
        ASSERT_TRUE(channelCoarsen("f", 0, 1e-6f, false, 0, *volume, ""));
        EXPECT_LE(treeOf<TypeParam>(*volume)->deepestDepth(), 2);
        EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
    }
}

TYPED_TEST(ChannelCoarsen, keeps_a_sphere_fine_near_its_surface_and_the_surface_where_it_is)
{
    constexpr double kRadius = 14;
    const auto sphere = [](double3 const& p) { return length(p) - kRadius; };
    auto volume = floatVolume<TypeParam>(24, Layout::kUniform, sphere);
    const auto before = valuesOf<TypeParam>(*volume, "f");
    ASSERT_TRUE(channelCoarsen("f", 0.1f, 0, true, 2, *volume, ""));
    EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
    const auto after = valuesOf<TypeParam>(*volume, "f");
    // With voxels five times as wide, interpolation is never right to a tenth of a voxel here.
    if (TypeParam::branching == 2) { EXPECT_LT(after.size(), before.size()); }
    for (auto const& [key, values] : before) {
        const bool near = std::any_of(values.begin(), values.end(), [](float v) { return std::abs(v) <= 2; });
        if (near && key.depth == TypeParam::maxDepth) { EXPECT_TRUE(after.count(key)) << key; }
    }
    // The interpolated surface along rays.
    const auto tree = treeOf<TypeParam>(*volume);
    const auto topology = volume->template component<VoxelTopology<TypeParam>>(sVoxelComp);
    const auto channel = volume->template component<PlainChannel<TypeParam>>("f");
    const VoxelSamplerLinear<TypeParam, float, 1, float, float3, 0, 0, 1, 0> sampler(*tree, *topology, channel.get());
    Random random(5);
    for (int n = 0; n < 500; ++n) {
        double3 d(double(random.between(-1000, 1000)), double(random.between(-1000, 1000)), double(random.between(-1000, 1000)) + 0.5);
        d = (1 / length(d)) * d;
        double low = kRadius - 2, high = kRadius + 2;
        for (int step = 0; step < 30; ++step) {
            const double middle = 0.5 * (low + high);
            (sampler.sampleLinear(float3(middle * d)) < 0 ? low : high) = middle;
        }
        EXPECT_NEAR(low, kRadius, 0.1);
    }
}

TYPED_TEST(ChannelCoarsen, leaves_no_error_above_the_limit_of_each_depth)
{
    const auto wave = [](double3 const& p) { return std::sin(0.06 * p.x) * std::cos(0.05 * p.y) + 0.02 * p.z; };
    auto volume = floatVolume<TypeParam>(24, Layout::kUniform, wave);
    const auto before = valuesOf<TypeParam>(*volume, "f");
    constexpr float kLimit = 0.01f;
    ASSERT_TRUE(channelCoarsen("f", kLimit, 0, false, 0, *volume, ""));
    const auto tree = treeOf<TypeParam>(*volume);
    const auto topology = volume->template component<VoxelTopology<TypeParam>>(sVoxelComp);
    const auto channel = volume->template component<PlainChannel<TypeParam>>("f");
    const VoxelSamplerLinear<TypeParam, float, 1, float, float3, 0, 0, 1, 0> sampler(*tree, *topology, channel.get());
    double worst = 0;
    std::size_t removed = 0;
    for (auto const& [key, values] : before) {
        if (key.depth < TypeParam::maxDepth || indexOf(*tree, key).valid()) continue;
        ++removed;
        const double3 centre = cornerOf<TypeParam>(key, TypeParam::voxelCount / 2, 1);
        const TreeIndex now = tree->find(int(centre.x), int(centre.y), int(centre.z), TypeParam::maxDepth);
        for (int v = 0; v < TypeParam::voxelCount; ++v) {
            const double off = std::abs(sampler.sampleLinear(float3(cornerOf<TypeParam>(key, v, 1))) - values[std::size_t(v)]);
            worst = std::max(worst, off / (kLimit * (TypeParam::maxDepth - now.depth)));
        }
    }
    EXPECT_GT(removed, 10u);
    EXPECT_LE(worst, 1.001);
}

TYPED_TEST(ChannelCoarsen, with_limits_of_zero_removes_only_what_is_exact)
{
    auto constant = floatVolume<TypeParam>(12, Layout::kUniform, [](double3 const&) { return 2.5; });
    ASSERT_TRUE(channelCoarsen("f", 0, 0, false, 0, *constant, ""));
    EXPECT_LE(treeOf<TypeParam>(*constant)->deepestDepth(), 2);
    auto rough = floatVolume<TypeParam>(12, Layout::kUniform, [](double3 const& p) { return std::sin(p.x * 1.7 + p.y * 2.3 + p.z * 3.1); });
    const auto before = tileCount<TypeParam>(*rough);
    for (float none : {0.0f, -1.0f, std::nanf("")}) {
        ASSERT_TRUE(channelCoarsen("f", none, none, false, none, *rough, ""));
        EXPECT_EQ(tileCount<TypeParam>(*rough), before);
    }
}

TYPED_TEST(ChannelCoarsen, keeps_a_tile_with_a_nan)
{
    const double3 place(2, -3, 1);
    auto volume = floatVolume<TypeParam>(12, Layout::kUniform, [&](double3 const& p) { return length(p - place) < 0.1 ? std::nan("") : 1.0; });
    ASSERT_TRUE(channelCoarsen("f", 1e30f, 0, false, 0, *volume, ""));
    const auto tree = treeOf<TypeParam>(*volume);
    EXPECT_EQ(tree->find(2, -3, 1, TypeParam::maxDepth).depth, TypeParam::maxDepth);
    EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
}

TYPED_TEST(ChannelCoarsen, compares_types_without_a_fraction_for_equality)
{
    auto volume = boxVolume<TypeParam>(12, Layout::kUniform);
    addField<TypeParam, int>(*volume, "same", [](double3 const&) { return 4; });
    addField<TypeParam, unsigned char>(*volume, "mark", [](double3 const& p) { return (unsigned char)(within(p - double3(3.0), 0.1) ? 1 : 0); });
    const auto before = tileCount<TypeParam>(*volume);
    ASSERT_TRUE(channelCoarsen("mark", 100, 100, true, 100, *volume, ""));
    const auto after = tileCount<TypeParam>(*volume);
    EXPECT_LT(after, before);
    EXPECT_EQ(treeOf<TypeParam>(*volume)->find(3, 3, 3, TypeParam::maxDepth).depth, TypeParam::maxDepth);
    EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
    ASSERT_TRUE(channelCoarsen("same", 0, 0, false, 0, *volume, ""));
    EXPECT_EQ(treeOf<TypeParam>(*volume)->deepestDepth(), 0);
}

TYPED_TEST(ChannelCoarsen, other_properties_keep_what_coarser_voxels_show)
{
    constexpr int B = TypeParam::branching, D = TypeParam::maxDepth;
    auto volume = boxVolume<TypeParam>(12, Layout::kUniform);
    // A number for each voxel one depth up: the finest tiles can go, and no others.
    addField<TypeParam, int>(*volume, "number", [](double3 const& p) {
        int n = 0;
        for (int axis = 0; axis < 3; ++axis) n = 1000 * n + int((std::int64_t(p[axis]) - TypeParam::rangeMin) / B % 997);
        return n;
    });
    // Out of step before: only the finest depth tells.
    addChannel<PlainChannel<TypeParam>>(*volume, "other", 0.0f, [](TileKey const& key, int v) {
        return key.depth == D ? float(cornerOf<TypeParam>(key, v, 1).x) : -99.0f;
    });
    ASSERT_TRUE(channelCoarsen("number", 0, 0, false, 0, *volume, ""));
    EXPECT_EQ(treeOf<TypeParam>(*volume)->deepestDepth(), D - 1);
    int shown = 0;
    forLeafVoxels<TypeParam, float>(*volume, "other", [&](double3 const& p, float v, int depth, auto const&, int) {
        if (depth != D - 1 || !within(p, 8)) return;
        EXPECT_EQ(v, float(p.x));
        ++shown;
    });
    EXPECT_GT(shown, 10);
}

TYPED_TEST(ChannelCoarsen, keeps_tiles_with_points_and_computes_flags_again)
{
    using Points = Channel<TypeParam, float3, 0, 0>;
    auto volume = floatVolume<TypeParam>(12, Layout::kUniform, [](double3 const&) { return 1.0; });
    createDofs<TypeParam>(sVoxelDegreeOfFreedom, *volume);
    const auto tree = treeOf<TypeParam>(*volume);
    auto topology = Corvid::makeMutable<PointTopology<TypeParam>>(sPointComp);
    topology->update(*tree);
    const TreeIndex home = tree->find(5, 5, 5, TypeParam::maxDepth);
    topology->setElementCount(home, 1);
    auto positions = Corvid::makeMutable<Points>("p", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    positions->updateTilesAdded(*topology);
    positions->resizeTile(home, 1);
    positions->tileData(home)(0) = float3(5.0f, 5.0f, 5.0f);
    volume->putComponent(std::move(positions));
    volume->putComponent(std::move(topology));

    ASSERT_TRUE(channelCoarsen("f", 0, 0, false, 0, *volume, ""));
    EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
    const TreeIndex now = treeOf<TypeParam>(*volume)->find(5, 5, 5, TypeParam::maxDepth);
    EXPECT_EQ(now.depth, TypeParam::maxDepth);
    EXPECT_EQ(volume->template component<PointTopology<TypeParam>>(sPointComp)->elementCount(now), 1);
    EXPECT_EQ(volume->template component<Points>("p")->tileData(now)(0).x, 5.0f);
    const std::string flags = bytesOf<TypeParam, short>(*volume, sVoxelDegreeOfFreedom);
    createDofs<TypeParam>(sVoxelDegreeOfFreedom, *volume);
    EXPECT_TRUE((bytesOf<TypeParam, short>(*volume, sVoxelDegreeOfFreedom) == flags));
}

TYPED_TEST(ChannelCoarsen, refuses_what_is_missing)
{
    auto volume = floatVolume<TypeParam>(6, Layout::kUniform, [](double3 const&) { return 1.0; });
    const auto before = tileCount<TypeParam>(*volume);
    EXPECT_FALSE(channelCoarsen("missing", 1, 1, false, 0, *volume, ""));
    EXPECT_FALSE(channelCoarsen(sVoxelTileTree, 1, 1, false, 0, *volume, ""));
    EXPECT_EQ(tileCount<TypeParam>(*volume), before);
    Native nothing;
    EXPECT_FALSE(channelCoarsen("f", 1, 1, false, 0, nothing, ""));
    auto empty = nativeVolume<TypeParam>([](Tree<TypeParam>&) {});
    addField<TypeParam, float>(*empty, "f", [](double3 const&) { return 0.0f; });
    EXPECT_TRUE(channelCoarsen("f", 1, 1, false, 0, *empty, ""));
}

TYPED_TEST(ChannelCoarsen, times_itself_under_its_prefix)
{
    auto volume = floatVolume<TypeParam>(6, Layout::kUniform, [](double3 const&) { return 1.0; });
    const VerboseLevel verbose(2);
    const CapturedStream out;
    channelCoarsen("f", 1, 1, false, 0, *volume, "Some::stage.");
    EXPECT_NE(out.text().find("Some::stage.coarsen"), std::string::npos);
}

TYPED_TEST(ChannelCoarsen, gives_the_same_tiles_and_bytes_on_any_number_of_threads)
{
    std::string first;
    for (int threads : kThreadCounts) {
        auto volume = floatVolume<TypeParam>(24, Layout::kJump, [](double3 const& p) { return length(p) - 13; });
        parallel::runJob(nullptr, threads, [&] { ASSERT_TRUE(channelCoarsen("f", 0.05f, 0, true, 2, *volume, "")); });
        const std::string bytes = bytesOf<TypeParam, float>(*volume, "f");
        if (first.empty()) first = bytes;
        EXPECT_TRUE(bytes == first) << threads << " threads";
    }
}

TYPED_TEST(ChannelCoarsen, leaves_a_whole_volume_when_cancelled)
{
    Corvid::MutablePtr<Native> volume;
    cancelAtEveryPoll([&] { volume = floatVolume<TypeParam>(4, Layout::kUniform, [](double3 const& p) { return p.x; }); },
                      [&] { channelCoarsen("f", 0.1f, 0, false, 0, *volume, ""); },
                      [&] { EXPECT_EQ(defectsOf<TypeParam>(*volume), ""); });
}

}  // namespace
}  // namespace tilegrid::test
