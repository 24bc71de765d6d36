#pragma once
#include "TilegridOps/host/math.h"

#include <array>
#include <cmath>
#include <numbers>

/// Directions of the rays that tell what a place sees of the sky and of the lamp. Each pixel of a square of 4 x 4 has its own,
/// and the mean over a square has all of them: few rays for a pixel, and no noise that the square does not even out.
namespace tilegrid::io {

inline constexpr int kSquare = 4;
inline constexpr int kSkyRays = 4, kLampRays = 2;

/// A number from 0 to 1 for each of a row, spread evenly at any length (van der Corput, base 2).
inline double radicalInverse(unsigned n)
{
    double value = 0.0, share = 0.5;
    for (; n > 0; n >>= 1, share *= 0.5)
        if (n & 1u) value += share;
    return value;
}

/// Two unit vectors that stand upright on `normal` and on each other (Duff et al. 2017).
inline std::array<Ostara::Math::double3, 2> across(Ostara::Math::double3 const& normal)
{
    const double sign = std::copysign(1.0, normal.z), a = -1.0 / (sign + normal.z), b = normal.x * normal.y * a;
    return {Ostara::Math::double3{1.0 + sign * normal.x * normal.x * a, sign * b, -sign * normal.x},
            Ostara::Math::double3{b, sign + normal.y * normal.y * a, -normal.y}};
}

/// A place on the disc of radius 1: entry `ray` of `count` of the pixel at `x`, `y`.
struct DiscPlace {
    double u, v;
    DiscPlace(int x, int y, int ray, int count)
    {
        // Neighbours in the square get entries far apart.
        static constexpr int kOrder[kSquare * kSquare] = {0, 8, 2, 10, 12, 4, 14, 6, 3, 11, 1, 9, 15, 7, 13, 5};
        const int n = kOrder[(y % kSquare) * kSquare + x % kSquare] + kSquare * kSquare * ray;
        const double radius = std::sqrt((n + 0.5) / (kSquare * kSquare * count)),
                     angle = 2.0 * std::numbers::pi * radicalInverse(unsigned(n));
        u = radius * std::cos(angle), v = radius * std::sin(angle);
    }
};

}  // namespace tilegrid::io
