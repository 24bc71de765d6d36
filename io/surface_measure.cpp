#include "io/surface_measure.h"

#include <utility>

namespace tilegrid::io {

using Ostara::Math::double3;

namespace {

struct Corner {
    double3 place;
    double value;
};

double3 crossing(Corner const& inside, Corner const& outside)
{
    const double t = inside.value / (inside.value - outside.value);
    return inside.place + t * (outside.place - inside.place);
}

SurfaceMeasure measureTriangle(double3 const& a, double3 const& b, double3 const& c, double3 const& outward)
{
    const double3 normal = cross(b - a, c - a);
    const double sign = dot(normal, outward) < 0.0 ? -1.0 : 1.0;
    return {sign * dot(a, normal) / 6.0, 0.5 * length(normal)};
}

SurfaceMeasure measureTetrahedron(std::array<Corner, 4> corners)
{
    // Inside corners first; the order within each kind does not matter.
    int inside = 0;
    for (int n = 0; n < 4; ++n)
        if (corners[n].value < 0.0) std::swap(corners[n], corners[inside++]);
    if (inside == 0 || inside == 4) return {};
    double3 outward;
    for (int in = 0; in < inside; ++in)
        for (int out = inside; out < 4; ++out) outward += corners[out].place - corners[in].place;
    auto const& [a, b, c, d] = corners;
    if (inside == 1) return measureTriangle(crossing(a, b), crossing(a, c), crossing(a, d), outward);
    if (inside == 3) return measureTriangle(crossing(a, d), crossing(b, d), crossing(c, d), outward);
    // Four points around a flat quad: neighbours share a corner of the tetrahedron.
    const double3 ac = crossing(a, c), ad = crossing(a, d), bd = crossing(b, d), bc = crossing(b, c);
    SurfaceMeasure sum = measureTriangle(ac, ad, bd, outward);
    return sum += measureTriangle(ac, bd, bc, outward);
}

}  // namespace

SurfaceMeasure measureCell(double3 const& low, double width, std::array<double, 8> const& values)
{
    static constexpr int kPaths[6][2] = {{1, 3}, {3, 2}, {2, 6}, {6, 4}, {4, 5}, {5, 1}};
    int inside = 0;
    for (const double v : values) inside += v < 0.0;
    if (inside == 0 || inside == 8) return {};
    const auto corner = [&](int n) {
        return Corner{{low.x + (n & 1) * width, low.y + (n >> 1 & 1) * width, low.z + (n >> 2) * width}, values[n]};
    };
    SurfaceMeasure sum;
    for (auto const& path : kPaths) sum += measureTetrahedron({corner(0), corner(path[0]), corner(path[1]), corner(7)});
    return sum;
}

}  // namespace tilegrid::io
