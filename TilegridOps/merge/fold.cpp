#include "TilegridOps/merge/fold.h"

#include <algorithm>
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

/// The signs under which a fold of level sets is one that takes the smaller value. No value for modes without a name.
struct Signs {
    float values = 0.0f, samples = 0.0f;
    explicit Signs(LevelSetMode mode)
    {
        switch (mode) {
            case LevelSetMode::kUnion: values = samples = 1.0f; return;
            case LevelSetMode::kDifference: values = -1.0f, samples = 1.0f; return;
            case LevelSetMode::kIntersection: values = samples = -1.0f; return;
        }
    }
    explicit operator bool() const { return values != 0.0f; }
};

float lowest(ValueBounds const& bounds, float sign)
{
    return sign > 0.0f ? bounds.low : -bounds.high;
}

/// Whether a comparison holds for any of the numbers. A sum of bits, without an early end, is quick.
template <class Holds> bool anyOf(float const* numbers, float sign, int count, Holds holds)
{
    int found = 0;
    for (int n = 0; n < count; ++n) found |= holds(sign * numbers[n]) ? 1 : 0;
    return found != 0;
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

bool keepsLevelSet(LevelSetMode mode, float const* values, ValueBounds const& samples, bool notesWinners, int count)
{
    const Signs signs(mode);
    if (!signs) return false;
    // A NaN among the values stays and loses in any case.
    const float least = lowest(samples, signs.samples);
    if (notesWinners) return !anyOf(values, signs.values, count, [least](float value) { return value >= least; });
    return !anyOf(values, signs.values, count, [least](float value) { return value > least; });
}

bool replacesLevelSet(LevelSetMode mode, ValueBounds const& values, float const* samples, int count)
{
    const Signs signs(mode);
    if (!signs) return false;
    // Strictly less: of two zeros that differ in sign the one so far would stay. A NaN is not less.
    const float least = lowest(values, signs.values);
    return !anyOf(samples, signs.samples, count, [least](float sample) { return !(sample < least); });
}

void replaceLevelSet(LevelSetMode mode, float* values, float const* samples, int count)
{
    if (mode != LevelSetMode::kDifference)
        std::copy_n(samples, count, values);
    else
        std::transform(samples, samples + count, values, [](float sample) { return -sample; });
}

}  // namespace tilegrid
