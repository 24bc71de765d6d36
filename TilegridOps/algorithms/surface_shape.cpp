#include "TilegridOps/algorithms/surface_shape.h"

#include <algorithm>
#include <cmath>

namespace tilegrid {

using OST::TileTree3D::double3;
using OST::TileTree3D::float3;

EdgeCurve::EdgeCurve(double before, double at0, double at1, double after, double steepness) : f0_(at0), f1_(at1)
{
    if (!std::isfinite(before) || !std::isfinite(after)) return;
    low_ = before - 2 * f0_ + f1_;
    high_ = f0_ - 2 * f1_ + after;
    if (low_ * high_ <= 0) return;
    // The ratio within which the roots of measured level sets stay third order, and slopes at the ends keep their sign.
    constexpr double kMostRatio = 2;
    const double most = kMostRatio * std::min(std::fabs(low_), std::fabs(high_));
    d0_ = std::clamp(low_, -most, most);
    d1_ = std::clamp(high_, -most, most);
    // Their sum is the change of slope; half the steepness is that of a ball with a radius of four voxels. With a weight that grows
    // faster a box along the axes keeps more of its edges in 20 redistancings, and a turned one less.
    constexpr double kSmooth = 0.5;
    kink_ = std::clamp(std::fabs(low_ + high_) / steepness - kSmooth, 0.0, 1.0);
}

double EdgeCurve::slope(double t) const
{
    // (t - t^2)(a + b t) with a = 2 d0 + d1, b = d1 - d0
    const double a = 2 * d0_ + d1_, b = d1_ - d0_, straight = f1_ - f0_, smooth = straight - (a + 2 * (b - a) * t - 3 * b * t * t) / 6;
    if (!(kink_ > 0)) return smooth;
    const bool fromLow = (lineFromLow(t) > lineFromHigh(t)) == (low_ > 0);
    return smooth + kink_ * ((fromLow ? straight - low_ : straight + high_) - smooth);
}

double EdgeCurve::root() const
{
    if (f0_ == 0) return 0;
    if (f1_ == 0) return 1;
    constexpr int kMostSteps = 12;
    constexpr double kCloseEnough = 1e-7;
    double low = 0, high = 1, t = f0_ / (f0_ - f1_);
    for (int step = 0; step < kMostSteps; ++step) {
        const double value = (*this)(t);
        if (value == 0) return t;
        ((value < 0) == (f0_ < 0) ? low : high) = t;
        double next = t - value / slope(t);
        if (!(next > low && next < high)) next = 0.5 * (low + high);
        if (std::fabs(next - t) < kCloseEnough) return next;
        t = next;
    }
    return t;
}

namespace {

Derivatives carefulDerivatives(float const* at, std::array<int, 3> const& stride)
{
    Derivatives d{};
    const double here = *at;
    for (int a = 0; a < 3; ++a) {
        const double low = at[-stride[std::size_t(a)]], high = at[stride[std::size_t(a)]];
        if (std::isfinite(low) && std::isfinite(high)) {
            d.g[a] = 0.5 * (high - low);
            d.h[a] = high - 2 * here + low;
        } else {
            d.g[a] = std::isfinite(high) ? high - here : std::isfinite(low) ? here - low : 0.0;
        }
    }
    for (int n = 0; n < 3; ++n) {
        const int a = stride[n == 2], b = stride[n == 0 ? 1 : 2];
        const double mixed = 0.25 * (double(at[a + b]) - at[a - b] - at[b - a] + at[-a - b]);
        d.h[3 + n] = std::isfinite(mixed) ? mixed : 0.0;
    }
    return d;
}

/// The two curvatures and the direction of the first, of a symmetric 2x2 form (a b; b c): in the frame it is given in.
void principal(double a, double b, double c, double& k1, double& k2, double& cosine, double& sine)
{
    const double mean = 0.5 * (a + c), half = 0.5 * (a - c), radius = std::sqrt(half * half + b * b);
    k1 = mean + radius;
    k2 = mean - radius;
    cosine = 1;
    sine = 0;
    if (!(radius > 1e-12)) return;
    cosine = std::sqrt(std::max(0.0, 0.5 * (1 + half / radius)));
    sine = std::copysign(std::sqrt(std::max(0.0, 0.5 * (1 - half / radius))), b);
}

double form(double const* h, double3 const& u, double3 const& v)
{
    return h[0] * u.x * v.x + h[1] * u.y * v.y + h[2] * u.z * v.z + h[3] * (u.x * v.y + u.y * v.x) + h[4] * (u.x * v.z + u.z * v.x) +
           h[5] * (u.y * v.z + u.z * v.y);
}

}  // namespace

Derivatives derivativesAt(float const* at, std::array<int, 3> const& stride)
{
    const int sx = stride[0], sy = stride[1], sz = stride[2];
    const float here = at[0];
    Derivatives d;
    const float xl = at[-sx], xh = at[sx], yl = at[-sy], yh = at[sy], zl = at[-sz], zh = at[sz];
    d.g[0] = 0.5 * (xh - xl), d.g[1] = 0.5 * (yh - yl), d.g[2] = 0.5 * (zh - zl);
    d.h[0] = (xh - here) - (here - xl), d.h[1] = (yh - here) - (here - yl), d.h[2] = (zh - here) - (here - zl);
    d.h[3] = 0.25 * ((at[sx + sy] - at[sx - sy]) - (at[sy - sx] - at[-sx - sy]));
    d.h[4] = 0.25 * ((at[sx + sz] - at[sx - sz]) - (at[sz - sx] - at[-sx - sz]));
    d.h[5] = 0.25 * ((at[sy + sz] - at[sy - sz]) - (at[sz - sy] - at[-sy - sz]));
    // A sum is finite only if all that it is made of is.
    const double all = d.h[0] + d.h[1] + d.h[2] + d.h[3] + d.h[4] + d.h[5];
    return std::isfinite(all) ? d : carefulDerivatives(at, stride);
}

SurfaceShape shapeAt(Derivatives const& low, Derivatives const& high, double t, int axis, bool rising, double width)
{
    double3 g;
    double h[6];
    for (int a = 0; a < 3; ++a) g[a] = low.g[a] + t * (high.g[a] - low.g[a]);
    for (int a = 0; a < 6; ++a) h[a] = low.h[a] + t * (high.h[a] - low.h[a]);
    SurfaceShape shape{};
    shape.width = float(width);
    shape.reach = 1.5f * shape.width;
    const double slope = std::sqrt(dot(g, g));
    const bool flat = !(slope >= 1e-12);
    double3 n;
    if (flat)
        n[axis] = rising ? 1 : -1;
    else
        n = (1 / slope) * g;
    // A frame of the tangent plane, from the axis that lies furthest from the normal.
    int least = 0;
    for (int a = 1; a < 3; ++a)
        if (std::fabs(n[a]) < std::fabs(n[least])) least = a;
    double3 u;
    u[least] = 1;
    u = u - n[least] * n;
    u = (1 / std::sqrt(dot(u, u))) * u;
    const double3 v = cross(n, u);
    double k1 = 0, k2 = 0, cosine = 1, sine = 0;
    if (!flat) principal(form(h, u, u) / slope, form(h, u, v) / slope, form(h, v, v) / slope, k1, k2, cosine, sine);
    // A surface cannot be curved more than the voxels show: in voxels, one.
    shape.k1 = float(std::clamp(k1, -1.0, 1.0) / width);
    shape.k2 = float(std::clamp(k2, -1.0, 1.0) / width);
    shape.normal = float3(n);
    shape.e1 = float3(cosine * u + sine * v);
    return shape;
}

}  // namespace tilegrid
