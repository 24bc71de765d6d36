#include "TilegridOps/substrate/child_values.h"

#include "TilegridOps/substrate/instances.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/traversal.h"

namespace OST::TileTree3D {

namespace {

using tilegrid::parallel::FunctionRef;

/// Calls `f(parent data, child data, cell)` for every child tile of the depths in range, children's own children first.
template <class Tr>
void forChildren(VoxelChannelCore& channel, Container<Tr> const& container, int minDepth, int maxDepth,
                 FunctionRef<void(std::byte*, std::byte const*, int3 const&)> f)
{
    using Tile = typename Container<Tr>::Tile;
    const int first = std::max({minDepth, channel.minDepth(), 0}),
              last = std::min({maxDepth, channel.depth() - 1, Tr::maxDepth - 1});
    if (first > last) return;
    container.traverse(
        detail::Nothing(), detail::Nothing(),
        [&channel, &f](Tile const& tile) {
            std::byte* own = tile.isLeaf() ? nullptr : channel.tileBytes(tile.index(), tile.depth());
            if (!own) return;
            for (int cell = 0; cell < Tr::childCount; ++cell) {
                const int64 child = tile.childIndex(cell);
                std::byte const* data = child < 0 ? nullptr : std::as_const(channel).tileBytes(child, tile.depth() + 1);
                if (data) f(own, data, cubeIndex(Tr::branching, cell));
            }
        },
        detail::Nothing(), detail::Nothing(), kBottomUp, TreeIndex(), first, last);
}

/// Flat index of a voxel in an array with a halo.
struct Layout {
    int width, halo;
    int operator()(int i, int j, int k) const { return flatIndex(width, i + halo, j + halo, k + halo); }
};

template <class Tr, std::size_t Bytes>
void copyWith(VoxelChannelCore& channel, Layout const& at, Container<Tr> const& container, int minDepth, int maxDepth)
{
    constexpr int r = Tr::cellVoxels, s = Tr::childStride;
    forChildren(channel, container, minDepth, maxDepth,
                [&at](std::byte* own, std::byte const* child, int3 const& cell) {
                    for (int k = 0; k < r; ++k)
                        for (int j = 0; j < r; ++j)
                            for (int i = 0; i < r; ++i)
                                std::memcpy(own + at(cell.x * r + i, cell.y * r + j, cell.z * r + k) * Bytes,
                                            child + at(i * s, j * s, k * s) * Bytes, Bytes);
                });
}

/// The mean over `count` voxels per axis from `first` on.
template <class T> T meanOf(T const* child, Layout const& at, int3 const& first, int3 const& count)
{
    using Element = Ostara::Math::ElementTraits<T>;
    double sum[Element::components] = {};
    for (int k = first.z; k < first.z + count.z; ++k)
        for (int j = first.y; j < first.y + count.y; ++j)
            for (int i = first.x; i < first.x + count.x; ++i)
                for (int c = 0; c < Element::components; ++c) sum[c] += Element::at(child[at(i, j, k)], c);
    T mean{};
    for (int c = 0; c < Element::components; ++c)
        Element::at(mean, c) = static_cast<typename Element::Scalar>(sum[c] / (count.x * count.y * count.z));
    return mean;
}

}  // namespace

namespace detail {

template <class Tr>
void copyFromChildren(VoxelChannelCore& channel, int width, int halo, Container<Tr> const& container, int minDepth,
                      int maxDepth)
{
    const auto copyIfSized = [&]<std::size_t Bytes>() {
        if (channel.elementBytes() != Bytes) return false;
        copyWith<Tr, Bytes>(channel, {width, halo}, container, minDepth, maxDepth);
        return true;
    };
    // The sizes of the element types.
    [[maybe_unused]] const bool done = [&]<std::size_t... Bytes>(std::index_sequence<Bytes...>)
    {
        return (copyIfSized.template operator()<Bytes>() || ...);
    }
    (std::index_sequence<1, 2, 4, 8, 12, 16, 24, 32, 36, 64>());
    assert(done);
}

template <class Tr, class T>
void averageChildren(VoxelChannelCore& channel, int width, int halo, Container<Tr> const& container,
                     VoxelOffsetType offset, int minDepth, int maxDepth)
{
    constexpr int r = Tr::cellVoxels, s = Tr::childStride;
    const Layout at{width, halo};
    const int3 count(offset & 1 ? 1 : s, offset & 2 ? 1 : s, offset & 4 ? 1 : s);
    forChildren(channel, container, minDepth, maxDepth, [&](std::byte* own, std::byte const* child, int3 const& cell) {
        T* voxels = reinterpret_cast<T*>(own);
        T const* fine = reinterpret_cast<T const*>(child);
        for (int k = 0; k < r; ++k)
            for (int j = 0; j < r; ++j)
                for (int i = 0; i < r; ++i)
                    voxels[at(cell.x * r + i, cell.y * r + j, cell.z * r + k)] =
                        meanOf(fine, at, s * int3(i, j, k), count);
    });
}

}  // namespace detail

#define TILEGRID_INSTANTIATE_FOR(Tr, T)                                                                                \
    template TILEGRID_API void detail::averageChildren<Tr, T>(VoxelChannelCore&, int, int, Container<Tr> const&,       \
                                                              VoxelOffsetType, int, int);
TILEGRID_FOR_REAL_TYPES(TILEGRID_INSTANTIATE_FOR)
template TILEGRID_API void detail::copyFromChildren(VoxelChannelCore&, int, int, Container<BinaryTraits> const&, int,
                                                    int);
template TILEGRID_API void detail::copyFromChildren(VoxelChannelCore&, int, int, Container<QuinaryTraits> const&, int,
                                                    int);

}  // namespace OST::TileTree3D
