#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/component.h"

namespace OST::TileTree3D {

/// Collects moves of elements (points) from tile to tile. A value of deterministic reductions: `join` appends the moves of
/// the part to the right.
template <class Tr> class TILEGRID_API TileDataElementAccessorT {
public:
    struct Move {
        ElementTreeIndex from;
        TreeIndex to;
    };
    /// Notes that the element goes to the end of tile `to`. An element is moved once; a second note for it is ignored.
    void move(ElementTreeIndex const& from, TreeIndex const& to) { moves_.push_back({from, to}); }
    /// The number is the depth of the reduction, which this form does not need.
    void join(TileDataElementAccessorT const& right, int)
    {
        moves_.insert(moves_.end(), right.moves_.begin(), right.moves_.end());
    }
    std::vector<Move> const& moves() const { return moves_; }

private:
    std::vector<Move> moves_;
};

/// Applies the moves to the point topology and to all point channels of the object: in each tile the elements that stay
/// keep their order and come first, then those that arrive in the order of their notes. The topology may lie outside the object.
template <class Tr> TILEGRID_API void updateElements(TileDataElementAccessorT<Tr> const& accessor, Component& pointTopology, OST::Object& object);

}  // namespace OST::TileTree3D
