#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/private_tiles.h"
#include "TilegridOps/substrate/visitor.h"

#include <climits>

namespace CoreGL::TileTree3D {

/// Boxes of voxels by depth and tile index, in the tile's own voxel coordinates, inclusive.
template <class Tr>
using TileBoxes = OST::Dense1D::FixedArray<std::vector<Ostara::Math::bbox<Ostara::Math::int3, int>>, Tr::levels>;

/// Grows tiles around active data: for a reduction over the tiles of a tree, which it leaves as it is. Around each tile that
/// holds something active it wants the tiles of the same depth that a box, widened by the dilation, reaches into. What it
/// wants is deterministic; the caller adds it afterwards with `tiles().addTo`.
///
/// Which voxels of a tile are active: those of the mask that are not zero (a NaN is not); without a mask, the tile's box; with
/// neither, all, and then the dilation counts with its sign.
template <class Tr> class TILEGRID_API DilationAllocationVisitor final : public OST::TileTree3D::Container<Tr>::VisitorT {
public:
    using Container = OST::TileTree3D::Container<Tr>;
    using Base = typename Container::VisitorT;
    using typename Base::Tile;
    using Mask = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;
    using Box = Ostara::Math::bbox<Ostara::Math::int3, int>;
    using Base::beginTile;

    /// \param tree  outlives the visitor, like the mask and the boxes, either of which may be null
    /// \param dilation  in voxels of the tile in hand
    /// \param boxes  a tile that it has no entry for counts as empty
    DilationAllocationVisitor(Container const& tree, int dilation, Mask const* mask, TileBoxes<Tr> const* boxes);

    OST::TileTree3D::PrivateTiles<Tr> const& tiles() const { return tiles_; }
    /// Over the tiles that held something active: how many tiles a widened box reached over its own, to the side where it
    /// reached furthest. INT_MAX and 0 if there was none.
    int smallestReach() const { return smallestReach_; }
    int largestReach() const { return largestReach_; }

    void beginTile(Tile const& tile) override;
    void join(Base const& right) override;
    Base* clone() const override { return new DilationAllocationVisitor(tree_, dilation_, mask_, boxes_); }

private:
    /// In 64 bits, so that no dilation overflows.
    struct WideBox {
        std::array<OST::int64, 3> low, high;
    };
    bool activeBox(Tile const& tile, WideBox& box) const;
    bool maskBox(Tile const& tile, Box& box) const;
    void addTouched(Tile const& tile, WideBox const& box);
    void addAround(Tile const& tile, OST::int64 reach);
    bool hasTile(Tile const& tile, Ostara::Math::int3 const& place);

    Container const& tree_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    int dilation_;
    Mask const* mask_;
    TileBoxes<Tr> const* boxes_;
    OST::TileTree3D::PrivateTiles<Tr> tiles_;
    int smallestReach_ = INT_MAX, largestReach_ = 0;
};

extern template class DilationAllocationVisitor<OST::TileTree3D::BinaryTraits>;
extern template class DilationAllocationVisitor<OST::TileTree3D::QuinaryTraits>;

}  // namespace CoreGL::TileTree3D
