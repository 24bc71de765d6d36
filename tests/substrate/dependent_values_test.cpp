#include "TilegridOps/substrate/dependent_values.h"
#include "TilegridOps/substrate/grading.h"
#include "support/clusters.h"
#include "support/jobs.h"
#include "support/output.h"

#include <cmath>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using namespace Ostara::Math;
using OST::int64;

template <class Tr, class T> using Plain = Channel<Tr, T, Tr::width, 0>;
constexpr double kEpsilon = std::numeric_limits<float>::epsilon();

/// A tree with its flags.
template <class Tr> struct Setting {
    Tree<Tr> tree{"tree"};
    TileSet<Tr> set;
    DofChannel<Tr> dofs{"dofs", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth};

    explicit Setting(std::uint64_t seed, bool graded = true, int count = 10)
    {
        Random random(seed);
        addClusters(random, tree, set, count);
        addRandomTiles(random, tree, set, 3);
        // A block, inside of which every coarser voxel comes from children.
        tree.tileAccessor().addTiles({-20, -20, -20}, {15, 15, 15}, Tr::maxDepth);
        if (graded) CoreGL::TileTree3D::gradeTileTree<Tr>(tree, nullptr, nullptr, 0, Tr::maxDepth);
        for (auto const& level : orderOf(tree))
            for (TileKey const& key : level) set.add(key.low, key.depth);
        dofs.updateTilesAdded(tree);
        computeDofs(tree, dofs);
    }
    template <class T> Plain<Tr, T> channel(T const& value, int minDepth = 0, int depth = Tr::maxDepth) const
    {
        Plain<Tr, T> made("values", &value, kInitializeLinear, false, true, minDepth, depth);
        made.updateTilesAdded(tree);
        return made;
    }
    /// Calls `f(tile, ijk, flags, value&)` for all voxels of the channel.
    template <class T, class F> void forVoxels(Plain<Tr, T>& channel, F f)
    {
        for (int depth = channel.minDepth(); depth <= channel.depth(); ++depth)
            for (int64 n = 0; n < tree.tileCount(depth); ++n) {
                const auto values = channel.tileData(n, depth);
                for (int e = 0; e < Tr::voxelCount; ++e)
                    f(tree.tile(n, depth), cubeIndex(Tr::width, e), dofs.tileData(n, depth)(e), values(e));
            }
    }
    void fillRandomly(Plain<Tr, float>& channel, std::uint64_t seed)
    {
        Random random(seed);
        forVoxels(channel, [&](auto const&, int3 const&, short, float& v) { v = static_cast<float>(random.between(-1000, 1000)) / 7; });
    }
};

template <class Tr, class TileT> Place sampleOf(TileT const& tile, int3 const& ijk)
{
    const std::int64_t w = TileSet<Tr>::voxelWidth(tile.depth());
    return {tile.tijk().x + w * ijk.x, tile.tijk().y + w * ijk.y, tile.tijk().z + w * ijk.z};
}

template <class Tr> double linear(Place const& p) { return 3 + (1.0 * double(p[0]) - 2.0 * double(p[1]) + 0.5 * double(p[2])) / 1024; }

/// Whether all samples that a voxel can be interpolated from lie inside tile space.
template <class Tr> bool inside(Place const& p, int depth)
{
    const std::int64_t reach = TileSet<Tr>::voxelWidth(std::max(depth - 1, 0));
    return TileSet<Tr>::inRange({p[0] + reach, p[1] + reach, p[2] + reach});
}

template <class T> std::vector<T> valuesOf(auto const& channel)
{
    std::vector<T> all;
    for (int64 n = 0; n < channel.tileCount(-1); ++n) all.insert(all.end(), channel.tileData(n).begin(), channel.tileData(n).end());
    return all;
}

template <class Tr> class DependentValues : public ::testing::Test {};
TYPED_TEST_SUITE(DependentValues, Structures, StructureNames);

