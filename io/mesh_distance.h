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
    TriangleTree const& tree_;
    bool watertight_;
};

/// Signed distances of the shell of all places at most `half` (in tile space, positive) from a surface of triangles. Refers to the tree.
class ShellDistance final : public DistanceSource {
public:
    ShellDistance(TriangleTree const& tree, double half) : tree_(tree), half_(half) {}

    Nearest nearest(double3 const& place, std::int32_t guess) const override;
    bool anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const override;
    void fill(double3 const& first, double spacing, int n, double unit, float* values) const override;

private:
    TriangleTree const& tree_;
    double half_;
};

}  // namespace tilegrid::io
