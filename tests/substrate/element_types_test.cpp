#include "support/address_channels.h"
#include "support/channel_types.h"

#include <sstream>

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;

template <class C>
constexpr int kElements = (C::voxels + 2 * C::halo) * (C::voxels + 2 * C::halo) * (C::voxels + 2 * C::halo);

/// A default value whose bytes are all different from zero.
template <class T> T oddDefault() { return addressValue<T>(TileKey{77, {1, 2, 3}}, -5); }

template <class Tr> Tree<Tr> smallTree()
{
    Tree<Tr> tree("tree");
    auto accessor = tree.tileAccessor();
    accessor.addTiles(int3(-3, -3, -3), int3(3, 3, 3), Tr::maxDepth);
    return tree;
}

template <class C> C makeChannel(int minDepth = 0, int depth = C::Traits::maxDepth)
{
    const auto value = oddDefault<typename C::Element>();
    return C("p", &value, kInitializeLinear, false, true, minDepth, depth);
}

template <class C> void fillAddresses(C& channel, Tree<typename C::Traits> const& tree)
{
    for (int d = channel.minDepth(); d <= channel.depth(); ++d)
        for (int64 n = 0; n < tree.tileCount(d); ++n) {
            const auto data = channel.tileData(n, d);
            for (int e = 0; e < data.size(); ++e)
                data(e) = addressValue<typename C::Element>(keyOf(tree.tile(n, d)), e);
        }
}

/// Whether a tile has all its elements, and each is its address (or the default).
template <class C, class TileT> bool tileHolds(C const& channel, TileT const& tile, bool addresses)
{
    using T = typename C::Element;
    const auto data = channel.tileData(tile.treeIndex());
    if (!data || data.size() != kElements<C>) return false;
    for (int e = 0; e < data.size(); ++e)
        if (!sameBytes(data(e), addresses ? addressValue<T>(keyOf(tile), e) : oddDefault<T>())) return false;
    return true;
}

template <class Tr> class ElementTypes : public ::testing::Test {
protected:
    /// Runs a check on every channel type, and says at which it failed.
    template <class Check> void forEachType(Check check)
    {
        int types = 0;
        forEachChannelType<Tr>([&]<class C>() {
            Findings findings;
            check.template operator()<C>(findings);
            EXPECT_EQ(findings.text(), "") << channelTypeName<C>();
            ++types;
        });
        EXPECT_EQ(types, 54);
    }
};
TYPED_TEST_SUITE(ElementTypes, Structures, StructureNames);

struct NoteType {
    std::type_info const** found;
    int* calls;
    template <class C> void operator()() const
    {
        *found = &typeid(C);
        ++*calls;
    }
};

TYPED_TEST(ElementTypes, are_found_by_the_search_exactly_as_they_were_put_in)
{
    using Other = std::conditional_t<TypeParam::branching == 2, QuinaryTraits, BinaryTraits>;
    this->forEachType([]<class C>(Findings& findings) {
        OST::Object object;
        object.putComponent(Corvid::makeMutable<C>(makeChannel<C>()));
        std::type_info const* found = nullptr;
        int calls = 0;
        findings.expect(tryElements<TypeParam>(object, "p", NoteType{&found, &calls}), "the property is found");
        findings.expect(calls == 1 && found && *found == typeid(C), "once, with its own type");
        findings.expect(!tryElements<TypeParam>(object, "q", NoteType{&found, &calls}), "another name is not");
        findings.expect(!tryElements<Other>(object, "p", NoteType{&found, &calls}),
                        "the other structure has none of it");
        findings.expect(calls == 1, "nothing is called for what is not found");
    });
}

TYPED_TEST(ElementTypes, outside_the_table_are_not_found)
{
    constexpr int W = TypeParam::width;
    OST::Object object;
    const auto put = [&object]<class C>(char const* name) {
        object.putComponent(
            Corvid::makeMutable<C>(name, nullptr, kInitializeNone, false, true, 0, TypeParam::maxDepth));
    };
    put.template operator()<Channel<TypeParam, bool, W, 0>>("a bool");
    put.template operator()<Channel<TypeParam, char, W, 0>>("a plain char");
    put.template operator()<Channel<TypeParam, Ostara::Math::Vector<double, 2>, W, 0>>("two doubles");
    put.template operator()<Channel<TypeParam, float, W, 2>>("a wide halo");
    put.template operator()<Channel<TypeParam, float, W + 2, 0>>("two extra layers");
    put.template operator()<Channel<TypeParam, float, 0, 0>>("points");
    object.putComponent(Corvid::makeMutable<Tree<TypeParam>>("a tree"));
    int calls = 0;
    std::type_info const* found = nullptr;
    const auto names = object.componentRange();
    EXPECT_EQ(names.size(), 7u);
    for (Corvid::String const& name : names)
        EXPECT_FALSE(tryElements<TypeParam>(object, name, NoteType{&found, &calls})) << name;
    EXPECT_EQ(calls, 0);
}

