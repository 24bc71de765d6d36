#include "TilegridOps/substrate/channel_services.h"
#include "support/address_channels.h"
#include "support/jobs.h"
#include "support/output.h"
#include "support/text_match.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

/// A tree, and a plain channel on it whose values are addresses.
template <class Tr> class ChannelServices : public ::testing::Test {
protected:
    static constexpr int W = Tr::width, D = Tr::maxDepth;
    template <class T> using Plain = Channel<Tr, T, W, 0>;
    ChannelServices()
    {
        growAll(tree_, SphereBand<Tr>(D, 3));
        topology_.update(tree_);
    }
    template <class C> C channel(typename C::Element value, int minDepth = 0, int depth = Tr::maxDepth)
    {
        C made("source", &value, kInitializeNone, false, true, minDepth, depth);
        made.updateTilesAdded(topology_);
        return made;
    }
    /// The value that a source channel has at a voxel.
    template <class T> static T valueAt(TileKey const& key, int3 const& ijk)
    {
        return addressValue<T>(key, flatIndex(100, ijk.x, ijk.y, ijk.z));
    }
    template <class C> void fillVoxels(C& c)
    {
        for (int d = c.minDepth(); d <= c.depth(); ++d)
            for (int64 n = 0; n < tree_.tileCount(d); ++n)
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 v = cubeIndex(W, flat);
                    c.tileData(n, d)(v) = valueAt<typename C::Element>(keyOf(tree_.tile(n, d)), v);
                }
    }
    /// Whether every voxel in the depths holds its value, and every other element the default.
    template <class C>
    std::string voxelFaults(C const& c, typename C::Element const& otherwise, int copiedFrom, int copiedTo)
    {
        std::ostringstream out;
        for (int d = 0; d <= D; ++d)
            for (int64 n = 0; n < tree_.tileCount(d); ++n) {
                const auto data = c.tileData(n, d);
                if (bool(data) != (d >= c.minDepth() && d <= c.depth())) out << "data of depth " << d << "\n";
                if (!data) continue;
                for (int k = -C::halo; k < C::voxels + C::halo; ++k)
                    for (int j = -C::halo; j < C::voxels + C::halo; ++j)
                        for (int i = -C::halo; i < C::voxels + C::halo; ++i) {
                            const bool voxel =
                                std::min({i, j, k}) >= 0 && std::max({i, j, k}) < W && d >= copiedFrom && d <= copiedTo;
                            const auto expected = voxel
                                ? valueAt<typename C::Element>(keyOf(tree_.tile(n, d)), int3(i, j, k))
                                : otherwise;
                            if (!sameBytes(data(i, j, k), expected)) {
                                out << "depth " << d << " at " << int3(i, j, k) << "\n";
                                return out.str();
                            }
                        }
            }
        return out.str();
    }
    Tree<Tr> tree_{"tree"};
    VoxelTopology<Tr> topology_{"voxels", kCorner};
};
TYPED_TEST_SUITE(ChannelServices, Structures, StructureNames);

template <class Tr, class T, int N, int H>
Corvid::Ptr<Channel<Tr, T, N, H>> temporaryOf(Component const& reference, T value, bool usePool, bool construct,
                                              int minDepth, int depth)
{
    Corvid::Ptr<Channel<Tr, T, N, H>> out;
    channelTemporary<Tr, T, N, H>(out, reference, value, usePool, construct, minDepth, depth);
    return out;
}

TYPED_TEST(ChannelServices, make_a_temporary_without_a_name_full_of_the_default_value)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    for (bool usePool : {false, true}) {
        const auto halo = temporaryOf<TypeParam, float, W, 1>(this->topology_, 3.5f, usePool, true, 0, D);
        EXPECT_TRUE(halo->name().empty());
        EXPECT_EQ(halo->defaultValue(), 3.5f);
        EXPECT_EQ(halo->tileCount(-1), this->tree_.tileCount(-1));
        EXPECT_EQ(this->voxelFaults(*halo, 3.5f, D, 0), "");
        const auto some = temporaryOf<TypeParam, int3, W + 1, 0>(this->tree_, int3(1, -2, 3), usePool, true, 3, D - 1);
        EXPECT_EQ(some->minDepth(), 3);
        EXPECT_EQ(some->depth(), D - 1);
        EXPECT_EQ(this->voxelFaults(*some, int3(1, -2, 3), D, 0), "");
        EXPECT_EQ(halo.useCount(), 1);
    }
}

TYPED_TEST(ChannelServices, make_a_temporary_that_may_be_written_whether_its_elements_were_constructed_or_not)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    for (bool usePool : {false, true})
        for (bool construct : {false, true}) {
            auto shared = temporaryOf<TypeParam, double, W, 0>(this->topology_, 1.0, usePool, construct, 0, D);
            auto channel = Corvid::toMutable(shared);
            this->fillVoxels(*channel);
            EXPECT_EQ(this->voxelFaults(*channel, 1.0, 0, D), "");
        }
}

