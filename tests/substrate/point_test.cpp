#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/element_moves.h"
#include "support/trees.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using OST::int64;
using Ostara::Math::float3;

/// A tree with points in its tiles: the topology, two point channels of different size and one voxel channel; beside them a
/// map from tile to the points' numbers, in order. Every value is made from its point's number.
template <class Tr> class Points : public ::testing::Test {
protected:
    using Ids = Channel<Tr, OST::uint64, 0, 0>;
    using Places = Channel<Tr, float3, 0, 0>;
    using Voxels = Channel<Tr, float, Tr::width, 0>;

    void make(std::uint64_t seed)
    {
        random_ = Random(seed);
        addRandomTiles(random_, tree_, set_, 25);
        topology_.update(tree_);
        for (int64 n = 0; n < tree_.tileCount(-1); ++n) {
            auto const& tile = tree_.tile(n);
            if (tile.depth() % 2) continue;  // half of the depths stay empty
            const int count = static_cast<int>(random_.below(6));
            topology_.setElementCount(tile.treeIndex(), count);
            for (int e = 0; e < count; ++e) lists_[keyOf(tile)].push_back(next_++);
        }
        const OST::uint64 noId = kNone;
        object_.putComponent(Corvid::makeMutable<Ids>("ids", &noId, kInitializeNone, false, true, 0, Tr::maxDepth));
        object_.putComponent(
            Corvid::makeMutable<Places>("places", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth));
        object_.putComponent(
            Corvid::makeMutable<Voxels>("voxels", nullptr, kInitializeNone, false, true, 0, Tr::maxDepth));
        updateTilesAdded(topology_, object_);
        voxelTopology_.update(tree_);
        updateTilesAdded(voxelTopology_, object_);
        forBoth([this](auto& channel) { channel.updateElementResize(topology_); });
        write();
    }
    static float3 placeOf(OST::uint64 id) { return {static_cast<float>(id), static_cast<float>(id) * 0.5f, -1.0f}; }
    template <class F> void forBoth(F f)
    {
        auto ids = object_.template extractComponent<Ids>("ids");
        auto places = object_.template extractComponent<Places>("places");
        f(*ids);
        f(*places);
        object_.putComponent(std::move(places));
        object_.putComponent(std::move(ids));
    }
    void write()
    {
        auto ids = object_.template extractComponent<Ids>("ids");
        auto places = object_.template extractComponent<Places>("places");
        for (int64 n = 0; n < tree_.tileCount(-1); ++n) {
            auto const& list = lists_[keyOf(tree_.tile(n))];
            const TreeIndex tile = tree_.tile(n).treeIndex();
            ASSERT_EQ(ids->tileData(tile).size(), int(list.size()));
            ASSERT_EQ(places->tileData(tile).size(), int(list.size()));
            for (std::size_t e = 0; e < list.size(); ++e) {
                ids->tileData(tile)(int(e)) = list[e];
                places->tileData(tile)(int(e)) = placeOf(list[e]);
            }
        }
        object_.putComponent(std::move(places));
        object_.putComponent(std::move(ids));
    }
    std::string faults()
    {
        std::ostringstream out;
        const auto ids = object_.template component<Ids>("ids");
        const auto places = object_.template component<Places>("places");
        int64 total = 0;
        for (int64 n = 0; n < tree_.tileCount(-1); ++n) {
            const TileKey key = keyOf(tree_.tile(n));
            auto const& list = lists_[key];
            const TreeIndex tile = tree_.tile(n).treeIndex();
            total += int64(list.size());
            const int count = int(list.size());
            if (topology_.elementCount(tile) != count || ids->elementCount(tile) != count
                || places->tileData(tile).size() != count)
                out << key << " has " << topology_.elementCount(tile) << ", " << ids->elementCount(tile) << ", "
                    << places->tileData(tile).size() << " points instead of " << count << "\n";
            else
                for (int e = 0; e < count; ++e)
                    if (ids->tileData(tile)(e) != list[e]
                        || !(places->tileData(tile)(e) == (list[e] == kNone ? float3() : placeOf(list[e]))))
                        out << key << ", element " << e << ": " << ids->tileData(tile)(e) << " instead of " << list[e]
                            << "\n";
        }
        std::string text = out.str();
        if (text.size() > 1000) return text.substr(0, 1000) + "...";
        if (topology_.elementCount(-1) != total || ids->elementCount(-1) != total || int64(places->size()) != total)
            out << "the totals differ\n";
        if (topology_.tileCount(-1) != tree_.tileCount(-1) || ids->tileCount(-1) != tree_.tileCount(-1))
            out << "tile counts differ\n";
        return out.str();
    }
    static constexpr OST::uint64 kNone = 999999999;
    Random random_{0};
    Tree<Tr> tree_{"tree"};
    TileSet<Tr> set_;
    PointTopology<Tr> topology_{OST::Const::TileTreePointTopologyName};
    VoxelTopology<Tr> voxelTopology_{"voxel topology", kCorner};
    OST::Object object_;
    std::map<TileKey, std::vector<OST::uint64>> lists_;
    OST::uint64 next_ = 1;
};
TYPED_TEST_SUITE(Points, Structures, StructureNames);

