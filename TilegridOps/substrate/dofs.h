#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"

namespace OST::TileTree3D {

/// What a voxel's value depends on. Bits of the element type `short`.
enum DofFlag : short {
    /// The value is free.
    kDofFree = 1,
    /// The voxel has a child tile, and its value is that of the child's coincident voxel.
    kDofFromChild = 2,
    /// The voxel lies on a low face of its tile against a coarser neighbour: its value is interpolated from there.
    kDofHanging = 4,
    /// No cell that meets at the voxel has a child tile of this resolution.
    kDofRegular = 8,
    /// A hanging voxel that keeps its value all the same. Set by others only.
    kDofKeep = 32
};

template <class Tr> using DofChannel = Channel<Tr, short, Tr::width, 0>;

/// Writes the flags of every tile that the channel has. A voxel sample belongs to the tile on whose low boundary it lies, so
/// only neighbours on the low sides make it hang; a neighbour outside every tile is not a coarser one. A voxel above a child
/// whose own coincident voxel hangs is free. The flags hold until tiles are added or removed.
/// \throws std::runtime_error (OST::exceptionMessage) after the pass if the job was cancelled
template <class Tr> void computeDofs(Container<Tr> const& container, DofChannel<Tr>& dofs);

/// Computes the flags of a volume in the channel of that name, which is created if it is missing. Nothing happens if the
/// volume has no tree or no topology of this structure.
/// \throws as above
template <class Tr> void createDofs(Corvid::String const& channelName, OST::Object& volume);

#define TILEGRID_DECLARE_DOFS(Tr)                                                               \
    extern template TILEGRID_API void computeDofs(Container<Tr> const&, DofChannel<Tr>&);        \
    extern template TILEGRID_API void createDofs<Tr>(Corvid::String const&, OST::Object&);
TILEGRID_DECLARE_DOFS(BinaryTraits)
TILEGRID_DECLARE_DOFS(QuinaryTraits)
#undef TILEGRID_DECLARE_DOFS

}  // namespace OST::TileTree3D