TYPED_TEST(ChannelServices, start_a_temporary_as_a_copy_of_a_property_in_another_layout)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    auto source = this->template channel<typename TestFixture::template Plain<short>>(short(-7));
    this->fillVoxels(source);
    const auto check = [&]<int N, int H>() {
        for (bool usePool : {false, true}) {
            Corvid::Ptr<Channel<TypeParam, short, N, H>> out;
            channelTemporary<TypeParam, short, N, H>(out, this->tree_, this->topology_, source, usePool, true, 0, D);
            EXPECT_EQ(out->defaultValue(), -7);
            EXPECT_TRUE(out->name().empty());
            EXPECT_EQ(this->voxelFaults(*out, short(-7), 0, D), "") << "width " << N << ", halo " << H;
        }
    };
    check.template operator()<W, 0>();
    check.template operator()<W + 1, 0>();
    check.template operator()<W, 1>();
}

TYPED_TEST(ChannelServices, copy_into_a_temporary_only_the_depths_that_both_have)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    auto source = this->template channel<typename TestFixture::template Plain<float>>(0.5f, 2, D - 1);
    this->fillVoxels(source);
    for (auto [low, high] : {std::pair{0, D}, {4, D - 3}, {0, 3}, {D - 1, D}, {D, D}}) {
        SCOPED_TRACE(testing::Message() << "depths " << low << " to " << high);
        Corvid::Ptr<Channel<TypeParam, float, W, 1>> out;
        channelTemporary<TypeParam, float, W, 1>(out, this->tree_, this->topology_, source, false, true, low, high);
        EXPECT_EQ(out->minDepth(), low);
        EXPECT_EQ(out->depth(), high);
        EXPECT_EQ(this->voxelFaults(*out, 0.5f, std::max(2, low), std::min(D - 1, high)), "");
    }
}

template <class Tr, int NS, int HS, int ND, int HD, class Fixture>
void expectCopied(Fixture& fixture, int low, int high)
{
    using S = Channel<Tr, Ostara::Math::float3, NS, HS>;
    using T = Channel<Tr, Ostara::Math::float3, ND, HD>;
    const Ostara::Math::float3 old(1, 2, 3);
    auto source = fixture.template channel<S>(Ostara::Math::float3(9, 9, 9));
    auto target = fixture.template channel<T>(old);
    fixture.fillVoxels(source);
    channelCopy<Tr, Ostara::Math::float3, NS, ND, HS, HD>(fixture.tree(), source, target, low, high);
    EXPECT_EQ(fixture.voxelFaults(target, old, low, high), "") << NS << ", " << HS << " to " << ND << ", " << HD;
}

template <class Tr> class ChannelCopy : public ChannelServices<Tr> {
public:
    using ChannelServices<Tr>::channel;
    using ChannelServices<Tr>::fillVoxels;
    using ChannelServices<Tr>::voxelFaults;
    Tree<Tr> const& tree() const { return this->tree_; }
};
TYPED_TEST_SUITE(ChannelCopy, Structures, StructureNames);

TYPED_TEST(ChannelCopy, carries_the_voxels_between_all_layouts_and_leaves_the_rest_alone)
{
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    for (auto [low, high] : {std::pair{0, D}, {D - 1, D - 1}, {5, 4}}) {
        expectCopied<TypeParam, W, 0, W, 0>(*this, low, high);
        expectCopied<TypeParam, W, 0, W + 1, 0>(*this, low, high);
        expectCopied<TypeParam, W, 0, W, 1>(*this, low, high);
        expectCopied<TypeParam, W + 1, 0, W, 0>(*this, low, high);
        expectCopied<TypeParam, W + 1, 0, W + 1, 0>(*this, low, high);
        expectCopied<TypeParam, W + 1, 0, W, 1>(*this, low, high);
        expectCopied<TypeParam, W, 1, W, 0>(*this, low, high);
        expectCopied<TypeParam, W, 1, W + 1, 0>(*this, low, high);
        expectCopied<TypeParam, W, 1, W, 1>(*this, low, high);
    }
}

TYPED_TEST(ChannelCopy, can_be_cancelled_at_its_end)
{
    using C = Channel<TypeParam, int, TypeParam::width, 0>;
    auto source = this->template channel<C>(1), target = this->template channel<C>(2);
    cancelAtEveryPoll([] {},
                      [&] {
                          channelCopy<TypeParam, int, TypeParam::width, TypeParam::width, 0, 0>(
                              this->tree(), source, target, 0, TypeParam::maxDepth);
                      },
                      [] {});
}

// What the two forms write, by verbose level and pool.

std::vector<std::string> linesOfFirstForm(int level, bool usePool, bool construct)
{
    const VerboseLevel verbose(level);
    const CapturedStream out;
    Tree<BinaryTraits> tree("tree");
    temporaryOf<BinaryTraits, float, 4, 0>(tree, 0.0f, usePool, construct, 0, 28);
    return out.lines();
}

std::vector<std::string> linesOfSecondForm(int level, bool usePool, bool construct)
{
    Tree<BinaryTraits> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 3);
    Channel<BinaryTraits, float, 4, 0> source("s", nullptr, kInitializeNone, false, true, 0, 28);
    source.updateTilesAdded(tree);
    const VerboseLevel verbose(level);
    const CapturedStream out;
    Corvid::Ptr<Channel<BinaryTraits, float, 5, 0>> temporary;
    channelTemporary<BinaryTraits, float, 5, 0>(temporary, tree, tree, source, usePool, construct, 0, 28);
    return out.lines();
}