TYPED_TEST(DependentValues, that_hang_reproduce_a_linear_field_graded_or_not_and_nothing_else_is_touched)
{
    using Set = TileSet<TypeParam>;
    for (bool graded : {true, false})
        for (std::uint64_t seed : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << (graded ? ", graded" : ""));
            Setting<TypeParam> s(seed, graded);
            auto channel = s.template channel<float>(-8.5f);
            s.forVoxels(channel, [](auto const& tile, int3 const& ijk, short flags, float& v) {
                v = flags & kDofHanging ? NAN : static_cast<float>(linear<TypeParam>(sampleOf<TypeParam>(tile, ijk)));
            });
            setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, 0);
            int64 hanging = 0, checked = 0;
            s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short flags, float& v) {
                const Place p = sampleOf<TypeParam>(tile, ijk);
                const double f = linear<TypeParam>(p);
                if (!(flags & kDofHanging)) {
                    ASSERT_EQ(v, static_cast<float>(f));
                    return;
                }
                ++hanging;
                if (!inside<TypeParam>(p, graded ? tile.depth() : 1)) return;
                // Four ulp of the largest sample that takes part, within a voxel of the depth that it comes from: the samples are
                // rounded, and so is each step.
                const int depth = graded ? tile.depth() - 1 : 0;
                const double range = std::abs(f) + 3.5 * double(Set::voxelWidth(std::max(depth, 0))) / 1024;
                ASSERT_NEAR(v, f, 4 * kEpsilon * range) << keyOf(tile) << ijk;
                ++checked;
            });
            EXPECT_GT(hanging, 500);
            EXPECT_GT(checked, 200);
        }
}

TYPED_TEST(DependentValues, that_hang_are_exactly_the_mean_of_the_samples_they_lie_between)
{
    // A field that is not linear, so that a wrong weight or sample shows. In a graded tree the samples are all there.
    using Set = TileSet<TypeParam>;
    Setting<TypeParam> s(4);
    auto channel = s.template channel<float>(0.25f);
    s.fillRandomly(channel, 5);
    const auto at = [&](Place const& p, int depth) {
        const auto key = s.set.find(p, depth);
        if (!key) return 0.25f;
        EXPECT_EQ(key->depth, depth);
        const TreeIndex tile = s.tree.find(static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2]), depth);
        const std::int64_t w = Set::voxelWidth(depth);
        return channel.tileData(tile)(static_cast<int>((p[0] - key->low[0]) / w), static_cast<int>((p[1] - key->low[1]) / w),
                                      static_cast<int>((p[2] - key->low[2]) / w));
    };
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, 0);
    int inFaces = 0;
    s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short flags, float& v) {
        if (!(flags & kDofHanging)) return;
        const Place p = sampleOf<TypeParam>(tile, ijk);
        const std::int64_t w = Set::voxelWidth(tile.depth() - 1);
        std::array<std::int64_t, 3> rest;
        for (int a = 0; a < 3; ++a) rest[a] = (p[a] - Set::rangeMin) % w;
        double expected = 0, size = 0;
        int samples = 0;
        for (int n = 0; n < 8; ++n) {
            double weight = 1;
            Place q;
            for (int a = 0; a < 3; ++a) {
                const bool high = n >> a & 1;
                const double f = double(rest[a]) / double(w);
                weight *= high ? f : 1 - f;
                q[a] = p[a] - rest[a] + (high ? w : 0);
            }
            if (weight == 0) continue;
            ++samples;
            expected += weight * at(q, tile.depth() - 1);
            size = std::max(size, std::abs(double(at(q, tile.depth() - 1))));
        }
        ASSERT_LE(samples, 4) << "at least one coordinate lies in a low face";
        inFaces += samples == 4;
        // Two steps of a difference, a product and a sum, with the fraction rounded.
        ASSERT_NEAR(v, expected, 8 * kEpsilon * size) << keyOf(tile) << ijk;
        if (samples == 1) {
            ASSERT_EQ(v, at(p, tile.depth() - 1)) << "a coincident sample is copied";
        }
    });
    EXPECT_GT(inFaces, 100);
}