TYPED_TEST(ElementTypes, hold_the_default_value_in_new_tiles_and_keep_the_values_of_old_ones)
{
    const Tree<TypeParam> before = smallTree<TypeParam>();
    Tree<TypeParam> after(before);
    after.tileAccessor().addTiles(int3(-3, -3, 4), int3(30, 3, 9), TypeParam::maxDepth);
    VoxelTopology<TypeParam> topology("voxels", kCorner), grown("voxels", kCorner);
    topology.update(before);
    grown.update(after);
    this->forEachType([&]<class C>(Findings& findings) {
        C channel = makeChannel<C>();
        findings.expect(channel.empty() && channel.size() == 0 && channel.tileCount(-1) == 0, "a new channel is empty");
        findings.expect(!channel.tileData(0, 0) && !std::as_const(channel).tileData(0, 0), "it has no tile data");
        static_cast<OST::Component&>(channel).update(topology);
        for (int64 n = 0; n < before.tileCount(-1); ++n)
            findings.expect(tileHolds(channel, before.tile(n), false), "all elements are the default");
        fillAddresses(channel, before);
        channel.updateTilesAdded(grown);
        for (int64 n = 0; n < after.tileCount(-1); ++n)
            findings.expect(
                tileHolds(channel, after.tile(n), after.tile(n).index() < before.tileCount(after.tile(n).depth())),
                "old values stay and new ones are the default");
        findings.expect(sameBytes(channel.defaultValue(), oddDefault<typename C::Element>()),
                        "the default is what was given");
        findings.expect(channel.dataElementInitializerType() == kInitializeLinear, "so is the initializer");
        findings.expect(channel.name() == "p", "and the name");
        const int64 tiles = after.tileCount(-1);
        findings.expect(channel.tileCount(-1) == tiles && channel.elementCount(-1) == tiles * kElements<C>,
                        "counts of all depths");
        findings.expect(channel.size() == std::size_t(tiles) * kElements<C> && !channel.empty(),
                        "its size is that count");
        for (int d = 0; d < TypeParam::levels; ++d)
            findings.expect(channel.tileCount(d) == after.tileCount(d)
                                && channel.elementCount(d) == after.tileCount(d) * kElements<C>,
                            "counts of one depth");
        findings.expect(channel.elementCount(TreeIndex{0, 0}) == kElements<C>, "elements of a tile");
        findings.expect(channel.elementCount(TreeIndex{after.tileCount(3), 3}) == 0, "of a tile that is not there");
    });
}

TYPED_TEST(ElementTypes, exist_in_their_depths_only_and_follow_a_change_of_the_range)
{
    const Tree<TypeParam> tree = smallTree<TypeParam>();
    constexpr int D = TypeParam::maxDepth;
    this->forEachType([&]<class C>(Findings& findings) {
        C channel = makeChannel<C>(2, D - 2);
        channel.updateTilesAdded(tree);
        const auto check = [&](int low, int high, int filledLow, int filledHigh) {
            findings.expect(channel.minDepth() == low && channel.depth() == high, "the range is what was asked for");
            int64 flat = 0;
            for (int d = 0; d <= D; ++d)
                for (int64 n = 0; n < tree.tileCount(d); ++n) {
                    if (d < low || d > high) {
                        findings.expect(!channel.tileData(n, d), "no data outside the range");
                        continue;
                    }
                    findings.expect(tileHolds(channel, tree.tile(n, d), d >= filledLow && d <= filledHigh),
                                    "the right values inside");
                    findings.expect(channel.tileData(flat++).data() == channel.tileData(n, d).data(),
                                    "running numbers");
                }
            findings.expect(channel.tileCount(-1) == flat, "the count is that of the range");
        };
        check(2, D - 2, D, 0);
        fillAddresses(channel, tree);
        channel.setDepth(D, tree);
        check(2, D, 2, D - 2);
        channel.setMinDepth(0, tree);
        check(0, D, 2, D - 2);
        channel.setMinDepth(4, tree);
        check(4, D, 4, D - 2);
        channel.setDepth(D - 3, tree);
        check(4, D - 3, 4, D - 3);
        channel.setMinDepth(2, tree);
        channel.setDepth(D - 2, tree);
        check(2, D - 2, 4, D - 3);  // what left came back as the default
        const C clamped = makeChannel<C>(-4, 99);
        findings.expect(clamped.minDepth() == 0 && clamped.depth() == D, "a range is clamped to the structure");
    });
}

