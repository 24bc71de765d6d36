#include "TilegridOps/substrate/initialize_tile_data.h"

#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/substrate/topology.h"

namespace OST::TileTree3D {

namespace {

constexpr int64 kGrain = 64;

/// Per depth, the indices of tiles: ascending, so that they are visited in the order of memory, and each once, so that no two
/// tasks write the same tile.
template <class Tr> using TileIndices = std::array<std::vector<int64>, Tr::levels>;

template <class Tr> TileIndices<Tr> indicesOf(Container<Tr> const& container, TileList<Tr> const& tiles)
{
    TileIndices<Tr> indices;
    for (int depth = 1; depth < Tr::levels; ++depth) {
        auto& list = indices[depth];
        list.resize(tiles[depth].size());
        tilegrid::parallel::forRanges(0, static_cast<int64>(list.size()), kGrain, [&](int64 begin, int64 end) {
            const auto accessor = container.tileAccessor();
            for (int64 n = begin; n < end; ++n) {
                const int3 place = tiles[depth][static_cast<std::size_t>(n)];
                bool inside = true;
                for (int axis = 0; axis < 3; ++axis)
                    inside &= place[axis] >= Tr::rangeMin && place[axis] <= Tr::rangeMax;
                const TreeIndex found = inside ? accessor.find(place.x, place.y, place.z, depth) : TreeIndex();
                list[static_cast<std::size_t>(n)] = found.depth == depth ? found.index : -1;
            }
        });
        tilegrid::parallel::sort(list.data(), list.data() + list.size(), std::less<int64>());
        list.erase(std::unique(list.begin(), list.end()), list.end());
        if (!list.empty() && list.front() < 0) list.erase(list.begin());
    }
    return indices;
}

template <class Tr, class T> void injectTile(VoxelView<T> const& voxels, T* own, T const* parent, int3 const& cell)
{
    constexpr int W = Tr::width, r = Tr::cellVoxels, s = Tr::childStride;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                own[voxels.index(i, j, k)] =
                    parent[voxels.index(r * cell.x + i / s, r * cell.y + j / s, r * cell.z + k / s)];
}

/// The B^3 voxels of one block from its eight corners [x][y][z], by repeated addition of differences along z, then y, then x.
/// The low corner keeps its bits. \param store  takes (i, j, k, value), each 0 to B-1
template <int B, class T, class Store> void mixBlock(T const (&corner)[2][2][2], Store const& store)
{
    constexpr auto step = typename Ostara::Math::ElementTraits<T>::Scalar(1) / B;
    T z[2][2], dz[2][2];
    for (int p = 0; p < 2; ++p)
        for (int q = 0; q < 2; ++q) {
            z[p][q] = corner[p][q][0];
            dz[p][q] = (corner[p][q][1] - corner[p][q][0]) * step;
        }
    for (int k = 0; k < B; ++k) {
        T y[2] = {z[0][0], z[1][0]};
        const T dy[2] = {(z[0][1] - z[0][0]) * step, (z[1][1] - z[1][0]) * step};
        for (int j = 0; j < B; ++j) {
            T x = y[0];
            const T dx = (y[1] - y[0]) * step;
            for (int i = 0; i < B; ++i) {
                store(i, j, k, x);
                x += dx;
            }
            for (int p = 0; p < 2; ++p) y[p] += dy[p];
        }
        for (int p = 0; p < 2; ++p)
            for (int q = 0; q < 2; ++q) z[p][q] += dz[p][q];
    }
}

template <class Tr, class T>
void mixTile(SiteReader<Tr, T> const& reader, T* own, TreeIndex const& parent, int3 const& cell)
{
    constexpr int r = Tr::cellVoxels, B = Tr::branching, n = r + 1;
    T sites[n * n * n];
    reader.gather(parent, r * cell, int3(n), sites);
    VoxelView<T> const& voxels = reader.voxels();
    for (int c = 0; c < r; ++c)
        for (int b = 0; b < r; ++b)
            for (int a = 0; a < r; ++a) {
                T corner[2][2][2];
                for (int p = 0; p < 8; ++p)
                    corner[p & 1][p >> 1 & 1][p >> 2] =
                        sites[flatIndex(n, a + (p & 1), b + (p >> 1 & 1), c + (p >> 2))];
                mixBlock<B>(corner, [&](int i, int j, int k, T const& value) {
                    own[voxels.index(a * B + i, b * B + j, c * B + k)] = value;
                });
            }
}

/// The same where the samples of some axes lie in the middle of their voxels: those around a child's are the parent's on both sides.
template <class Tr, class T>
void mixTileCentred(SiteReader<Tr, T> const& reader, T* own, TreeIndex const& parent, int3 const& cell)
{
    constexpr int W = Tr::width, s = Tr::childStride;
    const SiteTaps x(W, cell.x * W, 1, s, reader.centred(0)), y(W, cell.y * W, 1, s, reader.centred(1)), z(W, cell.z * W, 1, s, reader.centred(2));
    T sites[SiteReader<Tr, T>::kBlock];
    reader.gather(parent, int3(x.low, y.low, z.low), int3(x.count, y.count, z.count), sites);
    const auto at = [&](int i, int j, int k) -> T const& { return sites[i + x.count * (j + y.count * k)]; };
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i) own[reader.voxels().index(i, j, k)] = mixSites<T>(x[i], y[j], z[k], at);
}

template <class Tr, class T>
void fillTiles(Container<Tr> const& container, std::vector<int64> const& tiles, int depth, VoxelChannelCore& channel,
               VoxelView<T> const& voxels, T const& defaultValue, VoxelOffsetType offset)
{
    const bool inject = !tilegrid::canInterpolate<T> || channel.dataElementInitializerType() == kInitializeInject;
    tilegrid::parallel::loop(0, static_cast<int64>(tiles.size()), kGrain, [&](int64 begin, int64 end) {
        const auto accessor = container.tileAccessor();
        for (int64 n = begin; n < end; ++n) {
            auto const& tile = container.tile(tiles[static_cast<std::size_t>(n)], depth);
            const TreeIndex above = tile.parentTreeIndex();
            T* own = const_cast<T*>(voxels.tile(tile.treeIndex()));
            T const* parent = above.valid() ? voxels.tile(above) : nullptr;
            if (!own || !parent) continue;
            const int3 cell = container.tile(above).childIJK(tile);
            if (inject) {
                injectTile<Tr>(voxels, own, parent, cell);
            } else if constexpr (tilegrid::canInterpolate<T>) {
                const SiteReader<Tr, T> reader(voxels, accessor, offset, defaultValue);
                offset == kCorner ? mixTile<Tr, T>(reader, own, above, cell) : mixTileCentred<Tr, T>(reader, own, above, cell);
            }
        }
    });
}

template <class Tr>
void initialize(Container<Tr> const& container, TileIndices<Tr> const& tiles, VoxelChannelCore& channel, VoxelOffsetType offset)
{
    if (channel.dataElementInitializerType() == kInitializeNone) return;
    const auto attempt = [&]<class T, int N, int H>() {
        auto const* typed = dynamic_cast<Channel<Tr, T, N, H> const*>(&channel);
        if (!typed) return false;
        for (int depth = std::max(channel.minDepth() + 1, 1); depth <= channel.depth(); ++depth)
            fillTiles<Tr, T>(container, tiles[depth], depth, channel, VoxelView<T>(*typed), typed->defaultValue(), offset);
        return true;
    };
    const auto attemptLayouts = [&]<class T>() {
        constexpr int W = Tr::width;
        return attempt.template operator()<T, W, 0>() || attempt.template operator()<T, W + 1, 0>()
            || attempt.template operator()<T, W, 1>();
    };
    [&]<class... Ts>(tilegrid::TypeList<Ts...>) {
        (void)(attemptLayouts.template operator()<Ts>() || ...);
    }(tilegrid::ElementTypes());
}

}  // namespace

