#pragma once
#include "TilegridOps/substrate/accessor.h"

namespace OST::TileTree3D {

/// The two tiles per axis that a stencil of four voxels around a query can touch: it starts one voxel below the query's, and
/// a tile is at least four voxels wide. Along other axes than those of the stencil there is one place.
template <class Tr> class TileNeighborhood {
public:
    /// Finds the tiles, each by one look-up but the query's own.
    /// \param tile    where the query was located; `corner` is its low corner
    /// \param voxel   of the query, -1 to W-1 per axis, counted from the tile's first
    /// \param axes    bits 0 to 2: the axes of the stencil
    void fetchTiles(ConstTileAccessor<Tr> const& accessor, TreeIndex const& tile, int3 const& corner, int3 const& voxel, int axes)
    {
        // No overflow: tile space and one tile more on either side fit 32 bits in both structures.
        const std::int32_t width = Tr::tileVoxelWidth(tile.depth);
        auto const* table = accessor.container().tileNeighbors();
        atResolutionJump_ = false;
        first_ = firstPlace(voxel, axes);
        for (int n = 0; n < 8; ++n) {
            if (n & ~axes) {
                tiles_[n] = {};
                continue;
            }
            const int3 step(first_.x + (n & 1), first_.y + (n >> 1 & 1), first_.z + (n >> 2));
            if ((step.x | step.y | step.z) == 0) {
                tiles_[n] = tile;
                continue;
            }
            if (table) {
                tiles_[n] = table->find(tile, neighborDirection(step.x, step.y, step.z));
                atResolutionJump_ |= tiles_[n].depth != tile.depth;
                continue;
            }
            const int3 at(corner.x + step.x * width, corner.y + step.y * width, corner.z + step.z * width);
            tiles_[n] = inTileSpace(at) ? accessor.find(at.x, at.y, at.z, tile.depth) : TreeIndex{};
            atResolutionJump_ |= tiles_[n].depth != tile.depth;
        }
    }

    /// The place with the lowest voxel of the stencil, in tiles from the query's: -1 or 0 per axis.
    static int3 firstPlace(int3 const& voxel, int axes)
    {
        return {-(voxel.x < (axes & 1)), -(voxel.y < (axes >> 1 & 1)), -(voxel.z < (axes >> 2 & 1))};
    }
    static bool inTileSpace(int3 const& at)
    {
        const auto inRange = [](std::int32_t v) { return v >= Tr::rangeMin && v <= Tr::rangeMax; };
        return inRange(at.x) && inRange(at.y) && inRange(at.z);
    }

    /// The same tiles seen from one of them: for a query whose places are these.
    void setFirst(int3 const& first) { first_ = first; }

    /// Number x + 2 y + 4 z: the finest tile there not deeper than the query's, (-1,-1) for none.
    TreeIndex const& operator[](int n) const { return tiles_[n]; }
    int3 const& first() const { return first_; }
    /// Whether a place, touched by the stencil or not, lacks a tile of the query's depth.
    bool atResolutionJump() const { return atResolutionJump_; }

private:
    TreeIndex tiles_[8];
    int3 first_;
    bool atResolutionJump_ = false;
};

}  // namespace OST::TileTree3D
