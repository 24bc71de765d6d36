#include "TilegridOps/host/logger.h"
#include "TilegridOps/merge/output_topology.h"
#include "TilegridOps/merge/refine_predicate.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace tilegrid {

using namespace OST::TileTree3D;

template <class Tr>
bool refineTopologyAdaptively(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode, float maxError,
                              VoxelTopology<Tr> const& topology, Container<Tr>& tree, Corvid::RuntimeServices const& services)
{
    const CombinedLevelSets levelSets = combinedLevelSets(volumes, mode);
    if (levelSets.count() == 0) return false;
    const auto timer = CoreGL::Logger::timer("Geometry::Volume::merge_volumes.refine_adaptively", &services);
    const bool talkative = CoreGL::Logger::verboseLevel() > 1;
    if (talkative) std::cout << "totalNumSamplers = " << levelSets.count() << std::endl;
    using Predicate = LevelSetRefinePredicate<Tr>;
    tree.template refine<Predicate, 0>(Predicate(levelSets, tree, topology, maxError), TreeIndex(), 0, Tr::maxDepth, nullptr,
                                       kParallelTree, Tr::maxDepth - 1);
    if (talkative) std::cout << "After refining adaptively: containerOut.voxelCount() = " << tree.voxelCount(-1) << std::endl;
    return true;
}

template bool refineTopologyAdaptively(NativeVolumes const&, Geometry::Volume::LevelSetMode, float, VoxelTopology<BinaryTraits> const&,
                                       Container<BinaryTraits>&, Corvid::RuntimeServices const&);
template bool refineTopologyAdaptively(NativeVolumes const&, Geometry::Volume::LevelSetMode, float, VoxelTopology<QuinaryTraits> const&,
                                       Container<QuinaryTraits>&, Corvid::RuntimeServices const&);

}  // namespace tilegrid
