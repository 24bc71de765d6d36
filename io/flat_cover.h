#pragma once
#include "io/flat_reader.h"

#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tilegrid::io {

/// A box of a lattice, `high` exclusive.
struct LatticeBox {
    Ostara::Math::int3 low, high;
};

/// Which voxels a flat grid is to have.
template <class Tr> struct FlatDomain {
    OST::TileTree3D::Container<Tr> const& tree;
    OST::TileTree3D::VoxelOffsetType offset;
    DepthLattice<Tr> lattice;
    /// Voxels whose distance lies between `above` and `below`, both exclusive; null for all of `clip`.
    PlainChannel<Tr, float> const* distance = nullptr;
    double above = -std::numeric_limits<double>::infinity(), below = 0.0;
    LatticeBox clip = {};
    /// Makes what tells where the property is constant, one for each thread; without `distance`, voxels of the default are
    /// left out. Empty: nowhere.
    std::function<std::unique_ptr<PropertyStates>()> property = {};
    /// What a value takes in a block.
    std::size_t bytesPerValue = sizeof(float);
    /// The limit, 0 for none, and what messages call the grid.
    std::uint64_t maxBytes = 0;
    std::string name = {};
};

/// A region where the property has one value, that of the tile's voxel.
struct ConstantBox {
    LatticeBox box;
    OST::TileTree3D::TreeIndex tile;
    std::int32_t voxel;
};

/// Blocks and constant boxes that hold every voxel of a domain together. They may overlap; the values agree.
struct FlatCover {
    /// Low corners of blocks with voxels of the domain, or that may have some, each once, sorted.
    std::vector<Ostara::Math::int3> blocks;
    /// Boxes at least a block wide that lie in the domain as a whole.
    std::vector<ConstantBox> boxes;
};

/// Finds the blocks of a domain. A coarse tile is told by its samples: trilinear values lie between those at the corners of any
/// box inside a cell, so boxes are halved until they are constant, lie beyond the bounds, or fit into a block.
///
/// A cell one of whose samples is not finite or lies outside tile space has no voxel of the domain.
/// \throws InputError if the grid would take more than `maxBytes`, estimated before blocks are made
template <class Tr> FlatCover coverFlatGrid(FlatDomain<Tr> const& domain);

extern template FlatCover coverFlatGrid(FlatDomain<OST::TileTree3D::BinaryTraits> const&);
extern template FlatCover coverFlatGrid(FlatDomain<OST::TileTree3D::QuinaryTraits> const&);

}  // namespace tilegrid::io
