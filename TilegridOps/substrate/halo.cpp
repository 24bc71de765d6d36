#include "TilegridOps/substrate/halo.h"

#include "TilegridOps/substrate/instances.h"
#include "TilegridOps/substrate/coarse_read.h"

namespace OST::TileTree3D {

namespace {

/// The positions of a target that lie in one of the 27 places around a tile, the tile itself included.
struct Region {
    int3 side;        // -1, 0 or 1 per axis
    int3 begin, end;  // positions, end excluded
    bool empty() const { return begin.x >= end.x || begin.y >= end.y || begin.z >= end.z; }
};

template <int W> Region regionOf(NeighborDirection direction, int low, int high)
{
    Region region{neighborOffset(direction), {}, {}};
    for (int axis = 0; axis < 3; ++axis) {
        const int side = region.side[axis];
        region.begin[axis] = side < 0 ? low : side > 0 ? W : 0;
        region.end[axis] = side < 0 ? 0 : side > 0 ? high : W;
    }
    return region;
}

/// Interior, faces, edges or corners.
HaloType typeOf(int3 const& side)
{
    constexpr HaloType types[] = {kHaloInterior, kHaloFaces, kHaloEdges, kHaloCorners};
    return types[(side.x != 0) + (side.y != 0) + (side.z != 0)];
}

/// Calls `f(int3 position, T& element)` for the positions of a region, i fastest.
template <class T, class F> void forRegion(Region const& region, detail::HaloTarget<T> const& out, F f)
{
    const int n = out.high - out.low;
    for (int k = region.begin.z; k < region.end.z; ++k)
        for (int j = region.begin.y; j < region.end.y; ++j) {
            T* row = out.data + flatIndex(n, -out.low, j - out.low, k - out.low);
            for (int i = region.begin.x; i < region.end.x; ++i) f(int3(i, j, k), row[i]);
        }
}

/// From the voxels of a tile of the same depth. A whole row is the common case, and one copy of known size.
template <int W, class T> void copyRegion(Region const& region, T const* voxels, detail::HaloTarget<T> const& out)
{
    const int n = out.high - out.low;
    const bool wholeRows = region.begin.x == 0 && region.end.x == W;
    for (int k = region.begin.z; k < region.end.z; ++k)
        for (int j = region.begin.y; j < region.end.y; ++j) {
            T* row = out.data + flatIndex(n, -out.low, j - out.low, k - out.low);
            T const* from = voxels + flatIndex(W, -W * region.side.x, j - W * region.side.y, k - W * region.side.z);
            if (wholeRows)
                std::memcpy(row, from, W * sizeof(T));
            else
                for (int i = region.begin.x; i < region.end.x; ++i) row[i] = from[i];
        }
}

/// What all regions of one gather share.
template <class Tr, class T> struct Gather {
    using Tile = typename Container<Tr>::Tile;
    static constexpr int W = Tr::width;
    Tile const& tile;
    VoxelView<T> voxels;
    ConstTileAccessor<Tr> const& accessor;
    detail::HaloTarget<T> out;
    T fill;
    VoxelOffsetType offset;

    /// The finest tile of the region that the channel has data for, (-1,-1) if there is none.
    TreeIndex covering(NeighborDirection direction) const
    {
        TreeIndex at = direction == kNeighborSelf ? tile.treeIndex() : accessor.treeIndexNeighbor(tile, direction);
        while (at.depth > voxels.channel->depth()) at = accessor.container().tile(at).parentTreeIndex();
        return at.valid() && voxels.tile(at) ? at : TreeIndex{};
    }

    /// The voxel of a coarser tile whose cell holds the position. Middles of voxels lie in the same cells as low corners.
    void inject(Region const& region, TreeIndex const& coarse) const
    {
        auto const& from = accessor.container().tile(coarse);
        T const* data = voxels.tile(coarse);
        const int width = tile.voxelDataWidth(), coarseWidth = from.voxelDataWidth();
        int cell[3][W];
        for (int axis = 0; axis < 3; ++axis)
            for (int n = region.begin[axis]; n < region.end[axis]; ++n)
                cell[axis][n - region.begin[axis]] = (tile.tijk()[axis] + n * width - from.tijk()[axis]) / coarseWidth;
        forRegion(region, out, [&](int3 const& p, T& element) {
            const int3 q = p - region.begin;
            element = data[voxels.index(cell[0][q.x], cell[1][q.y], cell[2][q.z])];
        });
    }

    /// Trilinear from the sites of the covering tile, or of the depth above the tile's.
    void mix(Region const& region, TreeIndex const& coarse, JumpRule rule) const
    {
        using Reader = SiteReader<Tr, T>;
        const Reader reader(voxels, accessor, offset, fill, rule);
        const bool stepwise = rule == JumpRule::kStepwise && coarse.depth < tile.depth() - 1;
        auto const& from = accessor.container().tile(stepwise ? tile.parentTreeIndex() : coarse);
        const int width = tile.voxelDataWidth(), siteWidth = from.voxelDataWidth();
        const auto taps = [&](int axis) {
            const int64 first = int64(tile.tijk()[axis]) - from.tijk()[axis] + int64(region.begin[axis]) * width;
            return SiteTaps(region.end[axis] - region.begin[axis], first, width, siteWidth, reader.centred(axis));
        };
        const SiteTaps x = taps(0), y = taps(1), z = taps(2);
        const int3 low(x.low, y.low, z.low), count(x.count, y.count, z.count);
        T sites[Reader::kBlock];
        if (stepwise)
            reader.gatherStepwise(from.depth(), from.tijk() + siteWidth * low, count, sites);
        else
            reader.gather(coarse, low, count, sites);
        const auto at = [&](int i, int j, int k) -> T const& { return sites[i + count.x * (j + count.y * k)]; };
        forRegion(region, out, [&](int3 const& p, T& element) {
            const int3 q = p - region.begin;
            element = mixSites<T>(x[q.x], y[q.y], z[q.z], at);
        });
    }

    void fillRegion(Region const& region) const
    {
        forRegion(region, out, [this](int3 const&, T& element) { element = fill; });
    }

    void read(Region const& region, TreeIndex const& from, HaloMode mode) const
    {
        if (!from.valid()) return fillRegion(region);
        if (from.depth == tile.depth()) return copyRegion<W>(region, voxels.tile(from), out);
        if (mode == kHaloSameDepth) return fillRegion(region);
        if constexpr (tilegrid::canInterpolate<T>) {
            if (mode != kHaloInject)
                return mix(region, from, mode == kHaloFromParent ? JumpRule::kStepwise : JumpRule::kDirect);
        }
        inject(region, from);
    }

    void scale([[maybe_unused]] Region const& region, [[maybe_unused]] float weight) const
    {
        if constexpr (tilegrid::canInterpolate<T>)
            forRegion(region, out, [&](int3 const&, T& element) { element = fill + (element - fill) * weight; });
    }
};

}  // namespace

namespace detail {

template <class Tr, class T>
void gatherHalo(TreeIndex const& tile, Channel<Tr, T, Tr::width, 0> const& channel, HaloMode mode, HaloType type,
                ConstTileAccessor<Tr> const& accessor, HaloTarget<T> const& out, T const& fill, float weight,
                VoxelOffsetType offset)
{
    auto const& container = accessor.container();
    if (!out.data || !tile.valid() || tile.depth > Tr::maxDepth || tile.index >= container.tileCount(tile.depth))
        return;
    const Gather<Tr, T> gather{container.tile(tile), VoxelView<T>(channel), accessor, out, fill, offset};
    for (int d = 0; d < 27; ++d) {
        const auto direction = static_cast<NeighborDirection>(d);
        const Region region = regionOf<Tr::width>(direction, out.low, out.high);
        if (!(type & typeOf(region.side)) || region.empty()) continue;
        const TreeIndex from = gather.covering(direction);
        gather.read(region, from, mode);
        if (weight != 1.0f && direction != kNeighborSelf && from.valid()) gather.scale(region, weight);
    }
}

}  // namespace detail

#define TILEGRID_INSTANTIATE_FOR(Tr, T)                                                                                \
    template TILEGRID_API void detail::gatherHalo<Tr, T>(TreeIndex const&, Channel<Tr, T, Tr::width, 0> const&,        \
                                                         HaloMode, HaloType, ConstTileAccessor<Tr> const&,             \
                                                         HaloTarget<T> const&, T const&, float, VoxelOffsetType);
TILEGRID_FOR_ALL_TYPES(TILEGRID_INSTANTIATE_FOR)

}  // namespace OST::TileTree3D
