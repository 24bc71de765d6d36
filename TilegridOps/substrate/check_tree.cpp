#include "TilegridOps/substrate/container.h"

#include <set>
#include <sstream>
#include <tuple>

namespace OST::TileTree3D {

namespace {

template <class Tr> std::string nameOf(typename Container<Tr>::Tile const& tile)
{
    std::ostringstream text;
    text << "tile " << tile.index() << " of depth " << tile.depth() << " at " << tile.tijk() << ": ";
    return text.str();
}

template <class Tr>
void checkPlace(typename Container<Tr>::Tile const& tile, int depth, int64 index, std::vector<std::string>& wrong)
{
    if (!tile.valid()) wrong.push_back(nameOf<Tr>(tile) + "it is marked as a placeholder");
    if (tile.depth() != depth || tile.index() != index) wrong.push_back(nameOf<Tr>(tile) + "it does not know its own place");
    const int64 width = Tr::tileVoxelWidth(depth);
    for (int axis = 0; axis < 3; ++axis) {
        const int64 fromLow = int64(tile.tijk()[axis]) - Tr::rangeMin;
        if (fromLow < 0 || int64(tile.tijk()[axis]) + width - 1 > Tr::rangeMax) wrong.push_back(nameOf<Tr>(tile) + "it leaves tile space");
        if (fromLow % width != 0) wrong.push_back(nameOf<Tr>(tile) + "it is not aligned to its width");
    }
}

template <class Tr>
void checkLinks(Container<Tr> const& tree, typename Container<Tr>::Tile const& tile, std::vector<std::string>& wrong)
{
    const TreeIndex parentIndex = tile.parentTreeIndex();
    if (!parentIndex.valid()) {
        auto root = tree.cbeginRoots();
        while (root != tree.cendRoots() && !(root->second == tile.treeIndex())) ++root;
        if (root == tree.cendRoots())
            wrong.push_back(nameOf<Tr>(tile) + "it has no parent and is no root");
        else if (root->first != tile.voxelCoord())
            wrong.push_back(nameOf<Tr>(tile) + "it is listed as a root of another place");
        if (tile.depth() != 0) wrong.push_back(nameOf<Tr>(tile) + "its ancestors are missing");
    } else if (parentIndex.index >= tree.tileCount(parentIndex.depth)) {
        wrong.push_back(nameOf<Tr>(tile) + "its parent does not exist");
    } else {
        auto const& parent = tree.tile(parentIndex);
        if (!parent.contains(tile.tijk()))
            wrong.push_back(nameOf<Tr>(tile) + "it lies outside its parent");
        else if (!(parent.childTreeIndex(parent.childIJK(tile)) == tile.treeIndex()))
            wrong.push_back(nameOf<Tr>(tile) + "its parent does not list it");
    }
    bool any = false;
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int64 child = tile.childIndex(cell);
        if (child < 0) continue;
        any = true;
        if (tile.depth() == Tr::maxDepth || child >= tree.tileCount(tile.depth() + 1))
            wrong.push_back(nameOf<Tr>(tile) + "it lists a child that does not exist");
        else if (tree.tile(child, tile.depth() + 1).parentTreeIndex() != tile.treeIndex())
            wrong.push_back(nameOf<Tr>(tile) + "it lists a child that has another parent");
    }
    if (any == tile.isLeaf()) wrong.push_back(nameOf<Tr>(tile) + "it owns a child table without children, or has children without one");
}

}  // namespace

template <class Tr> std::vector<std::string> checkTree(Container<Tr> const& container)
{
    std::vector<std::string> wrong;
    for (int depth = 0; depth < Tr::levels; ++depth) {
        std::set<std::tuple<int, int, int>> places;
        for (int64 index = 0; index < container.tileCount(depth); ++index) {
            auto const& tile = container.tile(index, depth);
            checkPlace<Tr>(tile, depth, index, wrong);
            checkLinks(container, tile, wrong);
            if (!places.emplace(tile.tijk().x, tile.tijk().y, tile.tijk().z).second)
                wrong.push_back(nameOf<Tr>(tile) + "another tile lies at the same place");
        }
    }
    for (auto root = container.cbeginRoots(); root != container.cendRoots(); ++root)
        if (root->second.index >= container.tileCount(root->second.depth) || root->first != container.tile(root->second).voxelCoord())
            wrong.push_back("the list of roots names a tile that is not there");
    return wrong;
}

template TILEGRID_API std::vector<std::string> checkTree(Container<BinaryTraits> const&);
template TILEGRID_API std::vector<std::string> checkTree(Container<QuinaryTraits> const&);

}  // namespace OST::TileTree3D
