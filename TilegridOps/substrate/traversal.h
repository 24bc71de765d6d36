#pragma once
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/parallel.h"

#include <utility>

/// The template forms of a pass: they pack lambdas into a visitor, and the engine drives it. Lambdas are copied into every
/// clone, so shared results are captured by reference or pointer.
namespace OST::TileTree3D {

namespace detail {

/// For the parts of a pass that do nothing.
struct Nothing {
    template <class... Args> void operator()(Args&&...) const {}
};

/// Calls a lambda that may or may not return something: no value counts as true.
template <class F, class... Args> bool asked(F& f, Args&&... args)
{
    if constexpr (std::is_void_v<std::invoke_result_t<F&, Args...>>) {
        f(std::forward<Args>(args)...);
        return true;
    } else {
        return f(std::forward<Args>(args)...);
    }
}

template <class F> inline constexpr bool isNothing = std::is_same_v<F, Nothing>;

/// Calls `visit(int3)` for a cube of cells, i fastest. The whole tile is the common case, and with bounds that the compiler
/// knows it unrolls and vectorises.
template <int W, class F> void forCube(int first, int last, F visit)
{
    if (first == 0 && last == W) {
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) visit(int3(i, j, k));
    } else {
        for (int k = first; k < last; ++k)
            for (int j = first; j < last; ++j)
                for (int i = first; i < last; ++i) visit(int3(i, j, k));
    }
}

}  // namespace detail

template <class Tr>
template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel>
void Container<Tr>::traverse(BeginTraverse beginTraverse, EndTraverse endTraverse, BeginTile beginTile, EndTile endTile,
                             VisitVoxel visitVoxel, TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                             std::size_t grainSize, bool waitForAll, int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode,
                             int spawnDepth) const
{
    struct MyVisitor final : VisitorT {
        BeginTraverse begin_;
        EndTraverse end_;
        BeginTile beginTile_;
        EndTile endTile_;
        VisitVoxel visit_;
        MyVisitor(BeginTraverse b, EndTraverse e, BeginTile bt, EndTile et, VisitVoxel v)
            : begin_(std::move(b)), end_(std::move(e)), beginTile_(std::move(bt)), endTile_(std::move(et)), visit_(std::move(v))
        {
        }
        void beginTraverse() override { begin_(); }
        void endTraverse() override { end_(); }
        void beginTile(Tile const& tile) override { beginTile_(tile); }
        void endTile(Tile const& tile) override { endTile_(tile); }
        bool visitInteriorVoxel(Tile const& tile, int3 const& ijk) override { return detail::asked(visit_, tile, ijk); }
        VisitorT* clone() const override { return new MyVisitor(*this); }
        void runTiles(Tile const* tiles, int64 count, int first, int last, VisitInteriorVoxelMode) override
        {
            for (Tile const* tile = tiles; tile != tiles + count; ++tile) {
                beginTile_(*tile);
                if constexpr (!detail::isNothing<VisitVoxel>)
                    detail::forCube<Tr::width>(first, last, [&](int3 const& ijk) { visit_(*tile, ijk); });
                endTile_(*tile);
            }
        }
    };
    MyVisitor visitor(std::move(beginTraverse), std::move(endTraverse), std::move(beginTile), std::move(endTile), std::move(visitVoxel));
    traverseInternalNonInlined<Tile const&, Container const&>(&visitor, mode, start, minDepth, maxDepth, grainSize, waitForAll,
                                                              cellBegin, cellEnd, voxelMode, spawnDepth);
}

