#pragma once
#include "io/distance_source.h"
#include "io/triangle_tree.h"

namespace tilegrid::io {

/// Signed distances of a surface of triangles. The tree's vertices are in tile space. Refers to the tree.
class MeshDistance final : public DistanceSource {
public:
    /// \param watertight  no edge is open and all triangles agree which side is inside: then the winding number changes
    ///        nowhere but on the surface, and neighbours that the surface cannot part share their sign
    MeshDistance(TriangleTree const& tree, bool watertight) : tree_(tree), watertight_(watertight) {}

    Nearest nearest(double3 const& place, std::int32_t guess) const override;
    bool anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const override;
    void fill(double3 const& first, double spacing, int n, double unit, float* values) const override;

private:
    class Lattice;
    TriangleTree const& tree_;
    bool watertight_;
};

}  // namespace tilegrid::io