TYPED_TEST(DependentValues, in_a_tile_without_parent_take_the_default)
{
    Tree<TypeParam> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 0);
    DofChannel<TypeParam> dofs("dofs", nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    dofs.updateTilesAdded(tree);
    dofs.tileData(0, 0).set(kDofHanging);
    const float nine = 9;
    Plain<TypeParam, float> channel("values", &nine, kInitializeNone, false, true, 0, TypeParam::maxDepth);
    channel.updateTilesAdded(tree);
    channel.tileData(0, 0).set(1.5f);
    // The pass begins at depth 1, where tiles have parents, unless their parents have no data.
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, tree, channel, dofs, 0);
    for (float v : channel.tileData(0, 0)) EXPECT_EQ(v, 1.5f);
    tree.tileAccessor().addTile(0, 0, 0, 1);
    dofs.updateTilesAdded(tree);
    dofs.tileData(0, 1).set(kDofHanging);
    Plain<TypeParam, float> deep("values", &nine, kInitializeNone, false, true, 1, TypeParam::maxDepth);
    deep.updateTilesAdded(tree);
    deep.tileData(0, 1).set(1.5f);
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, tree, deep, dofs, 0);
    for (int e = 0; e < TypeParam::voxelCount; ++e) {
        const int3 ijk = cubeIndex(TypeParam::width, e);
        const bool low = ijk.x == 0 || ijk.y == 0 || ijk.z == 0;
        EXPECT_EQ(deep.tileData(0, 1)(e), low ? 9.0f : 1.5f) << "only low faces can hang";
    }
}

TYPED_TEST(DependentValues, with_the_bit_to_keep_stay)
{
    Setting<TypeParam> s(5);
    auto channel = s.template channel<float>(0), other = s.template channel<float>(0);
    s.fillRandomly(channel, 6);
    s.fillRandomly(other, 6);
    const auto before = valuesOf<float>(channel);
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, other, s.dofs, 0);
    ASSERT_NE(valuesOf<float>(other), before);
    for (int64 n = 0; n < s.dofs.tileCount(-1); ++n)
        for (short& flags : s.dofs.tileData(n))
            if (flags & kDofHanging) flags |= kDofKeep;
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, 0);
    EXPECT_EQ(valuesOf<float>(channel), before);
}

/// The value of the child's coincident voxel.
template <class Tr> float belowOf(Setting<Tr> const& s, Plain<Tr, float> const& channel, Place const& p, int depth)
{
    const TreeIndex child = s.tree.find(static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2]), depth + 1);
    const Place low = toPlace(s.tree.tile(child).tijk());
    const std::int64_t w = TileSet<Tr>::voxelWidth(depth + 1);
    EXPECT_EQ(child.depth, depth + 1);
    return channel.tileData(child)(static_cast<int>((p[0] - low[0]) / w), static_cast<int>((p[1] - low[1]) / w),
                                   static_cast<int>((p[2] - low[2]) / w));
}

TYPED_TEST(DependentValues, above_children_are_copied_in_mode_2_from_the_finest_depth_up)
{
    for (bool graded : {true, false}) {
        Setting<TypeParam> s(6, graded);
        auto channel = s.template channel<float>(0);
        s.fillRandomly(channel, 7);
        auto old = channel;
        setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, kNonDofCopy);
        int64 copied = 0;
        s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short flags, float& v) {
            if (flags & kDofFromChild) {
                ASSERT_EQ(v, belowOf(s, channel, sampleOf<TypeParam>(tile, ijk), tile.depth()));
                ++copied;
            } else if (!(flags & kDofHanging)) {
                ASSERT_EQ(v, old.tileData(tile.treeIndex())(ijk)) << "free values stay";
            }
        });
        EXPECT_GT(copied, 50);
    }
}

