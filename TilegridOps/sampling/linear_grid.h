#pragma once
#include "TilegridOps/sampling/halo_cache.h"
#include "TilegridOps/sampling/tile_finder.h"

namespace OST::TileTree3D {

/// Trilinear reading of a channel with corner samples at the places of small grids along the axes, in world space: the values
/// of `VoxelSamplerLinear::sampleLinear` at its full depth, bit for bit. Tiles are looked up once for all places in them, and what
/// places share is mixed once. For one thread; a copy reads the same and starts with empty caches.
template <class Tr, class T> class TILEGRID_API LinearGrid {
public:
    static constexpr int kMostPlaces = 5;

    LinearGrid(Container<Tr> const& container, Channel<Tr, T, Tr::width, 0> const& channel);
    LinearGrid(LinearGrid const& other);
    LinearGrid& operator=(LinearGrid const&) = delete;

    /// \param along  element n holds the nth coordinate on each axis; they rise
    /// \param count  places per axis, 1 to `kMostPlaces`
    /// \param out    count^3 elements, the place on x running fastest
    /// \return false, and nothing read, for grids that reach out of tile space or over more than two of the finest tiles per
    ///         axis: there single places are as quick
    bool read(float3 const* along, int count, T* out);

private:
    using Found = typename TileFinder<Tr>::Found;
    /// A run of places per axis.
    struct Box {
        int3 begin, end;
    };
    /// Per place, the voxel at or below it and the way from there, for all axes at once.
    struct Local {
        detail::IntLanes voxel;
        detail::Lanes fraction;
    };
    void readBox(Found const& found, Box const& box, int count, T* out);

    Channel<Tr, T, Tr::width, 0> const* channel_;
    TileFinder<Tr> finder_;
    HaloCache<Tr, T> halos_;
    uint64 queries_ = 0;
    float invVoxelSize_;
    int depth_;
    std::array<detail::Lanes, kMostPlaces> position_;
    std::array<Local, kMostPlaces> local_;
};

}  // namespace OST::TileTree3D
