#pragma once
#include "io/distance_source.h"
#include "io/triangle_tree.h"
#include "io/winding_rows.h"

namespace tilegrid::io {

/// Signed distances of a surface of triangles. The tree's vertices are in tile space. Refers to the tree and the rows.
class MeshDistance final : public DistanceSource {
public:
    /// \param rows  of the surface, if it is closed: they say what is inside. Null: the winding number over one half does
    MeshDistance(TriangleTree const& tree, WindingRows const* rows) : tree_(tree), rows_(rows) {}

    Nearest nearest(double3 const& place, std::int32_t guess) const override;
    bool anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const override;
    void fill(double3 const& first, double spacing, int n, double unit, float* values) const override;

private:
    TriangleTree const& tree_;
    WindingRows const* rows_;
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
