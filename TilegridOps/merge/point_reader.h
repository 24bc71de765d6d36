#pragma once
#include "TilegridOps/sampling/interpolation.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

#include <cstddef>
#include <memory>

namespace tilegrid {

/// Reads a channel at places in world space, whatever its element type and structure and whatever the interpolation. For one
/// thread; others take a clone. Refers to what it reads.
class PointReader {
public:
    virtual ~PointReader() = default;
    /// \param values  `count` elements of the channel's type, packed
    virtual void read(Ostara::Math::float3 const* places, int count, std::byte* values) = 0;
    /// Reads at the places of a grid, quicker than one by one, with the same values.
    /// \param along  element n holds the nth coordinate on each axis; they rise
    /// \param values  count^3 elements, the place on the first axis running fastest
    /// \return false, and nothing read, if this reader cannot or would gain nothing
    virtual bool readGrid(Ostara::Math::float3 const* along, int count, std::byte* values)
    {
        (void)along, (void)count, (void)values;
        return false;
    }
    /// Whether this reader has `prolong`.
    virtual bool prolongs() const { return false; }
    /// Reads at voxels of a deeper tile of the same lattice, all in one of the channel's tiles, quicker than by places: with exact
    /// fractions, and otherwise the same arithmetic.
    /// \param source    a tile of the channel
    /// \param distance  from its low corner to that of the first voxel, in tile-space units
    /// \param width     from one voxel to the next
    /// \param values    W^3 elements, i fastest
    /// \return false, and nothing read, if this reader cannot
    virtual bool prolong(OST::TileTree3D::TreeIndex const& source, OST::TileTree3D::int3 const& distance, int width, std::byte* values)
    {
        (void)source, (void)distance, (void)width, (void)values;
        return false;
    }
    /// Bounds of what `prolong` would read from a channel of floats, made from the values that it mixes.
    /// \return false, and nothing written, if this reader cannot, or where values are not finite
    virtual bool prolongedBounds(OST::TileTree3D::TreeIndex const& source, OST::TileTree3D::int3 const& distance, int width, float& low,
                                 float& high)
    {
        (void)source, (void)distance, (void)width, (void)low, (void)high;
        return false;
    }
    virtual std::unique_ptr<PointReader> clone() const = 0;
};

/// Trilinear, from all depths of the channel. Halos of tiles beside coarser ones are made on demand.
template <class Tr, class T>
std::unique_ptr<PointReader> linearReader(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                                          OST::TileTree3D::Channel<Tr, T, Tr::width, 0> const& channel);
/// One of the cubic kernels, kept between the middle values of its stencil, and trilinear where a tile of another depth is met.
template <class Tr, class T>
std::unique_ptr<PointReader> cubicReader(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                                         OST::TileTree3D::Channel<Tr, T, Tr::width, 0> const& channel, OST::TileTree3D::CubicMode mode);

}  // namespace tilegrid
