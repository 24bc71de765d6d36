#pragma once
#include "TilegridOps/host/array.h"
#include "TilegridOps/substrate/channel_core.h"
#include "TilegridOps/substrate/tile_data.h"

#include <cstring>

namespace OST::TileTree3D {

/// Tile data that stays right while the channel grows: it remembers the tile and looks it up at each use.
template <class TileDataT, class ChannelT> class DynamicTileDataOf {
public:
    DynamicTileDataOf() = default;
    DynamicTileDataOf(ChannelT& channel, TreeIndex const& tile) : channel_(&channel), tile_(tile) {}
    TileDataT get() const { return channel_ ? channel_->tileData(tile_) : TileDataT(); }
    explicit operator bool() const { return bool(get()); }
    std::int32_t size() const { return get().size(); }
    auto& operator()(int flat) const { return get()(flat); }
    auto& operator()(int3 const& ijk) const { return get()(ijk); }
    /// Point channels: changes the number of elements of the tile.
    void resize(std::size_t elements) const { channel_->resizeTile(tile_, elements); }

private:
    ChannelT* channel_ = nullptr;
    TreeIndex tile_;
};

/// The values of one property: (N + 2H)^3 elements of type T per tile, i fastest; N = 0 means a list of points per tile.
///
/// Elements are plain bytes to everything but arithmetic. Reading is safe from many threads, and so is writing of different
/// tiles; structural changes are made by one thread alone.
template <class Tr, class T, int N, int H, int = 0>
class TILEGRID_API Channel final : public std::conditional_t<N == 0, PointChannelCore, VoxelChannelCore> {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) <= 64);
    // Two types of 64 bits would be two types of property. Where std::int64_t is `long`, it is not the one that exists.
    static_assert(!std::is_integral_v<T> || sizeof(T) != sizeof(int64) || std::is_same_v<T, int64> || std::is_same_v<T, uint64>,
                  "Channels of 64-bit integers hold OST::int64 or OST::uint64, which are long long: write those for std::int64_t and long.");
    using Core = std::conditional_t<N == 0, PointChannelCore, VoxelChannelCore>;

public:
    using Traits = Tr;
    using Element = T;
    using TileDataT = TileData<T, N, H>;
    using ConstTileDataT = ConstTileData<T, N, H>;
    using DynamicTileData = DynamicTileDataOf<TileDataT, Channel>;
    static constexpr int voxels = N, halo = H;

    /// \param defaultValue  value of new tiles and outside the depth range; null means zero
    /// \param poolBacked  asks for pool memory; every slab takes and returns its pages there while the pool is on, so it
    ///        changes nothing here
    /// \param callElementConstructor  false leaves the elements of new tiles undefined, for a caller that writes all of them
    /// \param minDepth, depth  depths that have data, both inclusive, clamped to the structure
    Channel(Corvid::String const& name, T const* defaultValue, DataElementInitializerType initializer,
            [[maybe_unused]] bool poolBacked, bool callElementConstructor, int minDepth, int depth)
        : Channel(name, defaultValue ? *defaultValue : T(), initializer, callElementConstructor, std::max(minDepth, 0),
                  std::min(depth, Tr::maxDepth), std::integral_constant<bool, N == 0>())
    {
    }
    Channel(Channel const&) = default;

    T defaultValue() const
    {
        T value;
        std::memcpy(&value, this->defaultBytes(), sizeof(T));
        return value;
    }

    /// Handles of a tile's elements; empty for a tile that the channel does not have.
    TileDataT tileData(TreeIndex const& tile) { return tileData(tile.index, tile.depth); }
    TileDataT tileData(int64 index, int depth)
    {
        const ConstTileDataT view = std::as_const(*this).tileData(index, depth);
        return {const_cast<T*>(view.data()), view.size()};
    }
    /// By running number over all depths of the channel, 0 to tileCount(-1) - 1.
    TileDataT tileData(int64 flat) { return tileData(this->tileOfFlat(flat)); }
    ConstTileDataT tileData(TreeIndex const& tile) const { return tileData(tile.index, tile.depth); }
    ConstTileDataT tileData(int64 index, int depth) const
    {
        if constexpr (N == 0) {
            return {reinterpret_cast<T const*>(this->tileBytes(index, depth)), this->elementCount(TreeIndex{index, depth})};
        } else {
            auto const* data = reinterpret_cast<T const*>(this->tileBytes(index, depth, TileDataT::elements * sizeof(T)));
            return {data, data ? TileDataT::elements : 0};
        }
    }
    ConstTileDataT tileData(int64 flat) const { return tileData(this->tileOfFlat(flat)); }

    /// Gives handles that survive growth of the channel.
    class TileDataAccessor {
    public:
        explicit TileDataAccessor(Channel& channel) : channel_(&channel) {}
        DynamicTileData tileData(TreeIndex const& tile) const { return {*channel_, tile}; }

    private:
        Channel* channel_;
    };
    TileDataAccessor tileDataAccessor() { return TileDataAccessor(*this); }

    void copyTo(Corvid::Ptr<OST::Component>& copy) const override { copy = Corvid::makeMutable<Channel>(*this); }
    bool hasElementType(Corvid::Any const& sample) const override { return sample.holds<T>(); }
    Corvid::Ptr<void> channelData(unsigned depth, Corvid::Any const& sample) const override;
    void setChannelData(unsigned depth, Corvid::Any const& sample, Corvid::Ptr<void> const& data) override;

private:
    Channel(Corvid::String const& name, T const& value, DataElementInitializerType initializer, bool callElementConstructor,
            int minDepth, int depth, std::false_type)
        : Core(name, &value, sizeof(T), TileDataT::elements, initializer,
               callElementConstructor, minDepth, depth)
    {
    }
    Channel(Corvid::String const& name, T const& value, DataElementInitializerType initializer, bool callElementConstructor,
            int minDepth, int depth, std::true_type)
        : Core(name, &value, sizeof(T), initializer, callElementConstructor, minDepth, depth)
    {
    }
};

template <class Tr, class T, int N, int H, int Z>
Corvid::Ptr<void> Channel<Tr, T, N, H, Z>::channelData(unsigned depth, Corvid::Any const& sample) const
{
    if (!hasElementType(sample) || depth >= unsigned(Tr::levels)) return {};
    Corvid::Array<T> values;
    for (int64 n = 0; n < this->tileCount(int(depth)); ++n) {
        const ConstTileDataT tile = tileData(n, int(depth));
        values.append(tile.begin(), tile.end());
    }
    return Corvid::makeMutable<Corvid::Array<T>>(std::move(values));
}

template <class Tr, class T, int N, int H, int Z>
void Channel<Tr, T, N, H, Z>::setChannelData(unsigned depth, Corvid::Any const& sample, Corvid::Ptr<void> const& data)
{
    if (!hasElementType(sample) || depth >= unsigned(Tr::levels) || !data) return;
    auto const& values = *static_cast<Corvid::Array<T> const*>(data.get());
    if (values.size() != static_cast<std::size_t>(this->elementCount(int(depth)))) return;
    T const* from = values.data();
    for (int64 n = 0; n < this->tileCount(int(depth)); ++n) {
        const TileDataT tile = tileData(n, int(depth));
        std::copy_n(from, tile.size(), tile.begin());
        from += tile.size();
    }
}

}  // namespace OST::TileTree3D
