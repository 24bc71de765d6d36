#pragma once
#include "io/triangle_tree.h"

namespace tilegrid::io {

/// Signed distances of a surface over the lattices of tiles, negative inside. The tree's vertices are in tile space.
class DistanceTiles {
public:
    using double3 = Ostara::Math::double3;

    /// \param watertight  no edge is open and all triangles agree which side is inside: then the winding number changes
    ///        nowhere
    ///                    but on the surface, and neighbours that the surface cannot part share their sign
    DistanceTiles(TriangleTree const& tree, bool watertight) : tree_(tree), watertight_(watertight) {}

    /// Writes n^3 distances times `unit`, i fastest: the first at `first`, the next ones `spacing` apart along each
    /// axis. n is at most 5.
    void fill(double3 const& first, double spacing, int n, double unit, float* values) const;

private:
    class Lattice;
    TriangleTree const& tree_;
    bool watertight_;
};

}  // namespace tilegrid::io
