#pragma once
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/substrate/component.h"
#include "TilegridOps/substrate/slab.h"
#include "TilegridOps/substrate/tile.h"
#include "TilegridOps/substrate/tile_lookup.h"
#include "TilegridOps/substrate/tile_neighbors.h"
#include "TilegridOps/substrate/visitor.h"

#include <array>
#include <atomic>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace OST::Dense1D {

/// A fixed number of values.
template <class T, int N> class FixedArray {
public:
    static constexpr int count = N;
    T& operator[](int i) { return values_[i]; }
    T const& operator[](int i) const { return values_[i]; }
    constexpr int size() const { return N; }
    auto begin() { return values_.begin(); }
    auto end() { return values_.end(); }
    auto begin() const { return values_.begin(); }
    auto end() const { return values_.end(); }
    friend bool operator==(FixedArray const&, FixedArray const&) = default;

private:
    std::array<T, N> values_{};
};

}  // namespace OST::Dense1D

namespace OST::TileTree3D {

template <class Tr> class ConstTileAccessor;
template <class Tr> class TILEGRID_API TileAccessor;

/// Per depth, the low corners of tiles.
template <class Tr> using TileList = Dense1D::FixedArray<Corvid::Array<int3>, Tr::levels>;

/// Child tables of one depth: addresses stay while the depth lives.
template <int C> class ChildTableArena {
public:
    /// A table of C entries, all -1.
    int64* add();
    std::size_t usedBytes() const { return tables_ * C * sizeof(int64); }
    std::size_t reservedBytes() const { return reserved_ * C * sizeof(int64); }

private:
    std::vector<std::unique_ptr<int64[]>> chunks_;
    std::size_t tables_ = 0, reserved_ = 0, lastChunk_ = 0;
};

/// A forest of tiles. Tiles of one depth are stored in index order; growth appends, so that indices stay, and only
/// `removeTiles` and `sortIntoMortonOrder` change them. Every tile of depth above 0 has its parent.
///
/// Reading is safe from many threads; a structural change is made by one thread with no reader. It invalidates references
/// to tiles, but neither their indices nor accessors.
template <class Tr> class TILEGRID_API Container final : public Component {
public:
    using Traits = Tr;
    using Tile = TileTree3D::Tile<Tr, Tr::childCount>;
    using VisitorT = Visitor<Container>;
    using ConstTileAccessor = TileTree3D::ConstTileAccessor<Tr>;
    using TileAccessor = TileTree3D::TileAccessor<Tr>;
    using TilesAdded = TileList<Tr>;
    using RootMap = std::map<VoxelCoord, TreeIndex>;

    /// \param voxelSize world size of a voxel of the finest depth
    explicit Container(Corvid::String const& name, float voxelSize = 1.0f);
    Container(Container const& other);
    Container& operator=(Container const&) = delete;
    ~Container() override;

    // Component
    void dump(std::ostream& out) const override;
    void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const override;
    void copyTo(Corvid::Ptr<OST::Component>& copy) const override;
    /// Number of tiles.
    std::size_t size() const override { return static_cast<std::size_t>(tileCount(-1)); }
    bool empty() const override { return tileCount(-1) == 0; }
    /// Adds the tiles of `source`, if it is a container of the same structure.
    void update(OST::Component const& source) override;
    int64 elementCount(int depth) const override { return voxelDataCount(depth); }
    std::int32_t elementCount(TreeIndex const& tile) const override;
    int64 tileCount(int depth) const override;

    // Tiles. An index that does not exist is the caller's error (asserted), except where told.
    Tile const& tile(TreeIndex const& index) const { return tile(index.index, index.depth); }
    Tile const& tile(int64 index, int depth) const { return level_[depth].tiles[index]; }
    /// By running number over all depths, 0 to tileCount(-1) - 1, depth 0 first.
    Tile const& tile(int64 flat) const;
    Tile& tile(TreeIndex const& index) { return tile(index.index, index.depth); }
    Tile& tile(int64 index, int depth) { return level_[depth].tiles[index]; }
    /// Whether the tree has this tile under its index, itself or another's copy of it.
    bool holds(Tile const& tile) const
    {
        if (tile.depth() < 0 || uint64(tile.index()) >= level_[tile.depth()].tiles.size()) return false;
        Tile const& own = level_[tile.depth()].tiles[tile.index()];
        return &own == &tile || own.tijk() == tile.tijk();
    }
    /// The tile that stands for a place outside the tree: `valid()` is false, depth and index are -1.
    static Tile const& outsideTile();
    typename RootMap::const_iterator cbeginRoots() const { return roots_.cbegin(); }
    typename RootMap::const_iterator cendRoots() const { return roots_.cend(); }

    // Measures
    /// World size of a voxel of the finest depth.
    float voxelSize() const { return voxelSize_; }
    void setVoxelSize(float size) { voxelSize_ = size; }
    /// The structure's finest depth, whatever depths are in use.
    static constexpr int maxDepth() { return Tr::maxDepth; }
    /// The deepest depth that holds a tile, -1 if there is none.
    int deepestDepth() const;
    static constexpr int tileVoxelWidth(int depth) { return Tr::tileVoxelWidth(depth); }
    /// Voxels without those whose child cell has a child: the voxels that show the volume. Depth -1 means all.
    int64 voxelCount(int depth) const;
    /// Voxels stored: tiles times W^3. Depth -1 means all.
    int64 voxelDataCount(int depth) const { return tileCount(depth) * Tr::voxelCount; }
    /// The error tolerance that the tree was refined for, relative to the voxel size; 0 if it was not.
    float maxRelativeRefinementError() const { return maxRelativeRefinementError_; }
    void setMaxRelativeRefinementError(float error) { maxRelativeRefinementError_ = error; }

    /// From here on growth beyond that many tiles throws `tilegrid::MemoryExceeded`, for a tile that takes `bytesPerTile`; see
    /// `TileBudget`. Private containers take the limit over, copies do not.
    void limitTiles(int64 most, double bytesPerTile);

    // Space
    /// Box of all tiles of the deepest depth in use, inclusive; empty box for an empty tree.
    void tileSpaceBounds(Ostara::Math::bbox<int3, int>& box) const;
    /// The same in world space, to the far faces of the tiles.
    void worldSpaceBounds(Ostara::Math::bbox<double3, double>& box) const;
    float3 toWorldSpace(float3 const& tileSpace) const { return voxelSize_ * tileSpace; }
    float3 toTileSpace(float3 const& world) const;
    /// No place of tile space lies further than this from another one along an axis.
    static constexpr int64 tileSpaceMaxTileDistance() { return int64(Tr::rangeMax) - Tr::rangeMin; }

    // Structure
    /// Adds all tiles of `other` that are missing, and lists them by depth (appended to `tilesAdded`, if given). They lie
    /// behind the tiles that are here, in the order of `other`. `updateLookup` false leaves the lookup structures to the
    /// next use.
    void refine(Container const& other, TilesAdded* tilesAdded, bool updateLookup);
    /// Removes tiles with all their descendants; the rest keeps its order.
    /// \param tiles  by depth, in any order; receives the full ascending list of what was removed
    /// \param moves  receives the index moves of the tiles that remain
    void removeTiles(std::vector<std::vector<int64>>& tiles, TileMoves& moves, bool updateLookup);
    /// Orders the tiles of every depth by Morton order. Channels follow by `updateTilesPermuted` with `permutation`.
    void sortIntoMortonOrder(TilePermutation* permutation = nullptr);

    // Thread-private growth
    /// A new empty container of the same structure and voxel size, for one worker to collect tiles in.
    Container* threadLocalContainer(int minDepth) const;
    void freeThreadLocalContainer(Container* container) const;

    // Accessors, one per thread (accessor.h)
    ConstTileAccessor tileAccessor() const;
    TileAccessor tileAccessor();

    /// The finest tile not deeper than `depth` that contains the place; (-1,-1) outside every tile. Walks from `hint`, which
    /// may be any tile or none: quick near the hint, else one step per depth. Accessors know a shorter way.
    TreeIndex find(int i, int j, int k, int depth, TreeIndex hint = {}) const;
    /// The lookup structures, brought up to date with the tree. Null if they cannot serve it, or in a private container, which
    /// grows too often for them.
    TileLookup<Tr> const* lookup() const;
    /// Rises with every change of tiles.
    uint64 version() const { return version_; }

    // Neighbour tables (tile_neighbors.h). They cost memory beside the tree and hold until its next change; queries are right
    // without them. Made by one thread, in parallel; other threads may go on reading. With the cancellation test of a stage.
    /// Lets accessors answer neighbour queries by a load.
    void precomputeTileNeighbors();
    /// Lets `computeHalo` find neighbours by a load. Writes two lines to standard output at a verbose level above 1.
    void precomputeCompressedTileHalos();
    /// The tables if they describe the tree as it is, else null.
    TileNeighbors<Tr> const* tileNeighbors() const { return neighbors_.describes(version_) ? &neighbors_ : nullptr; }
    HighNeighbors<Tr> const* highNeighbors() const { return highNeighbors_.describes(version_) ? &highNeighbors_ : nullptr; }

    // The traversal engine. Meaning of the arguments: `start` (-1,-1) for the whole tree or the root of a subtree; depths
    // inclusive; [cellBegin, cellEnd) the range per axis of `visitInteriorVoxel`. `grainSize` is a lower bound for the tiles
    // of a task. `spawnDepth` and `waitForAll` are hints that this engine does not need: it shares out tiles by index, and a
    // pass that returned before its end would make results depend on the schedule. Ends with the cancellation test.
    template <class TileRef, class ContainerRef>
    void traverseInternalNonInlined(VisitorT* visitor, TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                                    std::size_t grainSize, bool waitForAll, int cellBegin, int cellEnd,
                                    VisitInteriorVoxelMode voxelMode, int spawnDepth) const;
    /// Runs clones of the visitor over the tiles in order of (depth, index) and joins them from left to right in a tree that
    /// depends on the number of tiles alone, so that results do not depend on the threads.
    template <class TileRef, class ContainerRef>
    void reduceInternalNonInlined(VisitorT* visitor, TraversalMode mode, TreeIndex const& start, int minDepth, int maxDepth,
                                  std::size_t grainSize, int cellBegin, int cellEnd, VisitInteriorVoxelMode voxelMode) const;
    /// Growth: asks `visitInteriorVoxel` of every tile in range for each child cell, and descends where it says yes, into the
    /// child that is there or into one that will be added. The tree changes only after all were asked; new tiles lie
    /// behind the old ones in Morton order. A tile not yet in the tree is seen with the index that it will have.
    void refineInternalNonInlined(VisitorT* visitor, TreeIndex const& start, int minDepth, int maxDepth, TilesAdded* tilesAdded,
                                  TraversalMode mode, int spawnDepth);

    // Template forms (traversal.h)
    template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel>
    void traverse(BeginTraverse, EndTraverse, BeginTile, EndTile, VisitVoxel, TraversalMode = kParallelTree, TreeIndex const& = {},
                  int minDepth = 0, int maxDepth = Tr::maxDepth, std::size_t grainSize = 1, bool waitForAll = true,
                  int cellBegin = 0, int cellEnd = Tr::branching, VisitInteriorVoxelMode = kChildCells,
                  int spawnDepth = Tr::maxDepth - 3) const;
    template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel>
    void traverse(BeginTraverse, EndTraverse, BeginTile, EndTile, VisitVoxel, TraversalMode = kParallelTree, TreeIndex const& = {},
                  int minDepth = 0, int maxDepth = Tr::maxDepth, std::size_t grainSize = 1, bool waitForAll = true,
                  int cellBegin = 0, int cellEnd = Tr::branching, VisitInteriorVoxelMode = kChildCells,
                  int spawnDepth = Tr::maxDepth - 3);
    template <class BeginTraverse, class EndTraverse, class BeginTile, class EndTile, class VisitVoxel, class Join, class Data>
    void reduce(BeginTraverse, EndTraverse, BeginTile, EndTile, VisitVoxel, Join, Data& data, TraversalMode = kByLevel,
                TreeIndex const& = {}, int minDepth = 0, int maxDepth = Tr::maxDepth, std::size_t grainSize = 50,
                int cellBegin = 0, int cellEnd = Tr::branching, VisitInteriorVoxelMode = kChildCells) const;
    template <class Data, class BeginTile, class VisitVoxel>
    void traverseVoxels(Data const& data, BeginTile, VisitVoxel, TraversalMode = kParallelTree, TreeIndex const& = {},
                        int minDepth = 0, int maxDepth = Tr::maxDepth, std::size_t grainSize = 1, bool waitForAll = true,
                        int cellBegin = 0, int cellEnd = Tr::width, VisitInteriorVoxelMode = kVoxels,
                        int spawnDepth = Tr::maxDepth - 3) const;
    template <class TileData, class BeginTile, class VisitVoxel, class Join, class Data>
    void reduceVoxels(TileData const& tileData, BeginTile, VisitVoxel, Join, Data& data, TraversalMode = kByLevel,
                      TreeIndex const& = {}, int minDepth = 0, int maxDepth = Tr::maxDepth, std::size_t grainSize = 50,
                      int cellBegin = 0, int cellEnd = Tr::width, VisitInteriorVoxelMode = kVoxels) const;
    template <class Lambda, int JoinVisitors>
    void refine(Lambda const& wantsChild, TreeIndex const& start, int minDepth, int maxDepth, TilesAdded* tilesAdded,
                TraversalMode mode = kParallelTree, int spawnDepth = Tr::maxDepth - 1);
    template <class Lambda, class Index>
    void refine(Lambda const& addTiles, int64 begin, int64 end, std::size_t grain, TilesAdded* tilesAdded);

protected:
    friend class TileTree3D::TileAccessor<Tr>;
    template <class T> friend class Growth;
    template <class T> friend std::vector<std::string> checkTree(Container<T> const& container);

    /// The tile of that depth which contains the place, added with its missing ancestors; (-1,-1) outside tile space.
    TreeIndex addTile(VoxelCoord const& place, TreeIndex hint = {});

private:
    static constexpr int64 kNoLimit = std::numeric_limits<int64>::max();
    struct Level {
        tilegrid::Slab<Tile> tiles;
        ChildTableArena<Tr::childCount> tables;
    };
    TreeIndex addRoot(int3 const& corner, int depth);
    TreeIndex addChild(TreeIndex const& parent, int cell);
    /// Entry of a parent's child table, which the parent gets if it has none.
    int64& childEntry(TreeIndex const& parent, int cell);
    /// Before a tile is added to a depth that has `tiles` now.
    void checkCapacity(int64 tiles) const;
    /// Throws if the limit does not hold that many tiles more.
    void checkLimit(int64 more) const
    {
        if (more > tilesLeft_) refuseTiles();
    }
    [[noreturn]] void refuseTiles() const;
    void countTile()
    {
        checkLimit(1);
        if (tilesLeft_ != kNoLimit) --tilesLeft_;
    }
    /// After a change of tiles: the lookup follows now, or at its next use.
    void tilesChanged(bool updateLookup);

    std::array<Level, Tr::levels> level_;
    RootMap roots_;
    float voxelSize_;
    float maxRelativeRefinementError_ = 0.0f;
    uint64 version_ = 0;
    /// Threads that need the lookup at the same time build it once.
    mutable std::mutex lookupMutex_;
    mutable std::atomic<bool> lookupCurrent_{false};
    mutable TileLookup<Tr> lookup_;
    TileNeighbors<Tr> neighbors_;
    HighNeighbors<Tr> highNeighbors_;
    bool isPrivate_ = false;
    /// Tiles that may still be added, counted down as they are, while there is a limit.
    int64 tilesLeft_ = kNoLimit;
    int64 mostTiles_ = kNoLimit;
    double bytesPerTile_ = 0;
};

extern template class Container<BinaryTraits>;
extern template class Container<QuinaryTraits>;

/// Everything that must hold of a tree, one line per violation: links both ways, alignment, containment, no duplicates,
/// ancestors, roots. Empty if all is well. Serial; for tests and debug builds.
template <class Tr> std::vector<std::string> checkTree(Container<Tr> const& container);
extern template TILEGRID_API std::vector<std::string> checkTree(Container<BinaryTraits> const&);
extern template TILEGRID_API std::vector<std::string> checkTree(Container<QuinaryTraits> const&);

/// Rounds a place of tile space given in float down to integers. False, and nothing written, for NaN, infinities and
/// places outside the range of the structure.
template <class Tr> bool tileSpaceIndex(float3 const& place, int3& index)
{
    int3 result;
    for (int axis = 0; axis < 3; ++axis) {
        const double v = std::floor(double(place[axis]));
        if (!(v >= double(Tr::rangeMin) && v <= double(Tr::rangeMax))) return false;
        result[axis] = static_cast<std::int32_t>(v);
    }
    index = result;
    return true;
}

}  // namespace OST::TileTree3D
