#pragma once
#include "TilegridOps/sampling/halo_cache.h"
#include "TilegridOps/substrate/element_values.h"
#include "io/depth_lattice.h"
#include "io/plain_channel.h"

#include <cstdint>

namespace tilegrid::io {

/// Voxels of a flat grid are handled in cubes of this width: that of the leaf nodes of a .vdb grid. A block lies on multiples
/// of it.
inline constexpr int kBlockWidth = 8, kBlockVoxels = kBlockWidth * kBlockWidth * kBlockWidth;

/// The samples of a tile and those around it that trilinear interpolation inside the tile reads. For one thread.
template <class Tr, class T> class TileSamples {
public:
    TileSamples(OST::TileTree3D::Container<Tr> const& tree, PlainChannel<Tr, T> const& channel,
                OST::TileTree3D::VoxelOffsetType offset)
        : source_{channel, tree, offset}
    {}
    /// Samples along an axis of the array, and the place of the tile's own first sample in it.
    int row() const { return Tr::width + 1 + first(); }
    int first() const { return source_.offset == OST::TileTree3D::kCorner ? 0 : 1; }
    /// row()^3 samples, i fastest, of a tile that the channel has. The array lives until the next call.
    T const* of(OST::TileTree3D::TreeIndex const& tile) { return cache_.fetch(tile, ++queries_, source_); }

private:
    static constexpr int kWays = 4;
    typename OST::TileTree3D::HaloCache<Tr, T>::Source source_;
    OST::TileTree3D::HaloCache<Tr, T> cache_{kWays};
    OST::uint64 queries_ = 0;
};

/// Where a sample of a finer lattice lies on one axis of a tile: behind which of the tile's own samples (-1 for one before
/// the first), and the way to the next, in voxels of the tile. These are the steps of `VoxelSampler::locateVoxel`.
template <class Tr> struct AxisPlace {
    int sample;
    float fraction;
    /// \param way     from the tile's low corner, in tile space
    /// \param depth   of the tile
    /// \param offset  of samples in their voxels
    AxisPlace(double way, int depth, float offset)
    {
        constexpr float kSnap = -1e-5f;  // that of VoxelSampler
        float local = static_cast<float>(way) * static_cast<float>(1.0 / Tr::voxelDataWidth(depth)) - offset;
        if (local > kSnap && local < 0.0f) local = 0.0f;
        sample = static_cast<int>(local) - (local < static_cast<float>(static_cast<int>(local)));
        sample = sample < Tr::width ? sample : Tr::width - 1;
        fraction = local - static_cast<float>(sample);
    }
};

/// What is known of a property inside a leaf voxel.
enum class VoxelState : std::uint8_t { kVaries, kConstant, kDefault };

/// What `coverFlatGrid` asks of a property, whatever its type. For one thread.
class PropertyStates {
public:
    virtual ~PropertyStates() = default;
    /// One for each voxel of a tile. In tiles of the lattice's own depth only `kDefault` has a meaning.
    virtual void read(OST::TileTree3D::TreeIndex const& tile, VoxelState* states) = 0;
};

/// Reads a channel at the voxels of one depth's lattice, with the values of the library's linear sampler: in tiles of that depth
/// the voxels' own bits, in coarser ones trilinear. Types that cannot be mixed have the value of the leaf voxel. For one thread.
template <class Tr, class T> class FlatReader final : public PropertyStates {
    using int3 = Ostara::Math::int3;

public:
    /// All three must outlive the reader.
    FlatReader(OST::TileTree3D::Container<Tr> const& tree, PlainChannel<Tr, T> const& channel,
               OST::TileTree3D::VoxelOffsetType offset, DepthLattice<Tr> const& lattice);

    /// Reads a block, i fastest. Places without a value get the default.
    void read(int3 const& low, T* out);
    void read(OST::TileTree3D::TreeIndex const& tile, VoxelState* states) override;

private:
    /// A part of a block, [low, high), that lies inside one tile of the lattice's depth, or where one would lie.
    struct Part {
        int3 low, high;
    };
    void readPart(int3 const& block, Part const& part, T* out);
    void interpolate(OST::TileTree3D::TreeIndex const& tile, int3 const& block, Part const& part, T* out);
    bool isDefault(T const& value) const;

    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    PlainChannel<Tr, T> const& channel_;
    DepthLattice<Tr> lattice_;
    Ostara::Math::float3 offset_;
    struct Nothing {
        template <class... Args> explicit Nothing(Args const&...) {}
    };
    std::conditional_t<canInterpolate<T>, TileSamples<Tr, T>, Nothing> samples_;
};

}  // namespace tilegrid::io
