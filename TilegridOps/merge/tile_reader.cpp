#include "TilegridOps/merge/tile_reader.h"

#include <cstring>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

template <class Tr>
LatticeReader<Tr>::LatticeReader(Container<Tr> const& tree, VoxelChannelCore const& channel)
    : tree_(&tree), channel_(&channel), accessor_(tree), bytes_(channel.elementBytes()), deepest_(std::min(channel.depth(), Tr::maxDepth))
{
}

template <class Tr> void LatticeReader<Tr>::fill(std::byte* values) const
{
    for (int n = 0; n < Tr::voxelCount; ++n) copyElement(values + std::size_t(n) * bytes_, channel_->defaultBytes(), bytes_);
}

template <class Tr> TreeIndex LatticeReader<Tr>::find(Tile const& tile) const
{
    // Trees that grew from one another number their tiles alike.
    if (tile.depth() <= deepest_ && tree_->holds(tile)) return tile.treeIndex();
    const TreeIndex parent = tile.parentTreeIndex();
    if (!parent.valid() || parent != parent_) {
        const TreeIndex found = accessor_.find(tile.tijk().x, tile.tijk().y, tile.tijk().z, std::min(tile.depth(), deepest_));
        parent_ = parent;
        parentSource_ = found.depth == tile.depth() ? tree_->tile(found).parentTreeIndex() : found;
        return found;
    }
    if (parentSource_.depth < parent.depth || parent.depth >= deepest_) return parentSource_;
    Tile const& above = tree_->tile(parentSource_);
    const int64 child = above.isLeaf() ? -1 : above.childIndex(above.childIJK(tile));
    return child < 0 ? parentSource_ : TreeIndex{child, tile.depth()};
}

template <class Tr> bool LatticeReader<Tr>::hasDeeper(Tile const& source, Tile const* except) const
{
    if (source.isLeaf() || source.depth() >= deepest_) return false;
    if (!except) return true;
    int64 const *theirs = source.childIndices(), *others = except->childIndices();
    for (int cell = 0; cell < Tr::childCount; ++cell)
        if (theirs[cell] >= 0 && others[cell] < 0) return true;
    return false;
}

template <class Tr> std::byte const* LatticeReader<Tr>::inPlace(TreeIndex const& source, Tile const* except) const
{
    Tile const& tile = tree_->tile(source);
    return hasDeeper(tile, except) ? nullptr : elementsOf(tile);
}

template <class Tr> void LatticeReader<Tr>::readDeepest(Tile const& tile, int3 voxel, std::byte* value) const
{
    Tile const* deepest = &tile;
    while (deepest->depth() < deepest_ && !deepest->isLeaf()) {
        const int64 next = deepest->childIndex(Tile::voxelChildIJK(voxel.x, voxel.y, voxel.z));
        if (next < 0) break;
        deepest = &tree_->tile(next, deepest->depth() + 1);
        voxel = Tile::childDataIJK(voxel.x, voxel.y, voxel.z);
    }
    std::byte const* elements = elementsOf(*deepest);
    const int flat = flatIndex(Tr::width, voxel.x, voxel.y, voxel.z);
    copyElement(value, elements ? elements + std::size_t(flat) * bytes_ : channel_->defaultBytes(), bytes_);
}

template <class Tr> void LatticeReader<Tr>::readChild(Tile const& child, std::byte* cell) const
{
    constexpr int C = Tr::cellVoxels;
    std::byte const* elements = child.isLeaf() || child.depth() >= deepest_ ? elementsOf(child) : nullptr;
    for (int n = 0; n < C * C * C; ++n) {
        const int3 to = cubeIndex(C, n), from = Tr::childStride * to;
        std::byte* value = cell + std::size_t(flatIndex(Tr::width, to.x, to.y, to.z)) * bytes_;
        if (elements)
            copyElement(value, elements + std::size_t(flatIndex(Tr::width, from.x, from.y, from.z)) * bytes_, bytes_);
        else
            readDeepest(child, from, value);
    }
}

template <class Tr> void LatticeReader<Tr>::readSameDepth(TreeIndex const& found, Tile const* except, std::byte* values) const
{
    Tile const& source = tree_->tile(found);
    if (std::byte const* own = elementsOf(source))
        std::memcpy(values, own, Tr::voxelCount * bytes_);
    else
        fill(values);
    if (!hasDeeper(source, except)) return;
    for (int cell = 0; cell < Tr::childCount; ++cell) {
        const int64 child = source.childIndex(cell);
        if (child < 0 || (except && except->childIndex(cell) >= 0)) continue;
        const int3 first = Tr::cellVoxels * cubeIndex(Tr::branching, cell);
        readChild(tree_->tile(child, source.depth() + 1), values + std::size_t(flatIndex(Tr::width, first.x, first.y, first.z)) * bytes_);
    }
}

