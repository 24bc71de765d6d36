#include "TilegridOps/nodes/grading.h"

#include "TilegridOps/host/job.h"
#include "TilegridOps/nodes/frame.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/initialize_tile_data.h"
#include "TilegridOps/substrate/memory_budget.h"

namespace Geometry::Volume {

namespace {

using namespace OST::TileTree3D;
using namespace tilegrid::nodes;
using Corvid::Ptr;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

template <class Tr> void gradeVolume(OST::Object& volume)
{
    auto tree = volume.extractComponent<Container<Tr>>(sVoxelTileTree);
    if (!tree) return;
    if (auto topology = volume.extractComponent<VoxelTopology<Tr>>(sVoxelComp)) {
        TileList<Tr> added;
        {
            const tilegrid::TileBudget<Tr> budget(*tree, tilegrid::tileBytes<Tr>(volume));
            CoreGL::TileTree3D::gradeTileTree<Tr>(*tree, &added, nullptr, 0, Tr::maxDepth);
        }
        topology->update(*tree);
        updateTilesAdded(*topology, volume);
        initializeTileData(*tree, added, volume, topology->offsetType());
        tree->precomputeTileNeighbors();
        volume.putComponent(std::move(topology));
    }
    volume.putComponent(std::move(tree));
}

bool isVolume(Ptr<Ostara::Object> const& object)
{
    return object && Ostara::Object::isA(*object, *Ostara::Geometry::getVolumePrototype());
}

}  // namespace

void grade_volume(Ptr<Ostara::Object>& volume, Corvid::RuntimeServices const& services)
{
    constexpr NodeSpec const& row = nodeSpec("grade_volume");
    const auto work = [&] {
        if (Corvid::isJobCancelled()) {
            volume = Ostara::createObject();
            return;
        }
        if (!isVolume(volume)) return services.logError(row.typeError);
        auto native = Ostara::Geometry::move_object_to_ost_volume(*Corvid::toMutable(volume));
        if (!native) return;
        gradeVolume<BinaryTraits>(*native);
        gradeVolume<QuinaryTraits>(*native);
        checkVolume(*native, row.name);
        volume = Ostara::Geometry::move_ost_volume_to_object(*native);
    };
    guarded(row, services, work, [&] { volume = Ostara::createObject(); });
}

void validate_volume(Ptr<Ostara::Object> volume, Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)
{
    const tilegrid::Job::Scope scope(services.job() ? services.job() : tilegrid::Job::current());
    if (!Corvid::isJobCancelled() && isVolume(volume))
        output = Corvid::toMutable(volume);
    else
        output = Ostara::createObject();
}

}  // namespace Geometry::Volume
