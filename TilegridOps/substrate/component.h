#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/traits.h"

#include <utility>
#include <vector>

namespace OST::TileTree3D {

/// A component with content per tile: the tree, its topologies and its channels.
class TILEGRID_API Component : public OST::Component {
public:
    /// Elements (voxels or points) of a depth; depth -1 means all.
    virtual int64 elementCount(int depth) const = 0;
    /// Elements of one tile; 0 for a tile that is not there.
    virtual std::int32_t elementCount(TreeIndex const& tile) const = 0;
    /// Tiles of a depth; depth -1 means all.
    virtual int64 tileCount(int depth) const = 0;

protected:
    using OST::Component::Component;
};

/// Index moves after a removal, by depth: pairs (from, to), both ascending, to <= from. Indices not named keep their place.
using TileMoves = std::vector<std::vector<std::pair<int64, int64>>>;
/// New order of tiles by depth: entry n is the old index of the tile that becomes n. An empty list keeps its depth.
using TilePermutation = std::vector<std::vector<int64>>;

/// Number of depths that `component` may have; both structures fit.
inline constexpr int kMaxLevels = 29;

}  // namespace OST::TileTree3D