TYPED_TEST(Points, stay_with_their_tiles_when_tiles_are_added)
{
    this->make(1);
    EXPECT_EQ(this->faults(), "");
    addRandomTiles(this->random_, this->tree_, this->set_, 25);
    this->topology_.update(this->tree_);
    updateTilesAdded(this->topology_, this->object_);
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, go_with_their_tiles_when_tiles_are_removed_and_voxel_channels_are_left_to_their_own_topology)
{
    this->make(2);
    std::vector<std::vector<int64>> doomed(TypeParam::levels);
    for (int n = 0; n < 40; ++n) {
        auto const& tile = this->tree_.tile(this->random_.below(this->tree_.tileCount(-1)));
        if (tile.depth() < 5) continue;
        doomed[tile.depth()].push_back(tile.index());
        this->set_.remove(keyOf(tile));
    }
    const int64 before = this->tree_.tileCount(-1);
    TileMoves moves;
    this->tree_.removeTiles(doomed, moves, true);
    ASSERT_LT(this->tree_.tileCount(-1), before);
    std::erase_if(this->lists_, [this](auto const& entry) { return !this->set_.has(entry.first); });
    this->topology_.updateTilesRemoved(moves, this->tree_);
    updateTilesRemoved(moves, this->topology_, this->object_);
    EXPECT_EQ(this->faults(), "");
    EXPECT_EQ(this->object_.template component<typename TestFixture::Voxels>("voxels")->tileCount(-1), before);
    this->voxelTopology_.update(this->tree_);
    updateTilesRemoved(moves, this->voxelTopology_, this->object_);
    EXPECT_EQ(this->object_.template component<typename TestFixture::Voxels>("voxels")->tileCount(-1),
              this->tree_.tileCount(-1));
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, survive_a_move_from_a_place_to_itself)
{
    this->make(9);
    TileMoves moves(TypeParam::levels);
    for (int d = 0; d < TypeParam::levels; ++d)
        for (int64 n = 0; n < this->tree_.tileCount(d); ++n) moves[d].push_back({n, n});
    this->topology_.updateTilesRemoved(moves, this->tree_);
    updateTilesRemoved(moves, this->topology_, this->object_);
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, follow_their_tiles_into_morton_order)
{
    this->make(3);
    TilePermutation permutation;
    this->tree_.sortIntoMortonOrder(&permutation);
    this->topology_.updateTilesPermuted(permutation);
    updateTilesPermuted(permutation, this->object_);
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, that_move_come_behind_those_that_stay_in_the_order_of_the_notes)
{
    for (std::uint64_t seed = 10; seed < 22; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        if (seed == 10) this->make(seed);
        TileDataElementAccessorT<TypeParam> left, right;
        std::map<TileKey, std::vector<OST::uint64>> arriving;
        std::set<OST::uint64> moved;
        for (int half = 0; half < 2; ++half)
            for (int n = 0; n < 60; ++n) {
                auto const& from = this->tree_.tile(this->random_.below(this->tree_.tileCount(-1)));
                auto const& to = this->tree_.tile(this->random_.below(this->tree_.tileCount(-1)));
                auto const& list = this->lists_[keyOf(from)];
                if (list.empty()) continue;
                const int element = int(this->random_.below(int64(list.size())));
                (half ? right : left).move(ElementTreeIndex{from.treeIndex(), element}, to.treeIndex());
                // A second note for a point does not count.
                if (moved.insert(list[element]).second) arriving[keyOf(to)].push_back(list[element]);
            }
        ASSERT_GT(moved.size(), 20u);
        left.join(right, 1);
        for (auto& [key, list] : this->lists_)
            std::erase_if(list, [&](OST::uint64 id) { return moved.count(id) != 0; });
        for (auto const& [key, list] : arriving) {
            auto& target = this->lists_[key];
            target.insert(target.end(), list.begin(), list.end());
        }
        updateElements(left, this->topology_, this->object_);
        ASSERT_EQ(this->faults(), "");
    }
}

