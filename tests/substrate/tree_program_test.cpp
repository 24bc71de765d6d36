#include "support/address_channels.h"

namespace tilegrid::test {
namespace {

using OST::int64;

/// A tree, its twin, and channels on it; every operation is done to all of them.
template <class Tr> class Program {
public:
    using Set = TileSet<Tr>;
    using Added = OST::TileTree3D::TileList<Tr>;

    explicit Program(std::uint64_t seed) : random_(seed), tree_("tree"), channels_(tree_) {}

    void step()
    {
        const auto operation = random_.below(8);
        const std::set<TileKey> known = set_.tiles();
        const auto orderBefore = orderOf(tree_);
        switch (operation) {
        case 0: addSingleTiles(); break;
        case 1: addBoxes(); break;
        case 2: refineByOther(); break;
        case 3: growByPredicate(); break;
        case 4: growByRange(); break;
        case 5:
        case 6: removeSome(); return;
        default: sort(); return;
        }
        expectAppended(orderBefore);
        channels_.tilesAdded();
        expectAgreement(known);
        channels_.fill();
        expectAgreement(set_.tiles());
    }

private:
    Place somePlace() { return randomPlace<Tr>(random_, 9 * Set::tileWidth(Tr::maxDepth - 1)); }
    int someDepth()
    {
        return static_cast<int>(random_.oneIn(3) ? random_.between(0, Tr::maxDepth) : Tr::maxDepth - random_.below(3));
    }

    void addSingleTiles()
    {
        SCOPED_TRACE("single tiles");
        addRandomTiles(random_, tree_, set_, 12);
    }
    void addBoxes()
    {
        SCOPED_TRACE("boxes");
        auto accessor = tree_.tileAccessor();
        for (int n = 0; n < 2; ++n) {
            const int depth = someDepth();
            Place low = somePlace(), high = low;
            for (int a = 0; a < 3; ++a)
                high[a] = std::min<std::int64_t>(low[a] + random_.below(3 * Set::tileWidth(depth)), 0x7fffffff);
            accessor.addTiles(toInt3(low), toInt3(high), depth);
            set_.addBox(low, high, depth);
        }
    }
    void refineByOther()
    {
        SCOPED_TRACE("refine by another tree");
        Tree<Tr> other("other");
        Set otherSet;
        addRandomTiles(random_, other, otherSet, 12);
        Added added;
        const std::set<TileKey> before = set_.tiles();
        tree_.refine(other, &added, random_.oneIn(2));
        set_.addAll(otherSet);
        expectListed(added, before);
    }
    void growByPredicate()
    {
        SCOPED_TRACE("growth by a predicate");
        // Around a place, and at random with fewer than two children each on average: it dies out or stays small.
        const Place centre = somePlace();
        const std::uint64_t salt = random_.next();
        const int deepest = someDepth();
        const int among = Tr::childCount * 2 / 3;
        const auto wants = [=](TileKey const& key, int cell) {
            if (Set::contains(Set::childOf(key, cell), centre)) return true;
            return key.depth > Tr::maxDepth - 5
                && Random::mixed(salt ^ addressValue<std::uint64_t>(key, cell)) % static_cast<unsigned>(among) == 0;
        };
        const auto wantsTile = [&](auto const& tile, int3 const& cell) {
            return wants(keyOf(tile), OST::TileTree3D::flatIndex(Tr::branching, cell.x, cell.y, cell.z));
        };
        const std::set<TileKey> before = set_.tiles();
        Added added;
        growAll(tree_, wantsTile, &added, deepest);
        if (before.empty()) set_.add({0, 0, 0}, 0);
        for (TileKey const& key : set_.list())
            if (key.depth == 0) set_.grow(key, wants, deepest);
        expectListed(added, before);
    }
    void growByRange()
    {
        SCOPED_TRACE("growth by a range");
        const int64 count = random_.between(0, 40);
        const std::uint64_t salt = random_.next();
        std::vector<std::pair<Place, int>> wanted;
        for (int64 n = 0; n < count; ++n) wanted.push_back({somePlace(), someDepth()});
        const auto add = [&wanted](int64 begin, int64 end, Tree<Tr>& collected) {
            auto accessor = collected.tileAccessor();
            for (int64 n = begin; n < end; ++n)
                accessor.addTile(static_cast<int>(wanted[n].first[0]), static_cast<int>(wanted[n].first[1]),
                                 static_cast<int>(wanted[n].first[2]), wanted[n].second);
        };
        const std::set<TileKey> before = set_.tiles();
        Added added;
        tree_.template refine<decltype(add), int64>(add, 0, count, 1 + salt % 9, &added);
        set_.add({0, 0, 0}, 0);
        for (auto const& [place, depth] : wanted) set_.add(place, depth);
        expectListed(added, before);
    }
    void removeSome()
    {
        SCOPED_TRACE("removal");
        std::vector<std::vector<int64>> doomed(Tr::levels);
        const auto orderBefore = orderOf(tree_);
        const std::set<TileKey> before = set_.tiles();
        for (int64 n = random_.below(20); n > 0 && tree_.tileCount(-1) > 0; --n) {
            auto const& tile = tree_.tile(random_.below(tree_.tileCount(-1)));
            if (tile.depth() < 4 && !random_.oneIn(40)) continue;  // seldom nearly everything
            doomed[tile.depth()].push_back(tile.index());
            set_.remove(keyOf(tile));
        }
        OST::TileTree3D::TileMoves moves;
        tree_.removeTiles(doomed, moves, random_.oneIn(2));
        expectRemoved(orderBefore, doomed);
        expectMoves(orderBefore, moves);
        channels_.tilesRemoved(moves);
        expectAgreement(before);
    }
    void sort()
    {
        SCOPED_TRACE("sorting");
        const auto orderBefore = orderOf(tree_);
        OST::TileTree3D::TilePermutation permutation;
        tree_.sortIntoMortonOrder(&permutation);
        auto expected = orderBefore;
        for (auto& level : expected) std::sort(level.begin(), level.end(), Set::mortonBefore);
        EXPECT_TRUE(orderOf(tree_) == expected);
        channels_.tilesPermuted(permutation);
        expectAgreement(set_.tiles());
    }

    void expectAgreement(std::set<TileKey> const& known)
    {
        EXPECT_EQ(differences(tree_, set_), "");
        EXPECT_EQ(channels_.violations(known), "");
    }
    /// Growth leaves the tiles that were there in their places.
    void expectAppended(std::vector<std::vector<TileKey>> const& before)
    {
        const auto now = orderOf(tree_);
        for (int d = 0; d < Tr::levels; ++d)
            EXPECT_TRUE(now[d].size() >= before[d].size()
                        && std::equal(before[d].begin(), before[d].end(), now[d].begin()))
                << d;
    }
    /// The list names exactly the new tiles, in the order in which they lie behind the old ones.
    void expectListed(Added const& added, std::set<TileKey> const& before)
    {
        const auto now = orderOf(tree_);
        for (int d = 0; d < Tr::levels; ++d) {
            std::vector<TileKey> fresh, listed;
            for (TileKey const& key : now[d])
                if (!before.count(key)) fresh.push_back(key);
            for (int3 const& corner : added[d]) listed.push_back({d, toPlace(corner)});
            EXPECT_TRUE(listed == fresh) << "depth " << d << ": " << listed.size() << " listed, " << fresh.size()
                                         << " new";
        }
    }
    /// The lists come back complete and ascending, and the rest keeps its order.
    void expectRemoved(std::vector<std::vector<TileKey>> const& before, std::vector<std::vector<int64>> const& removed)
    {
        std::vector<std::vector<TileKey>> rest(Tr::levels);
        for (int d = 0; d < Tr::levels; ++d) {
            std::vector<int64> gone;
            for (std::size_t n = 0; n < before[d].size(); ++n) {
                if (set_.has(before[d][n]))
                    rest[d].push_back(before[d][n]);
                else
                    gone.push_back(static_cast<int64>(n));
            }
            EXPECT_EQ(d < int(removed.size()) ? removed[d] : std::vector<int64>(), gone) << "depth " << d;
        }
        EXPECT_TRUE(orderOf(tree_) == rest);
    }
    void expectMoves(std::vector<std::vector<TileKey>> const& before, OST::TileTree3D::TileMoves const& moves)
    {
        for (int d = 0; d < Tr::levels; ++d) {
            std::map<int64, int64> moved;
            std::pair<int64, int64> last(-1, -1);
            for (auto const& move : d < int(moves.size()) ? moves[d] : std::vector<std::pair<int64, int64>>()) {
                EXPECT_TRUE(move.first > last.first && move.second > last.second && move.second <= move.first);
                moved.insert(last = move);
            }
            for (int64 n = 0; n < int64(before[d].size()); ++n) {
                if (!set_.has(before[d][n])) {
                    EXPECT_EQ(moved.count(n), 0u);
                    continue;
                }
                const int64 to = moved.count(n) ? moved[n] : n;
                ASSERT_LT(to, tree_.tileCount(d));
                EXPECT_EQ(keyOf(tree_.tile(to, d)), before[d][n]);
            }
        }
    }

    Random random_;
    Tree<Tr> tree_;
    Set set_;
    AddressChannels<Tr> channels_;
};

template <class Tr> class TreeProgram : public ::testing::Test {};
TYPED_TEST_SUITE(TreeProgram, Structures, StructureNames);

TYPED_TEST(TreeProgram, agrees_with_a_plain_set_of_tiles_after_every_step)
{
    for (std::uint64_t seed = 1; seed <= 12 && !this->HasFailure(); ++seed) {
        Program<TypeParam> program(seed);
        for (int step = 0; step < 25 && !this->HasFailure(); ++step) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(step));
            program.step();
        }
    }
}

}  // namespace
}  // namespace tilegrid::test
