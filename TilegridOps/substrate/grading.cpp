#include "TilegridOps/substrate/grading.h"

#include "TilegridOps/host/logger.h"
#include "TilegridOps/substrate/neighbor_walk.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/private_tiles.h"

#include <atomic>
#include <iostream>

namespace CoreGL::TileTree3D {

namespace {

using namespace OST::TileTree3D;

// A task with its visitor costs as much as some twenty tiles of these passes.
constexpr std::size_t kGrain = 1000;

/// A neighbour of a tile that lies outside its parent: the direction from the tile, and the direction from the parent to the
/// tile of the parent's depth that holds it.
struct Crossing {
    NeighborDirection fromTile = kNeighborSelf, fromParent = kNeighborSelf;
};

/// For each child cell the crossings to different tiles of the parent's depth, in the order of directions. A tile is two
/// levels finer than a neighbour exactly if its parent has no neighbour of its own depth there, so these few stand for
/// all 26.
template <class Tr> struct CellCrossings {
    struct OfCell {
        std::array<Crossing, 7> entries{};
        int count = 0;
        /// A bit for each direction from the parent.
        std::uint32_t needed = 0;
    };
    std::array<OfCell, Tr::childCount> of{};

    constexpr CellCrossings()
    {
        for (int cell = 0; cell < Tr::childCount; ++cell)
            for (int n = 0; n < 27; ++n) {
                const int fromParent = detail::kChildSteps<Tr>.of[cell].to[n].holder;
                if (fromParent == kNeighborSelf || of[cell].needed >> fromParent & 1) continue;
                of[cell].needed |= 1u << fromParent;
                of[cell].entries[of[cell].count++] = {NeighborDirection(n), NeighborDirection(fromParent)};
            }
    }
};

template <class Tr> constexpr CellCrossings<Tr> kCrossings;

/// Calls `visit(crossing, neighbour)` for the neighbours that are two or more levels coarser than a tile of depth 2 or
/// deeper, once for each such neighbour of its parent, until it returns false.
template <class Tr, class Visit>
void visitCoarseNeighbors(Container<Tr> const& tree, NeighborWalk<Tr>& walk, typename Container<Tr>::Tile const& tile, Visit visit)
{
    auto const& parent = tree.tile(tile.parentTreeIndex());
    auto const& crossings = kCrossings<Tr>.of[NeighborWalk<Tr>::childCell(parent, tile)];
    if ((crossings.needed & ~walk.sameDepth(parent)) == 0) return;
    Surroundings const& around = walk.around(parent);
    for (int n = 0; n < crossings.count; ++n) {
        Crossing const& crossing = crossings.entries[n];
        const TreeIndex found = around[crossing.fromParent];
        if (found.valid() && found.depth < parent.depth() && !visit(crossing, found)) return;
    }
}

template <class Tr> using Walks = tilegrid::parallel::PerThread<NeighborWalk<Tr>>;

template <class Tr> NeighborWalk<Tr>& walkOfThread(Walks<Tr>& walks, Container<Tr> const& tree)
{
    return walks.local([&tree] { return std::make_unique<NeighborWalk<Tr>>(tree); });
}

/// What the pass over one depth shares. `colors` is null if colours are not in use; `working` holds the colours of the depth
/// as they were, so that marks do not change which tiles the pass visits.
template <class Tr> struct DepthPass {
    Container<Tr> const& tree;
    int depth;
    std::vector<TileColor>* colors;
    std::vector<TileColor> working;
    Walks<Tr> walks;

    DepthPass(Container<Tr> const& t, int d, std::vector<TileColor>* c) : tree(t), depth(d), colors(c)
    {
        if (colors) working = colors[depth];
    }
};

/// Workers store nothing but 1, so the order of their marks does not matter.
void mark(TileColor& color)
{
    std::atomic_ref(color.touched).store(1, std::memory_order_relaxed);
}

/// Places in the order in which they were met. A private container holds them only at the end, once for all workers: it would
/// be joined with its whole path to the root again and again, and the order of its tiles is the same.
template <class Tr> class GradingVisitor final : public Container<Tr>::VisitorT {
public:
    using Base = typename Container<Tr>::VisitorT;
    using typename Base::Tile;
    using Base::beginTile;
    using Base::runTiles;

    explicit GradingVisitor(DepthPass<Tr>& pass) : pass_(pass) {}
    /// Places at which a tile of the next coarser depth is wanted, some more than once.
    std::vector<int3> const& wanted() const { return wanted_; }

    void beginTile(Tile const& tile) override { grade(tile, walkOfThread(pass_.walks, pass_.tree)); }
    void runTiles(Tile const* tiles, int64 count, int, int, VisitInteriorVoxelMode) override
    {
        NeighborWalk<Tr>& walk = walkOfThread(pass_.walks, pass_.tree);
        for (int64 n = 0; n < count; ++n) grade(tiles[n], walk);
    }
    void join(Base const& right) override
    {
        auto const& other = static_cast<GradingVisitor const&>(right).wanted_;
        wanted_.insert(wanted_.end(), other.begin(), other.end());
    }
    Base* clone() const override { return new GradingVisitor(pass_); }

private:
    void grade(Tile const& tile, NeighborWalk<Tr>& walk)
    {
        if (pass_.colors && !pass_.working[std::size_t(tile.index())].touched) return;
        visitCoarseNeighbors(pass_.tree, walk, tile, [&](Crossing const& crossing, TreeIndex const&) {
            want(tile, crossing);
            return true;
        });
        if (pass_.colors) markNeighbors(tile, walk);
    }
    /// Children of one parent want the same tiles.
    void want(Tile const& tile, Crossing const& crossing)
    {
        const int64 parent = tile.parentTreeIndex().index;
        if (parent != lastParent_) wantedAround_ = 0;
        lastParent_ = parent;
        if (wantedAround_ >> crossing.fromParent & 1) return;
        wantedAround_ |= 1u << crossing.fromParent;
        // The neighbour is inside tile space, so this sum is too.
        wanted_.push_back(tile.tijk() + tile.tileVoxelWidth() * neighborOffset(crossing.fromTile));
    }
    /// Tiles beside a touched one may have lost their grading to it.
    void markNeighbors(Tile const& tile, NeighborWalk<Tr>& walk)
    {
        const int depth = pass_.depth;
        for (int n = 0; n < 27; ++n) {
            if (n == kNeighborSelf) continue;
            const TreeIndex found = walk.treeIndexNeighbor(tile, NeighborDirection(n));
            if (!found.valid() || found.depth < depth - 1) continue;
            if (found.depth < depth)
                mark(pass_.colors[found.depth][std::size_t(found.index)]);
            else if (!pass_.colors[depth][std::size_t(found.index)].touched)
                mark(pass_.colors[depth - 1][std::size_t(pass_.tree.tile(found).parentTreeIndex().index)]);
        }
    }
    DepthPass<Tr>& pass_;
    std::vector<int3> wanted_;
    int64 lastParent_ = -1;
    std::uint32_t wantedAround_ = 0;
};

/// New tiles, which lie at the end of their depths, are touched.
template <class Tr> void growColors(Container<Tr> const& tree, std::vector<TileColor>* colors)
{
    for (int depth = 0; depth < Tr::levels; ++depth)
        if (colors[depth].size() < std::size_t(tree.tileCount(depth))) colors[depth].resize(std::size_t(tree.tileCount(depth)), {1, 0});
}

/// Looks at the tiles of one depth and adds what they need. \return whether it added a tile
template <class Tr> bool gradeDepth(Container<Tr>& tree, TileList<Tr>* tilesAdded, std::vector<TileColor>* colors, int depth)
{
    DepthPass<Tr> pass(tree, depth, colors);
    GradingVisitor<Tr> visitor(pass);
    using Tile = typename Container<Tr>::Tile;
    tree.template reduceInternalNonInlined<Tile const&, Container<Tr> const&>(&visitor, kByLevel, TreeIndex(), depth, depth, kGrain, 0,
                                                                               Tr::branching, kChildCells);
    if (visitor.wanted().empty()) return false;
    PrivateTiles<Tr> wanted(tree);
    for (int3 const& place : visitor.wanted()) wanted.add(place, depth - 1);
    wanted.addTo(tree, tilesAdded, /*updateLookup*/ false);
    if (colors) growColors(tree, colors);
    return true;
}

}  // namespace

template <class Tr>
void gradeTileTree(Container<Tr>& tree, TileList<Tr>* tilesAdded, std::vector<TileColor>* colors, int minDepth, int maxDepth)
{
    const auto timer = CoreGL::Logger::timer("Fluids::coarsenRefine.grade_tile_tree", nullptr);
    // A tile of depth 1 has no neighbour that is two levels coarser.
    const int stop = std::max(std::min(minDepth, Tr::maxDepth) + 1, 2);
    if (colors) growColors(tree, colors);
    bool changed = false;
    // Finest first: tiles added at depth d - 1 are looked at in the next round.
    for (int depth = std::min(maxDepth, Tr::maxDepth); depth >= stop; --depth)
        if (gradeDepth(tree, tilesAdded, colors, depth)) changed = true;
    if (changed) tree.refine(Container<Tr>(tree.name(), tree.voxelSize()), nullptr, /*updateLookup*/ false);
}

namespace {

template <class Tr> class GradedCheck final : public Container<Tr>::VisitorT {
public:
    using Base = typename Container<Tr>::VisitorT;
    using typename Base::Tile;
    using Base::beginTile;
    using Base::runTiles;

    GradedCheck(Container<Tr> const& tree, Walks<Tr>& walks, int minDepth) : tree_(tree), walks_(walks), minDepth_(minDepth) {}
    std::optional<GradingFault> const& first() const { return first_; }

    void beginTile(Tile const& tile) override { check(tile, walkOfThread(walks_, tree_)); }
    void runTiles(Tile const* tiles, int64 count, int, int, VisitInteriorVoxelMode) override
    {
        NeighborWalk<Tr>& walk = walkOfThread(walks_, tree_);
        for (int64 n = 0; n < count && !first_; ++n) check(tiles[n], walk);
    }
    void join(Base const& right) override
    {
        if (!first_) first_ = static_cast<GradedCheck const&>(right).first_;
    }
    Base* clone() const override { return new GradedCheck(tree_, walks_, minDepth_); }

private:
    void check(Tile const& tile, NeighborWalk<Tr>& walk)
    {
        if (first_ || tile.depth() < 2) return;
        visitCoarseNeighbors(tree_, walk, tile, [&](Crossing const& crossing, TreeIndex const& neighbor) {
            if (neighbor.depth < minDepth_) return true;
            first_ = GradingFault{tile.treeIndex(), neighbor, crossing.fromTile};
            return false;
        });
    }
    Container<Tr> const& tree_;
    Walks<Tr>& walks_;
    int minDepth_;
    std::optional<GradingFault> first_;
};

template <class Tile> std::ostream& writePlace(std::ostream& out, Tile const& tile)
{
    return out << tile.tijk().x << ", " << tile.tijk().y << ", " << tile.tijk().z;
}

}  // namespace

template <class Tr> std::optional<GradingFault> findGradingFault(Container<Tr> const& tree, int minDepth, int maxDepth)
{
    using Tile = typename Container<Tr>::Tile;
    Walks<Tr> walks;
    GradedCheck<Tr> check(tree, walks, minDepth);
    tree.template reduceInternalNonInlined<Tile const&, Container<Tr> const&>(&check, kTreeSerialOrder, TreeIndex(), minDepth, maxDepth, kGrain,
                                                                               0, Tr::branching, kChildCells);
    return check.first();
}

template <class Tr> bool isGraded(Container<Tr> const& tree, int minDepth, int maxDepth)
{
    const auto fault = findGradingFault(tree, minDepth, maxDepth);
    if (!fault) return true;
    auto const &tile = tree.tile(fault->tile), &neighbor = tree.tile(fault->neighbor);
    writePlace(std::cerr << "tile ", tile) << " at depth " << tile.depth() << " is not graded in direction " << fault->direction << std::endl;
    writePlace(std::cerr << " - The neighbor ", neighbor) << " is at depth " << neighbor.depth() << std::endl;
    return false;
}

#define TILEGRID_INSTANTIATE_GRADING(Tr)                                                                                    \
    template TILEGRID_API void gradeTileTree(Container<Tr>&, TileList<Tr>*, std::vector<TileColor>*, int, int);              \
    template TILEGRID_API std::optional<GradingFault> findGradingFault(Container<Tr> const&, int, int);                      \
    template TILEGRID_API bool isGraded(Container<Tr> const&, int, int);
TILEGRID_INSTANTIATE_GRADING(BinaryTraits)
TILEGRID_INSTANTIATE_GRADING(QuinaryTraits)
#undef TILEGRID_INSTANTIATE_GRADING

}  // namespace CoreGL::TileTree3D
