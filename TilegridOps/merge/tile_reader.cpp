#include "TilegridOps/merge/tile_reader.h"

#include <cstring>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

/// Most elements are a float; a copy of known length costs a load and a store.
inline void copyElement(std::byte* to, std::byte const* from, std::size_t bytes)
{
    if (bytes == sizeof(float))
        std::memcpy(to, from, sizeof(float));
    else
        std::memcpy(to, from, bytes);
}

}  // namespace

template <class Tr>
LatticeReader<Tr>::LatticeReader(Container<Tr> const& tree, VoxelChannelCore const& channel)
    : tree_(&tree), channel_(&channel), accessor_(tree), bytes_(channel.elementBytes()), deepest_(std::min(channel.depth(), Tr::maxDepth))
{
}

template <class Tr> void LatticeReader<Tr>::fill(std::byte* values) const
{
    for (int n = 0; n < Tr::voxelCount; ++n) copyElement(values + std::size_t(n) * bytes_, channel_->defaultBytes(), bytes_);
}

template <class Tr> void LatticeReader<Tr>::readChild(Tile const& child, int3 const& place, std::byte* value) const
{
    Tile const* deepest = &child;
    while (deepest->depth() < deepest_ && !deepest->isLeaf()) {
        const int64 next = deepest->childIndex(deepest->childIJK(place));
        if (next < 0) break;
        deepest = &tree_->tile(next, deepest->depth() + 1);
    }
    std::byte const* elements = elementsOf(*deepest);
    if (!elements) return copyElement(value, channel_->defaultBytes(), bytes_);
    const int width = deepest->voxelDataWidth();
    const int3 from = place - deepest->tijk();
    const int flat = flatIndex(Tr::width, from.x / width, from.y / width, from.z / width);
    copyElement(value, elements + std::size_t(flat) * bytes_, bytes_);
}

template <class Tr> void LatticeReader<Tr>::readSameDepth(Tile const& source, std::byte* values) const
{
    if (std::byte const* own = elementsOf(source))
        std::memcpy(values, own, Tr::voxelCount * bytes_);
    else
        fill(values);
    if (source.isLeaf() || source.depth() >= deepest_) return;
    const int width = source.voxelDataWidth();
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 voxel = cubeIndex(Tr::width, flat);
        const int64 child = source.childIndex(Tile::voxelChildIJK(voxel.x, voxel.y, voxel.z));
        if (child >= 0)
            readChild(tree_->tile(child, source.depth() + 1), source.tijk() + width * voxel, values + std::size_t(flat) * bytes_);
    }
}

template <class Tr>
void LatticeReader<Tr>::readCoarser(Tile const& tile, Tile const& source, std::byte* values, VoxelList& missing) const
{
    std::byte const* elements = elementsOf(source);
    if (!elements) return fill(values);
    const int width = tile.voxelDataWidth(), sourceWidth = source.voxelDataWidth();
    const int3 distance = tile.tijk() - source.tijk();
    missing.source = source.treeIndex();
    missing.distance = distance;
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

template <class Tr> void LatticeReader<Tr>::read(Tile const& tile, std::byte* values, VoxelList& missing) const
{
    missing.count = 0;
    const int depth = std::min(tile.depth(), deepest_);
    // Trees that grew from one another number their tiles alike.
    TreeIndex found = tile.treeIndex();
    if (depth < tile.depth() || !tree_->holds(tile)) found = accessor_.find(tile.tijk().x, tile.tijk().y, tile.tijk().z, depth);
    if (!found.valid()) return fill(values);
    Tile const& source = tree_->tile(found);
    if (found.depth == tile.depth())
        readSameDepth(source, values);
    else
        readCoarser(tile, source, values, missing);
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
      bytes_(other.bytes_), voxelSize_(other.voxelSize_), offset_(other.offset_)
{
}

template <class Tr> float3 TileReader<Tr>::placeOf(Tile const& tile, int3 const& voxel) const
{
    const float width = static_cast<float>(tile.voxelDataWidth()) * voxelSize_;
    float3 place;
    for (int axis = 0; axis < 3; ++axis)
        place[axis] = (static_cast<float>(voxel[axis]) + offset_[axis]) * width + static_cast<float>(tile.tijk()[axis]) * voxelSize_;
    return place;
}

template <class Tr> void TileReader<Tr>::readPlaces(Tile const& tile, std::byte* values)
{
    // Places differ by axis alone.
    std::array<float3, Tr::width> along;
    for (int n = 0; n < Tr::width; ++n) along[n] = placeOf(tile, int3(n));
    for (int flat = 0; flat < Tr::voxelCount; ++flat) {
        const int3 voxel = cubeIndex(Tr::width, flat);
        places_[flat] = float3(along[voxel.x].x, along[voxel.y].y, along[voxel.z].z);
    }
    points_->read(places_.data(), Tr::voxelCount, values);
}

template <class Tr> void TileReader<Tr>::readMissing(Tile const& tile, std::byte* values)
{
    if (points_->prolong(missing_.source, missing_.distance, tile.voxelDataWidth(), values)) return;
    for (int n = 0; n < missing_.count; ++n) places_[n] = placeOf(tile, cubeIndex(Tr::width, missing_.voxel[n]));
    alignas(64) std::byte sampled[kMostBytes];
    points_->read(places_.data(), missing_.count, sampled);
    for (int n = 0; n < missing_.count; ++n)
        copyElement(values + std::size_t(missing_.voxel[n]) * bytes_, sampled + std::size_t(n) * bytes_, bytes_);
}

template <class Tr> void TileReader<Tr>::read(Tile const& tile, std::byte* values)
{
    if (!lattice_) return readPlaces(tile, values);
    lattice_->read(tile, values, missing_);
    if (missing_.count > 0) readMissing(tile, values);
}

template class LatticeReader<BinaryTraits>;
template class LatticeReader<QuinaryTraits>;
template class TileReader<BinaryTraits>;
template class TileReader<QuinaryTraits>;

}  // namespace tilegrid
