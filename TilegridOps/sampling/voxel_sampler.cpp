#include "TilegridOps/sampling/voxel_sampler.h"

namespace OST::TileTree3D::detail {

template <class Tr> Container<Tr> const& emptyContainer()
{
    static const Container<Tr> empty("");
    return empty;
}
template TILEGRID_API Container<BinaryTraits> const& emptyContainer();
template TILEGRID_API Container<QuinaryTraits> const& emptyContainer();

}  // namespace OST::TileTree3D::detail