TYPED_TEST(ElementTypes, are_copied_deeply)
{
    const Tree<TypeParam> tree = smallTree<TypeParam>();
    this->forEachType([&]<class C>(Findings& findings) {
        C channel = makeChannel<C>(1, TypeParam::maxDepth - 1);
        channel.updateTilesAdded(tree);
        fillAddresses(channel, tree);
        const C copy(channel);
        Corvid::Ptr<OST::Component> component;
        channel.copyTo(component);
        const auto other = Corvid::dynamicPointerCast<C>(component);
        findings.expect(bool(other), "copyTo keeps the type");
        if (!other) return;
        for (int64 n = 0; n < channel.tileCount(-1); ++n) channel.tileData(n).set(oddDefault<typename C::Element>());
        for (int d = 1; d < TypeParam::maxDepth; ++d)
            for (int64 n = 0; n < tree.tileCount(d); ++n) {
                findings.expect(tileHolds(copy, tree.tile(n, d), true) && tileHolds(*other, tree.tile(n, d), true),
                                "copies stay");
                findings.expect(tileHolds(channel, tree.tile(n, d), false), "the original changed");
            }
        findings.expect(copy.minDepth() == 1 && other->depth() == TypeParam::maxDepth - 1 && other->name() == "p",
                        "with all properties");
        std::size_t used = 1000, reserved = 2000;
        channel.memUse(used, reserved, true);
        const std::size_t bytes = channel.size() * sizeof(typename C::Element);
        findings.expect(used >= 1000 + bytes,
                        "the memory in use holds at least the elements, and is added to what was counted");
        findings.expect(reserved >= 2000 + bytes && reserved - 2000 >= used - 1000, "no less is reserved than used");
        std::ostringstream text;
        static_cast<OST::Component const&>(channel).dump(text);
        findings.expect(!text.str().empty(), "a dump says something");
    });
}

struct Unrelated {};

TYPED_TEST(ElementTypes, come_out_and_go_in_as_one_array_per_depth)
{
    const Tree<TypeParam> tree = smallTree<TypeParam>();
    constexpr unsigned D = TypeParam::maxDepth;
    this->forEachType([&]<class C>(Findings& findings) {
        using T = typename C::Element;
        const Corvid::Any sample{T()}, wrong{Unrelated()};
        C channel = makeChannel<C>(), target = makeChannel<C>();
        channel.updateTilesAdded(tree);
        target.updateTilesAdded(tree);
        fillAddresses(channel, tree);
        findings.expect(channel.hasElementType(sample) && !channel.hasElementType(wrong)
                            && !channel.hasElementType(Corvid::Any()),
                        "the channel knows its own element type and no other");
        findings.expect(!channel.channelData(D, wrong), "a wrong sample gets nothing");
        for (unsigned d = 0; d <= D; ++d) {
            const Corvid::Ptr<void> data = channel.channelData(d, sample);
            auto const* values = static_cast<Corvid::Array<T> const*>(data.get());
            findings.expect(values && int64(values->size()) == channel.elementCount(int(d)),
                            "one array with all elements");
            if (!values) return;
            for (std::size_t n = 0; n < values->size(); ++n)
                findings.expect(sameBytes((*values)[n],
                                          addressValue<T>(keyOf(tree.tile(int64(n) / kElements<C>, int(d))),
                                                          int(n % kElements<C>))),
                                "tile after tile");
            target.setChannelData(d, wrong, data);
            if (d > 0) target.setChannelData(d, sample, channel.channelData(0, sample));
            findings.expect(tree.tileCount(int(d)) == tree.tileCount(0)
                                || tileHolds(target, tree.tile(0, int(d)), false),
                            "neither a wrong type nor a wrong number of elements is taken");
            target.setChannelData(d, sample, data);
        }
        for (int64 n = 0; n < tree.tileCount(-1); ++n)
            findings.expect(tileHolds(target, tree.tile(n), true), "what came out of one goes into another");
        findings.expect(!channel.channelData(D + 1, sample), "a depth beyond the structure has none");
    });
}

}  // namespace
}  // namespace tilegrid::test
