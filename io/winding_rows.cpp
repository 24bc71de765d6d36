#include "io/winding_rows.h"

#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::int3;

/// A crossing of a line: where the winding number behind it changes, and by how much.
struct WindingRows::Hit {
    std::int32_t y, x, change;
};

/// The surface, and how its edges are cut.
struct WindingRows::Edges {
    std::vector<double3> const& vertices;
    std::vector<int3> const& triangles;

    struct Cut {
        double y, x;
    };
    /// Where an edge meets a plane; the same bits for all triangles at the edge, whichever way they run along it.
    Cut cut(std::int32_t from, std::int32_t to, double z) const
    {
        double3 const &a = vertices[std::min(from, to)], &b = vertices[std::max(from, to)];
        const double t = (z - a.z) / (b.z - a.z);
        return {a.y + t * (b.y - a.y), a.x + t * (b.x - a.x)};
    }

    /// The planes z that a triangle meets: first to last - 1.
    std::pair<std::int32_t, std::int32_t> planes(int3 const& t) const
    {
        const auto [low, high] = std::minmax({vertices[t.x].z, vertices[t.y].z, vertices[t.z].z});
        return {static_cast<std::int32_t>(std::ceil(low)), static_cast<std::int32_t>(std::ceil(high))};
    }

    void appendHits(int3 const& t, std::int32_t plane, std::vector<Hit>& hits) const
    {
        const double z = plane;
        Cut up{}, down{};
        for (int corner = 0; corner < 3; ++corner) {
            const std::int32_t from = t[corner], to = t[(corner + 1) % 3];
            const bool fromAbove = vertices[from].z > z, toAbove = vertices[to].z > z;
            if (fromAbove != toAbove) (toAbove ? up : down) = cut(from, to, z);
        }
        Cut const &low = up.y < down.y ? up : down, &high = up.y < down.y ? down : up;
        const std::int32_t change = up.y < down.y ? 1 : -1;
        const auto end = static_cast<std::int32_t>(std::ceil(high.y));
        for (auto y = static_cast<std::int32_t>(std::ceil(low.y)); y < end; ++y) {
            const double x = low.x + (y - low.y) / (high.y - low.y) * (high.x - low.x);
            hits.push_back({y, static_cast<std::int32_t>(std::ceil(x)), change});
        }
    }
};

namespace {

/// Planes that are cut together: a triangle stands in one list for so many.
constexpr std::int64_t kPlanesPerPart = 16;
/// Hits of a plane are merged whenever there are so many more: many sheets within a voxel take the room of one.
constexpr std::size_t kHitsToMerge = 1 << 16;

}  // namespace

void WindingRows::mergeHits(std::vector<Hit>& hits)
{
    std::sort(hits.begin(), hits.end(), [](Hit const& a, Hit const& b) { return std::tie(a.y, a.x) < std::tie(b.y, b.x); });
    std::size_t left = 0;
    for (std::size_t begin = 0, end; begin < hits.size(); begin = end) {
        Hit sum{hits[begin].y, hits[begin].x, 0};
        for (end = begin; end < hits.size() && hits[end].y == sum.y && hits[end].x == sum.x; ++end) sum.change += hits[end].change;
        if (sum.change != 0) hits[left++] = sum;
    }
    hits.resize(left);
}

WindingRows::Plane WindingRows::planeOf(std::vector<Hit>& hits)
{
    mergeHits(hits);
    Plane plane;
    plane.changes.reserve(hits.size());
    std::int32_t winding = 0;
    for (Hit const& hit : hits) {
        if (plane.rows.empty() || plane.rows.back().y != hit.y) {
            plane.rows.push_back({hit.y, static_cast<std::uint32_t>(plane.changes.size())});
            winding = 0;
        }
        winding += hit.change;
        plane.changes.push_back({hit.x, winding});
    }
    plane.rows.push_back({INT32_MAX, static_cast<std::uint32_t>(plane.changes.size())});
    return plane;
}

