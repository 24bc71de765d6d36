#include "TilegridOps/algorithms/channel_coarsen.h"
#include "TilegridOps/host/logger.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/grading.h"
#include "field_errors.h"
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

TYPED_TEST(ChannelCoarsen, collapses_a_linear_field_but_for_the_high_border_of_tile_space)
{
    for (Layout layout : {Layout::kUniform, Layout::kJump}) {
        auto volume = floatVolume<TypeParam>(12, layout, [](double3 const& p) { return 1 + p.x + 2 * p.y - p.z; });
        // Floats of the coarse depths are rounded.
        ASSERT_TRUE(channelCoarsen("f", 0, 1e-6f, false, 0, *volume, ""));
        EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
        const auto tree = treeOf<TypeParam>(*volume);
        std::vector<OST::int64> left;
        for (int d = 0; d <= tree->deepestDepth(); ++d) left.push_back(tree->tileCount(d));
        // Where two voxels lie in one, the ancestors of a box in the middle fill depths 1 and 2. Past their last samples on the high sides of
        // tile space nothing continues the field, so tiles stay there: all but 1 of 2^3, and all but 3^3 of 4^3.
        EXPECT_EQ(left, TypeParam::branching == 2 ? (std::vector<OST::int64>{1, 7, 37}) : std::vector<OST::int64>{1});
    }
}

TYPED_TEST(ChannelCoarsen, collapses_a_linear_field_in_the_low_corner_of_tile_space_to_the_root)
{
    constexpr int kAt = TypeParam::rangeMin + 12;
    // Not graded, since that would add tiles on the high sides.
    auto volume = nativeVolume<TypeParam>([](Tree<TypeParam>& tree) { tree.tileAccessor().addTiles(int3(kAt - 12), int3(kAt + 12), TypeParam::maxDepth); });
    addField<TypeParam, float>(*volume, "f", [](double3 const& p) { return float(1 + (p.x - kAt) + 2 * (p.y - kAt) - (p.z - kAt)); });
    EXPECT_GT(tileCount<TypeParam>(*volume), 100);
    ASSERT_TRUE(channelCoarsen("f", 0, 1e-6f, false, 0, *volume, ""));
    EXPECT_EQ(tileCount<TypeParam>(*volume), 1);
    EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
}

/// Linear reading of the property in what is left.
template <class Tr> struct CoarseReader {
    Corvid::Ptr<Tree<Tr>> tree;
    Corvid::Ptr<VoxelTopology<Tr>> topology;
    Corvid::Ptr<PlainChannel<Tr>> channel;
    VoxelSamplerLinear<Tr, float, 1, float, float3, 0, 0, 1, 0> sampler;

    explicit CoarseReader(Native const& volume)
        : tree(treeOf<Tr>(volume)), topology(volume.component<VoxelTopology<Tr>>(sVoxelComp)), channel(volume.component<PlainChannel<Tr>>("f")),
          sampler(*tree, *topology, channel.get())
    {
    }
    /// Errors at the finest voxels that were there, those of tiles that are gone, by `limit` for each depth that went.
    Errors errorsOf(std::map<TileKey, std::vector<float>> const& before, double limit) const
    {
        Errors errors;
        for (auto const& [key, values] : before) {
            if (key.depth < Tr::maxDepth || indexOf(*tree, key).valid()) continue;
            const double3 centre = cornerOf<Tr>(key, Tr::voxelCount / 2, 1);
            const TreeIndex now = tree->find(int(centre.x), int(centre.y), int(centre.z), Tr::maxDepth);
            for (int v = 0; v < Tr::voxelCount; ++v)
                errors.add((sampler.sampleLinear(float3(cornerOf<Tr>(key, v, 1))) - values[std::size_t(v)]) / (limit * (Tr::maxDepth - now.depth)));
        }
        return errors;
    }
};

TYPED_TEST(ChannelCoarsen, keeps_a_sphere_fine_near_its_surface_and_the_surface_where_it_is)
{
    // The interpolation between voxels h apart is off by h^2 / 4r: with voxels five times as wide a tenth of a voxel takes r above 62.
    struct { double3 centre; double radius; } const spheres[] = {{{0, 0, 0}, 14}, {{-70, 0, 0}, 70}};
    for (auto const& [centre, radius] : spheres) {
        if (TypeParam::branching == 5 && radius < 62) continue;
        auto volume = floatVolume<TypeParam>(24, Layout::kUniform, [c = centre, r = radius](double3 const& p) { return length(p - c) - r; });
        const auto before = valuesOf<TypeParam>(*volume, "f");
        ASSERT_TRUE(channelCoarsen("f", 0.1f, 0, true, 2, *volume, ""));
        EXPECT_EQ(defectsOf<TypeParam>(*volume), "");
        const auto after = valuesOf<TypeParam>(*volume, "f");
        EXPECT_LE(after.size(), before.size() * 0.9);
        int kept = 0;
        for (auto const& [key, values] : before) {
            const bool near = std::any_of(values.begin(), values.end(), [](float v) { return std::abs(v) <= 2; });
            if (!near || key.depth < TypeParam::maxDepth) continue;
            EXPECT_TRUE(after.count(key)) << key;
            ++kept;
        }
        EXPECT_GT(kept, 100);
        const CoarseReader<TypeParam> reader(*volume);
        EXPECT_TRUE(areWithin(reader.errorsOf(before, 0.1), 1.001, 10000));
        // The interpolated surface along rays that meet it in the box.
        Errors moved;
        Random random(5);
        const auto coordinate = [&random](int range) { return 1e-3 * double(random.between(-1000 * range, 1000 * range)); };
        for (int n = 0; n < 500; ++n) {
            double3 d = radius > 24 ? double3(radius, coordinate(20), coordinate(20)) : double3(coordinate(1), coordinate(1), coordinate(1) + 5e-4);
            d = (1 / length(d)) * d;
            double low = radius - 2, high = radius + 2;
            for (int step = 0; step < 30; ++step) {
                const double middle = 0.5 * (low + high);
                (reader.sampler.sampleLinear(float3(centre + middle * d)) < 0 ? low : high) = middle;
            }
            moved.add(low - radius);
        }
        EXPECT_TRUE(areWithin(moved, 0.1, 500));
    }
}

TYPED_TEST(ChannelCoarsen, leaves_no_error_above_the_limit_of_each_depth)
{
    const auto wave = [](double3 const& p) { return std::sin(0.06 * p.x) * std::cos(0.05 * p.y) + 0.02 * p.z; };
    auto volume = floatVolume<TypeParam>(24, Layout::kUniform, wave);
    const auto before = valuesOf<TypeParam>(*volume, "f");
    constexpr float kLimit = 0.01f;
    ASSERT_TRUE(channelCoarsen("f", kLimit, 0, false, 0, *volume, ""));
    EXPECT_TRUE(areWithin(CoarseReader<TypeParam>(*volume).errorsOf(before, kLimit), 1.001, 11 * TypeParam::voxelCount));
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
        // So large that wide voxels will do as well.
        auto volume = floatVolume<TypeParam>(24, Layout::kJump, [](double3 const& p) { return length(p + double3(150, 0, 0)) - 150; });
        const auto before = tileCount<TypeParam>(*volume);
        parallel::runJob(nullptr, threads, [&] { ASSERT_TRUE(channelCoarsen("f", 0.05f, 0, true, 2, *volume, "")); });
        EXPECT_LT(tileCount<TypeParam>(*volume), before * 0.9);
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
