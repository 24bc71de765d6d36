#pragma once
#include "TilegridOps/substrate/container.h"

#include <array>
#include <climits>
#include <cstdint>
#include <vector>

/// The engine that brings to every voxel, of every depth, the nearest of a set of points, over any jump of depth.
///
/// Nothing crosses depths beside a tile: voxels exchange what they know with the voxels around them at their own depth, and
/// with their ancestors, which hold a lattice of wider spacing over the same region. One run goes up to the coarsest depth and
/// back, exchanging at each depth until nothing changes: a V-cycle.
///
/// \par Source  nearest points by exchange among neighbours: Danielsson, Computer Graphics and Image Processing 14, 1980;
///      V-cycles: Brandt, Mathematics of Computation 31, 1977. A voxel only ever sees the points of its neighbours, so now and
///      then it misses the nearest one: by some hundredths of a voxel of distance far from the points, less near them, and by more
///      where voxels are coarser than the points are dense (`SurfaceDistances` looks further)
namespace tilegrid {

/// A point in tile space.
struct WavePoint {
    double x, y, z;
};

/// For each tile of a depth the tiles of the same depth around it, as one table: 27 indices by direction, -1 where none is.
template <class Tr> std::vector<std::int32_t> sameDepthNeighbors(OST::TileTree3D::Container<Tr> const& tree, int depth);

struct WaveLimits {
    int minDepth = 0, maxDepth = 0;
    /// Rounds of exchange for each depth, on the way to coarser depths and back. At least two are run; negative means any number.
    int roundsToCoarse = -1, roundsToFine = -1;
    /// In voxels of the depth: places nearer than this to a point get exchanges until nothing changes, whatever the limits.
    float band = 0.0f;
    /// In tile-space units: nothing is handed on to voxels further from their point than this and two voxels.
    double reach = 1e30;
};

/// What each voxel knows: the index of a point, or `kNone`.
template <class Tr> class TILEGRID_API Wave {
public:
    using Tile = typename OST::TileTree3D::Container<Tr>::Tile;
    static constexpr std::int32_t kNone = INT_MAX;

    /// \param tree, points  outlive the wave
    /// \param offset        where in its cell a voxel's sample lies, in voxels
    Wave(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::float3 const& offset, WaveLimits const& limits);

    /// W^3 numbers of a tile, i fastest, to be set before a run. Depths outside the limits have none.
    std::int32_t* payloads(OST::int64 tile, int depth) { return levels_[std::size_t(depth)].payloads.data() + tile * Tr::voxelCount; }
    std::int32_t const* payloads(OST::int64 tile, int depth) const { return levels_[std::size_t(depth)].payloads.data() + tile * Tr::voxelCount; }
    /// From here on only voxels with a byte that is not 0 change; at first all have one.
    void restrict();
    /// The W^3 bytes of a tile, after `restrict`.
    std::uint8_t* writable(OST::int64 tile, int depth) { return levels_[std::size_t(depth)].writable.data() + tile * Tr::voxelCount; }
    void setPoints(WavePoint const* points) { points_ = points; }

    /// The V-cycle, from what the payloads hold.
    /// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
    void run();
    /// Takes in tiles that the tree got since, or whose payloads were left at `kNone`: only the way back from the coarsest depth.
    /// \throws as above
    void extend();
    /// Of each depth the tiles that take part: those there were in the beginning or at the last `extend`; none outside the limits.
    OST::int64 tileCount(int depth) const { return OST::int64(levels_[std::size_t(depth)].neighbors.size() / 27); }
    int maxDepth() const { return limits_.maxDepth; }
    /// For each tile of a depth the tiles around it (`sameDepthNeighbors`).
    std::vector<std::int32_t> const& neighbors(int depth) const { return levels_[std::size_t(depth)].neighbors; }

private:
    struct Level {
        Slab<std::int32_t> payloads;
        std::vector<std::uint8_t> writable;
        std::vector<std::int32_t> neighbors;
        /// A byte for each tile: whether it is to be looked at, and whether it is so whatever the limits.
        std::vector<std::uint8_t> active, urgent;
    };
    struct Round;
    struct FromParent;
    void growLevel(int depth);
    void activateHolders(int depth);
    void activate(Level& level, OST::int64 tile, std::uint32_t directions, bool urgent);
    void relax(int depth, int limit);
    bool relaxRound(int depth, bool urgentOnly);
    void toCoarse(int depth);
    void toFine(int depth);

    OST::TileTree3D::Container<Tr> const& tree_;
    OST::TileTree3D::float3 offset_;
    WaveLimits limits_;
    WavePoint const* points_ = nullptr;
    bool restricted_ = false;
    std::array<Level, Tr::levels> levels_;
    Slab<std::int32_t> slots_;
};

extern template class Wave<OST::TileTree3D::BinaryTraits>;
extern template class Wave<OST::TileTree3D::QuinaryTraits>;
extern template std::vector<std::int32_t> sameDepthNeighbors(OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits> const&, int);
extern template std::vector<std::int32_t> sameDepthNeighbors(OST::TileTree3D::Container<OST::TileTree3D::QuinaryTraits> const&, int);

}  // namespace tilegrid
