#include "TilegridOps/substrate/dilation.h"

#include <algorithm>

namespace CoreGL::TileTree3D {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

/// How many tile layers the voxels low to high of an axis reach over a tile of W voxels, on the side where it is more.
constexpr int64 reachOf(int64 low, int64 high, int64 W)
{
    const int64 above = high >= W ? (high + W) / W - 1 : 0;
    const int64 below = low < 0 ? (W - 1 - low) / W : 0;
    return std::max(above, below);
}

}  // namespace

template <class Tr>
DilationAllocationVisitor<Tr>::DilationAllocationVisitor(Container const& tree, int dilation, Mask const* mask, TileBoxes<Tr> const* boxes)
    : tree_(tree), accessor_(tree), dilation_(dilation), mask_(mask), boxes_(boxes), tiles_(tree)
{
}

template <class Tr> bool DilationAllocationVisitor<Tr>::maskBox(Tile const& tile, Box& box) const
{
    const auto values = mask_->tileData(tile.treeIndex());
    if (!values) return false;
    for (int k = 0; k < Tr::width; ++k)
        for (int j = 0; j < Tr::width; ++j)
            for (int i = 0; i < Tr::width; ++i)
                if (values(i, j, k) != 0) box.add({i, j, k});
    return !box.empty();
}

template <class Tr> bool DilationAllocationVisitor<Tr>::activeBox(Tile const& tile, WideBox& wide) const
{
    Box box;
    int64 dilation = dilation_;
    if (mask_) {
        if (!maskBox(tile, box)) return false;
        dilation = dilation < 0 ? -dilation : dilation;
    } else if (boxes_) {
        auto const& level = (*boxes_)[tile.depth()];
        if (std::size_t(tile.index()) >= level.size() || level[std::size_t(tile.index())].empty()) return false;
        box = level[std::size_t(tile.index())];
        dilation = dilation < 0 ? -dilation : dilation;
    } else {
        box.min = int3(0);
        box.max = int3(Tr::width - 1);
    }
    for (int axis = 0; axis < 3; ++axis) {
        wide.low[axis] = box.min[axis] - dilation;
        wide.high[axis] = box.max[axis] + dilation;
    }
    return true;
}

template <class Tr> void DilationAllocationVisitor<Tr>::beginTile(Tile const& tile)
{
    WideBox box;
    if (!activeBox(tile, box)) return;
    int64 reach = 0;
    for (int axis = 0; axis < 3; ++axis) reach = std::max(reach, reachOf(box.low[axis], box.high[axis], Tr::width));
    smallestReach_ = std::min(smallestReach_, int(std::min<int64>(reach, INT_MAX)));
    largestReach_ = std::max(largestReach_, int(std::min<int64>(reach, INT_MAX)));
    if (reach == 1) addTouched(tile, box);
    if (reach >= 2) addAround(tile, reach);
}

/// The box reaches into direct neighbours only: those that it meets.
template <class Tr> void DilationAllocationVisitor<Tr>::addTouched(Tile const& tile, WideBox const& box)
{
    int3 first, last;
    for (int axis = 0; axis < 3; ++axis) {
        first[axis] = box.low[axis] < 0 ? -1 : 0;
        last[axis] = box.high[axis] >= Tr::width ? 1 : 0;
    }
    for (int a = first.x; a <= last.x; ++a)
        for (int b = first.y; b <= last.y; ++b)
            for (int c = first.z; c <= last.z; ++c) {
                const TreeIndex found = accessor_.treeIndexNeighbor(tile, neighborDirection(a, b, c));
                // A place outside tile space has no neighbour and gets none.
                if (found.valid() && found.depth != tile.depth()) tiles_.add(tile.tijk() + tile.tileVoxelWidth() * int3(a, b, c), tile.depth());
            }
}

/// The box reaches further: the whole cube of tiles, as far as tile space goes.
template <class Tr> void DilationAllocationVisitor<Tr>::addAround(Tile const& tile, int64 reach)
{
    const int64 width = tile.tileVoxelWidth();
    std::array<int64, 3> first, last;
    for (int axis = 0; axis < 3; ++axis) {
        first[axis] = -std::min(reach, (int64(tile.tijk()[axis]) - Tr::rangeMin) / width);
        last[axis] = std::min(reach, (Tr::rangeMax - int64(tile.tijk()[axis])) / width);
    }
    for (int64 c = first[2]; c <= last[2]; ++c)
        for (int64 b = first[1]; b <= last[1]; ++b)
            for (int64 a = first[0]; a <= last[0]; ++a) {
                const int3 place(int(tile.tijk().x + a * width), int(tile.tijk().y + b * width), int(tile.tijk().z + c * width));
                if (!hasTile(tile, place)) tiles_.add(place, tile.depth());
            }
}

template <class Tr> bool DilationAllocationVisitor<Tr>::hasTile(Tile const& tile, int3 const& place)
{
    return tile.contains(place) || accessor_.find(place.x, place.y, place.z, tile.depth()).depth == tile.depth();
}

template <class Tr> void DilationAllocationVisitor<Tr>::join(Base const& right)
{
    auto const& other = static_cast<DilationAllocationVisitor const&>(right);
    tiles_.join(other.tiles_);
    smallestReach_ = std::min(smallestReach_, other.smallestReach_);
    largestReach_ = std::max(largestReach_, other.largestReach_);
}

template class DilationAllocationVisitor<BinaryTraits>;
template class DilationAllocationVisitor<QuinaryTraits>;

}  // namespace CoreGL::TileTree3D
