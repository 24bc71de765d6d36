#include "io/triangle_tree.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <numeric>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::int3;

namespace {

constexpr std::int32_t kLeafTriangles = 4;
/// sin^2 of the smallest angle below which a triangle counts as its edges: its height is lost in rounding.
constexpr double kFlatSquaredSine = 1e-24;
/// Deeper than any tree over 2^31 triangles that halves its ranges.
constexpr int kStack = 128;
/// Nodes to visit for a list of near triangles: many times those that lead to a list of some dozens.
constexpr std::int64_t kListSteps = 1 << 11;
/// Leaf boxes that a line through the whole meets on average from which on boxes are turned: 5 in a scan of 200,000 triangles, as many as there are leaves
/// in a fan of needles.
constexpr double kMuchOverlap = 128.0;
/// Visits that a winding number may take once the exact ones are used up, and the factor below which the rest counts as far.
constexpr std::int64_t kWindingSteps = 256;
constexpr double kLeastFarFactor = 1.0 / 64.0;
/// A box may be skipped if it is surely farther than the best; the slack covers the rounding of both distances.
constexpr double kSkipSlack = 1.0 - 1e-12;

inline double dot3(double3 const& a, double3 const& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline double3 minus(double3 const& a, double3 const& b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline double3 cross3(double3 const& a, double3 const& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double3 along(double3 const& a, double t, double3 const& d)
{
    return {a.x + t * d.x, a.y + t * d.y, a.z + t * d.z};
}

void extend(double3& low, double3& high, double3 const& p)
{
    low = {std::min(low.x, p.x), std::min(low.y, p.y), std::min(low.z, p.z)};
    high = {std::max(high.x, p.x), std::max(high.y, p.y), std::max(high.z, p.z)};
}

inline double boxSquaredDistance(double3 const& low, double3 const& high, double3 const& p)
{
    const double x = std::max(std::max(low.x - p.x, p.x - high.x), 0.0);
    const double y = std::max(std::max(low.y - p.y, p.y - high.y), 0.0);
    const double z = std::max(std::max(low.z - p.z, p.z - high.z), 0.0);
    return x * x + y * y + z * z;
}

/// Vector from the nearest point of the segment from the origin along d (not zero) to p.
inline double3 fromSegment(double3 const& p, double3 const& d)
{
    const double t = std::clamp(dot3(p, d) / dot3(d, d), 0.0, 1.0);
    return along(p, -t, d);
}

}  // namespace

TriangleTree::TriangleTree(std::vector<double3> const& vertices, std::vector<int3> const& triangles)
{
    const auto count = static_cast<std::int32_t>(triangles.size());
    std::vector<double3> centroids(triangles.size());
    for (std::int32_t t = 0; t < count; ++t) {
        double3 const &a = vertices[triangles[t].x], &b = vertices[triangles[t].y], &c = vertices[triangles[t].z];
        centroids[t] = {a.x + b.x + c.x, a.y + b.y + c.y, a.z + b.z + c.z};
    }
    std::vector<std::int32_t> order(triangles.size());
    std::iota(order.begin(), order.end(), 0);
    nodes_.reserve(2 * triangles.size() / (kLeafTriangles / 2) + 1);
    nodes_.emplace_back();
    build(0, centroids, order, 0, count);

    triangles_.reserve(triangles.size());
    for (const std::int32_t t : order) {
        double3 const& a = vertices[triangles[t].x];
        const double3 ab = minus(vertices[triangles[t].y], a), ac = minus(vertices[triangles[t].z], a),
                      n = cross3(ab, ac);
        const double nn = dot3(n, n);
        const bool flat = !(nn > kFlatSquaredSine * dot3(ab, ab) * dot3(ac, ac));
        triangles_.push_back({a, ab, ac, n, flat ? 0.0 : 1.0 / nn});
    }
    sources_ = std::move(order);
    describeFar();
    if (overlapsMuch()) describeTurned();
    low_ = nodes_[0].low;
    high_ = nodes_[0].high;
}

/// Halves the range at the median of the widest axis. `centroids` are three times the centroids: only their order
/// counts.
void TriangleTree::build(std::int32_t node, std::vector<double3> const& centroids, std::vector<std::int32_t>& order,
                         std::int32_t begin, std::int32_t end)
{
    if (end - begin <= kLeafTriangles) {
        nodes_[node].first = begin;
        nodes_[node].count = end - begin;
        return;
    }
    double3 low = centroids[order[begin]], high = low;
    for (std::int32_t i = begin; i < end; ++i) extend(low, high, centroids[order[i]]);
    const double3 size = minus(high, low);
    const int axis = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
    const std::int32_t middle = begin + (end - begin) / 2;
    std::nth_element(
        order.begin() + begin, order.begin() + middle, order.begin() + end, [&](std::int32_t s, std::int32_t t) {
            return centroids[s][axis] != centroids[t][axis] ? centroids[s][axis] < centroids[t][axis] : s < t;
        });
    const auto first = static_cast<std::int32_t>(nodes_.size());
    nodes_[node].first = first;
    nodes_[node].count = 0;
    nodes_.resize(nodes_.size() + 2);
    build(first, centroids, order, begin, middle);
    build(first + 1, centroids, order, middle, end);
}

/// Boxes, vector areas and reaches, children before parents: a child's index is above its parent's.
void TriangleTree::describeFar()
{
    far_.resize(nodes_.size());
    std::vector<double> areas(nodes_.size());
    for (auto n = static_cast<std::int32_t>(nodes_.size()) - 1; n >= 0; --n) {
        Node& node = nodes_[n];
        Far& far = far_[n];
        double3 weighted;
        if (node.count > 0) node.low = node.high = triangles_[node.first].a;
        for (std::int32_t t = node.first; t < node.first + node.count; ++t) {
            Triangle const& triangle = triangles_[t];
            const double3 b = along(triangle.a, 1.0, triangle.ab), c = along(triangle.a, 1.0, triangle.ac);
            for (double3 const& p : {triangle.a, b, c}) extend(node.low, node.high, p);
            const double area = 0.5 * std::sqrt(dot3(triangle.normal, triangle.normal));
            far.area = along(far.area, 0.5, triangle.normal);
            weighted = along(weighted, area / 3.0, along(along(triangle.a, 1.0, b), 1.0, c));
            areas[n] += area;
        }
        for (int child = 0; child < 2 && node.count == 0; ++child) {
            Node const& below = nodes_[node.first + child];
            if (child == 0) node.low = below.low, node.high = below.high;
            extend(node.low, node.high, below.low);
            extend(node.low, node.high, below.high);
            far.area = along(far.area, 1.0, far_[node.first + child].area);
            weighted = along(weighted, areas[node.first + child], far_[node.first + child].centre);
            areas[n] += areas[node.first + child];
        }
        far.centre =
            areas[n] > 0.0 ? along({}, 1.0 / areas[n], weighted) : along(along({}, 0.5, node.low), 0.5, node.high);
        const double3 reach{std::max(node.high.x - far.centre.x, far.centre.x - node.low.x),
                            std::max(node.high.y - far.centre.y, far.centre.y - node.low.y),
                            std::max(node.high.z - far.centre.z, far.centre.z - node.low.z)};
        far.squaredReach = dot3(reach, reach);
    }
}

/// Whether boxes along the axes of the world tell little: needles and stacks of large triangles, askew, all have the box of the whole.
bool TriangleTree::overlapsMuch() const
{
    const auto sides = [](Node const& node) {
        const double3 size = minus(node.high, node.low);
        return size.x * size.y + size.y * size.z + size.z * size.x;
    };
    double sum = 0.0;
    for (Node const& node : nodes_)
        if (node.count > 0) sum += sides(node);
    return sum > kMuchOverlap * sides(nodes_[0]);
}

/// The longest edge, the normal, and what is orthogonal to both; the axes of the world for a triangle without area.
std::array<double3, 3> TriangleTree::axesOf(Triangle const& triangle) const
{
    if (triangle.inverseSquaredNormal == 0.0) return {double3(1, 0, 0), double3(0, 1, 0), double3(0, 0, 1)};
    double3 longest = triangle.ab;
    for (double3 const& edge : {triangle.ac, minus(triangle.ac, triangle.ab)})
        if (dot3(edge, edge) > dot3(longest, longest)) longest = edge;
    const double3 first = along({}, 1.0 / std::sqrt(dot3(longest, longest)), longest);
    const double3 second = along({}, std::sqrt(triangle.inverseSquaredNormal), triangle.normal);
    return {first, second, cross3(first, second)};
}

TriangleTree::TurnedBox TriangleTree::boxAlong(std::array<double3, 3> const& axes, std::int32_t begin, std::int32_t end) const
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    TurnedBox box{axes, double3(kInfinity), double3(-kInfinity)};
    double farthest = 0.0;
    for (std::int32_t t = begin; t < end; ++t) {
        Triangle const& triangle = triangles_[t];
        for (double3 const& p : {triangle.a, along(triangle.a, 1.0, triangle.ab), along(triangle.a, 1.0, triangle.ac)}) {
            extend(box.low, box.high, {dot3(p, axes[0]), dot3(p, axes[1]), dot3(p, axes[2])});
            farthest = std::max({farthest, std::abs(p.x), std::abs(p.y), std::abs(p.z)});
        }
    }
    // Three products of coordinates with unit vectors, each rounded: a box of its own, not of the places that were meant.
    const double3 slack(8.0 * 0x1p-52 * farthest);
    box.low = minus(box.low, slack);
    box.high = along(box.high, 1.0, slack);
    return box;
}

/// Along the axes of the first triangle of either child, whichever is the smaller; a leaf along those of its first.
void TriangleTree::describeTurned()
{
    const auto sides = [](TurnedBox const& box) {
        const double3 size = minus(box.high, box.low);
        return size.x * size.y + size.y * size.z + size.z * size.x;
    };
    turned_.resize(nodes_.size());
    std::vector<std::pair<std::int32_t, std::int32_t>> ranges(nodes_.size());
    for (auto n = static_cast<std::int32_t>(nodes_.size()) - 1; n >= 0; --n) {
        Node const& node = nodes_[n];
        if (node.count > 0) {
            ranges[n] = {node.first, node.first + node.count};
            turned_[n] = boxAlong(axesOf(triangles_[node.first]), node.first, node.first + node.count);
            continue;
        }
        ranges[n] = {ranges[node.first].first, ranges[node.first + 1].second};
        turned_[n] = boxAlong(turned_[node.first].axes, ranges[n].first, ranges[n].second);
        const TurnedBox other = boxAlong(turned_[node.first + 1].axes, ranges[n].first, ranges[n].second);
        if (sides(other) < sides(turned_[n])) turned_[n] = other;
    }
}

/// Plane distance where the foot lies inside the three edges, else the nearest of those edges that it lies beyond.
/// Sides are triple products with vectors from a corner, so that a far place (its rounding is relative to its distance,
/// not to the square of it) is still told apart.
double TriangleTree::squaredDistance(Triangle const& triangle, double3 const& place)
{
    const double3 ap = minus(place, triangle.a);
    const double sideAb = dot3(triangle.normal, cross3(triangle.ab, ap));
    const double sideCa = dot3(triangle.normal, cross3(ap, triangle.ac));
    const double3 bc = minus(triangle.ac, triangle.ab), bp = minus(ap, triangle.ab);
    const double sideBc = dot3(triangle.normal, cross3(bc, bp));
    const bool flat = triangle.inverseSquaredNormal == 0.0;
    if (sideAb >= 0.0 && sideCa >= 0.0 && sideBc >= 0.0 && !flat) {
        const double height = dot3(ap, triangle.normal);
        return height * height * triangle.inverseSquaredNormal;
    }
    double best = std::numeric_limits<double>::infinity();
    const auto edge = [&best](double3 const& p, double3 const& d) {
        const double3 v = fromSegment(p, d);
        best = std::min(best, dot3(v, v));
    };
    if (sideAb < 0.0 || flat) edge(ap, triangle.ab);
    if (sideCa < 0.0 || flat) edge(ap, triangle.ac);
    if (sideBc < 0.0 || flat) edge(bp, bc);
    return best;
}

double3 TriangleTree::nearestPoint(Triangle const& triangle, double3 const& place)
{
    const double3 ap = minus(place, triangle.a), bc = minus(triangle.ac, triangle.ab), bp = minus(ap, triangle.ab);
    const bool flat = triangle.inverseSquaredNormal == 0.0;
    if (!flat && dot3(triangle.normal, cross3(triangle.ab, ap)) >= 0.0
        && dot3(triangle.normal, cross3(ap, triangle.ac)) >= 0.0 && dot3(triangle.normal, cross3(bc, bp)) >= 0.0)
        return along(place, -dot3(ap, triangle.normal) * triangle.inverseSquaredNormal, triangle.normal);
    double3 best = fromSegment(ap, triangle.ab);
    for (double3 const& v : {fromSegment(ap, triangle.ac), fromSegment(bp, bc)})
        if (dot3(v, v) < dot3(best, best)) best = v;
    return minus(place, best);
}

double3 TriangleTree::nearestPoint(double3 const& place, std::int32_t triangle) const
{
    return nearestPoint(triangles_[triangle], place);
}

TriangleTree::Barycentric TriangleTree::barycentric(double3 const& place, std::int32_t number) const
{
    Triangle const& t = triangles_[number];
    const double3 p = minus(nearestPoint(t, place), t.a);
    double b = 0.0, c = 0.0;
    if (t.inverseSquaredNormal > 0.0) {
        b = dot3(t.normal, cross3(p, t.ac)) * t.inverseSquaredNormal;
        c = dot3(t.normal, cross3(t.ab, p)) * t.inverseSquaredNormal;
    } else if (dot3(t.ab, t.ab) >= dot3(t.ac, t.ac)) {
        // Without area: along the longer of two edges. Both may be points.
        b = dot3(t.ab, t.ab) > 0.0 ? dot3(p, t.ab) / dot3(t.ab, t.ab) : 0.0;
    } else {
        c = dot3(p, t.ac) / dot3(t.ac, t.ac);
    }
    b = std::clamp(b, 0.0, 1.0);
    c = std::clamp(c, 0.0, 1.0 - b);
    return {sources_[number], {1.0 - b - c, b, c}};
}

double TriangleTree::bound(std::int32_t node, double3 const& place) const
{
    const double straight = boxSquaredDistance(nodes_[node].low, nodes_[node].high, place);
    if (turned_.empty()) return straight;
    TurnedBox const& box = turned_[node];
    const double3 local{dot3(place, box.axes[0]), dot3(place, box.axes[1]), dot3(place, box.axes[2])};
    return std::max(straight, boxSquaredDistance(box.low, box.high, local));
}

TriangleTree::Nearest TriangleTree::nearest(double3 const& place, std::int32_t guess, SearchEffort* effort) const
{
    Nearest best{squaredDistance(triangles_[guess], place), guess};
    struct Pending {
        double bound;
        std::int32_t node;
    };
    Pending stack[kStack];
    int size = 0;
    // Squared distances from this part of the best on are passed over.
    double least = 1.0;
    std::int64_t beyond = 0;
    stack[size++] = {bound(0, place), 0};
    while (size > 0) {
        const Pending top = stack[--size];
        if (top.bound * kSkipSlack > best.squaredDistance * least * least) continue;
        if (effort && ++effort->steps > effort->exactSteps && beyond++ % kStepsPerDoubling == 0) {
            least = std::max(0.0, 1.0 - std::ldexp(1.0, static_cast<int>(beyond / kStepsPerDoubling) - 20));
            if (least == 0.0) break;
        }
        Node const& node = nodes_[top.node];
        for (std::int32_t t = node.first; t < node.first + node.count; ++t) {
            const double d = squaredDistance(triangles_[t], place);
            if (d < best.squaredDistance) best = {d, t};
        }
        if (node.count > 0) continue;
        Pending near{bound(node.first, place), node.first};
        Pending far{bound(node.first + 1, place), node.first + 1};
        if (far.bound < near.bound) std::swap(near, far);
        if (far.bound * kSkipSlack <= best.squaredDistance * least * least) stack[size++] = far;
        if (near.bound * kSkipSlack <= best.squaredDistance * least * least) stack[size++] = near;
    }
    best.least = least;
    return best;
}

int TriangleTree::listNear(double3 const& place, double radius, std::int32_t* list, int capacity) const
{
    const double limit = radius * radius;
    int count = 0, size = 0;
    std::int32_t stack[kStack];
    stack[size++] = 0;
    for (std::int64_t steps = 0; size > 0; ++steps) {
        // Boxes that overlap without end hold a long list as well.
        if (steps > kListSteps) return capacity + 1;
        const std::int32_t at = stack[--size];
        Node const& node = nodes_[at];
        if (bound(at, place) * kSkipSlack > limit) continue;
        for (std::int32_t t = node.first; t < node.first + node.count; ++t) {
            if (squaredDistance(triangles_[t], place) * kSkipSlack > limit) continue;
            if (count == capacity) return capacity + 1;
            list[count++] = t;
        }
        if (node.count > 0) continue;
        stack[size++] = node.first + 1;
        stack[size++] = node.first;
    }
    return count;
}

double TriangleTree::squaredDistanceTo(double3 const& place, std::int32_t const* list, int count) const
{
    double best = std::numeric_limits<double>::infinity();
    for (int n = 0; n < count; ++n) best = std::min(best, squaredDistance(triangles_[list[n]], place));
    return best;
}

/// Half the solid angle, or false if it takes more than `limit` nodes and triangles.
bool TriangleTree::sumWinding(double3 const& place, double farFactor, std::int64_t limit, std::int64_t& steps, double& angle) const
{
    angle = 0.0;
    std::int32_t stack[kStack];
    int size = 0;
    stack[size++] = 0;
    while (size > 0) {
        const std::int32_t n = stack[--size];
        Node const& node = nodes_[n];
        steps += 1 + node.count;
        if ((limit -= 1 + node.count) < 0) return false;
        Far const& far = far_[n];
        const double3 to = minus(far.centre, place);
        const double squared = dot3(to, to);
        if (squared > farFactor * farFactor * far.squaredReach) {
            angle += 0.5 * dot3(far.area, to) / (squared * std::sqrt(squared));
            continue;
        }
        for (std::int32_t t = node.first; t < node.first + node.count; ++t) {
            Triangle const& triangle = triangles_[t];
            const double3 a = minus(triangle.a, place), b = along(a, 1.0, triangle.ab), c = along(a, 1.0, triangle.ac);
            const double la = std::sqrt(dot3(a, a)), lb = std::sqrt(dot3(b, b)), lc = std::sqrt(dot3(c, c));
            // a . (b x c) = a . (ab x ac): the edge vectors keep their digits.
            const double volume = dot3(a, triangle.normal);
            angle += std::atan2(volume, la * lb * lc + dot3(a, b) * lc + dot3(b, c) * la + dot3(c, a) * lb);
        }
        if (node.count == 0) {
            stack[size++] = node.first + 1;
            stack[size++] = node.first;
        }
    }
    return true;
}

double TriangleTree::windingNumber(double3 const& place, WindingEffort& effort) const
{
    double angle = 0.0;
    while (true) {
        const std::int64_t exact = effort.exactSteps - effort.steps;
        if (sumWinding(place, effort.farFactor, std::max(exact, kWindingSteps), effort.steps, angle)) break;
        effort.farFactor *= 0.5;
        if (effort.farFactor >= kLeastFarFactor) continue;
        // The surface as a whole, from the middle of its area.
        effort.farFactor = kLeastFarFactor;
        const double3 to = minus(far_[0].centre, place);
        const double squared = dot3(to, to) + std::sqrt(dot3(far_[0].area, far_[0].area)) / std::numbers::pi;
        angle = squared > 0.0 ? 0.5 * dot3(far_[0].area, to) / (squared * std::sqrt(squared)) : 0.0;
        break;
    }
    return angle / (2.0 * std::numbers::pi);
}

double TriangleTree::windingNumber(double3 const& place) const
{
    double angle = 0.0;
    std::int64_t steps = 0;
    sumWinding(place, kFarFactor, INT64_MAX, steps, angle);
    return angle / (2.0 * std::numbers::pi);
}

bool TriangleTree::inside(double3 const& place, WindingEffort& effort) const
{
    if (boxSquaredDistance(low_, high_, place) > 0.0) return false;
    return std::abs(windingNumber(place, effort)) > 0.5;
}

}  // namespace tilegrid::io
