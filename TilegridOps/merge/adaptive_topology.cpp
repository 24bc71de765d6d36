#include "TilegridOps/host/logger.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/merge/output_topology.h"
#include "TilegridOps/merge/refine_predicate.h"
#include "TilegridOps/substrate/traversal.h"

#include <iostream>

namespace tilegrid {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;

namespace {

template <class Tr> void addLevelSet(OST::Object const& volume, CombinedLevelSets& levelSets)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    const auto topology = volume.component<VoxelTopology<Tr>>(sVoxelComp);
    const auto channel = volume.component<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    if (tree && topology && channel) levelSets.add(*tree, *topology, *channel);
}

}  // namespace

template <class Tr>
bool refineTopologyAdaptively(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode, float maxError,
                              VoxelTopology<Tr> const& topology, Container<Tr>& tree, Corvid::RuntimeServices const& services)
{
    CombinedLevelSets levelSets(mode);
    for (auto const& volume : volumes) {
        addLevelSet<BinaryTraits>(*volume, levelSets);
        addLevelSet<QuinaryTraits>(*volume, levelSets);
    }
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