template <class Tr>
template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel>
void Container<Tr>::traverse(BeginTraverse beginTraverse, EndTraverse endTraverse, BeginTile beginTile, EndTile endTile,
                             VisitVoxel visitVoxel, TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                             std::size_t grainSize, bool waitForAll, int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode,
                             int spawnDepth)
{
    struct MyVisitor final : VisitorT {
        BeginTraverse begin_;
        EndTraverse end_;
        BeginTile beginTile_;
        EndTile endTile_;
        VisitVoxel visit_;
        MyVisitor(BeginTraverse b, EndTraverse e, BeginTile bt, EndTile et, VisitVoxel v)
            : begin_(std::move(b)), end_(std::move(e)), beginTile_(std::move(bt)), endTile_(std::move(et)), visit_(std::move(v))
        {
        }
        using VisitorT::beginTile;
        using VisitorT::endTile;
        using VisitorT::runTiles;
        using VisitorT::visitInteriorVoxel;
        void beginTraverse() override { begin_(); }
        void endTraverse() override { end_(); }
        void beginTile(Tile& tile) override { beginTile_(tile); }
        void endTile(Tile& tile) override { endTile_(tile); }
        bool visitInteriorVoxel(Tile& tile, int3 const& ijk) override { return detail::asked(visit_, tile, ijk); }
        VisitorT* clone() const override { return new MyVisitor(*this); }
        void runTiles(Tile* tiles, int64 count, int first, int last, VisitInteriorVoxelMode) override
        {
            for (Tile* tile = tiles; tile != tiles + count; ++tile) {
                beginTile_(*tile);
                if constexpr (!detail::isNothing<VisitVoxel>)
                    detail::forCube<Tr::width>(first, last, [&](int3 const& ijk) { visit_(*tile, ijk); });
                endTile_(*tile);
            }
        }
    };
    MyVisitor visitor(std::move(beginTraverse), std::move(endTraverse), std::move(beginTile), std::move(endTile), std::move(visitVoxel));
    traverseInternalNonInlined<Tile&, Container&>(&visitor, mode, start, minDepth, maxDepth, grainSize, waitForAll, cellBegin,
                                                  cellEnd, voxelMode, spawnDepth);
}

/// Lambdas: `beginTile(tile, data)`, `endTile(tile, data)`, `visitVoxel(tile, ijk, data)`, `join(Data& left, Data const& right)`.
/// `data` must be an identity of the join on entry, and holds the result afterwards.
template <class Tr>
template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel, class Join, class Data>
void Container<Tr>::reduce(BeginTraverse beginTraverse, EndTraverse endTraverse, BeginTile beginTile, EndTile endTile,
                           VisitVoxel visitVoxel, Join join, Data& data, TraversalMode mode, TreeIndex const& start, int minDepth,
                           int maxDepth, std::size_t grainSize, int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode) const
{
    struct Lambdas {
        BeginTraverse begin;
        EndTraverse end;
        BeginTile beginTile;
        EndTile endTile;
        VisitVoxel visit;
        Join join;
    };
    struct MyVisitor final : VisitorT {
        Lambdas f_;
        Data data_;
        MyVisitor(Lambdas f, Data const& data) : f_(std::move(f)), data_(data) {}
        void beginTraverse() override { f_.begin(); }
        void endTraverse() override { f_.end(); }
        void beginTile(Tile const& tile) override { f_.beginTile(tile, data_); }
        void endTile(Tile const& tile) override { f_.endTile(tile, data_); }
        bool visitInteriorVoxel(Tile const& tile, int3 const& ijk) override { return detail::asked(f_.visit, tile, ijk, data_); }
        void join(VisitorT const& right) override { f_.join(data_, static_cast<MyVisitor const&>(right).data_); }
        VisitorT* clone() const override { return new MyVisitor(*this); }
        void runTiles(Tile const* tiles, int64 count, int first, int last, VisitInteriorVoxelMode) override
        {
            for (Tile const* tile = tiles; tile != tiles + count; ++tile) {
                f_.beginTile(*tile, data_);
                if constexpr (!detail::isNothing<VisitVoxel>)
                    detail::forCube<Tr::width>(first, last, [&](int3 const& ijk) { f_.visit(*tile, ijk, data_); });
                f_.endTile(*tile, data_);
            }
        }
    };
    MyVisitor visitor({std::move(beginTraverse), std::move(endTraverse), std::move(beginTile), std::move(endTile),
                       std::move(visitVoxel), std::move(join)}, data);
    reduceInternalNonInlined<Tile const&, Container const&>(&visitor, mode, start, minDepth, maxDepth, grainSize, cellBegin, cellEnd,
                                                            voxelMode);
    data = std::move(visitor.data_);
}

