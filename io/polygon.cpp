#include "io/polygon.h"

#include "io/polygon_blockers.h"

#include <bit>
#include <cmath>
#include <queue>
#include <tuple>
#include <utility>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

/// Normal whose length is twice the area (M. E. Newell, in Sutherland, Sproull, Schumacker 1974); defined for bent polygons too.
double3 normalOf(std::span<float3 const> vertices, std::span<std::int32_t const> corners)
{
    const double3 origin(vertices[corners[0]]);
    double3 normal, before = double3(vertices[corners.back()]) - origin;
    for (const std::int32_t corner : corners) {
        const double3 at = double3(vertices[corner]) - origin;
        normal += cross(before, at);
        before = at;
    }
    return normal;
}

/// Cuts ears off a polygon: triangles of three neighbours that turn left and hold no other corner. The ear with the shortest
/// diagonal goes first, which leaves compact triangles where there is a choice.
///
/// A corner that is no ear waits for the corner in its way, which is looked for among those that do not turn left: no other can
/// be the first. Corners that turn left go on doing so in a simple polygon, so each has to be waited for once at most.
/// Where no ear is left (the polygon crosses or touches itself), or the search has taken its limit of steps, the corner with the
/// shortest diagonal is cut off whatever is in its way.
class EarClipper {
public:
    EarClipper(std::vector<PlanePoint> points, std::int64_t stepLimit)
        : points_(std::move(points)), size_(static_cast<std::int32_t>(points_.size())), stepLimit_(stepLimit),
          blockers_(points_, reflexCorners())
    {
        waiting_.resize(points_.size(), kNone);
        for (std::int32_t at = 0; at < size_; ++at) enter(at);
    }

    /// Calls `emit(a, b, c)` for each triangle.
    template <class Emit> std::int64_t run(Emit emit)
    {
        for (std::int32_t left = size_; left >= 3; --left) {
            const std::int32_t at = left == 3 ? last() : nextEar();
            const std::int32_t a = before_[at], c = after_[at];
            emit(a, at, c);
            before_[c] = a;
            after_[a] = c;
            ++version_[at];
            cut_[at] = true;
            release(at);
            for (const std::int32_t neighbour : {a, c}) {
                if (turnsLeft(neighbour)) release(neighbour);
                enter(neighbour);
            }
        }
        return steps_;
    }

private:
    static constexpr std::int32_t kNone = PolygonBlockers::kNone;
    /// A corner as it was when it was entered; it is out of date once its neighbours are others.
    struct Entry {
        bool reflex;
        double diagonal;
        std::int32_t corner;
        std::int32_t version;
        bool operator>(Entry const& other) const
        {
            return std::tie(reflex, diagonal, corner) > std::tie(other.reflex, other.diagonal, other.corner);
        }
    };
    /// A corner, as it was when something was found in its way, and the next one that waits for the same.
    struct Waiter {
        std::int32_t corner, version, next;
    };
    using Queue = std::priority_queue<Entry, std::vector<Entry>, std::greater<>>;

    /// Links the corners, and lists those that do not turn left.
    std::vector<std::int32_t> reflexCorners()
    {
        for (std::int32_t at = 0; at < size_; ++at) {
            before_.push_back(at == 0 ? size_ - 1 : at - 1);
            after_.push_back(at == size_ - 1 ? 0 : at + 1);
        }
        version_.resize(points_.size());
        cut_.resize(points_.size());
        std::vector<std::int32_t> reflex;
        for (std::int32_t at = 0; at < size_; ++at)
            if (!turnsLeft(at)) reflex.push_back(at);
        return reflex;
    }

    std::array<PlanePoint, 3> triangleAt(std::int32_t at) const { return {points_[before_[at]], points_[at], points_[after_[at]]}; }
    bool turnsLeft(std::int32_t at) const { return turn(points_[before_[at]], points_[at], points_[after_[at]]) > 0.0; }

    void enter(std::int32_t at)
    {
        PlanePoint const &a = points_[before_[at]], &c = points_[after_[at]];
        const Entry entry{!turnsLeft(at), (c.x - a.x) * (c.x - a.x) + (c.y - a.y) * (c.y - a.y), at, ++version_[at]};
        any_.push(entry);
        if (!entry.reflex) ears_.push(entry);
    }