using Lines = std::vector<std::string>;
constexpr char kFirstWarning[] = "Warning: in_callElementConstructor is false";
constexpr char kSecondWarning[] = "Warning: callElementConstructor is false (in_callElementConstructor is false)";

TEST(TemporaryMessages, warn_of_unconstructed_elements_from_verbose_level_3_on)
{
    for (bool usePool : {false, true})
        for (int level : {0, 1, 2, 3, 4}) {
            EXPECT_EQ(linesOfFirstForm(level, usePool, false), level >= 3 ? Lines{kFirstWarning} : Lines{}) << level;
            EXPECT_EQ(linesOfFirstForm(level, usePool, true), Lines{}) << level;
        }
    for (int level : {0, 1, 2, 3, 4}) {
        EXPECT_EQ(linesOfSecondForm(level, false, false), level >= 3 ? Lines{kSecondWarning} : Lines{}) << level;
        EXPECT_EQ(linesOfSecondForm(level, false, true), Lines{}) << level;
    }
}

TEST(TemporaryMessages, tell_the_memory_before_and_after_when_the_pool_serves_the_copy)
{
    ChannelPool::enable();
    EXPECT_TRUE(ChannelPool::enabled());
    EXPECT_TRUE(ChannelMemoryPool::enabled());
    EXPECT_GE(ChannelPool::availableMemory(), ChannelPool::availablePhysicalMemory());
    EXPECT_EQ(linesOfSecondForm(2, true, true), Lines{});
    EXPECT_EQ(linesOfSecondForm(2, true, false), Lines{});
    const std::string number = "[0-9]+(\\.[0-9]+)?(e\\+[0-9]+)?MB";
    for (bool construct : {true, false}) {
        Lines lines = linesOfSecondForm(3, true, construct);
        if (!construct) {
            ASSERT_FALSE(lines.empty());
            EXPECT_EQ(lines[0], kSecondWarning);
            lines.erase(lines.begin());
        }
        const std::string expected[] = {"channelTemporary\\.availablePhysicalMemory\\.before = " + number,
                                        "channelTemporary\\.availablePhysicalAndPoolMemory\\.before = " + number,
                                        "channelTemporary\\.availablePhysicalMemory\\.after = " + number,
                                        "channelTemporary\\.availablePhysicalAndPoolMemory\\.after = " + number};
        ASSERT_EQ(lines.size(), 4u);
        for (int n = 0; n < 4; ++n) EXPECT_TRUE(matches(lines[n], expected[n])) << lines[n];
    }
    EXPECT_EQ(linesOfSecondForm(3, false, true), Lines{}) << "a temporary that does not ask for the pool";
}

/// Exit status 0 if all is as it should be while nobody has enabled the pool.
[[noreturn]] void exitAfterTemporariesWithoutPool()
{
    const bool offAtFirst = !ChannelPool::enabled() && !ChannelMemoryPool::enabled();
    const bool silent = linesOfSecondForm(3, true, true).empty() && linesOfFirstForm(3, true, true).empty();
    Tree<QuinaryTraits> tree("tree");
    tree.tileAccessor().addTile(0, 0, 0, 2);
    const auto made = temporaryOf<QuinaryTraits, int, 5, 0>(tree, 6, true, true, 0, 12);
    const bool usable = made && made->tileCount(-1) == 3 && made->tileData(0)(7) == 6;
    std::exit((offAtFirst ? 0 : 1) + (silent ? 0 : 2) + (usable ? 0 : 4) + (ChannelPool::enabled() ? 8 : 0));
}

TEST(TemporaryMessagesDeathTest, say_nothing_of_memory_while_the_pool_is_off)
{
    // The pool cannot be switched off again: a process of its own starts without it.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitAfterTemporariesWithoutPool(), testing::ExitedWithCode(0), "");
}

TYPED_TEST(ChannelServices, let_a_pool_temporary_outlive_and_follow_others)
{
    // Memory that comes back from one temporary and serves the next must not carry values over.
    ChannelPool::enable();
    constexpr int W = TypeParam::width, D = TypeParam::maxDepth;
    for (int round = 0; round < 6; ++round) {
        auto a = temporaryOf<TypeParam, float, W, 0>(this->topology_, float(round), true, true, 0, D);
        EXPECT_EQ(this->voxelFaults(*a, float(round), D, 0), "");
        auto writable = Corvid::toMutable(a);
        this->fillVoxels(*writable);
        const auto b = temporaryOf<TypeParam, unsigned char, W, 1>(this->topology_, static_cast<unsigned char>(round),
                                                                   true, true, 0, D);
        EXPECT_EQ(this->voxelFaults(*b, static_cast<unsigned char>(round), D, 0), "");
        EXPECT_EQ(this->voxelFaults(*writable, 0.0f, 0, D), "");
    }
}

}  // namespace
}  // namespace tilegrid::test