TYPED_TEST(DependentValues, above_children_are_weighted_means_in_mode_1)
{
    using Set = TileSet<TypeParam>;
    Setting<TypeParam> s(7);
    auto channel = s.template channel<float>(0);
    s.fillRandomly(channel, 8);
    // Values as the restriction of a depth finds them: finest first, hanging ones not yet interpolated.
    auto twin = channel;
    constexpr double weight[3] = {0.25, 0.5, 0.25};
    std::vector<std::pair<float, double>> pairs;
    setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, kNonDofRestrict);
    for (int depth = TypeParam::maxDepth - 1; depth >= 0; --depth)
        for (int64 n = 0; n < s.tree.tileCount(depth); ++n)
            for (int e = 0; e < TypeParam::voxelCount; ++e) {
                if (!(s.dofs.tileData(n, depth)(e) & kDofFromChild)) continue;
                const Place p = sampleOf<TypeParam>(s.tree.tile(n, depth), cubeIndex(TypeParam::width, e));
                const std::int64_t w = Set::voxelWidth(depth + 1);
                double sum = 0;
                for (int m = 0; m < 27; ++m) {
                    const Place q{p[0] + (m % 3 - 1) * w, p[1] + (m / 3 % 3 - 1) * w, p[2] + (m / 9 - 1) * w};
                    if (!Set::inRange(q)) continue;  // counts as zero
                    sum += weight[m % 3] * weight[m / 3 % 3] * weight[m / 9] * belowOf(s, twin, q, depth);
                }
                twin.tileData(n, depth)(e) = static_cast<float>(sum);
                pairs.push_back({channel.tileData(n, depth)(e), sum});
            }
    // 27 products and sums of values below 143, and those below them rounded likewise.
    for (auto const& [value, expected] : pairs) ASSERT_NEAR(value, expected, 30 * kEpsilon * 143);
    EXPECT_GT(pairs.size(), 50u);
}

TYPED_TEST(DependentValues, above_children_stay_in_any_other_mode)
{
    Setting<TypeParam> s(8);
    for (int mode : {0, 3, -7}) {
        auto channel = s.template channel<float>(0);
        s.fillRandomly(channel, 9);
        auto old = channel;
        setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, mode);
        s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short flags, float& v) {
            if (!(flags & kDofHanging)) {
                ASSERT_EQ(v, old.tileData(tile.treeIndex())(ijk));
            }
        });
    }
}

TYPED_TEST(DependentValues, are_restored_within_the_depths_alone)
{
    constexpr int D = TypeParam::maxDepth;
    Setting<TypeParam> s(9);
    for (int mode : {1, 2})
        for (auto const& [minDepth, maxDepth] : {std::pair(D - 2, D), std::pair(2, D - 1), std::pair(-4, 99), std::pair(5, 4), std::pair(D, D)}) {
            auto channel = s.template channel<float>(0, 1, D);
            s.fillRandomly(channel, 10);
            auto old = channel;
            setNonDOFValues<TypeParam, float>(minDepth, maxDepth, s.tree, channel, s.dofs, mode);
            s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short flags, float& v) {
                const int d = tile.depth();
                const bool mayChange = d >= minDepth && ((flags & kDofHanging && d <= maxDepth) || (flags & kDofFromChild && d < maxDepth));
                if (!mayChange) {
                    ASSERT_EQ(v, old.tileData(tile.treeIndex())(ijk));
                }
                if (mode == 2 && flags & kDofFromChild && mayChange) {
                    ASSERT_EQ(v, belowOf(s, mode == 2 ? channel : old, sampleOf<TypeParam>(tile, ijk), d));
                }
            });
        }
}

TYPED_TEST(DependentValues, are_the_same_bytes_on_1_2_and_8_threads_and_stop_when_cancelled)
{
    Setting<TypeParam> s(10, true, 24);
    for (int mode : {0, 1, 2}) {
        std::vector<float> first;
        for (int threads : kThreadCounts) {
            auto channel = s.template channel<float>(0);
            s.fillRandomly(channel, 11);
            parallel::runJob(nullptr, threads, [&] { setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, mode); });
            if (first.empty()) first = valuesOf<float>(channel);
            EXPECT_EQ(valuesOf<float>(channel), first) << threads << " threads, mode " << mode;
        }
    }
    Setting<TypeParam> small(11, true, 2);
    auto channel = small.template channel<float>(0);
    cancelAtEveryPoll([] {}, [&] { setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, small.tree, channel, small.dofs, 1); }, [] {});
}