template <class Tr>
void LatticeReader<Tr>::readCoarser(Tile const& tile, TreeIndex const& found, std::byte* values, VoxelList& missing) const
{
    Tile const& source = tree_->tile(found);
    std::byte const* elements = elementsOf(source);
    const int width = tile.voxelDataWidth(), sourceWidth = source.voxelDataWidth();
    const int3 distance = tile.tijk() - source.tijk();
    missing.count = 0;
    // Per axis, the voxel of the source at the same place, or -1.
    std::array<std::array<int, Tr::width>, 3> at;
    for (int axis = 0; axis < 3; ++axis)
        for (int n = 0; n < Tr::width; ++n) {
            const int units = distance[axis] + n * width;
            at[axis][n] = units % sourceWidth == 0 ? units / sourceWidth : -1;
        }
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 voxel = cubeIndex(Tr::width, flat);
        const int i = at[0][voxel.x], j = at[1][voxel.y], k = at[2][voxel.z];
        if ((i | j | k) < 0)
            missing.voxel[missing.count++] = static_cast<std::uint8_t>(flat);
        else
            copyElement(values + std::size_t(flat) * bytes_, elements + std::size_t(flatIndex(Tr::width, i, j, k)) * bytes_, bytes_);
    }
}

template <class Tr>
TileReader<Tr>::TileReader(std::unique_ptr<PointReader> points, std::unique_ptr<LatticeReader<Tr>> lattice, std::size_t elementBytes,
                           float voxelSize, float3 const& offset)
    : points_(std::move(points)), lattice_(std::move(lattice)), bytes_(elementBytes), voxelSize_(voxelSize), offset_(offset)
{
}

template <class Tr>
TileReader<Tr>::TileReader(TileReader const& other)
    : points_(other.points_->clone()), lattice_(other.lattice_ ? std::make_unique<LatticeReader<Tr>>(*other.lattice_) : nullptr),
      bytes_(other.bytes_), voxelSize_(other.voxelSize_), offset_(other.offset_), leavesChildrenOut_(other.leavesChildrenOut_)
{
}

template <class Tr> float3 TileReader<Tr>::placeOf(int3 const& voxel) const
{
    const float width = static_cast<float>(tile_->voxelDataWidth()) * voxelSize_;
    float3 place;
    for (int axis = 0; axis < 3; ++axis)
        place[axis] = (static_cast<float>(voxel[axis]) + offset_[axis]) * width + static_cast<float>(tile_->tijk()[axis]) * voxelSize_;
    return place;
}

template <class Tr> void TileReader<Tr>::readPlaces(std::byte* values)
{
    // Places differ by axis alone.
    std::array<float3, Tr::width> along;
    for (int n = 0; n < Tr::width; ++n) along[n] = placeOf(int3(n));
    if (points_->readGrid(along.data(), Tr::width, values)) return;
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 voxel = cubeIndex(Tr::width, flat);
        places_[flat] = float3(along[voxel.x].x, along[voxel.y].y, along[voxel.z].z);
    }
    points_->read(places_.data(), Tr::voxelCount, values);
}

template <class Tr> void TileReader<Tr>::readCoarser(std::byte* values)
{
    if (!lattice_->hasElements(source_)) return lattice_->fill(values);
    if (points_->prolong(source_, lattice_->distance(*tile_, source_), tile_->voxelDataWidth(), values)) return;
    lattice_->readCoarser(*tile_, source_, values, missing_);
    for (int n = 0; n < missing_.count; ++n) places_[n] = placeOf(cubeIndex(Tr::width, missing_.voxel[n]));
    alignas(64) std::byte sampled[kMostBytes];
    points_->read(places_.data(), missing_.count, sampled);
    for (int n = 0; n < missing_.count; ++n)
        copyElement(values + std::size_t(missing_.voxel[n]) * bytes_, sampled + std::size_t(n) * bytes_, bytes_);
}

template <class Tr> void TileReader<Tr>::seek(Tile const& tile)
{
    tile_ = &tile;
    if (lattice_) source_ = lattice_->find(tile);
}

template <class Tr> void TileReader<Tr>::read(std::byte* values)
{
    if (!lattice_)
        readPlaces(values);
    else if (!source_.valid())
        lattice_->fill(values);
    else if (liesInCoarser())
        readCoarser(values);
    else
        lattice_->readSameDepth(source_, leavesChildrenOut_ ? tile_ : nullptr, values);
}

template <class Tr> std::byte const* TileReader<Tr>::elements(std::byte* room)
{
    if (lattice_ && source_.valid() && !liesInCoarser())
        if (std::byte const* own = lattice_->inPlace(source_, leavesChildrenOut_ ? tile_ : nullptr)) return own;
    read(room);
    return room;
}

template <class Tr> bool TileReader<Tr>::bounds(float& low, float& high)
{
    return lattice_ && liesInCoarser() && lattice_->hasElements(source_) &&
           points_->prolongedBounds(source_, lattice_->distance(*tile_, source_), tile_->voxelDataWidth(), low, high);
}

template class LatticeReader<BinaryTraits>;
template class LatticeReader<QuinaryTraits>;
template class TileReader<BinaryTraits>;
template class TileReader<QuinaryTraits>;

}  // namespace tilegrid