void WindingRows::cutPlanes(Edges const& edges, std::int64_t begin, std::int64_t end, std::vector<std::int32_t> const& triangles)
{
    std::vector<std::vector<Hit>> hits(static_cast<std::size_t>(end - begin));
    std::vector<std::size_t> mergeAt(hits.size(), kHitsToMerge);
    for (const std::int32_t n : triangles) {
        int3 const& t = edges.triangles[n];
        const auto [first, last] = edges.planes(t);
        for (std::int64_t plane = std::max(begin, std::int64_t(first) - firstPlane_); plane < std::min(end, std::int64_t(last) - firstPlane_); ++plane) {
            const auto at = static_cast<std::size_t>(plane - begin);
            edges.appendHits(t, static_cast<std::int32_t>(plane + firstPlane_), hits[at]);
            if (hits[at].size() < mergeAt[at]) continue;
            mergeHits(hits[at]);
            mergeAt[at] = 2 * hits[at].size() + kHitsToMerge;
        }
    }
    for (std::int64_t plane = begin; plane < end; ++plane) planes_[plane] = planeOf(hits[static_cast<std::size_t>(plane - begin)]);
}

WindingRows::WindingRows(std::vector<double3> const& vertices, std::vector<int3> const& triangles)
{
    const Edges edges{vertices, triangles};
    std::int32_t low = INT32_MAX, high = INT32_MIN;
    for (int3 const& t : triangles) {
        const auto [first, last] = edges.planes(t);
        low = std::min(low, first);
        high = std::max(high, last);
    }
    if (low >= high) return;
    firstPlane_ = low;
    planes_.resize(static_cast<std::size_t>(std::int64_t(high) - low));
    const auto count = static_cast<std::int64_t>(planes_.size());
    std::vector<std::vector<std::int32_t>> parts(static_cast<std::size_t>((count + kPlanesPerPart - 1) / kPlanesPerPart));
    for (std::size_t n = 0; n < triangles.size(); ++n) {
        const auto [first, last] = edges.planes(triangles[n]);
        if (first == last) continue;
        for (std::int64_t part = (std::int64_t(first) - low) / kPlanesPerPart; part <= (std::int64_t(last) - 1 - low) / kPlanesPerPart; ++part)
            parts[static_cast<std::size_t>(part)].push_back(static_cast<std::int32_t>(n));
    }
    // A part writes its own planes; lists are in the order of triangles, and merging orders what they leave.
    parallel::loop(0, static_cast<std::int64_t>(parts.size()), 1, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t part = begin; part < end; ++part)
            cutPlanes(edges, part * kPlanesPerPart, std::min(count, (part + 1) * kPlanesPerPart), parts[static_cast<std::size_t>(part)]);
    });
}

void WindingRows::findInside(int3 const& first, int spacing, int count, bool* inside) const
{
    std::fill_n(inside, count, false);
    const std::int64_t at = std::int64_t(first.z) - firstPlane_;
    if (at < 0 || at >= static_cast<std::int64_t>(planes_.size())) return;
    Plane const& plane = planes_[static_cast<std::size_t>(at)];
    const auto row = std::lower_bound(plane.rows.begin(), plane.rows.end(), first.y, [](Row const& r, std::int32_t y) { return r.y < y; });
    if (row == plane.rows.end() || row->y != first.y || row + 1 == plane.rows.end()) return;
    const auto begin = plane.changes.begin() + row->begin, end = plane.changes.begin() + (row + 1)->begin;
    auto next = std::upper_bound(begin, end, first.x, [](std::int32_t x, Change const& c) { return x < c.x; });
    for (int n = 0; n < count; ++n) {
        const std::int64_t x = first.x + std::int64_t(n) * spacing;
        while (next != end && next->x <= x) ++next;
        inside[n] = next != begin && (next - 1)->winding != 0;
    }
}

std::int64_t WindingRows::crossings() const
{
    std::int64_t count = 0;
    for (Plane const& plane : planes_) count += static_cast<std::int64_t>(plane.changes.size());
    return count;
}

}  // namespace tilegrid::io