template <class Tr>
void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded, VoxelChannelCore& channel, VoxelOffsetType offset)
{
    initialize<Tr>(container, indicesOf<Tr>(container, tilesAdded), channel, offset);
}

template <class Tr>
void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded, OST::Object& object)
{
    const auto topology = object.component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    initializeTileData<Tr>(container, tilesAdded, object, topology ? topology->offsetType() : kCorner);
}

template <class Tr>
void initializeTileData(Container<Tr> const& container, TileList<Tr> const& tilesAdded, OST::Object& object, VoxelOffsetType offset)
{
    const TileIndices<Tr> tiles = indicesOf<Tr>(container, tilesAdded);
    if (std::all_of(tiles.begin(), tiles.end(), [](auto const& list) { return list.empty(); })) return;
    for (Corvid::String const& name : object.componentRange()) {
        // A channel that others share is copied when it is taken out, so only those that will change are.
        const auto changes = [&] {
            const auto shared = object.component<VoxelChannelCore>(name);
            return shared && shared->dataElementInitializerType() != kInitializeNone;
        };
        if (!changes()) continue;
        auto channel = object.extractComponent<VoxelChannelCore>(name);
        initialize<Tr>(container, tiles, *channel, offset);
        object.putComponent(std::move(channel));
    }
}

TILEGRID_INITIALIZE_TILE_DATA(, BinaryTraits)
TILEGRID_INITIALIZE_TILE_DATA(, QuinaryTraits)

}  // namespace OST::TileTree3D
