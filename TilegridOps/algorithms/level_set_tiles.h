#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

namespace tilegrid {

/// Gives a volume other tiles: adds those of `wanted` that it lacks, which its channels fill by their own rule, and, if asked,
/// removes those that `wanted` lacks. Tree and topology are taken out of the object, its channels are in it.
/// \param added  receives the low corners of new tiles by depth
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
template <class Tr>
void changeTiles(OST::TileTree3D::Container<Tr>& tree, OST::TileTree3D::VoxelTopology<Tr>& topology, OST::Object& object,
                 OST::TileTree3D::Container<Tr> const& wanted, bool removeOthers, OST::TileTree3D::TileList<Tr>& added);

/// Whether tiles that touch differ by one depth at the most.
template <class Tr> bool isGradedTree(OST::TileTree3D::Container<Tr> const& tree);

extern template void changeTiles(OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits>&,
                                 OST::TileTree3D::VoxelTopology<OST::TileTree3D::BinaryTraits>&, OST::Object&,
                                 OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits> const&, bool,
                                 OST::TileTree3D::TileList<OST::TileTree3D::BinaryTraits>&);
extern template void changeTiles(OST::TileTree3D::Container<OST::TileTree3D::QuinaryTraits>&,
                                 OST::TileTree3D::VoxelTopology<OST::TileTree3D::QuinaryTraits>&, OST::Object&,
                                 OST::TileTree3D::Container<OST::TileTree3D::QuinaryTraits> const&, bool,
                                 OST::TileTree3D::TileList<OST::TileTree3D::QuinaryTraits>&);
extern template bool isGradedTree(OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits> const&);
extern template bool isGradedTree(OST::TileTree3D::Container<OST::TileTree3D::QuinaryTraits> const&);

}  // namespace tilegrid
