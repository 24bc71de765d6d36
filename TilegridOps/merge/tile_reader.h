#pragma once
#include "TilegridOps/merge/point_reader.h"
#include "TilegridOps/substrate/accessor.h"

#include <array>
#include <cstdint>

namespace tilegrid {

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
        /// The coarser tile in which they lie, and the way from its low corner to that of the tile asked for.
        OST::TileTree3D::TreeIndex source;
        OST::TileTree3D::int3 distance;
    };

    LatticeReader(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelChannelCore const& channel);
    /// Writes the elements of those voxels of the tile that it finds, and the channel's default in those that no tile covers;
    /// lists the others, whose elements it leaves alone.
    void read(Tile const& tile, std::byte* values, VoxelList& missing) const;

private:
    void readSameDepth(Tile const& source, std::byte* values) const;
    void readChild(Tile const& child, OST::TileTree3D::int3 const& place, std::byte* value) const;
    void readCoarser(Tile const& tile, Tile const& source, std::byte* values, VoxelList& missing) const;
    void fill(std::byte* values) const;
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

    /// \param values  W^3 elements, i fastest
    void read(Tile const& tile, std::byte* values);

private:
    OST::TileTree3D::float3 placeOf(Tile const& tile, OST::TileTree3D::int3 const& voxel) const;
    void readPlaces(Tile const& tile, std::byte* values);
    void readMissing(Tile const& tile, std::byte* values);

    std::unique_ptr<PointReader> points_;
    std::unique_ptr<LatticeReader<Tr>> lattice_;
    std::size_t bytes_;
    float voxelSize_;
    OST::TileTree3D::float3 offset_;
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
