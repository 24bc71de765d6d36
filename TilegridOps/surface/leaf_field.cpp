#include "TilegridOps/surface/leaf_field.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

/// Of two numbers of one sign the mix has that sign, rounding included; at the ends it is the number itself.
double mix(double low, double high, double fraction) { return (1 - fraction) * low + fraction * high; }

}  // namespace

template <class Tr> float valueBeyond(Container<Tr> const& tree, LevelSet<Tr> const& levelSet)
{
    const int deepest = std::min(tree.deepestDepth(), levelSet.depth());
    const TreeIndex tile = tree.find(Tr::rangeMin, Tr::rangeMin, Tr::rangeMin, deepest);
    const auto values = tile.valid() ? levelSet.tileData(tile) : typename LevelSet<Tr>::ConstTileDataT();
    return values ? values(0) : levelSet.defaultValue();
}

template <class Tr>
LeafField<Tr>::LeafField(Container<Tr> const& tree, LevelSet<Tr> const& levelSet) :
    tree_(&tree), levelSet_(&levelSet), accessor_(tree), deepest_(std::min(tree.deepestDepth(), levelSet.depth())),
    slots_(kSlots)
{
    const auto constant = [](float value) { return Value{value, std::fabs(value)}; };
    beyond_ = constant(valueBeyond(tree, levelSet));
    unset_ = constant(levelSet.defaultValue());
}

template <class Tr> typename LeafField<Tr>::Value LeafField<Tr>::at(int3 const& node)
{
    Slot& slot = slots_[hashOf(node) % kSlots];
    if (slot.used && slot.node == node) return slot.value;
    const Value value = evaluated(node);  // may use the slot in between
    slot = {node, true, value};
    return value;
}

template <class Tr> TreeIndex LeafField<Tr>::leafTile(int3 const& place) const
{
    for (int axis = 0; axis < 3; ++axis)
        if (place[axis] < Tr::rangeMin || place[axis] > Tr::rangeMax) return {};
    return accessor_.find(place.x, place.y, place.z, deepest_);
}

template <class Tr> int3 LeafField<Tr>::cellCorner(TreeIndex const& tile, int3 const& place) const
{
    const int width = Tr::voxelDataWidth(tile.depth);
    int3 corner = tree_->tile(tile).tijk();
    for (int axis = 0; axis < 3; ++axis) corner[axis] += (place[axis] - corner[axis]) / width * width;
    return corner;
}

template <class Tr> int LeafField<Tr>::cellNumber(TreeIndex const& tile, int3 const& place) const
{
    const int width = Tr::voxelDataWidth(tile.depth);
    int3 const& low = tree_->tile(tile).tijk();
    return flatIndex(Tr::width, (place.x - low.x) / width, (place.y - low.y) / width, (place.z - low.z) / width);
}

template <class Tr> typename LeafField<Tr>::Value LeafField<Tr>::evaluated(int3 const& node)
{
    TreeIndex coarsest;
    int3 place;
    for (int octant = 0; octant < 8; ++octant) {
        const int3 p{node.x - (octant & 1), node.y - (octant >> 1 & 1), node.z - (octant >> 2)};
        const TreeIndex tile = leafTile(p);
        if (!tile.valid()) return beyond_;
        if (coarsest.valid() && tile.depth >= coarsest.depth) continue;
        coarsest = tile;
        place = p;
    }
    if (coarsest.depth < levelSet_->minDepth()) return unset_;
    const int width = Tr::voxelDataWidth(coarsest.depth);
    const int3 low = cellCorner(coarsest, place);
    if ((node.x - low.x) % width || (node.y - low.y) % width || (node.z - low.z) % width) return mixed(low, width, node);
    // All cells around the node have this depth or more, so that a tile of this depth has the node for a voxel.
    const TreeIndex tile = accessor_.find(node.x, node.y, node.z, coarsest.depth);
    const double value = levelSet_->tileData(tile)(cellNumber(tile, node));
    return {value, std::fabs(value)};
}

template <class Tr> typename LeafField<Tr>::Value LeafField<Tr>::mixed(int3 const& low, int width, int3 const& node)
{
    double magnitude = 0;
    const auto corner = [&](int x, int y, int z) {
        const Value value = at({low.x + x * width, low.y + y * width, low.z + z * width});
        magnitude = std::max(magnitude, value.magnitude);
        return value.value;
    };
    // An axis along which the node lies on a face of the cell takes that face alone: cells beside it do the same sums.
    const auto along = [width](int distance, auto const& value) {
        if (distance % width == 0) return value(distance / width);
        const double first = value(0);
        return mix(first, value(1), double(distance) / double(width));
    };
    const double value = along(node.z - low.z, [&](int z) {
        return along(node.y - low.y, [&](int y) { return along(node.x - low.x, [&](int x) { return corner(x, y, z); }); });
    });
    return {value, magnitude};
}

template float valueBeyond(Container<BinaryTraits> const&, LevelSet<BinaryTraits> const&);
template float valueBeyond(Container<QuinaryTraits> const&, LevelSet<QuinaryTraits> const&);
template class LeafField<BinaryTraits>;
template class LeafField<QuinaryTraits>;

}  // namespace tilegrid::surface
