#pragma once
#include "TilegridOps/substrate/parallel.h"
#include "io/depth_lattice.h"
#include "io/vdb_grids.h"
#include "io/volume_access.h"

#include <array>

namespace tilegrid::io {

/// The lattice of one depth: where its samples lie in a grid that holds them.
template <class Tr> struct LevelLattice : DepthLattice<Tr> {
    using DepthLattice<Tr>::DepthLattice;
    using int3 = Ostara::Math::int3;

    openvdb::Coord index(int3 const& corner) const
    {
        const int3 n = this->indexOf(corner);
        return {n.x, n.y, n.z};
    }
    /// Uniform scale, and the shift of sample 0.
    openvdb::math::Transform::Ptr transform(float voxelSize, OST::TileTree3D::VoxelOffsetType offset) const
    {
        const double h = voxelSize, width = this->width, origin = this->origin();
        auto transform = openvdb::math::Transform::createLinearTransform(width * h);
        const Ostara::Math::float3 shift = OST::TileTree3D::voxelOffset(offset);
        transform->postTranslate(
            h * openvdb::Vec3d(origin + shift.x * width, origin + shift.y * width, origin + shift.z * width));
        return transform;
    }
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