TYPED_TEST(DependentValues, of_every_element_type_behave_like_floats_in_each_component)
{
    Setting<TypeParam> s(12, true, 5);
    for (int mode : {1, 2}) {
        auto floats = s.template channel<float>(0.5f);
        s.fillRandomly(floats, 13);
        const auto check = [&]<class T>(T const&) {
            using Element = ElementTraits<T>;
            const auto filled = [](float v) {
                T t;
                for (int c = 0; c < Element::components; ++c) Element::at(t, c) = typename Element::Scalar(v) * typename Element::Scalar(1 << c);
                return t;
            };
            auto channel = s.template channel<T>(filled(0.5f));
            s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short, T& v) { v = filled(floats.tileData(tile.treeIndex())(ijk)); });
            setNonDOFValues<TypeParam, T>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, mode);
            auto expected = floats;
            setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, expected, s.dofs, mode);
            s.forVoxels(channel, [&](auto const& tile, int3 const& ijk, short, T& v) {
                const float f = expected.tileData(tile.treeIndex())(ijk);
                for (int c = 0; c < Element::components; ++c) {
                    const double component = double(Element::at(v, c)) / (1 << c);
                    // Powers of two scale without rounding; doubles round less on the way.
                    if constexpr (std::is_same_v<typename Element::Scalar, float>)
                        ASSERT_EQ(component, double(f));
                    else
                        ASSERT_NEAR(component, f, 60 * kEpsilon * 143);
                }
            });
        };
        check(float2());
        check(float3());
        check(float4());
        check(float3x3());
        check(float4x2());
        check(float4x4());
        check(double());
        check(double3());
    }
}

TYPED_TEST(DependentValues, are_announced_above_verbose_level_1)
{
    Tree<TypeParam> tree("tree");
    Setting<TypeParam> s(13, false, 2);
    auto channel = s.template channel<float>(0);
    for (int level : {0, 1, 2, 3}) {
        const VerboseLevel verbose(level);
        const CapturedStream out;
        setNonDOFValues<TypeParam, float>(0, TypeParam::maxDepth, s.tree, channel, s.dofs, 2);
        EXPECT_EQ(out.text(), level > 1 ? "setNonDOFValues.begin\nsetNonDOFValues.end\n" : "") << "level " << level;
    }
}

/// A tile of depth 3 with all its children, which hold a pattern; restricted into a channel of zeros with 100 in the tile.
template <class Tr> struct OneTile {
    Tree<Tr> tree{"tree"};
    Plain<Tr, float> channel{"values", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth};
    TileData<short, Tr::width, 0> dofs{Tr::voxelCount, short(kDofFromChild)};
    TreeIndex tile;

    OneTile()
    {
        auto accessor = tree.tileAccessor();
        tile = accessor.addTile(0, 0, 0, 3);
        bbox<int3, int> box;
        tree.tile(tile).tileSpaceBounds(box);
        const int w = Tr::tileVoxelWidth(4);
        accessor.addTiles(box.min - int3(w), box.max + int3(w), 4);
        channel.updateTilesAdded(tree);
        for (int64 n = 0; n < tree.tileCount(4); ++n)
            for (int e = 0; e < Tr::voxelCount; ++e) channel.tileData(n, 4)(e) = value(sampleOf<Tr>(tree.tile(n, 4), cubeIndex(Tr::width, e)));
        channel.tileData(tile).set(100.0f);
        dofs(0) = kDofFree;
    }
    /// Small integers that depend on the place and nothing simpler.
    static float value(Place const& p)
    {
        const std::int64_t w = TileSet<Tr>::voxelWidth(4);
        std::uint64_t h = 1;
        for (std::int64_t x : p) h = Random::mixed(h + static_cast<std::uint64_t>((x - TileSet<Tr>::rangeMin) / w));
        return static_cast<float>(h % 64);
    }
    void restrict(Restriction<float> const& restriction)
    {
        TileData<float, Tr::width, 1> scratch(TileData<float, Tr::width, 1>::elements);
        restrictTile<Tr, float>(tree.tile(tile), dofs, channel, restriction, ConstTileAccessor<Tr>(tree), scratch);
    }
    /// Checks all voxels but the free one against `expected(position)`.
    void expect(std::function<double(Place const&)> const& expected)
    {
        EXPECT_EQ(channel.tileData(tile)(0), 100.0f) << "a free voxel stays";
        for (int e = 1; e < Tr::voxelCount; ++e)
            EXPECT_EQ(channel.tileData(tile)(e), static_cast<float>(expected(sampleOf<Tr>(tree.tile(tile), cubeIndex(Tr::width, e)))));
        for (int64 n = 0; n < tree.tileCount(4); ++n)
            for (int e = 0; e < Tr::voxelCount; ++e)
                ASSERT_EQ(channel.tileData(n, 4)(e), value(sampleOf<Tr>(tree.tile(n, 4), cubeIndex(Tr::width, e))));
    }
    /// Sum over n voxels per axis from `low` on, weights x fastest.
    static double sum(Place const& p, int low, int n, std::function<double(int)> const& weight)
    {
        const std::int64_t w = TileSet<Tr>::voxelWidth(4);
        double total = 0;
        for (int m = 0; m < n * n * n; ++m)
            total += weight(m) * value({p[0] + (m % n + low) * w, p[1] + (m / n % n + low) * w, p[2] + (m / (n * n) + low) * w});
        return total;
    }
    static double corner(Place const& p)
    {
        constexpr double s[3] = {0.25, 0.5, 0.25};
        return sum(p, -1, 3, [&](int m) { return s[m % 3] * s[m / 3 % 3] * s[m / 9]; });
    }
};

