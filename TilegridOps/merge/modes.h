#pragma once

/// How the values of volumes that are merged are combined where they meet.
namespace Geometry::Volume {

enum class LevelSetMode : int { kUnion = 0, kDifference = 1, kIntersection = 2 };

/// The first ten are those of `Properties::Mode`.
enum class FogDensityMode : int {
    kAdd = 0,
    kSubtract = 1,
    kDivide = 2,
    kMultiply = 3,
    kMinimum = 4,
    kMaximum = 5,
    kAverage = 6,
    kInverseMultiply = 7,
    kScreen = 8,
    kBlend = 9
};

namespace Properties {

/// What becomes of the value o so far and the value s of the next volume, component by component.
enum class Mode : int {
    /// o + s
    kAdd = 0,
    /// o - s
    kSubtract = 1,
    /// o / s where s is above the epsilon of the scalar type, else o
    kDivide = 2,
    /// o * s
    kMultiply = 3,
    /// s if o > s, else o
    kMinimum = 4,
    /// s if s > o, else o
    kMaximum = 5,
    /// (s + o) * 0.5
    kAverage = 6,
    /// (1 - o) * s
    kInverseMultiply = 7,
    /// (1 - o) * s + o
    kScreen = 8,
    /// (1 - alpha) * o + alpha * s
    kBlend = 9,
    /// The whole element of the volume whose level set won the voxel. Where that says nothing, the mode of the fog density or
    /// a sum; see `automaticMode`.
    kAutomatic = 10
};

}  // namespace Properties

/// The property mode of the same name; a sum for a number without a name.
constexpr Properties::Mode propertyMode(FogDensityMode mode)
{
    const int number = static_cast<int>(mode);
    return number >= 1 && number <= 9 ? static_cast<Properties::Mode>(number) : Properties::Mode::kAdd;
}

/// What `kAutomatic` stands for in one volume.
/// \param fog, levelSet  whether both the volume and the result have one
/// \param winnersKnown   whether the volume's level set was merged with that of earlier volumes, voxel by voxel
constexpr Properties::Mode automaticMode(bool fog, bool levelSet, bool winnersKnown, FogDensityMode fogMode)
{
    if (fog == levelSet) return Properties::Mode::kAdd;  // also where winners are known: volumes of both kinds add up
    if (levelSet && winnersKnown) return Properties::Mode::kAutomatic;
    return propertyMode(fogMode);
}

}  // namespace Geometry::Volume
