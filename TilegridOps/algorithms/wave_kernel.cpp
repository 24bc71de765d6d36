#include "TilegridOps/algorithms/wave_kernel.h"

namespace tilegrid::wave_detail {

namespace {

template <class Tr> TILEGRID_CLONES float sweepOpen(Neighborhood<Tr>& n) { return sweep<Tr, false>(n); }
template <class Tr> TILEGRID_CLONES float sweepRestricted(Neighborhood<Tr>& n) { return sweep<Tr, true>(n); }

}  // namespace

template <class Tr> float sweepTile(Neighborhood<Tr>& n, bool restricted)
{
    return restricted ? sweepRestricted<Tr>(n) : sweepOpen<Tr>(n);
}

template float sweepTile(Neighborhood<OST::TileTree3D::BinaryTraits>&, bool);
template float sweepTile(Neighborhood<OST::TileTree3D::QuinaryTraits>&, bool);

}  // namespace tilegrid::wave_detail
