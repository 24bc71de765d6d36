#include "TilegridOps/sampling/voxel_sampler_linear.h"

#include <bit>

namespace OST::TileTree3D {

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
auto VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::lowestTile(TreeIndex const& tile, int3 const& voxel) const -> FoundTile const&
{
    // No sum leaves 32 bits.
    const int3 below(voxel.x < 0, voxel.y < 0, voxel.z < 0);
    return this->tiles_.findElsewhere(detail::lanes(this->container().tile(tile).tijk() - Tr::tileVoxelWidth(tile.depth) * below), tile.depth);
}

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
bool VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::fetchVoxels(FoundTile const& lowest, std::uint8_t reached) const
{
    const int depth = lowest.depth;
    for (std::uint32_t open = reached & ~lowest.present; open; open &= open - 1) {
        const int n = std::countr_zero(open);
        const auto place = lowest.cell + detail::lanes(Tr::tileVoxelWidth(depth) * int3(n & 1, n >> 1 & 1, n >> 2));
        const TreeIndex tile = n ? this->accessor().find(place[0], place[1], place[2], depth) : lowest.tile;
        T const* voxels = tile.depth == depth ? sourceChannel_->tileData(tile).data() : nullptr;
        if (!voxels) return false;
        lowest.voxels[n] = voxels;
        lowest.present |= std::uint8_t(1u << n);
    }
    return true;
}

template <class Tr, class T, int N, class S, class Pos, int b0, int b1, int b2, int b3>
T const* VoxelSamplerLinear<Tr, T, N, S, Pos, b0, b1, b2, b3>::fetchHalo(TreeIndex const& tile) const
{
    return cache_.fetch(tile, queryCounter_.value, {*sourceChannel_, this->container(), this->offsetType_});
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
        typename Base::FoundTile const* tile;
    };
    std::array<Query, kBatch> query;
    const int deepest = std::min(maxDepth_, depth);
    for (std::size_t begin = 0; begin < count; begin += kBatch) {
        const std::size_t size = std::min(kBatch, count - begin);
        for (std::size_t n = 0; n < size; ++n) {
            query[n].tile = &this->template locate<false>(positions[begin + n], coordinateSpace, deepest, query[n].at);
            prefetch(query[n].at);
        }
        for (std::size_t n = 0; n < size; ++n)
            out[begin + n] = read(query[n].at, *query[n].tile, [](auto const& corner, float3 const& f) -> T {
                return detail::Trilinear<T>(corner, f).value(f);
            });
    }
}

TILEGRID_LINEAR_SAMPLERS_FOR(template class, BinaryTraits)
TILEGRID_LINEAR_SAMPLERS_FOR(template class, QuinaryTraits)

}  // namespace OST::TileTree3D
