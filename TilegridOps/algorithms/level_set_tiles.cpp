#include "TilegridOps/algorithms/level_set_tiles.h"

#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/commands.h"
#include "TilegridOps/substrate/grading.h"
#include "TilegridOps/substrate/initialize_tile_data.h"

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr>
void changeTiles(Container<Tr>& tree, VoxelTopology<Tr>& topology, OST::Object& object, Container<Tr> const& wanted, bool removeOthers,
                 TileList<Tr>& added)
{
    tree.refine(wanted, &added, /*updateLookup*/ true);
    topology.update(tree);
    updateTilesAdded(topology, object);
    initializeTileData(tree, added, object, topology.offsetType());
    if (removeOthers) {
        std::vector<std::vector<int64>> others(Tr::levels);
        const auto accessor = wanted.tileAccessor();
        for (int depth = 0; depth < Tr::levels; ++depth)
            for (int64 n = 0; n < tree.tileCount(depth); ++n) {
                int3 const& place = tree.tile(n, depth).tijk();
                if (accessor.find(place.x, place.y, place.z, depth).depth != depth) others[std::size_t(depth)].push_back(n);
            }
        TileMoves moves;
        tree.removeTiles(others, moves, /*updateLookup*/ true);
        topology.update(tree);
        updateTilesRemoved(moves, topology, object);
    }
    tree.precomputeTileNeighbors();
}

template <class Tr> bool isGradedTree(Container<Tr> const& tree)
{
    Container<Tr> copy(tree);
    CoreGL::TileTree3D::gradeTileTree<Tr>(copy, nullptr, nullptr, 0, Tr::maxDepth);
    return copy.tileCount(-1) == tree.tileCount(-1);
}

#define TILEGRID_LEVEL_SET_TILES(Tr)                                                                                      \
    template void changeTiles(Container<Tr>&, VoxelTopology<Tr>&, OST::Object&, Container<Tr> const&, bool, TileList<Tr>&); \
    template bool isGradedTree(Container<Tr> const&);
TILEGRID_LEVEL_SET_TILES(BinaryTraits)
TILEGRID_LEVEL_SET_TILES(QuinaryTraits)

}  // namespace tilegrid
