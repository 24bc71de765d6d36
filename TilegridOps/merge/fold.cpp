#include "TilegridOps/merge/fold.h"

#include <cstring>
#include <limits>

namespace tilegrid {

namespace {

using Geometry::Volume::LevelSetMode;
using Geometry::Volume::Properties::Mode;

template <class Scalar, class Combine> void combine(Scalar* values, Scalar const* samples, int count, Combine combined)
{
    for (int n = 0; n < count; ++n) values[n] = combined(values[n], samples[n]);
}

template <class Wins> void markWinners(float* values, float const* samples, float sign, signed char* winners, int count, Wins wins)
{
    for (int n = 0; n < count; ++n) {
        const float sample = sign * samples[n], value = values[n];
        const bool won = wins(sample, value);
        winners[n] = won;
        values[n] = won ? sample : value;
    }
}

}  // namespace

template <class Scalar> void foldProperty(Mode mode, float alpha, Scalar* values, Scalar const* samples, int count)
{
    const auto with = [&](auto combined) { combine(values, samples, count, combined); };
    switch (mode) {
        case Mode::kAdd: return with([](Scalar o, Scalar s) { return o + s; });
        case Mode::kSubtract: return with([](Scalar o, Scalar s) { return o - s; });
        case Mode::kDivide:
            return with([](Scalar o, Scalar s) { return s > std::numeric_limits<Scalar>::epsilon() ? o / s : o; });
        case Mode::kMultiply: return with([](Scalar o, Scalar s) { return o * s; });
        case Mode::kMinimum: return with([](Scalar o, Scalar s) { return o > s ? s : o; });
        case Mode::kMaximum: return with([](Scalar o, Scalar s) { return s > o ? s : o; });
        case Mode::kAverage: return with([](Scalar o, Scalar s) { return (s + o) * Scalar(0.5); });
        case Mode::kInverseMultiply: return with([](Scalar o, Scalar s) { return (Scalar(1) - o) * s; });
        case Mode::kScreen: return with([](Scalar o, Scalar s) { return (Scalar(1) - o) * s + o; });
        case Mode::kBlend: {
            const Scalar weight = Scalar(alpha), rest = Scalar(1) - weight;
            return with([weight, rest](Scalar o, Scalar s) { return rest * o + weight * s; });
        }
        case Mode::kAutomatic: return;
    }
}
template void foldProperty(Mode, float, float*, float const*, int);
template void foldProperty(Mode, float, double*, double const*, int);

void foldWinners(std::byte* values, std::byte const* samples, signed char const* winners, std::size_t elementBytes, int count)
{
    for (int n = 0; n < count; ++n)
        if (winners[n] != 0) std::memcpy(values + std::size_t(n) * elementBytes, samples + std::size_t(n) * elementBytes, elementBytes);
}

void foldLevelSet(LevelSetMode mode, float* values, float const* samples, int count)
{
    const auto with = [&](auto combined) { combine(values, samples, count, combined); };
    switch (mode) {
        case LevelSetMode::kUnion: return with([](float o, float s) { return s < o ? s : o; });
        case LevelSetMode::kDifference: return with([](float o, float s) { return o < -s ? -s : o; });
        case LevelSetMode::kIntersection: return with([](float o, float s) { return o < s ? s : o; });
    }
}

void foldLevelSet(LevelSetMode mode, float* values, float const* samples, signed char* winners, int count)
{
    const auto smaller = [](float s, float o) { return s <= o; };
    const auto larger = [](float s, float o) { return o <= s; };
    switch (mode) {
        case LevelSetMode::kUnion: return markWinners(values, samples, 1.0f, winners, count, smaller);
        case LevelSetMode::kDifference: return markWinners(values, samples, -1.0f, winners, count, larger);
        case LevelSetMode::kIntersection: return markWinners(values, samples, 1.0f, winners, count, larger);
    }
}

}  // namespace tilegrid
