#pragma once
#include "TilegridOps/algorithms/surface_distance.h"
#include "TilegridOps/substrate/topology.h"

namespace tilegrid {

/// From one voxel to the next across a corner.
inline constexpr double kVoxelDiagonal = 1.7320508075688772;

/// Which places a level set is to be held at: those whose signed distance from its surface now, in world units, lies between two
/// values, and a band around.
struct BandTarget {
    float low, high;
    /// Half width of the band, in voxels of the depth that the surface nearby has. One that is wider than tile space, or infinite,
    /// acts as that wide.
    float band;
    /// How far from the band a tile with no nearer voxel still counts, and how near a surface has to come to one to pass it, both in
    /// such voxels.
    double margin = kVoxelDiagonal, near = 1;
};

/// The tiles that the surface of a level set needs, and true distances on them. It works on a copy of the tree.
template <class Tr> class TILEGRID_API LevelSetBand {
public:
    using Container = OST::TileTree3D::Container<Tr>;
    using Floats = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;

    /// Finds the surface, and the nearest point of it for every voxel. The tree and the channel stay as they are until the last
    /// call other than `writeDistances`.
    LevelSetBand(Container const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology, Floats const& levelSet,
                 OST::TileTree3D::DofChannel<Tr> const* dofs);

    bool hasSurface() const { return !surface_.empty(); }
    /// Grows the copy until it holds, at the depths that the surface has, all tiles with a place of the target, or of the way
    /// there from the surface.
    /// \param objectBytes  what the object that gets the tiles will hold for one
    /// \throws MemoryExceeded if they need more than `memoryLimit()`
    void grow(BandTarget const& target, double objectBytes);
    /// Whether a place with that distance lies at the end of the tiles of the surface's depth: what crosses there leaves them.
    bool leavesTiles(float distance) const;
    /// Whether places on both sides of that distance exist at the depths that the surface has.
    bool passes(float distance) const;

    /// Adds to `wanted` the tiles that are needed, with their ancestors: those at the surface's depth with a place of the target
    /// or less than its margin from it; the 26 neighbours of those that a surface between `target.low` and `target.high`
    /// passes; tiles without children that have nothing to do with the surface, where they are; with `keepAll` every tile of
    /// the tree.
    void collect(BandTarget const& target, bool keepAll, Container& wanted) const;

    /// Writes signed distances from the surface, in world units, to all voxels of a channel of a tree that lies in the copy
    /// but for some tiles. Tiles that the first tree had keep the side of `levelSet`'s values there, taken from `channel`; the voxels
    /// of new ones get theirs from these (`NewVoxelSides`).
    void writeDistances(Container const& tree, Floats& channel) const;

private:
    void checkBall(BandTarget const& target, double bytesPerTile) const;
    static double signedDistance(SurfaceDistances<Tr> const& distances, typename Container::Tile const& tile, int voxel,
                                 std::int32_t point, float const* old);
    float const* oldValues(OST::int64 tile, int depth) const;
    template <class Visit> void forVoxels(OST::int64 tile, int depth, Visit const& visit) const;
    std::uint32_t missingDirections(OST::int64 tile, int depth, double low, double high, double margin) const;

    Container const& tree_;
    Floats const& levelSet_;
    OST::TileTree3D::VoxelOffsetType offset_;
    double voxelSize_;
    SurfacePoints<Tr> surface_;
    Container copy_;
    Wave<Tr> wave_;
    /// Tiles of the tree at first; in the copy they have the same indices.
    std::array<OST::int64, Tr::levels> oldTiles_{};
};

extern template class LevelSetBand<OST::TileTree3D::BinaryTraits>;
extern template class LevelSetBand<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
