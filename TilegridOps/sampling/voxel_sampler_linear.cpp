#include "TilegridOps/sampling/voxel_sampler_linear.h"

#include <bit>

namespace OST::TileTree3D {

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
bool VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::lookUpNeighbors(std::uint32_t reached, int3 const& tileCorner) const
{
    const int depth = neighbors_.tile.depth, width = Tr::tileVoxelWidth(depth);
    // A place in the neighbour: one unit below the tile, in it, or one tile further. No sum leaves 32 bits.
    const auto beside = [width](int low, int step) { return step < 0 ? low - 1 : step > 0 ? low + width : low; };
    for (std::uint32_t open = reached & ~neighbors_.known; open; open &= open - 1) {
        const int direction = std::countr_zero(open);
        const int3 step = neighborOffset(static_cast<NeighborDirection>(direction));
        const TreeIndex found =
            neighborAccessor_.find(beside(tileCorner.x, step.x), beside(tileCorner.y, step.y), beside(tileCorner.z, step.z), depth);
        T const* voxels = found.depth == depth ? sourceChannel_->tileData(found).data() : nullptr;
        neighbors_.known |= 1u << direction;
        if (!voxels) return false;
        neighbors_.present |= 1u << direction;
        neighbors_.voxels[direction] = voxels;
    }
    return !(reached & ~neighbors_.present);
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
