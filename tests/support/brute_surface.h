#pragma once
#include "io/mesh.h"

#include <array>
#include <cmath>
#include <limits>
#include <vector>

namespace tilegrid::test {

/// The slow, obvious answer about a surface of triangles: every triangle is asked, in long double. The nearest point is
/// found by walking its barycentric coordinates; the side by counting crossings of three skew rays.
class BruteSurface {
public:
    using Real = long double;
    using Vec = std::array<Real, 3>;

    explicit BruteSurface(io::TriangleMesh const& mesh)
    {
        for (auto const& t : mesh.triangles) {
            std::array<Vec, 3> corners;
            for (int c = 0; c < 3; ++c)
                for (int axis = 0; axis < 3; ++axis) corners[c][axis] = mesh.vertices[t[c]][axis];
            triangles_.push_back(corners);
        }
    }

    Real distance(Vec const& p) const
    {
        Real best = std::numeric_limits<Real>::infinity();
        for (auto const& t : triangles_) best = std::min(best, squaredDistance(t, p));
        return std::sqrt(best);
    }
    bool inside(Vec const& p) const
    {
        // Skew directions: no ray runs along an edge of a mesh that somebody made; a majority settles a graze.
        static const Vec kDirections[3]{
            {0.7371L, 0.3113L, 0.5993L}, {-0.2917L, 0.8861L, 0.3607L}, {0.4139L, -0.5711L, -0.7089L}};
        int votes = 0;
        for (Vec const& direction : kDirections) {
            int crossings = 0;
            for (auto const& t : triangles_) crossings += crosses(t, p, direction);
            votes += crossings % 2;
        }
        return votes >= 2;
    }
    Real signedDistance(Vec const& p) const { return inside(p) ? -distance(p) : distance(p); }

private:
    static Vec minus(Vec const& a, Vec const& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
    static Real dot(Vec const& a, Vec const& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }
    static Vec cross(Vec const& a, Vec const& b)
    {
        return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    }
    static Real segment(Vec const& a, Vec const& b, Vec const& p)
    {
        const Vec d = minus(b, a), ap = minus(p, a);
        const Real t = std::min<Real>(std::max<Real>(dot(ap, d) / dot(d, d), 0), 1);
        const Vec v{ap[0] - t * d[0], ap[1] - t * d[1], ap[2] - t * d[2]};
        return dot(v, v);
    }
    static Real squaredDistance(std::array<Vec, 3> const& t, Vec const& p)
    {
        // Normal equations of the foot in the plane: a + u e + v f.
        const Vec e = minus(t[1], t[0]), f = minus(t[2], t[0]), w = minus(p, t[0]);
        const Real ee = dot(e, e), ef = dot(e, f), ff = dot(f, f), we = dot(w, e), wf = dot(w, f);
        const Real determinant = ee * ff - ef * ef;
        const Real u = (we * ff - wf * ef) / determinant, v = (wf * ee - we * ef) / determinant;
        if (u >= 0 && v >= 0 && u + v <= 1) {
            const Vec n = cross(e, f);
            const Real height = dot(w, n);
            return height * height / dot(n, n);
        }
        return std::min({segment(t[0], t[1], p), segment(t[1], t[2], p), segment(t[2], t[0], p)});
    }
    static bool crosses(std::array<Vec, 3> const& t, Vec const& p, Vec const& direction)
    {
        const Vec e = minus(t[1], t[0]), f = minus(t[2], t[0]), h = cross(direction, f);
        const Real determinant = dot(e, h);
        if (determinant == 0) return false;
        const Vec w = minus(p, t[0]), q = cross(w, e);
        const Real u = dot(w, h) / determinant, v = dot(direction, q) / determinant;
        return u >= 0 && v >= 0 && u + v <= 1 && dot(f, q) / determinant > 0;
    }

    std::vector<std::array<Vec, 3>> triangles_;
};

}  // namespace tilegrid::test
