#pragma once
#include <cstdint>

/// How values between voxels are made. Three enumerations name the same kinds: that of nodes, that of the tree library, and,
/// for the kinds above linear, that of the cubic sampler.
namespace Geometry::Volume {

enum class InterpolationMode : int { kLinear = 0, kQuadraticC0Averaged = 1, kCubicC0 = 2, kCubicC1 = 3, kCubicC1Monotonic = 4 };

}  // namespace Geometry::Volume

namespace OST::TileTree3D {

enum InterpolationMode : int { kLinear = 0, kQuadraticC0Averaged = 1, kCubicC0 = 2, kCubicC1 = 3, kCubicC1Monotonic = 4 };

enum class CubicMode : std::int32_t { kQuadraticC0Averaged = 0, kCubicC0 = 1, kCubicC1 = 2, kCubicC1Monotonic = 3 };

/// The library's mode for a node's: the same number, and linear for one that has no name.
constexpr InterpolationMode interpolationMode(Geometry::Volume::InterpolationMode mode)
{
    const int number = static_cast<int>(mode);
    return number >= 0 && number <= 4 ? static_cast<InterpolationMode>(number) : kLinear;
}

/// The cubic sampler's mode for one above linear; numbers without a name count as the last. A caller with `kLinear` builds a
/// linear sampler instead.
constexpr CubicMode cubicMode(InterpolationMode mode)
{
    const int number = static_cast<int>(mode);
    return static_cast<CubicMode>(number < 1 ? 0 : number > 3 ? 3 : number - 1);
}

/// The name of a kind as messages show it.
constexpr char const* interpolationName(InterpolationMode mode)
{
    constexpr char const* names[] = {"kLinear", "kQuadraticC0Averaged", "kCubicC0", "kCubicC1", "kCubicC1Monotonic"};
    const int number = static_cast<int>(mode);
    return number >= 0 && number <= 4 ? names[number] : "kError";
}
constexpr char const* interpolationName(CubicMode mode)
{
    const auto number = static_cast<std::int32_t>(mode);
    return number >= 0 && number <= 3 ? interpolationName(static_cast<InterpolationMode>(number + 1)) : "kError";
}

}  // namespace OST::TileTree3D
