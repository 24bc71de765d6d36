#pragma once
#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/substrate/accessor.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace tilegrid {

/// Most elements are a float; a copy of known length costs a load and a store.
inline void copyElement(std::byte* to, std::byte const* from, std::size_t bytes)
{
    if (bytes == sizeof(float))
        std::memcpy(to, from, sizeof(float));
    else
        std::memcpy(to, from, bytes);
}

/// Reads a channel at the voxels of tiles of another tree of the same structure, voxel size and corner samples, where it has a
/// voxel at exactly the same place: the deepest tile that covers the place decides, never a coarse copy above it. Knows bytes
/// only. For one thread.
///
/// In a binary tree whose voxel size is a power of two this is the value that interpolation gives at the place, to the last bit,
/// if the values around it are finite. Elsewhere a sampler works with rounded places: it reads up to
/// 8 epsilon max(1, |place| / voxel size) finest voxels beside the voxel, perhaps in another tile.
template <class Tr> class LatticeReader {
public:
    using Tile = typename OST::TileTree3D::Container<Tr>::Tile;
    /// Numbers of voxels of a tile, i fastest.
    struct VoxelList {
        std::array<std::uint8_t, Tr::voxelCount> voxel;
        int count = 0;
    };

    LatticeReader(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelChannelCore const& channel);
    /// The finest tile, not deeper than the given one nor than the channel, that covers it; (-1,-1) for none. Quick for tiles of
    /// one parent one after the other, all of the same tree.
    OST::TileTree3D::TreeIndex find(Tile const& tile) const;
    /// All elements of a tile as they lie in the channel, if no deeper tile lies in it; else null.
    /// \param except  cells of this tile that have a child do not count, nor in `readSameDepth`; may be null
    std::byte const* inPlace(OST::TileTree3D::TreeIndex const& source, Tile const* except) const;
    /// Whether the channel has elements for a tile that was found.
    bool hasElements(OST::TileTree3D::TreeIndex const& source) const { return source.valid() && elementsOf(tree_->tile(source)); }
    /// The way from the low corner of a tile that was found to that of the tile asked for.
    OST::TileTree3D::int3 distance(Tile const& tile, OST::TileTree3D::TreeIndex const& source) const
    {
        return tile.tijk() - tree_->tile(source).tijk();
    }
    /// Writes the elements of all voxels from the tile found at the same place and depth, and from its descendants.
    void readSameDepth(OST::TileTree3D::TreeIndex const& source, Tile const* except, std::byte* values) const;
    /// Writes the elements of those voxels of the tile that lie at voxels of the coarser tile found; lists the others, whose
    /// elements it leaves alone.
    void readCoarser(Tile const& tile, OST::TileTree3D::TreeIndex const& source, std::byte* values, VoxelList& missing) const;
    /// Writes the channel's default to all voxels.
    void fill(std::byte* values) const;

private:
    bool hasDeeper(Tile const& source, Tile const* except) const;
    /// Writes the elements of the cell of a tile that a child lies in. \param cell  the first of them, among those of the tile
    void readChild(Tile const& child, std::byte* cell) const;
    /// Writes the element at the place of a voxel of `tile` from the deepest tile there.
    void readDeepest(Tile const& tile, OST::TileTree3D::int3 voxel, std::byte* value) const;
    /// Null in depths that the channel does not have.
    std::byte const* elementsOf(Tile const& tile) const
    {
        return tile.depth() < channel_->minDepth() ? nullptr : channel_->tileBytes(tile.index(), tile.depth());
    }

    OST::TileTree3D::Container<Tr> const* tree_;
    OST::TileTree3D::VoxelChannelCore const* channel_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    std::size_t bytes_;
    int deepest_;
    /// The parent of the last tile asked for, and what covers it.
    mutable OST::TileTree3D::TreeIndex parent_, parentSource_;
};