TYPED_TEST(Points, are_left_alone_by_no_notes)
{
    this->make(4);
    updateElements(TileDataElementAccessorT<TypeParam>(), this->topology_, this->object_);
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, that_are_new_have_the_default_value_and_those_beyond_a_lower_count_vanish)
{
    this->make(5);
    for (auto& [key, list] : this->lists_) {
        const TreeIndex tile = indexOf(this->tree_, key);
        if (!tile.valid()) continue;
        const std::size_t count = std::size_t(this->random_.below(9));
        list.resize(count, this->kNone);
        this->topology_.setElementCount(tile, int(count));
    }
    this->forBoth([this](auto& channel) { channel.updateElementResize(this->topology_); });
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, are_rebuilt_from_the_moves_that_are_told)
{
    this->make(6);
    // Depth 2 has one tile or more: its first tile gets three elements, two of them from another depth.
    constexpr int D = TypeParam::maxDepth - TypeParam::maxDepth % 2;
    TreeIndex source;
    for (int64 n = 0; n < this->tree_.tileCount(D) && !source.valid(); ++n)
        if (this->lists_[keyOf(this->tree_.tile(n, D))].size() >= 2) source = {n, D};
    ASSERT_TRUE(source.valid());
    std::vector<std::vector<ElementToFrom>> moves(TypeParam::levels);
    std::vector<std::vector<std::size_t>> counts(TypeParam::levels);
    counts[2].assign(std::size_t(this->tree_.tileCount(2)), 0);
    counts[2][0] = 3;
    const TreeIndex target{0, 2};
    moves[2] = {{{target, 0}, {source, 1}}, {{target, 2}, {source, 0}}};
    const auto from = this->lists_[keyOf(this->tree_.tile(source))];
    for (int64 n = 0; n < this->tree_.tileCount(2); ++n) this->lists_[keyOf(this->tree_.tile(n, 2))].clear();
    this->lists_[keyOf(this->tree_.tile(target))] = {from[1], this->kNone, from[0]};
    this->forBoth([&](auto& channel) { channel.updateElements(moves, counts); });
    for (int64 n = 0; n < this->tree_.tileCount(2); ++n) this->topology_.setElementCount({n, 2}, n == 0 ? 3 : 0);
    EXPECT_EQ(this->faults(), "");
}

TYPED_TEST(Points, of_a_dynamic_handle_can_grow_and_shrink)
{
    this->make(7);
    auto ids = this->object_.template extractComponent<typename TestFixture::Ids>("ids");
    const auto data = ids->tileDataAccessor().tileData(TreeIndex{0, 0});
    const int old = data.size();
    data.resize(std::size_t(old) + 3);
    EXPECT_EQ(data.size(), old + 3);
    for (int e = old; e < old + 3; ++e) EXPECT_EQ(data(e), this->kNone);
    for (int e = 0; e < old; ++e) EXPECT_EQ(data(e), this->lists_[keyOf(this->tree_.tile(0, 0))][std::size_t(e)]);
    data.resize(0);
    EXPECT_EQ(data.size(), 0);
}

TYPED_TEST(Points, are_copied_deeply_with_their_channel_and_topology)
{
    this->make(8);
    const auto shared = this->object_.template component<typename TestFixture::Ids>("ids");
    const typename TestFixture::Ids copy(*shared);
    const PointTopology<TypeParam> topology(this->topology_);
    auto changed = this->object_.template extractComponent<typename TestFixture::Ids>("ids");
    for (int64 n = 0; n < changed->tileCount(-1); ++n) changed->tileData(n).set(0);
    this->topology_.setElementCount({0, 0}, 17);
    for (int64 n = 0; n < copy.tileCount(-1); ++n)
        for (int e = 0; e < copy.tileData(n).size(); ++e)
            EXPECT_EQ(copy.tileData(n)(e), this->lists_[keyOf(this->tree_.tile(n))][std::size_t(e)]);
    EXPECT_EQ(topology.elementCount(TreeIndex{0, 0}), int(this->lists_[keyOf(this->tree_.tile(0, 0))].size()));
    std::size_t used = 0, reserved = 0;
    copy.memUse(used, reserved, false);
    EXPECT_GE(used, copy.size() * sizeof(OST::uint64));
    EXPECT_GE(reserved, used);
}

}  // namespace
}  // namespace tilegrid::test
