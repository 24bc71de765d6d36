#pragma once
#include "TilegridOps/host/math.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace tilegrid::surface {

using Ostara::Math::float3;

/// Where two values of different sign have their zero between them; the middle if they do not tell.
template <class T> T zeroBetween(T low, T high)
{
    const T t = low / (low - high);
    return t >= 0 && t <= 1 ? t : T(0.5);
}

/// The trilinear function in a cell, whose corners lie at 0 and 1.
struct CellFunction {
    std::array<float, 8> corner;

    float evaluate(float3 const& p, float3& gradient) const
    {
        auto const& v = corner;
        const float dx0 = v[1] - v[0], dx1 = v[3] - v[2], dx2 = v[5] - v[4], dx3 = v[7] - v[6];
        const float x0 = v[0] + p.x * dx0, x1 = v[2] + p.x * dx1, x2 = v[4] + p.x * dx2, x3 = v[6] + p.x * dx3;
        const float dy0 = x1 - x0, dy1 = x3 - x2;
        const float y0 = x0 + p.y * dy0, y1 = x2 + p.y * dy1;
        const float dx01 = dx0 + p.y * (dx1 - dx0), dx23 = dx2 + p.y * (dx3 - dx2);
        gradient = {dx01 + p.z * (dx23 - dx01), dy0 + p.z * (dy1 - dy0), y1 - y0};
        return y0 + p.z * (y1 - y0);
    }
};

/// Moves a place in the cell along the gradient onto the zero set, and says what the gradient is there. The place stays in the cell.
inline float3 ontoZeroSet(CellFunction const& function, float3 place, float3& gradient)
{
    constexpr int kSteps = 4;
    constexpr float kNear = 1e-4f;  // of a voxel
    for (int step = 0; step < kSteps; ++step) {
        const float value = function.evaluate(place, gradient);
        const float squared = gradient.x * gradient.x + gradient.y * gradient.y + gradient.z * gradient.z;
        const float way = value / squared;
        if (!(std::fabs(way) < 1e18f) || value * value <= kNear * kNear * squared) return place;
        const auto stepped = [way](float from, float slope) { return std::clamp(from - way * slope, 0.0f, 1.0f); };
        place = {stepped(place.x, gradient.x), stepped(place.y, gradient.y), stepped(place.z, gradient.z)};
    }
    function.evaluate(place, gradient);
    return place;
}

/// Of length 1, or zero.
inline float3 direction(float3 const& v)
{
    const float squared = v.x * v.x + v.y * v.y + v.z * v.z;
    if (squared > 1e-30f && squared < 1e30f) return (1 / std::sqrt(squared)) * v;
    // In double squares neither vanish nor overflow.
    const double length = std::sqrt(double(v.x) * v.x + double(v.y) * v.y + double(v.z) * v.z);
    if (!(length > 0 && length < std::numeric_limits<double>::infinity())) return {};
    return {float(v.x / length), float(v.y / length), float(v.z / length)};
}

}  // namespace tilegrid::surface
