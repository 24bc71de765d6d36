#pragma once
#include <array>
#include <cstdint>
#include <vector>

namespace tilegrid::io {

struct PlanePoint {
    double x = 0.0, y = 0.0;
    bool operator==(PlanePoint const&) const = default;
};

/// Twice the area of a triangle in the plane; positive if it turns left.
inline double turn(PlanePoint const& a, PlanePoint const& b, PlanePoint const& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

/// Points of the plane that may lie in the way of a triangle, in a k-d tree. Points can be taken out.
class PolygonBlockers {
public:
    static constexpr std::int32_t kNone = -1;

    /// \param points  outlives this
    /// \param members  indices of those that count at first
    PolygonBlockers(std::vector<PlanePoint> const& points, std::vector<std::int32_t> members);

    void remove(std::int32_t point);
    /// A member in the triangle (it turns left) or on its rim, but not at one of its corners; `kNone` if there is none. Adds
    /// the nodes and points looked at to `steps`.
    std::int32_t findIn(std::array<PlanePoint, 3> const& triangle, std::int64_t& steps) const;

private:
    static constexpr std::int32_t kLeafPoints = 4;
    /// The children of node n are 2n + 1 and 2n + 2.
    struct Node {
        PlanePoint low, high;
        std::int32_t begin = 0, end = 0, alive = 0;
    };
    void build(std::size_t node, std::int32_t begin, std::int32_t end);
    bool isLeaf(Node const& node) const { return node.end - node.begin <= kLeafPoints; }

    std::vector<PlanePoint> const& points_;
    std::vector<std::int32_t> members_;
    /// By point: its leaf, or `kNone` if it does not count.
    std::vector<std::int32_t> leaf_;
    std::vector<Node> nodes_;
};

}  // namespace tilegrid::io
