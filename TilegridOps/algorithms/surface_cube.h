#pragma once
#include "TilegridOps/algorithms/surface_points.h"
#include "TilegridOps/substrate/coarse_read.h"
#include "TilegridOps/substrate/neighbor_walk.h"

#include <bitset>

namespace tilegrid {

/// The values of a tile and two layers around it, for finding the surface. Values beside a coarser tile, and hanging ones, are
/// made when they are first asked for: by cubic interpolation from the voxels one depth above. Blocked voxels are NaN: what they
/// hold is none of the surface's.
template <class Tr> class SurfaceCube {
public:
    using Tile = typename OST::TileTree3D::Container<Tr>::Tile;
    static constexpr int W = Tr::width, N = W + 4, kCount = N * N * N;
    static constexpr std::array<int, 3> kStride = {1, N, N * N};
    static constexpr int at(int i, int j, int k) { return (i + 2) + N * ((j + 2) + N * (k + 2)); }

    /// \param hangs  for each depth and tile, whether it has hanging voxels; may be empty
    SurfaceCube(SurfaceInput<Tr> const& input, std::array<std::vector<std::uint8_t>, Tr::levels> const& hangs);

    /// \param around  the tiles around `tile`
    void gather(Tile const& tile, OST::TileTree3D::Surroundings const& around);
    /// Whether some value is yet to be made.
    bool incomplete() const { return incomplete_; }
    bool pending(int element) const { return incomplete_ && pending_[std::size_t(element)]; }
    /// Makes the value at (i,j,k) if it is pending.
    void resolve(int i, int j, int k);
    /// What the sign of the field is over the coarse cell that holds a pending position beside the tile: -1 or 1, or 0 if it
    /// changes there. `depth` is that of the tile that covers the position.
    int signOfCell(int i, int j, int k, int depth) const;

    float const* values() const { return values_.data(); }

private:
    void copyTile(int direction, OST::TileTree3D::TreeIndex const& from);
    bool isBlocked(OST::TileTree3D::int3 const& place, int depth) const;
    OST::TileTree3D::SiteTap tap(int voxel, int axis, int depth) const;

    SurfaceInput<Tr> const& input_;
    std::array<std::vector<std::uint8_t>, Tr::levels> const& hangs_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    OST::TileTree3D::SiteReader<Tr, float> sites_;
    Tile const* tile_ = nullptr;
    bool incomplete_ = false;
    std::array<float, kCount> values_;
    std::bitset<kCount> pending_;
};

extern template class SurfaceCube<OST::TileTree3D::BinaryTraits>;
extern template class SurfaceCube<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
