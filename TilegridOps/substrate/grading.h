#pragma once
#include "TilegridOps/substrate/container.h"

#include <optional>
#include <vector>

/// Grading: tiles that touch, be it at a corner, differ by at most one level of depth. Stencils across jumps of resolution
/// rely on it. The border of tile space is no neighbour.
namespace CoreGL::TileTree3D {

using OST::TileTree3D::Container;
using OST::TileTree3D::TileList;
using OST::int64;

/// What refinement knows of a tile: whether it was touched, and a byte for its own use.
struct TileColor {
    unsigned char touched = 0;
    unsigned char state = 0;
    friend bool operator==(TileColor const&, TileColor const&) = default;
};

/// Adds the fewest tiles that make the tree graded, finest depth first, so that one call is enough. Tiles of the depths
/// max(minDepth + 1, 2) to maxDepth are looked at; depths 0 and 1 need no grading. New tiles lie behind the old ones.
/// \param tilesAdded  receives the low corners of new tiles by depth (appended); may be null
/// \param colors  null, or `Tr::levels` vectors with an entry for each tile. Then only touched tiles are looked at; tiles that
///        must be looked at in their turn are marked, and new tiles get (1, 0). Vectors that are too short are filled up so
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; what was added by then is in the tree and the list
template <class Tr>
void gradeTileTree(Container<Tr>& tree, TileList<Tr>* tilesAdded, std::vector<TileColor>* colors, int minDepth, int maxDepth);

/// A tile and a neighbour of it that is two or more levels coarser, in the direction (a `NeighborDirection`) from the tile.
struct GradingFault {
    OST::TileTree3D::TreeIndex tile, neighbor;
    int direction = 0;
};

/// The first such pair, by depth, index and direction, among the tiles of the depths minDepth to maxDepth and neighbours of
/// depth minDepth or deeper; the same for any number of threads.
/// \throws as above
template <class Tr> std::optional<GradingFault> findGradingFault(Container<Tr> const& tree, int minDepth, int maxDepth);

/// Whether there is none. If there is one, it is written to std::cerr.
/// \throws as above
template <class Tr> bool isGraded(Container<Tr> const& tree, int minDepth, int maxDepth);

#define TILEGRID_DECLARE_GRADING(Tr)                                                                                                       \
    extern template TILEGRID_API void gradeTileTree(Container<Tr>&, TileList<Tr>*, std::vector<TileColor>*, int, int);                      \
    extern template TILEGRID_API std::optional<GradingFault> findGradingFault(Container<Tr> const&, int, int);                              \
    extern template TILEGRID_API bool isGraded(Container<Tr> const&, int, int);
TILEGRID_DECLARE_GRADING(OST::TileTree3D::BinaryTraits)
TILEGRID_DECLARE_GRADING(OST::TileTree3D::QuinaryTraits)
#undef TILEGRID_DECLARE_GRADING

}  // namespace CoreGL::TileTree3D
