#pragma once
#include "TilegridOps/substrate/parallel.h"
#include "io/vdb_grids.h"
#include "io/volume_access.h"

#include <algorithm>
#include <array>

namespace tilegrid::io {

/// The lattice of one depth: where its samples lie in a grid that holds them.
template <class Tr> struct LevelLattice {
    using int3 = Ostara::Math::int3;
    using int64 = OST::int64;

    /// \param width  of a voxel of the depth, in tile-space units
    int depth, width;

    explicit LevelLattice(int levelDepth) : depth(levelDepth), width(Tr::voxelDataWidth(std::max(levelDepth, 0))) {}

    /// Index of the voxel with that low corner. Tiles of every depth lie on multiples of its width from the low end of
    /// tile space.
    openvdb::Coord index(int3 const& corner) const { return {along(corner.x), along(corner.y), along(corner.z)}; }
    /// The low corner of a voxel in tile space.
    Ostara::Math::double3 corner(openvdb::Coord const& index) const
    {
        return {origin() + double(index.x()) * width, origin() + double(index.y()) * width,
                origin() + double(index.z()) * width};
    }
    /// Uniform scale, and the shift of sample 0.
    openvdb::math::Transform::Ptr transform(float voxelSize, OST::TileTree3D::VoxelOffsetType offset) const
    {
        const double h = voxelSize;
        auto transform = openvdb::math::Transform::createLinearTransform(width * h);
        const Ostara::Math::float3 shift = OST::TileTree3D::voxelOffset(offset);
        transform->postTranslate(
            h * openvdb::Vec3d(origin() + shift.x * width, origin() + shift.y * width, origin() + shift.z * width));
        return transform;
    }

    /// Number of the first voxel of tile space along an axis, chosen so that voxel 0 lies at the origin, or across it.
    int64 lowIndex() const { return -((-int64(Tr::rangeMin) + width - 1) / width); }
    /// Tiles along an axis of tile space.
    int64 tilesAcross() const { return (int64(Tr::rangeMax) - Tr::rangeMin + 1) / (int64(width) * Tr::width); }
    /// Low corner of a tile by its number along each axis, from 0.
    int3 cornerOfTile(int3 const& number) const
    {
        const auto at = [this](int n) { return static_cast<int>(Tr::rangeMin + int64(n) * width * Tr::width); };
        return {at(number.x), at(number.y), at(number.z)};
    }

private:
    int along(int place) const { return static_cast<int>((int64(place) - Tr::rangeMin) / width + lowIndex()); }
    double origin() const { return double(Tr::rangeMin) - double(lowIndex()) * width; }
};

/// Copies the W^3 values of a tile, i fastest, out of a channel of any layout; false if it has none there. It stands
/// between channels and grids so that code for grids is made once per element type.
template <class T> using FetchTile = parallel::FunctionRef<bool(OST::TileTree3D::TreeIndex const&, T*)>;

template <class Tr, class C> auto fetchFrom(C const& channel)
{
    return [&channel](OST::TileTree3D::TreeIndex const& tile, typename C::Element* out) {
        const auto values = channel.tileData(tile);
        for (int flat = 0; values && flat < Tr::voxelCount; ++flat)
            out[flat] = values(OST::TileTree3D::cubeIndex(Tr::width, flat));
        return static_cast<bool>(values);
    };
}

}  // namespace tilegrid::io
