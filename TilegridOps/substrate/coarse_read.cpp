#include "TilegridOps/substrate/coarse_read.h"

#include "TilegridOps/substrate/element_types.h"

namespace OST::TileTree3D {

template <class Tr, class T>
SiteReader<Tr, T>::SiteReader(VoxelView<T> const& voxels, ConstTileAccessor<Tr> const& accessor, VoxelOffsetType offset,
                              T const& outside, JumpRule rule)
    : voxels_(voxels), accessor_(accessor), offset_(offset), rule_(rule), outside_(outside)
{}

/// The finest tile not deeper than `depth` whose data covers the place; (-1,-1) if there is none.
template <class Tr, class T> TreeIndex SiteReader<Tr, T>::covering(int3 const& place, int depth) const
{
    for (int axis = 0; axis < 3; ++axis)
        if (place[axis] < Tr::rangeMin || place[axis] > Tr::rangeMax) return {};
    const TreeIndex found = accessor_.find(place.x, place.y, place.z, std::min(depth, voxels_.channel->depth()));
    return found.valid() && voxels_.tile(found) ? found : TreeIndex{};
}

template <class Tr, class T> T SiteReader<Tr, T>::valueAt(int3 const& place, int depth) const
{
    const TreeIndex tile = covering(place, depth);
    if (!tile.valid()) return outside_;
    if (rule_ == JumpRule::kStepwise && tile.depth < depth) {
        T value;
        gatherStepwise(depth, place, int3(1), &value);
        return value;
    }
    return mixedAt(tile, place, depth);
}

template <class Tr, class T> T SiteReader<Tr, T>::mixedAt(TreeIndex const& tile, int3 const& place, int depth) const
{
    const int3 corner = accessor_.container().tile(tile).tijk();
    const int width = Tr::voxelDataWidth(tile.depth);
    SiteTap tap[3];
    for (int axis = 0; axis < 3; ++axis)
        tap[axis] = siteTap(int64(place[axis]) - corner[axis], Tr::voxelDataWidth(depth), width, centred(axis));
    T const* own = voxels_.tile(tile);
    return mixSites<T>(tap[0], tap[1], tap[2], [&](int i, int j, int k) -> T {
        const bool inside =
            unsigned(i) < unsigned(Tr::width) && unsigned(j) < unsigned(Tr::width) && unsigned(k) < unsigned(Tr::width);
        return inside ? own[voxels_.index(i, j, k)] : valueAt(corner + width * int3(i, j, k), tile.depth);
    });
}

template <class Tr, class T>
void SiteReader<Tr, T>::gather(TreeIndex const& tile, int3 const& low, int3 const& count, T* sites) const
{
    constexpr int W = Tr::width;
    auto const& record = accessor_.container().tile(tile);
    const int width = record.voxelDataWidth();
    // Data of the tile and its 26 neighbours, by direction; looked up when a site first needs it.
    T const* data[27];
    bool known[27] = {};
    data[kNeighborSelf] = voxels_.tile(tile);
    known[kNeighborSelf] = true;
    const auto side = [](int s) { return s < 0 ? -1 : s >= W ? 1 : 0; };
    for (int k = low.z; k < low.z + count.z; ++k)
        for (int j = low.y; j < low.y + count.y; ++j)
            for (int i = low.x; i < low.x + count.x; ++i, ++sites) {
                const int3 at(side(i), side(j), side(k));
                const NeighborDirection direction = neighborDirection(at.x, at.y, at.z);
                if (!known[direction]) {
                    const TreeIndex neighbor = accessor_.treeIndexNeighbor(record, direction);
                    data[direction] = neighbor.depth == tile.depth ? voxels_.tile(neighbor) : nullptr;
                    known[direction] = true;
                }
                if (data[direction])
                    *sites = data[direction][voxels_.index(i - W * at.x, j - W * at.y, k - W * at.z)];
                else
                    *sites = valueAt(record.tijk() + width * int3(i, j, k), tile.depth);
            }
}

template <class Tr, class T>
void SiteReader<Tr, T>::gatherStepwise(int depth, int3 const& place, int3 const& count, T* sites) const
{
    const int width = Tr::voxelDataWidth(depth);
    bool pending[kBlock] = {}, anyPending = false;
    const auto flat = [&count](int i, int j, int k) { return i + count.x * (j + count.y * k); };
    for (int k = 0; k < count.z; ++k)
        for (int j = 0; j < count.y; ++j)
            for (int i = 0; i < count.x; ++i) {
                const int3 at = place + width * int3(i, j, k);
                const TreeIndex tile = covering(at, depth);
                if (tile.valid() && tile.depth == depth) {
                    const int3 voxel = at - accessor_.container().tile(tile).tijk();
                    sites[flat(i, j, k)] =
                        voxels_.tile(tile)[voxels_.index(voxel.x / width, voxel.y / width, voxel.z / width)];
                } else {
                    sites[flat(i, j, k)] = outside_;
                    pending[flat(i, j, k)] = tile.valid();
                    anyPending |= tile.valid();
                }
            }
    if (!anyPending) return;

    const int coarseWidth = Tr::voxelDataWidth(depth - 1);
    const auto taps = [&](int axis) {
        const int64 fromLow = int64(place[axis]) - Tr::rangeMin;
        return SiteTaps(count[axis], fromLow, width, coarseWidth, centred(axis));
    };
    const SiteTaps x = taps(0), y = taps(1), z = taps(2);
    const auto coarsePlace = [&](int low) { return static_cast<int>(Tr::rangeMin + int64(low) * coarseWidth); };
    T coarse[kBlock];
    gatherStepwise(depth - 1, int3(coarsePlace(x.low), coarsePlace(y.low), coarsePlace(z.low)),
                   int3(x.count, y.count, z.count), coarse);
    const auto at = [&](int i, int j, int k) -> T const& { return coarse[i + x.count * (j + y.count * k)]; };
    for (int k = 0; k < count.z; ++k)
        for (int j = 0; j < count.y; ++j)
            for (int i = 0; i < count.x; ++i)
                if (pending[flat(i, j, k)]) sites[flat(i, j, k)] = mixSites<T>(x[i], y[j], z[k], at);
}

#define TILEGRID_INSTANTIATE(T)                                                                                        \
    template class TILEGRID_API SiteReader<BinaryTraits, T>;                                                           \
    template class TILEGRID_API SiteReader<QuinaryTraits, T>;
TILEGRID_INSTANTIATE(float)
TILEGRID_INSTANTIATE(Ostara::Math::float2)
TILEGRID_INSTANTIATE(Ostara::Math::float3)
TILEGRID_INSTANTIATE(Ostara::Math::float4)
TILEGRID_INSTANTIATE(Ostara::Math::float3x3)
TILEGRID_INSTANTIATE(Ostara::Math::float4x2)
TILEGRID_INSTANTIATE(Ostara::Math::float4x4)
TILEGRID_INSTANTIATE(double)
TILEGRID_INSTANTIATE(Ostara::Math::double3)

}  // namespace OST::TileTree3D