/// Reads a channel of any structure at the voxels of tiles of a tree of structure Tr: from the lattice where both agree, else at
/// the world places of the voxels. For one thread; others take a copy.
template <class Tr> class TileReader {
public:
    using Tile = typename OST::TileTree3D::Container<Tr>::Tile;
    /// Room for the elements of a tile.
    static constexpr std::size_t kMostBytes = std::size_t(Tr::voxelCount) * 64;

    /// \param voxelSize, offset  of the tree whose tiles will be asked for
    /// \param lattice  null if the lattices differ
    TileReader(std::unique_ptr<PointReader> points, std::unique_ptr<LatticeReader<Tr>> lattice, std::size_t elementBytes, float voxelSize,
               OST::TileTree3D::float3 const& offset);
    TileReader(TileReader const& other);
    TileReader& operator=(TileReader const&) = delete;

    /// Whether a voxel of a tile gets the bits that the voxel at its place in a child of the tile gets.
    bool agreesBetweenDepths() const { return lattice_ && points_->prolongs(); }
    /// Leaves out what deeper tiles of the channel hold where the tile asked for has a child itself: those voxels may take any
    /// value, for a caller that takes them from the child.
    void leaveChildrenOut() { leavesChildrenOut_ = true; }
    /// Makes a tile the one that the functions below read at.
    void seek(Tile const& tile);
    /// \param values  W^3 elements, i fastest
    void read(std::byte* values);
    /// The elements where they lie in the channel, or read into `room`.
    std::byte const* elements(std::byte* room);
    /// Bounds for all values of a channel of floats, found without reading them: where the tile lies in a coarser one of the same
    /// lattice. Not tight.
    /// \return false, and nothing written, if there are none
    bool bounds(float& low, float& high);

private:
    OST::TileTree3D::float3 placeOf(OST::TileTree3D::int3 const& voxel) const;
    void readPlaces(std::byte* values);
    void readCoarser(std::byte* values);
    bool liesInCoarser() const { return source_.valid() && source_.depth < tile_->depth(); }

    std::unique_ptr<PointReader> points_;
    std::unique_ptr<LatticeReader<Tr>> lattice_;
    std::size_t bytes_;
    float voxelSize_;
    OST::TileTree3D::float3 offset_;
    Tile const* tile_ = nullptr;
    bool leavesChildrenOut_ = false;
    /// Where the lattice finds it.
    OST::TileTree3D::TreeIndex source_;
    typename LatticeReader<Tr>::VoxelList missing_;
    std::array<OST::TileTree3D::float3, Tr::voxelCount> places_;
};

extern template class LatticeReader<OST::TileTree3D::BinaryTraits>;
extern template class LatticeReader<OST::TileTree3D::QuinaryTraits>;
extern template class TileReader<OST::TileTree3D::BinaryTraits>;
extern template class TileReader<OST::TileTree3D::QuinaryTraits>;

/// A reader of a plain channel of `tree` for the voxels of a tree `target` of another or the same structure.
/// \param points  reads the same channel
template <class In, class Out>
TileReader<Out> tileReader(OST::TileTree3D::Container<In> const& tree, OST::TileTree3D::VoxelTopology<In> const& topology,
                           OST::TileTree3D::VoxelChannelCore const& channel, std::unique_ptr<PointReader> points,
                           OST::TileTree3D::Container<Out> const& target, OST::TileTree3D::VoxelTopology<Out> const& targetTopology)
{
    std::unique_ptr<LatticeReader<Out>> lattice;
    if constexpr (std::is_same_v<In, Out>)
        if (tree.voxelSize() == target.voxelSize() && topology.offsetType() == OST::TileTree3D::kCorner &&
            targetTopology.offsetType() == OST::TileTree3D::kCorner)
            lattice = std::make_unique<LatticeReader<Out>>(tree, channel);
    return {std::move(points), std::move(lattice), channel.elementBytes(), target.voxelSize(), targetTopology.offset()};
}

}  // namespace tilegrid
