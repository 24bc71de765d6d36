#include "TilegridOps/nodes/construction.h"

#include "TilegridOps/nodes/frame.h"
#include "TilegridOps/substrate/commands.h"

namespace Geometry::Volume {

namespace {

template <class Tr> Corvid::Ptr<Ostara::Object> emptyVolume(float detailSize)
{
    using namespace Ostara::Geometry;
    auto native = OST::TileTree3D::Command::createVoxelOST<Tr>(sVoxelTileTree, sVoxelComp, detailSize, OST::TileTree3D::kCorner);
    return move_ost_volume_to_object(*native);
}

}  // namespace

void create_empty_volume(float detail_size, AutoSubdivisionStructure structure, Corvid::Ptr<Ostara::Object>& volume,
                         Corvid::RuntimeServices const& services)
{
    using namespace tilegrid::nodes;
    constexpr NodeSpec const& row = nodeSpec("create_empty_volume");
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            volume = Ostara::createObject();
            return;
        }
        if (!(detail_size > kZeroTolerance)) {
            CoreGL::CorvidLogger(services).error(row.typeError);
            volume = Ostara::createObject();
            return;
        }
        switch (structure) {
            case AutoSubdivisionStructure::kAutomatic:
            case AutoSubdivisionStructure::kQuinary: volume = emptyVolume<OST::TileTree3D::QuinaryTraits>(detail_size); break;
            case AutoSubdivisionStructure::kBinary: volume = emptyVolume<OST::TileTree3D::BinaryTraits>(detail_size); break;
        }
    };
    guarded(row, services, work, [&] { volume = Ostara::createObject(); });
}

void setResolutionField(Ostara::Math::float3 const& first, Ostara::Math::float3 const& second, int resolution, ResolutionField& field)
{
    field = {first, second, resolution};
}

}  // namespace Geometry::Volume
