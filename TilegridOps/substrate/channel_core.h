#pragma once
#include "TilegridOps/host/any.h"
#include "TilegridOps/host/ptr.h"
#include "TilegridOps/substrate/component.h"
#include "TilegridOps/substrate/slab.h"

#include <array>
#include <cstddef>

namespace OST::TileTree3D {

/// What every channel answers, whatever its element type: the operations of a component, then those of a channel.
class TILEGRID_API ChannelBase : public Component {
public:
    void dump(std::ostream& out) const override;
    std::size_t size() const override { return static_cast<std::size_t>(elementCount(-1)); }
    bool empty() const override { return elementCount(-1) == 0; }
    void update(OST::Component const& source) override;

    // A channel's data exists for the depths from minDepth() to depth(); elsewhere a read gives the default value.
    virtual int minDepth() const = 0;
    virtual int depth() const = 0;
    /// Changes the range; depths that join get the tiles of `source` with the default value, depths that leave lose theirs.
    virtual void setMinDepth(int minDepth, OST::Component const& source) = 0;
    virtual void setDepth(int depth, OST::Component const& source) = 0;
    /// Whether `sample` holds a value of the element type.
    virtual bool hasElementType(Corvid::Any const& sample) const = 0;
    /// All elements of a depth, tile after tile, as a `Corvid::Array<T>`; null if `sample` is of another type.
    virtual Corvid::Ptr<void> channelData(unsigned depth, Corvid::Any const& sample) const = 0;
    /// The reverse. Nothing happens if the type or the number of elements differs.
    virtual void setChannelData(unsigned depth, Corvid::Any const& sample, Corvid::Ptr<void> const& data) = 0;
    /// The channel grows to the tiles of `source` (a topology, tree or channel).
    virtual void updateTilesAdded(Component const& source) = 0;
    /// Applies index moves; afterwards each depth has as many tiles as in `source`.
    virtual void updateTilesRemoved(TileMoves const& moves, Component const& source) = 0;
    virtual void updateTilesPermuted(TilePermutation const& permutation) = 0;
    /// Rebuilds point lists: `counts[depth][tile]` is the new number of elements, and every element of a listed depth
    /// comes from where `moves[depth]` says, or is the default value. A depth with no counts is left as it is. Voxel channels
    /// ignore it.
    virtual void updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                                std::vector<std::vector<std::size_t>> const& counts) = 0;
    /// Gives each tile as many elements as it has in `source`: values stay, new ones are the default. Voxel channels ignore it.
    virtual void updateElementResize(Component const& source) = 0;

    DataElementInitializerType dataElementInitializerType() const { return initializer_; }
    void setDataElementInitializerType(DataElementInitializerType type) { initializer_ = type; }
    std::size_t elementBytes() const { return elementBytes_; }
    std::byte const* defaultBytes() const { return default_.data(); }

protected:
    ChannelBase(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes, DataElementInitializerType initializer,
                bool callElementConstructor, int minDepth, int depth);

    static constexpr std::size_t kLargestElement = 64;
    std::array<std::byte, kLargestElement> default_{};
    std::size_t elementBytes_;
    DataElementInitializerType initializer_;
    bool callElementConstructor_;
    int minDepth_, maxDepth_;
};

/// Voxel channels: one slab per depth in tile-index order, every tile with the same number of elements. Knows bytes only.
class TILEGRID_API VoxelChannelCore : public ChannelBase {
public:
    void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const override;
    int64 elementCount(int depth) const override { return tileCount(depth) * elementsPerTile_; }
    std::int32_t elementCount(TreeIndex const& tile) const override { return tileBytes(tile.index, tile.depth) ? elementsPerTile_ : 0; }
    int64 tileCount(int depth) const override;
    int minDepth() const override { return minDepth_; }
    int depth() const override { return maxDepth_; }
    void setMinDepth(int minDepth, OST::Component const& source) override;
    void setDepth(int depth, OST::Component const& source) override;
    void updateTilesAdded(Component const& source) override;
    void updateTilesRemoved(TileMoves const& moves, Component const& source) override;
    void updateTilesPermuted(TilePermutation const& permutation) override;
    void updateElements(std::vector<std::vector<ElementToFrom>> const&, std::vector<std::vector<std::size_t>> const&) override {}
    void updateElementResize(Component const&) override {}

    /// First byte of a tile's elements; null for a tile that the channel does not have.
    std::byte const* tileBytes(int64 index, int depth) const
    {
        return tileBytes(index, depth, tileStride_);
    }
    std::byte* tileBytes(int64 index, int depth) { return const_cast<std::byte*>(std::as_const(*this).tileBytes(index, depth)); }

protected:
    VoxelChannelCore(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes, int elementsPerTile,
                     DataElementInitializerType initializer, bool callElementConstructor, int minDepth, int depth);
    /// The same for a caller that knows the bytes of a tile at compile time.
    std::byte const* tileBytes(int64 index, int depth, std::size_t tileStride) const
    {
        if (unsigned(depth) >= unsigned(kMaxLevels) || uint64(index) >= uint64(slab_[depth].tiles)) return nullptr;
        return slab_[depth].bytes.data() + static_cast<std::size_t>(index) * tileStride;
    }
    /// Address of a tile by its running number over all depths of the channel.
    TreeIndex tileOfFlat(int64 flat) const;

private:
    void resizeDepth(int depth, int64 tiles);
    struct DepthSlab {
        tilegrid::RawSlab bytes;
        int64 tiles = 0;
    };
    std::array<DepthSlab, kMaxLevels> slab_;
    std::size_t tileStride_;
    int elementsPerTile_;
};

/// Point channels: a list per tile, whose lengths follow a `PointTopology`.
class TILEGRID_API PointChannelCore : public ChannelBase {
public:
    void memUse(std::size_t& used, std::size_t& reserved, bool withLookup) const override;
    int64 elementCount(int depth) const override;
    std::int32_t elementCount(TreeIndex const& tile) const override;
    int64 tileCount(int depth) const override;
    int minDepth() const override { return minDepth_; }
    int depth() const override { return maxDepth_; }
    void setMinDepth(int minDepth, OST::Component const& source) override;
    void setDepth(int depth, OST::Component const& source) override;
    void updateTilesAdded(Component const& source) override;
    void updateTilesRemoved(TileMoves const& moves, Component const& source) override;
    void updateTilesPermuted(TilePermutation const& permutation) override;
    void updateElements(std::vector<std::vector<ElementToFrom>> const& moves,
                        std::vector<std::vector<std::size_t>> const& counts) override;
    void updateElementResize(Component const& source) override;

    std::byte const* tileBytes(int64 index, int depth) const;
    std::byte* tileBytes(int64 index, int depth) { return const_cast<std::byte*>(std::as_const(*this).tileBytes(index, depth)); }
    /// Changes the length of one tile's list; new elements are the default. Different tiles may be resized at once.
    void resizeTile(TreeIndex const& tile, std::size_t elements);

protected:
    PointChannelCore(Corvid::String const& name, void const* defaultValue, std::size_t elementBytes,
                     DataElementInitializerType initializer, bool callElementConstructor, int minDepth, int depth);
    TreeIndex tileOfFlat(int64 flat) const;

private:
    using List = std::vector<std::byte>;
    void fillDefault(List& list, std::size_t fromByte) const;
    std::array<std::vector<List>, kMaxLevels> lists_;
};

}  // namespace OST::TileTree3D