TYPED_TEST(DependentValues, of_one_tile_are_restricted_by_kind_and_offset)
{
    // Small integers and weights that are powers of two: every sum is exact.
    using One = OneTile<TypeParam>;
    {
        One one;
        one.restrict({});
        one.expect([](Place const& p) { return One::corner(p); });
    }
    for (VoxelOffsetType offset : {kCorner, kCenter, kFaceX}) {
        One one;
        one.restrict({.offset = offset, .kind = kRestrictInject});
        one.expect([](Place const& p) { return One::value(p); });
    }
    {
        One one;
        one.restrict({.offset = kCenter});
        one.expect([](Place const& p) { return One::sum(p, 0, 2, [](int) { return 0.125; }); });
    }
    for (VoxelOffsetType offset : {kFaceX, kFaceY, kEdgeZ, kFaceZ, kEdgeY, kEdgeX}) {
        One one;
        one.restrict({.initial = 6.5f, .offset = offset});
        one.expect([](Place const&) { return 6.5; });
    }
    {
        One one;
        one.restrict({.initial = 6.5f, .kind = RestrictionKind(9)});
        one.expect([](Place const&) { return 6.5; });
    }
}

TYPED_TEST(DependentValues, of_one_tile_are_restricted_by_given_weights)
{
    using One = OneTile<TypeParam>;
    float weights[27];
    for (int m = 0; m < 27; ++m) weights[m] = static_cast<float>(m * m % 11) / 16;
    One corner, centre;
    corner.restrict({.weights = weights});
    corner.expect([&](Place const& p) { return One::sum(p, -1, 3, [&](int m) { return weights[m]; }); });
    centre.restrict({.offset = kCenter, .weights = weights});
    centre.expect([&](Place const& p) { return One::sum(p, 0, 2, [&](int m) { return weights[m]; }); });
}

TYPED_TEST(DependentValues, of_one_tile_are_assigned_added_or_subtracted_after_scaling)
{
    using One = OneTile<TypeParam>;
    One assigned, added, subtracted;
    assigned.restrict({.scale = 0.5f});
    assigned.expect([](Place const& p) { return 0.5 * One::corner(p); });
    added.restrict({.write = kRestrictAdd, .scale = -2.0f});
    added.expect([](Place const& p) { return 100 - 2 * One::corner(p); });
    subtracted.restrict({.write = kRestrictSubtract, .scale = 4.0f, .kind = kRestrictInject});
    subtracted.expect([](Place const& p) { return 100 - 4.0 * One::value(p); });
}

}  // namespace
}  // namespace tilegrid::test
