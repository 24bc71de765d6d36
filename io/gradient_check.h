#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "io/check.h"

namespace tilegrid::io {

/// The gradient part of `checkVolume`.
template <class Tr>
std::vector<GradientCheck> measureGradient(OST::TileTree3D::Container<Tr> const& tree,
                                           OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const& distance);

}  // namespace tilegrid::io
