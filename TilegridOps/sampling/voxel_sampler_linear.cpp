#include "TilegridOps/sampling/voxel_sampler_linear.h"

namespace OST::TileTree3D {

namespace {

/// An axis of a stencil: which neighbour it reaches into, if any, and the two sites.
struct StencilAxis {
    /// -1, 0 or 1.
    int side;
    /// Whether the low and the high site lie in the neighbour, and their places in their tiles.
    bool beyond[2];
    int site[2];

    StencilAxis(int low, int width) : side(low < 0 ? -1 : low >= width - 1 ? 1 : 0)
    {
        beyond[0] = side < 0;
        beyond[1] = side > 0;
        site[0] = side < 0 ? width - 1 : low;
        site[1] = side > 0 ? 0 : low + 1;
    }
};

}  // namespace

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
bool VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::gatherAcross(LocatedVoxel const& at, int3 const& tileCorner, T const* own,
                                                                        Corners& corners) const
{
    const StencilAxis axis[3] = {{at.lijk.x, W}, {at.lijk.y, W}, {at.lijk.z, W}};
    const int depth = at.treeIndex.depth, width = Tr::tileVoxelWidth(depth);
    const int crossed = (axis[0].side != 0) | (axis[1].side != 0) << 1 | (axis[2].side != 0) << 2;
    // A voxel in each tile: a place one unit below the tile, in it, or one tile further. No sum leaves 32 bits.
    const auto beside = [&](int low, int a, int n) { return n >> a & 1 ? low + (axis[a].side < 0 ? -1 : width) : low; };
    std::array<T const*, 8> tile;
    tile[0] = own;
    for (int n = 1; n < 8; ++n) {
        if (n & ~crossed) continue;
        const TreeIndex neighbor =
            neighborAccessor_.find(beside(tileCorner.x, 0, n), beside(tileCorner.y, 1, n), beside(tileCorner.z, 2, n), depth);
        if (neighbor.depth != depth) return false;
        tile[n] = sourceChannel_->tileData(neighbor).data();
        if (!tile[n]) return false;
    }
    for (int n = 0; n < 8; ++n) {
        const int x = n & 1, y = n >> 1 & 1, z = n >> 2;
        const int in = axis[0].beyond[x] | axis[1].beyond[y] << 1 | axis[2].beyond[z] << 2;
        corners[n] = tile[in] + flatIndex(W, axis[0].site[x], axis[1].site[y], axis[2].site[z]);
    }
    return true;
}

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
T const* VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::fetchHalo(TreeIndex const& tile) const
{
    return cache_.fetch(tile, queryCounter_.value, {*sourceChannel_, neighborAccessor_, this->offsetType_});
}

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
void VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::prefetch(LocatedVoxel const& at) const
{
    constexpr int kLine = 64;
    const auto stencil = [&](T const* array, int row, int first) {
        if (!array) return;
        // Requests for lines that do not exist do no harm.
        const auto* low = reinterpret_cast<char const*>(array + flatIndex(row, at.lijk.x + first, at.lijk.y + first, at.lijk.z + first));
        const auto bytes = static_cast<int>(sizeof(T)) * (flatIndex(row, 1, 1, 1) + 1);
        for (int byte = 0; byte < bytes; byte += kLine) __builtin_prefetch(low + byte);
        __builtin_prefetch(low + bytes - 1);
    };
    if (!haloChannel_)
        stencil(sourceChannel_->tileData(at.treeIndex).data(), W, 0);
    else if constexpr (b3 == 1)
        stencil(haloChannel_->tileData(at.treeIndex).data(), W + 2, 1);
    else
        stencil(haloChannel_->tileData(at.treeIndex).data(), W + 1, 0);
}

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
void VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::sampleLinearBatch(Pos const* positions, std::size_t count, int depth,
                                                                            int coordinateSpace, T* out) const
{
    constexpr std::size_t kBatch = 32;
    struct Query {
        LocatedVoxel at;
        int3 tileCorner;
        bool found;
    };
    std::array<Query, kBatch> query;
    for (std::size_t begin = 0; begin < count; begin += kBatch) {
        const std::size_t size = std::min(kBatch, count - begin);
        for (std::size_t n = 0; n < size; ++n) {
            Query& q = query[n];
            q.found = find(positions[begin + n], depth, coordinateSpace, q.at);
            if (!q.found) continue;
            q.tileCorner = this->currentCorner();
            prefetch(q.at);
        }
        for (std::size_t n = 0; n < size; ++n) {
            Query const& q = query[n];
            out[begin + n] = !q.found ? defaultValue_
                                      : read(q.at, q.tileCorner, defaultValue_, [](auto const& corner, float3 const& f) -> T {
                                            return detail::Trilinear<T>(corner, f).value(f);
                                        });
        }
    }
}

TILEGRID_LINEAR_SAMPLERS_FOR(template class, BinaryTraits)
TILEGRID_LINEAR_SAMPLERS_FOR(template class, QuinaryTraits)

}  // namespace OST::TileTree3D
