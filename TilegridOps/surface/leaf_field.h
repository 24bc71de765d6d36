#pragma once
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel.h"

#include <cstdint>
#include <vector>

namespace tilegrid::surface {

using OST::int64;
using OST::TileTree3D::Channel;
using OST::TileTree3D::Container;
using OST::TileTree3D::cubeIndex;
using OST::TileTree3D::flatIndex;
using OST::TileTree3D::TreeIndex;
using Ostara::Math::int3;

template <class Tr> using LevelSet = Channel<Tr, float, Tr::width, 0>;

/// What counts as inside: not zero, not NaN.
template <class T> constexpr bool isInside(T value) { return value < T(0); }

inline std::size_t hashOf(int3 const& place)
{
    const auto bits = [](std::int32_t v) { return std::uint64_t(std::uint32_t(v)); };
    const std::uint64_t key = bits(place.x) * 0x9e3779b97f4a7c15ull ^ bits(place.y) * 0xc2b2ae3d27d4eb4full
        ^ bits(place.z) * 0x165667b19e3779f9ull;
    return std::size_t(key >> 20);
}

/// How a level set goes on beyond tile space: as it is at the low corner. So one that is inside out has no surface around
/// everything, and yet what reaches the border is closed there.
template <class Tr> float valueBeyond(Container<Tr> const& tree, LevelSet<Tr> const& levelSet);

/// A level set as one function of places, the same from every side.
///
/// The leaf cells of a tree fill tile space. The value at a lattice node is told by the coarsest leaf cell that touches it: its
/// sample if the node is one of the cell's corners, else the trilinear mix of the values at the corners, told by the same rule.
/// So all cells around a node agree on its value, on graded trees and others. On the border of tile space and beyond it is
/// `valueBeyond`, and the channel's default at depths above those of the channel.
///
/// One per thread.
template <class Tr> class LeafField {
public:
    struct Value {
        double value;
        /// No number that took part in the mix is larger.
        double magnitude;
    };

    LeafField(Container<Tr> const& tree, LevelSet<Tr> const& levelSet);

    Value at(int3 const& node);
    bool inside(int3 const& node) { return isInside(at(node).value); }
    /// The tile whose leaf cell holds a place; (-1,-1) outside tile space.
    TreeIndex leafTile(int3 const& place) const;
    /// Whether the cell of a depth that holds the place has finer leaf cells in it.
    bool divided(int3 const& place, int depth) const { return depth < deepest_ && leafTile(place).depth > depth; }
    Container<Tr> const& tree() const { return *tree_; }
    /// Low corner of a tile's cell that holds a place, and its number among the tile's voxels.
    int3 cellCorner(TreeIndex const& tile, int3 const& place) const;
    int cellNumber(TreeIndex const& tile, int3 const& place) const;

private:
    static constexpr std::size_t kSlots = 1024;
    struct Slot {
        int3 node;
        bool used = false;
        Value value{};
    };
    Value evaluated(int3 const& node);
    Value mixed(int3 const& low, int width, int3 const& node);

    Container<Tr> const* tree_;
    LevelSet<Tr> const* levelSet_;
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    int deepest_;
    Value beyond_, unset_;
    std::vector<Slot> slots_;
};

extern template float valueBeyond(Container<OST::TileTree3D::BinaryTraits> const&, LevelSet<OST::TileTree3D::BinaryTraits> const&);
extern template float valueBeyond(Container<OST::TileTree3D::QuinaryTraits> const&, LevelSet<OST::TileTree3D::QuinaryTraits> const&);
extern template class LeafField<OST::TileTree3D::BinaryTraits>;
extern template class LeafField<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid::surface