/// Lambdas: `beginTile(tile, data)` loads the tile's handles, `visitVoxel(tile, ijk, data)` does one voxel. Every worker has
/// a copy of `data`.
template <class Tr>
template <class Data, class BeginTile, class VisitVoxel>
void Container<Tr>::traverseVoxels(Data const& data, BeginTile beginTile, VisitVoxel visitVoxel, TraversalMode mode,
                                   TreeIndex const& start, int minDepth, int maxDepth, std::size_t grainSize, bool waitForAll,
                                   int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode, int spawnDepth) const
{
    struct MyVisitor final : VisitorT {
        Data data_;
        BeginTile beginTile_;
        VisitVoxel visit_;
        MyVisitor(Data const& data, BeginTile bt, VisitVoxel v) : data_(data), beginTile_(std::move(bt)), visit_(std::move(v)) {}
        void beginTile(Tile const& tile) override { beginTile_(tile, data_); }
        bool visitInteriorVoxel(Tile const& tile, int3 const& ijk) override { return detail::asked(visit_, tile, ijk, data_); }
        VisitorT* clone() const override { return new MyVisitor(*this); }
        void runTiles(Tile const* tiles, int64 count, int first, int last, VisitInteriorVoxelMode) override
        {
            // Byte-sized elements alias everything: handles that live in the loop's own frame stay in registers.
            Data local = std::move(data_);
            for (Tile const* tile = tiles; tile != tiles + count; ++tile) {
                beginTile_(*tile, local);
                detail::forCube<Tr::width>(first, last, [&](int3 const& ijk) { visit_(*tile, ijk, local); });
            }
            data_ = std::move(local);
        }
    };
    MyVisitor visitor(data, std::move(beginTile), std::move(visitVoxel));
    traverseInternalNonInlined<Tile const&, Container const&>(&visitor, mode, start, minDepth, maxDepth, grainSize, waitForAll,
                                                              cellBegin, cellEnd, voxelMode, spawnDepth);
}

/// Lambdas: `beginTile(tile, tileData)`, `visitVoxel(tile, ijk, tileData, data)`, `join(Data& left, Data const& right)`.
template <class Tr>
template <class TileData, class BeginTile, class VisitVoxel, class Join, class Data>
void Container<Tr>::reduceVoxels(TileData const& tileData, BeginTile beginTile, VisitVoxel visitVoxel, Join join, Data& data,
                                 TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth, std::size_t grainSize,
                                 int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode) const
{
    struct Both {
        TileData tile;
        Data data;
    };
    Both both{tileData, data};
    reduce(
        detail::Nothing(), detail::Nothing(), [beginTile](Tile const& tile, Both& b) mutable { beginTile(tile, b.tile); },
        detail::Nothing(),
        [visitVoxel](Tile const& tile, int3 const& ijk, Both& b) mutable { visitVoxel(tile, ijk, b.tile, b.data); },
        [join](Both& left, Both const& right) mutable { join(left.data, right.data); }, both, mode, start, minDepth, maxDepth,
        grainSize, cellBegin, cellEnd, voxelMode);
    data = std::move(both.data);
}

/// Growth by `wantsChild(tile, cell) -> bool`; see `refineInternalNonInlined`. Every worker has a copy of the lambda.
template <class Tr>
template <class Lambda, int JoinVisitors>
void Container<Tr>::refine(Lambda const& wantsChild, TreeIndex const& start, int minDepth, int maxDepth, TilesAdded* tilesAdded,
                           TraversalMode mode, int spawnDepth)
{
    static_assert(JoinVisitors == 0, "growth visitors have nothing to join");
    struct MyVisitor final : VisitorT {
        Lambda wants_;
        explicit MyVisitor(Lambda const& wants) : wants_(wants) {}
        bool visitInteriorVoxel(Tile const& tile, int3 const& cell) override { return wants_(tile, cell); }
        VisitorT* clone() const override { return new MyVisitor(*this); }
    };
    MyVisitor visitor(wantsChild);
    refineInternalNonInlined(&visitor, start, minDepth, maxDepth, tilesAdded, mode, spawnDepth);
}

/// Growth whose work is a range: `addTiles(begin, end, container)` adds the tiles for a part of [begin, end) to a private
/// container that holds the root tile. Parts and the order of their joins depend on the range and the grain alone.
template <class Tr>
template <class Lambda, class Index>
void Container<Tr>::refine(Lambda const& addTiles, int64 begin, int64 end, std::size_t grain, TilesAdded* tilesAdded)
{
    struct MyReduction final : tilegrid::parallel::ReduceBody {
        Container const& owner;
        Lambda const& add;
        std::unique_ptr<Container> collected;
        MyReduction(Container const& o, Lambda const& a) : owner(o), add(a), collected(o.threadLocalContainer(0))
        {
            collected->addTile(VoxelCoord(0, 0, 0, 0));
        }
        void run(int64 first, int64 last) override { add(Index(first), Index(last), *collected); }
        std::unique_ptr<ReduceBody> split() const override { return std::make_unique<MyReduction>(owner, add); }
        void join(ReduceBody& right) override { collected->refine(*static_cast<MyReduction&>(right).collected, nullptr, false); }
    };
    MyReduction reduction(*this, addTiles);
    tilegrid::parallel::deterministicReduce(begin, end, static_cast<int64>(grain), reduction);
    tilegrid::parallel::endStage();
    refine(*reduction.collected, tilesAdded, true);
}

}  // namespace OST::TileTree3D
