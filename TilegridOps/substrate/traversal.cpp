#include "TilegridOps/substrate/traversal.h"

#include <algorithm>

namespace OST::TileTree3D {

namespace {

// A visitor's clone and a task cost some hundred nanoseconds, a tile some ten: no task below this many tiles.
constexpr int64 kLeastTilesPerTask = 64;

/// The tiles of a pass, by depth: a whole level, or a list of indices for a subtree.
template <class Tr> class TileRange {
public:
    TileRange(Container<Tr> const& container, TreeIndex const& start, int minDepth, int maxDepth)
        : minDepth_(std::max(minDepth, 0)), maxDepth_(std::min(maxDepth, Tr::maxDepth)), wholeTree_(!start.valid())
    {
        if (wholeTree_) {
            for (int depth = minDepth_; depth <= maxDepth_; ++depth) count_[depth] = container.tileCount(depth);
            return;
        }
        if (start.depth >= Tr::levels || start.index >= container.tileCount(start.depth)) return;
        list_[start.depth].push_back(start.index);
        for (int depth = start.depth; depth < maxDepth_; ++depth)
            for (int64 index : list_[depth]) {
                auto const& tile = container.tile(index, depth);
                if (tile.isLeaf()) continue;
                for (int cell = 0; cell < Tr::childCount; ++cell)
                    if (tile.childIndex(cell) >= 0) list_[depth + 1].push_back(tile.childIndex(cell));
            }
        for (int depth = minDepth_; depth <= maxDepth_; ++depth) count_[depth] = static_cast<int64>(list_[depth].size());
    }
    int minDepth() const { return minDepth_; }
    int maxDepth() const { return maxDepth_; }
    int64 count(int depth) const { return count_[depth]; }
    /// Hands the tiles [begin, end) of a depth to the visitor, in runs that lie side by side.
    template <class TileRef, class Run> void run(Container<Tr> const& container, int depth, int64 begin, int64 end, Run run) const
    {
        using TileT = std::remove_reference_t<TileRef>;
        const auto at = [&](int64 index) { return const_cast<TileT*>(&container.tile(index, depth)); };
        if (begin >= end) return;
        if (wholeTree_) return run(at(begin), end - begin);
        for (int64 n = begin; n < end; ++n) run(at(list_[depth][n]), int64(1));
    }
    int64 total() const
    {
        int64 sum = 0;
        for (int depth = minDepth_; depth <= maxDepth_; ++depth) sum += count_[depth];
        return sum;
    }

private:
    int minDepth_, maxDepth_;
    bool wholeTree_;
    std::array<int64, Tr::levels> count_{};
    std::array<std::vector<int64>, Tr::levels> list_;
};

}  // namespace

template <class Tr>
template <class TileRef, class ContainerRef>
void Container<Tr>::traverseInternalNonInlined(VisitorT* visitor, TraversalMode mode, TreeIndex const& start, int minDepth,
                                               int maxDepth, std::size_t grainSize, bool, int cellBegin, int cellEnd,
                                               VisitInteriorVoxelMode voxelMode, int) const
{
    const TileRange<Tr> range(*this, start, minDepth, maxDepth);
    const int64 grain = std::max(static_cast<int64>(grainSize), kLeastTilesPerTask);
    visitor->beginTraverse();
    if (mode == kTreeSerialOrder) {
        for (int depth = range.minDepth(); depth <= range.maxDepth(); ++depth)
            range.template run<TileRef>(*this, depth, 0, range.count(depth), [&](auto* tiles, int64 count) {
                visitor->runTiles(tiles, count, cellBegin, cellEnd, voxelMode);
            });
    } else {
        // Children first needs a barrier between depths; the other modes get one too, which costs nothing beside a level.
        const bool childrenFirst = mode == kBottomUp || mode == kMarkingWalk;
        tilegrid::parallel::PerThread<VisitorT> clones;
        for (int step = range.minDepth(); step <= range.maxDepth(); ++step) {
            const int depth = childrenFirst ? range.minDepth() + range.maxDepth() - step : step;
            tilegrid::parallel::forRanges(0, range.count(depth), grain, [&](int64 begin, int64 end) {
                VisitorT& mine = clones.local([visitor] { return std::unique_ptr<VisitorT>(visitor->clone()); });
                range.template run<TileRef>(*this, depth, begin, end, [&](auto* tiles, int64 count) {
                    mine.runTiles(tiles, count, cellBegin, cellEnd, voxelMode);
                });
            });
        }
    }
    visitor->endTraverse();
    tilegrid::parallel::endStage();
}

template <class Tr>
template <class TileRef, class ContainerRef>
void Container<Tr>::reduceInternalNonInlined(VisitorT* visitor, TraversalMode, TreeIndex const& start, int minDepth, int maxDepth,
                                             std::size_t grainSize, int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode) const
{
    struct Body final : tilegrid::parallel::ReduceBody {
        Container const* tree;
        TileRange<Tr> const* range;
        VisitorT* visitor;
        VisitorT const* identity;
        std::unique_ptr<VisitorT> own;
        int cellBegin, cellEnd;
        VisitInteriorVoxelMode voxelMode;
        void run(int64 begin, int64 end) override
        {
            int64 first = 0;  // running number of the depth's first tile
            for (int depth = range->minDepth(); depth <= range->maxDepth(); ++depth) {
                const int64 count = range->count(depth);
                range->template run<TileRef>(*tree, depth, std::max(begin - first, int64(0)), std::min(end - first, count),
                                             [&](auto* tiles, int64 n) { visitor->runTiles(tiles, n, cellBegin, cellEnd, voxelMode); });
                first += count;
            }
        }
        std::unique_ptr<ReduceBody> split() const override
        {
            auto right = std::make_unique<Body>();
            right->tree = tree;
            right->range = range;
            right->identity = identity;
            right->own.reset(identity->clone());
            right->visitor = right->own.get();
            right->cellBegin = cellBegin;
            right->cellEnd = cellEnd;
            right->voxelMode = voxelMode;
            return right;
        }
        void join(ReduceBody& right) override { visitor->join(*static_cast<Body&>(right).visitor); }
    };
    const TileRange<Tr> range(*this, start, minDepth, maxDepth);
    visitor->beginTraverse();
    const std::unique_ptr<VisitorT> identity(visitor->clone());
    Body body;
    body.tree = this;
    body.range = &range;
    body.visitor = visitor;
    body.identity = identity.get();
    body.cellBegin = cellBegin;
    body.cellEnd = cellEnd;
    body.voxelMode = voxelMode;
    tilegrid::parallel::deterministicReduce(0, range.total(), static_cast<int64>(std::max<std::size_t>(grainSize, 1)), body);
    visitor->endTraverse();
    tilegrid::parallel::endStage();
}

/// One growth: walks down level by level and keeps the tiles to add apart from the tree until all were asked. A front is in
/// Morton order by construction, so new tiles come out sorted, whatever the threads did.
template <class Tr> class Growth {
public:
    using ContainerT = Container<Tr>;
    using Tile = typename ContainerT::Tile;
    using VisitorT = typename ContainerT::VisitorT;

    Growth(ContainerT& tree, VisitorT& visitor, int maxDepth) : tree_(tree), visitor_(visitor), maxDepth_(std::min(maxDepth, Tr::maxDepth)) {}

    void run(std::vector<TreeIndex> const& starts)
    {
        int depth = Tr::maxDepth;
        for (TreeIndex const& start : starts) depth = std::min(depth, start.depth);
        Front front;
        for (; depth < Tr::maxDepth && depth <= maxDepth_; ++depth) {
            // Start tiles may lie at several depths: each joins the front of its own.
            for (TreeIndex const& start : starts)
                if (start.depth == depth) front.push_back({start.index, -1});
            ask(front, depth);
            front = descend(front, depth);
        }
    }
    /// The same one tile at a time, depth first, from the end of the list, in the calling thread.
    void runSerially(std::vector<TreeIndex> starts)
    {
        for (; !starts.empty(); starts.pop_back())
            if (starts.back().depth < Tr::maxDepth) walk({starts.back().index, -1}, starts.back().depth);
        sortNewTiles();
    }
    /// Adds the new tiles behind the old ones.
    void commit(TileList<Tr>* tilesAdded)
    {
        for (int depth = 1; depth < Tr::levels; ++depth) {
            for (NewTile const& added : new_[depth]) {
                const int64 parent = added.parentNew >= 0 ? firstIndex_[depth - 1] + added.parentNew : added.parent;
                tree_.addChild({parent, depth - 1}, added.cell);
                if (tilesAdded) (*tilesAdded)[depth].push_back(added.tile.tijk());
            }
        }
        tree_.tilesChanged(/*updateLookup*/ true);
    }

private:
    /// A tile of a front: in the tree (`old` >= 0) or among the new ones of its depth.
    struct Entry {
        int64 old, added;
    };
    using Front = std::vector<Entry>;
    struct NewTile {
        Tile tile;
        int64 parent, parentNew;
        int cell;
    };
    static constexpr int kWords = (Tr::childCount + 63) / 64;
    using Mask = std::array<uint64, kWords>;

    Tile const& tileOf(Entry const& entry, int depth) const
    {
        return entry.old >= 0 ? tree_.tile(entry.old, depth) : new_[depth][entry.added].tile;
    }
    static void askTile(VisitorT& visitor, Tile const& tile, Mask& wanted)
    {
        visitor.beginTile(tile);
        int cell = 0;
        for (int k = 0; k < Tr::branching; ++k)
            for (int j = 0; j < Tr::branching; ++j)
                for (int i = 0; i < Tr::branching; ++i, ++cell)
                    if (visitor.visitInteriorVoxel(tile, int3(i, j, k))) wanted[cell / 64] |= uint64(1) << cell % 64;
    }
    void ask(Front const& front, int depth)
    {
        wanted_.assign(front.size(), Mask{});
        tilegrid::parallel::forRanges(0, static_cast<int64>(front.size()), 16, [&](int64 begin, int64 end) {
            VisitorT& mine = clones_.local([this] { return std::unique_ptr<VisitorT>(visitor_.clone()); });
            for (int64 n = begin; n < end; ++n) askTile(mine, tileOf(front[n], depth), wanted_[n]);
        });
    }
    Entry childOf(Entry const& parent, int depth, int cell)
    {
        Tile const& tile = tileOf(parent, depth);
        if (tile.childIndex(cell) >= 0) return {tile.childIndex(cell), -1};
        tree_.checkLimit(++added_);
        NewTile added{Tile(), parent.old, parent.added, cell};
        added.tile.tijk_ = tile.childTIJK(cubeIndex(Tr::branching, cell));
        added.tile.depth_ = depth + 1;
        added.tile.valid_ = true;
        added.tile.parentIndex_ = tile.index();
        added.tile.index_ = firstIndex(depth + 1) + static_cast<int64>(new_[depth + 1].size());
        new_[depth + 1].push_back(added);
        return {-1, static_cast<int64>(new_[depth + 1].size()) - 1};
    }
    Front descend(Front const& front, int depth)
    {
        Front next;
        if (depth >= maxDepth_) return next;
        for (std::size_t n = 0; n < front.size(); ++n)
            for (int word = 0; word < kWords; ++word)
                for (uint64 bits = wanted_[n][word]; bits; bits &= bits - 1)
                    next.push_back(childOf(front[n], depth, word * 64 + __builtin_ctzll(bits)));
        return next;
    }
    void walk(Entry const& entry, int depth)
    {
        Mask wanted{};
        askTile(visitor_, tileOf(entry, depth), wanted);
        if (depth >= maxDepth_) return;
        for (int cell = 0; cell < Tr::childCount; ++cell)
            if (wanted[cell / 64] >> cell % 64 & 1) {
                const Entry child = childOf(entry, depth, cell);
                if (depth + 1 < Tr::maxDepth) walk(child, depth + 1);
            }
    }
    /// A walk from the last start tile to the first meets the new tiles out of order.
    void sortNewTiles()
    {
        std::vector<int64> place;  // of the new tiles one depth above
        for (int depth = 1; depth < Tr::levels; ++depth) {
            auto& level = new_[depth];
            for (NewTile& added : level)
                if (added.parentNew >= 0) added.parentNew = place[added.parentNew];
            std::vector<int64> order(level.size());
            for (std::size_t n = 0; n < order.size(); ++n) order[n] = static_cast<int64>(n);
            std::sort(order.begin(), order.end(),
                      [&](int64 a, int64 b) { return mortonLess<Tr>(level[a].tile.tijk(), level[b].tile.tijk()); });
            std::vector<NewTile> sorted;
            sorted.reserve(level.size());
            place.assign(level.size(), 0);
            for (std::size_t n = 0; n < order.size(); ++n) {
                place[order[n]] = static_cast<int64>(n);
                sorted.push_back(level[order[n]]);
            }
            level = std::move(sorted);
        }
    }
    int64 firstIndex(int depth)
    {
        if (firstIndex_[depth] < 0) firstIndex_[depth] = tree_.tileCount(depth);
        return firstIndex_[depth];
    }

    ContainerT& tree_;
    VisitorT& visitor_;
    int maxDepth_;
    tilegrid::parallel::PerThread<VisitorT> clones_;
    std::array<std::vector<NewTile>, Tr::levels> new_;
    std::array<int64, Tr::levels> firstIndex_ = [] {
        std::array<int64, Tr::levels> none;
        none.fill(-1);
        return none;
    }();
    std::vector<Mask> wanted_;
    /// Tiles to add, of all depths.
    int64 added_ = 0;
};

template <class Tr>
void Container<Tr>::refineInternalNonInlined(VisitorT* visitor, TreeIndex const& start, int minDepth, int maxDepth,
                                             TilesAdded* tilesAdded, TraversalMode mode, int)
{
    minDepth = std::max(minDepth, 0);
    std::vector<TreeIndex> starts;
    if (start.valid()) {
        starts.push_back(start);
    } else {
        for (auto const& [coord, index] : roots_)
            if (index.depth >= minDepth) starts.push_back(index);
        if (minDepth > 0 && minDepth < Tr::levels)
            for (Tile const& tile : level_[minDepth].tiles)
                if (tile.parentIndex_ >= 0) starts.push_back(tile.treeIndex());
        if (starts.empty() && minDepth == 0) {
            starts.push_back(addTile(VoxelCoord(0, 0, 0, 0)));
            if (tilesAdded) (*tilesAdded)[0].push_back(tile(starts[0]).tijk());
        }
        // Whatever order the tiles were added in, the new ones come out in Morton order.
        std::sort(starts.begin(), starts.end(), [this](TreeIndex const& a, TreeIndex const& b) {
            return a.depth != b.depth ? a.depth < b.depth : mortonLess<Tr>(tile(a).tijk(), tile(b).tijk());
        });
    }
    if (starts.empty()) return;
    visitor->beginTraverse();
    visitor->endTile(std::as_const(*this).tile(starts.front()));  // the visitor publishes its flags
    Growth<Tr> growth(*this, *visitor, maxDepth);
    if (mode != kParallelTree || visitor->forceSerial)
        growth.runSerially(starts);
    else
        growth.run(starts);
    visitor->endTraverse();
    tilegrid::parallel::endStage();
    growth.commit(tilesAdded);
}

#define TILEGRID_INSTANTIATE_ENGINE(Tr)                                                                                               \
    template TILEGRID_API void Container<Tr>::traverseInternalNonInlined<Container<Tr>::Tile const&, Container<Tr> const&>(           \
        VisitorT*, TraversalMode, TreeIndex const&, int, int, std::size_t, bool, int, int, VisitInteriorVoxelMode, int) const;        \
    template TILEGRID_API void Container<Tr>::traverseInternalNonInlined<Container<Tr>::Tile&, Container<Tr>&>(                       \
        VisitorT*, TraversalMode, TreeIndex const&, int, int, std::size_t, bool, int, int, VisitInteriorVoxelMode, int) const;        \
    template TILEGRID_API void Container<Tr>::reduceInternalNonInlined<Container<Tr>::Tile const&, Container<Tr> const&>(             \
        VisitorT*, TraversalMode, TreeIndex const&, int, int, std::size_t, int, int, VisitInteriorVoxelMode) const;                   \
    template TILEGRID_API void Container<Tr>::reduceInternalNonInlined<Container<Tr>::Tile&, Container<Tr>&>(                         \
        VisitorT*, TraversalMode, TreeIndex const&, int, int, std::size_t, int, int, VisitInteriorVoxelMode) const;                   \
    template TILEGRID_API void Container<Tr>::refineInternalNonInlined(VisitorT*, TreeIndex const&, int, int, TilesAdded*, TraversalMode, int);
TILEGRID_INSTANTIATE_ENGINE(BinaryTraits)
TILEGRID_INSTANTIATE_ENGINE(QuinaryTraits)
#undef TILEGRID_INSTANTIATE_ENGINE

}  // namespace OST::TileTree3D
