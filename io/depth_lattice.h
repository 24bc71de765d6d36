#pragma once
#include "TilegridOps/substrate/traits.h"

#include <algorithm>

namespace tilegrid::io {

/// The voxels of one depth as a lattice of whole numbers over all of tile space, as grids of files count them.
template <class Tr> struct DepthLattice {
    using int3 = Ostara::Math::int3;
    using int64 = OST::int64;

    /// \param width  of a voxel of the depth, in tile-space units
    int depth, width;

    explicit DepthLattice(int latticeDepth) : depth(latticeDepth), width(Tr::voxelDataWidth(std::max(latticeDepth, 0)))
    {}

    /// Index of the voxel with that low corner. Tiles of every depth lie on multiples of its width from the low end of
    /// tile space.
    int3 indexOf(int3 const& corner) const { return {along(corner.x), along(corner.y), along(corner.z)}; }
    /// The low corner of a voxel inside tile space.
    int3 placeOf(int3 const& index) const
    {
        const auto at = [this](int n) { return static_cast<int>(Tr::rangeMin + (n - lowIndex()) * width); };
        return {at(index.x), at(index.y), at(index.z)};
    }

    /// Number of the first voxel of tile space along an axis, chosen so that voxel 0 lies at the origin, or across it.
    int64 lowIndex() const { return -((-int64(Tr::rangeMin) + width - 1) / width); }
    /// Number of the voxel behind the last one.
    int64 endIndex() const { return lowIndex() + tilesAcross() * Tr::width; }
    /// Tiles along an axis of tile space.
    int64 tilesAcross() const { return (int64(Tr::rangeMax) - Tr::rangeMin + 1) / (int64(width) * Tr::width); }
    /// Low corner of a tile by its number along each axis, from 0.
    int3 cornerOfTile(int3 const& number) const
    {
        const auto at = [this](int n) { return static_cast<int>(Tr::rangeMin + int64(n) * width * Tr::width); };
        return {at(number.x), at(number.y), at(number.z)};
    }
    /// Where voxel 0 has its low corner, on each axis of tile space.
    double origin() const { return double(Tr::rangeMin) - double(lowIndex()) * width; }

private:
    int along(int place) const { return static_cast<int>((int64(place) - Tr::rangeMin) / width + lowIndex()); }
};

}  // namespace tilegrid::io
