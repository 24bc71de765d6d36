#pragma once
#include "TilegridOps/substrate/commands.h"
#include "support/trees.h"

#include <cstring>

namespace tilegrid::test {

/// A value of T that belongs to one element of one tile: every byte depends on the tile's corner, its depth and the element.
template <class T> T addressValue(TileKey const& key, int element)
{
    std::uint64_t h = static_cast<std::uint64_t>(key.depth) << 32 | static_cast<std::uint32_t>(element);
    for (std::int64_t x : key.low) h = Random::mixed(h ^ static_cast<std::uint64_t>(x)) + 0x632be59bd9b4e019ull;
    std::array<unsigned char, sizeof(T)> bytes;
    for (std::size_t b = 0; b < sizeof(T); ++b) {
        bytes[b] = static_cast<unsigned char>(h >> 56);
        h = Random::mixed(h + b + 1);
    }
    T value;
    std::memcpy(&value, bytes.data(), sizeof(T));
    return value;
}

template <class T> bool sameBytes(T const& a, T const& b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

/// The channels of one volume whose elements tell where they belong, so that a lost, swapped or stale value shows. Several
/// element sizes, layouts and depth ranges.
template <class Tr> class AddressChannels {
public:
    template <class T, int N, int H> using Channel = OST::TileTree3D::Channel<Tr, T, N, H>;
    using Topology = OST::TileTree3D::VoxelTopology<Tr>;
    static constexpr int W = Tr::width, D = Tr::maxDepth;

    explicit AddressChannels(Tree<Tr> const& tree) : tree_(tree), topology_("voxels", OST::TileTree3D::kCorner)
    {
        topology_.update(tree);
        make<OST::uint64, W, 0>("whole", 0x1122334455667788ull, 0, D);
        make<unsigned char, W + 1, 0>("bytes", static_cast<unsigned char>(200), 0, D);
        make<int3, W, 1>("halo", int3(7, -8, 9), 0, D);
        make<Ostara::Math::float4x4, W, 0>("middle", Ostara::Math::float4x4(2.5f), 3, D - 2);
        make<short, W, 0>("deepest", short(-5), D, D);
        fill();
    }
    OST::Object& object() { return object_; }
    Topology& topology() { return topology_; }

    void tilesAdded()
    {
        topology_.update(tree_);
        OST::TileTree3D::updateTilesAdded(topology_, object_);
    }
    void tilesRemoved(OST::TileTree3D::TileMoves const& moves)
    {
        topology_.update(tree_);
        OST::TileTree3D::updateTilesRemoved(moves, topology_, object_);
    }
    void tilesPermuted(OST::TileTree3D::TilePermutation const& permutation)
    {
        OST::TileTree3D::updateTilesPermuted(permutation, object_);
    }
    /// Writes every element's address.
    void fill()
    {
        forEachChannel([this]<class T, int N, int H>(char const* name, T const&) {
            auto channel = object_.extractComponent<Channel<T, N, H>>(name);
            for (int d = channel->minDepth(); d <= channel->depth(); ++d)
                for (OST::int64 n = 0; n < tree_.tileCount(d); ++n) {
                    const auto data = channel->tileData(n, d);
                    for (int e = 0; e < data.size(); ++e) data(e) = addressValue<T>(keyOf(tree_.tile(n, d)), e);
                }
            object_.putComponent(std::move(channel));
        });
    }
    /// One line per violation: tiles of `known` must hold their addresses, all others the default value.
    std::string violations(std::set<TileKey> const& known)
    {
        std::ostringstream out;
        forEachChannel([&]<class T, int N, int H>(char const* name, T const& defaultValue) {
            auto channel = object_.component<Channel<T, N, H>>(name);
            if (!channel) {
                out << name << " is missing\n";
                return;
            }
            for (int d = 0; d <= D; ++d) {
                const bool inRange = d >= channel->minDepth() && d <= channel->depth();
                if (channel->tileCount(d) != (inRange ? tree_.tileCount(d) : 0))
                    out << name << " has " << channel->tileCount(d) << " tiles at depth " << d << "\n";
                for (OST::int64 n = 0; inRange && n < tree_.tileCount(d); ++n)
                    checkTile(out, name, *channel, tree_.tile(n, d), defaultValue, known);
            }
        });
        if (topology_.tileCount(-1) != tree_.tileCount(-1)) out << "the topology counts other tiles\n";
        return out.str();
    }

private:
    template <class F> void forEachChannel(F f)
    {
        f.template operator()<OST::uint64, W, 0>("whole", 0x1122334455667788ull);
        f.template operator()<unsigned char, W + 1, 0>("bytes", static_cast<unsigned char>(200));
        f.template operator()<int3, W, 1>("halo", int3(7, -8, 9));
        f.template operator()<Ostara::Math::float4x4, W, 0>("middle", Ostara::Math::float4x4(2.5f));
        f.template operator()<short, W, 0>("deepest", short(-5));
    }
    template <class T, int N, int H> void make(char const* name, T const& value, int minDepth, int maxDepth)
    {
        OST::TileTree3D::Command::createChannel<T, Tr::branching, W, N, H>(
            name, topology_, object_, value, OST::TileTree3D::kInitializeLinear, minDepth, maxDepth);
    }
    template <class C, class TileT, class T>
    static void checkTile(std::ostream& out, char const* name, C const& channel, TileT const& tile,
                          T const& defaultValue, std::set<TileKey> const& known)
    {
        const TileKey key = keyOf(tile);
        const auto data = channel.tileData(tile.treeIndex());
        constexpr int side = C::voxels + 2 * C::halo;
        if (!data || data.size() != side * side * side) {
            out << name << " has no data for " << key << "\n";
            return;
        }
        const bool old = known.count(key) != 0;
        for (int e = 0; e < data.size(); ++e)
            if (!sameBytes(data(e), old ? addressValue<T>(key, e) : defaultValue)) {
                out << name << ", element " << e << " of " << key
                    << (old ? ": not its own value\n" : ": not the default\n");
                return;
            }
    }

    Tree<Tr> const& tree_;
    Topology topology_;
    OST::Object object_;
};

}  // namespace tilegrid::test
