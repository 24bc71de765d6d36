#include "io/polygon_blockers.h"

#include <algorithm>

namespace tilegrid::io {

namespace {

/// Whether the box lies wholly to the right of an edge of a triangle that turns left, and so beyond it.
bool beyondAnEdge(PlanePoint const& low, PlanePoint const& high, std::array<PlanePoint, 3> const& triangle)
{
    for (std::size_t n = 0; n < 3; ++n) {
        PlanePoint const &a = triangle[n], &b = triangle[(n + 1) % 3];
        // The corner of the box that is farthest to the left.
        const PlanePoint p{b.y > a.y ? low.x : high.x, b.x > a.x ? high.y : low.y};
        if (turn(a, b, p) < 0.0) return true;
    }
    return false;
}

bool holds(std::array<PlanePoint, 3> const& t, PlanePoint const& p)
{
    if (p == t[0] || p == t[1] || p == t[2]) return false;
    return turn(t[0], t[1], p) >= 0.0 && turn(t[1], t[2], p) >= 0.0 && turn(t[2], t[0], p) >= 0.0;
}

}  // namespace

PolygonBlockers::PolygonBlockers(std::vector<PlanePoint> const& points, std::vector<std::int32_t> members)
    : points_(points), members_(std::move(members)), leaf_(points.size(), kNone)
{
    build(0, 0, static_cast<std::int32_t>(members_.size()));
}

void PolygonBlockers::build(std::size_t node, std::int32_t begin, std::int32_t end)
{
    if (nodes_.size() <= node) nodes_.resize(node + 1);
    Node made{{}, {}, begin, end, end - begin};
    if (begin < end) made.low = made.high = points_[members_[begin]];
    for (std::int32_t n = begin; n < end; ++n) {
        PlanePoint const& p = points_[members_[n]];
        made.low = {std::min(made.low.x, p.x), std::min(made.low.y, p.y)};
        made.high = {std::max(made.high.x, p.x), std::max(made.high.y, p.y)};
    }
    nodes_[node] = made;
    if (isLeaf(made)) {
        for (std::int32_t n = begin; n < end; ++n) leaf_[members_[n]] = static_cast<std::int32_t>(node);
        return;
    }
    const bool alongX = made.high.x - made.low.x > made.high.y - made.low.y;
    const std::int32_t middle = begin + (end - begin) / 2;
    std::nth_element(members_.begin() + begin, members_.begin() + middle, members_.begin() + end,
                     [&](std::int32_t a, std::int32_t b) {
                         const double pa = alongX ? points_[a].x : points_[a].y, pb = alongX ? points_[b].x : points_[b].y;
                         return pa != pb ? pa < pb : a < b;
                     });
    build(2 * node + 1, begin, middle);
    build(2 * node + 2, middle, end);
}

void PolygonBlockers::remove(std::int32_t point)
{
    std::int32_t node = leaf_[point];
    if (node == kNone) return;
    leaf_[point] = kNone;
    for (--nodes_[node].alive; node > 0;) {
        node = (node - 1) / 2;
        --nodes_[node].alive;
    }
}

std::int32_t PolygonBlockers::findIn(std::array<PlanePoint, 3> const& triangle, std::int64_t& steps) const
{
    const auto [lowX, highX] = std::minmax({triangle[0].x, triangle[1].x, triangle[2].x});
    const auto [lowY, highY] = std::minmax({triangle[0].y, triangle[1].y, triangle[2].y});
    std::array<std::size_t, 64> stack;  // the tree halves its ranges: it is at most 31 deep
    std::size_t size = 0;
    stack[size++] = 0;
    while (size > 0) {
        const std::size_t at = stack[--size];
        Node const& node = nodes_[at];
        ++steps;
        if (node.alive == 0 || node.low.x > highX || node.high.x < lowX || node.low.y > highY || node.high.y < lowY
            || beyondAnEdge(node.low, node.high, triangle))
            continue;
        if (!isLeaf(node)) {
            stack[size++] = 2 * at + 2;
            stack[size++] = 2 * at + 1;
            continue;
        }
        for (std::int32_t n = node.begin; n < node.end; ++n) {
            ++steps;
            if (leaf_[members_[n]] != kNone && holds(triangle, points_[members_[n]])) return members_[n];
        }
    }
    return kNone;
}

}  // namespace tilegrid::io
