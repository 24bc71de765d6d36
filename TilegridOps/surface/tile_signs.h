#pragma once
#include "TilegridOps/surface/leaf_field.h"

#include <array>
#include <vector>

namespace tilegrid::surface {

/// Which signs occur somewhere, as bits.
using Signs = std::uint8_t;
inline constexpr Signs kInside = 1, kOutside = 2, kBothSigns = 3;
inline Signs signOf(float value) { return isInside(value) ? kInside : kOutside; }

/// The signs that decide whether a part of the tree can hold surface at all.
///
/// Of every tile: the signs of its samples. Of every child cell without a child: the signs of all samples that can take part in the
/// value of a node in or on that cell; they are its own corners' and those of the coarser leaf cells that it touches, and so on. If
/// they are one, no node there has another sign (`LeafField`).
template <class Tr> class TileSigns {
public:
    /// Parallel over tiles; fills the signs of samples. Those of cells are for `setCells`, coarser depths first.
    TileSigns(Container<Tr> const& tree, LevelSet<Tr> const& levelSet);

    int deepest() const { return deepest_; }
    /// Beyond tile space.
    Signs outside() const { return outside_; }
    Signs ofTile(TreeIndex const& tile) const { return tiles_[std::size_t(tile.depth)][std::size_t(tile.index)]; }
    /// Of the child cell of a tile above the deepest depth that holds a place.
    Signs ofCell(TreeIndex const& tile, int3 const& place) const
    {
        auto const& t = tree_->tile(tile);
        const int3 cell = t.childIJK(place);
        return cells_[std::size_t(tile.depth)][std::size_t(tile.index)][std::size_t(flatIndex(Tr::branching, cell.x, cell.y, cell.z))];
    }
    using Cells = std::array<Signs, Tr::childCount>;
    void setCells(TreeIndex const& tile, Cells const& cells)
    {
        if (tile.depth < deepest_) cells_[std::size_t(tile.depth)][std::size_t(tile.index)] = cells;
    }

private:
    Container<Tr> const* tree_;
    int deepest_;
    Signs outside_;
    std::array<std::vector<Signs>, Tr::levels> tiles_;
    std::array<std::vector<Cells>, Tr::levels> cells_;
};

extern template class TileSigns<OST::TileTree3D::BinaryTraits>;
extern template class TileSigns<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::surface