    /// The corner is in nobody's way any more.
    void release(std::int32_t corner)
    {
        blockers_.remove(corner);
        for (std::int32_t n = std::exchange(waiting_[corner], kNone); n != kNone; n = waiters_[n].next) {
            const Waiter waiter = waiters_[n];
            if (version_[waiter.corner] == waiter.version) enter(waiter.corner);
        }
    }

    bool isCurrent(Entry const& entry) const { return version_[entry.corner] == entry.version; }

    std::int32_t nextEar()
    {
        while (!ears_.empty() && steps_ < stepLimit_) {
            const Entry entry = ears_.top();
            ears_.pop();
            if (!isCurrent(entry)) continue;
            const std::int32_t blocker = blockers_.findIn(triangleAt(entry.corner), steps_);
            if (blocker == kNone) return entry.corner;
            waiters_.push_back({entry.corner, entry.version, waiting_[blocker]});
            waiting_[blocker] = static_cast<std::int32_t>(waiters_.size()) - 1;
        }
        while (!isCurrent(any_.top())) any_.pop();  // every corner that is left has an entry that is current
        return any_.top().corner;
    }

    std::int32_t last() const
    {
        for (std::int32_t at = 0;; ++at)
            if (!cut_[at]) return at;
    }

    std::vector<PlanePoint> points_;
    std::int32_t size_;
    std::int64_t stepLimit_, steps_ = 0;
    std::vector<std::int32_t> before_, after_, version_;
    std::vector<char> cut_;
    PolygonBlockers blockers_;
    /// By blocker: the first that waits for it.
    std::vector<std::int32_t> waiting_;
    std::vector<Waiter> waiters_;
    Queue ears_, any_;
};

/// The corners in the plane that the polygon faces most, turning left around it.
std::vector<PlanePoint> projected(std::span<float3 const> vertices, std::span<std::int32_t const> corners, double3 const& normal)
{
    const double3 size(std::abs(normal.x), std::abs(normal.y), std::abs(normal.z));
    const int drop = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
    const int first = (drop + 1) % 3, second = (drop + 2) % 3;
    std::vector<PlanePoint> points;
    points.reserve(corners.size());
    for (const std::int32_t corner : corners) {
        const PlanePoint p{vertices[corner][first], vertices[corner][second]};
        points.push_back(normal[drop] < 0.0 ? PlanePoint{p.y, p.x} : p);
    }
    return points;
}

/// Along the diagonal that leaves both triangles facing the way of the whole; the first, where both do or none.
void appendQuad(std::span<float3 const> vertices, std::span<std::int32_t const> c, std::vector<int3>& triangles)
{
    const double3 whole = normalOf(vertices, c);
    const auto faces = [&](int i, int j, int k) {
        const double3 a(vertices[c[i]]);
        return dot(cross(double3(vertices[c[j]]) - a, double3(vertices[c[k]]) - a), whole) > 0.0;
    };
    if (!(faces(0, 1, 2) && faces(0, 2, 3)) && faces(0, 1, 3) && faces(1, 2, 3)) {
        triangles.emplace_back(c[0], c[1], c[3]);
        triangles.emplace_back(c[1], c[2], c[3]);
    } else {
        triangles.emplace_back(c[0], c[1], c[2]);
        triangles.emplace_back(c[0], c[2], c[3]);
    }
}

}  // namespace

std::int64_t polygonStepLimit(std::size_t corners)
{
    // A search that finds an ear at once takes some 4 log2(n) steps, and three corners are looked at for each that is cut.
    constexpr std::int64_t kStepsPerLevel = 64;
    return kStepsPerLevel * static_cast<std::int64_t>(corners) * std::bit_width(corners);
}

std::int64_t appendTriangles(std::span<float3 const> vertices, std::span<std::int32_t const> corners, std::vector<int3>& triangles)
{
    if (corners.size() < 3) return 0;
    if (corners.size() == 3) triangles.emplace_back(corners[0], corners[1], corners[2]);
    if (corners.size() == 4) appendQuad(vertices, corners, triangles);
    if (corners.size() <= 4) return 0;
    EarClipper clipper(projected(vertices, corners, normalOf(vertices, corners)), polygonStepLimit(corners.size()));
    return clipper.run([&](std::int32_t a, std::int32_t b, std::int32_t c) { triangles.emplace_back(corners[a], corners[b], corners[c]); });
}

}  // namespace tilegrid::io
