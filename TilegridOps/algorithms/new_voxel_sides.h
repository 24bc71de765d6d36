#pragma once
#include "TilegridOps/algorithms/wave.h"
#include "TilegridOps/substrate/channel.h"

#include <cstdint>
#include <vector>

namespace tilegrid {

/// On which side of the surface the voxels of new tiles of one depth lie, from those that were there before.
///
/// Between two voxels side by side nothing crosses if one of them lies further from the surface than the other: sides are handed
/// on so, from tile to tile, and where a voxel hears different things most count, a tie being outside. Far from the surface the
/// tangent plane at the nearest known point says nothing (at coarse depths that point may lie anywhere on the surface), so it has
/// the word only where nothing is handed on: between voxels that are less than a voxel from the surface. New tiles so bring no
/// crossing that was not there.
template <class Tr> class NewVoxelSides {
public:
    using Floats = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;

    /// \param neighbors  27 indices of tiles of the depth for each (`sameDepthNeighbors`)
    /// \param isOld      for each tile whether its values have the signs to go by
    /// \param levelSet   distances: of old tiles with their sign, of new ones above 0; it gets the signs of these
    /// \param spacing    of the voxels, in the unit of the distances
    NewVoxelSides(Floats& levelSet, int depth, std::vector<std::int32_t> const& neighbors, std::vector<std::uint8_t> const& isOld, double spacing);

    bool empty() const { return tiles_.empty(); }
    /// What the tangent plane says of a voxel of a new tile.
    void setTangentSide(OST::int64 tile, int voxel, bool inside);
    /// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
    void write();

private:
    enum State : std::uint8_t { kUnknown = 0, kOutside = 1, kInside = 2, kSides = 3, kTangentInside = 4 };
    using States = std::array<std::uint8_t, std::size_t(Tr::voxelCount)>;

    std::int32_t beside(OST::int64 tile, int direction) const { return neighbors_[std::size_t(tile) * 27 + std::size_t(direction)]; }
    bool spreadInto(std::size_t slot, States& states) const;
    int heard(OST::int64 tile, int voxel, States const& own) const;
    void spread();

    Floats& levelSet_;
    int depth_;
    std::vector<std::int32_t> const& neighbors_;
    double spacing_;
    /// The new tiles, and where each tile is among them; -1 for old ones.
    std::vector<OST::int64> tiles_;
    std::vector<std::int64_t> slot_;
    std::vector<States> states_;
};

extern template class NewVoxelSides<OST::TileTree3D::BinaryTraits>;
extern template class NewVoxelSides<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
