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
