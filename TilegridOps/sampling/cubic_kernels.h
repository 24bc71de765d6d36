#pragma once
#include "TilegridOps/host/math.h"
#include "TilegridOps/sampling/interpolation.h"

#include <algorithm>
#include <array>
#include <limits>

/// Four-point kernels between the second and the third of four values.
///
/// What each mode reproduces exactly (up to rounding), in either form:
///   kQuadraticC0Averaged  polynomials of degree 2; continuous
///   kCubicC0              degree 3; continuous
///   kCubicC1              degree 2; continuous with its first derivative where samples are evenly spaced
///   kCubicC1Monotonic     degree 1, and degree 2 where the tangents at both middle points have the sign of the middle
///                         difference; never leaves a plateau, but may overshoot, since tangents keep their length
/// All take the values of the two middle points at the ends of their interval. Vectors and matrices count by component.
namespace OST::TileTree3D {

namespace cubic {

/// The uniform form of a mode at `t`, the way from the second to the third point in 0 to 1. What depends on `t` alone is
/// worked out once.
template <CubicMode M, class S> struct Uniform;

/// Mean of the parabolas through the first and the last three points.
template <class S> struct Uniform<CubicMode::kQuadraticC0Averaged, S> {
    S w1, w2, outer;
    explicit Uniform(S t) : w1(1 - S(0.75) * t - S(0.25) * (t * t)), w2(S(0.25) * (5 * t - t * t)), outer(S(0.25) * (t * t - t)) {}
    S operator()(S f0, S f1, S f2, S f3) const { return w1 * f1 + w2 * f2 + outer * (f0 + f3); }
};

/// Lagrange's polynomial through the four points.
template <class S> struct Uniform<CubicMode::kCubicC0, S> {
    S w0, w1, w2, w3;
    explicit Uniform(S t)
    {
        const S t2 = t * t, t3 = t2 * t;
        w0 = t2 / 2 - t / 3 - t3 / 6;
        w1 = (t3 - t) / 2 + 1 - t2;
        w2 = (t2 - t3) / 2 + t;
        w3 = (t3 - t) / 6;
    }
    S operator()(S f0, S f1, S f2, S f3) const { return w0 * f0 + w1 * f1 + w2 * f2 + w3 * f3; }
};

/// Hermite's polynomial with central differences as tangents.
template <class S> struct Uniform<CubicMode::kCubicC1, S> {
    S t, t2, t3;
    explicit Uniform(S at) : t(at), t2(at * at), t3(at * at * at) {}
    S operator()(S f0, S f1, S f2, S f3) const
    {
        const S m1 = (f2 - f0) / 2, m2 = (f3 - f1) / 2;
        return f1 + m1 * t + (3 * (f2 - f1) - 2 * m1 - m2) * t2 + (2 * (f1 - f2) + m1 + m2) * t3;
    }
};

/// The tangent `m` without the part against the direction of the difference `d`: 0 for no difference.
template <class S> constexpr S limited(S m, S d)
{
    const S low = d > 0 ? S(0) : d < 0 ? std::numeric_limits<S>::lowest() : S(0);
    const S high = d < 0 ? S(0) : d > 0 ? std::numeric_limits<S>::max() : S(0);
    return m < low ? low : high < m ? high : m;
}

/// The same with tangents limited to the sign of the middle difference.
template <class S> struct Uniform<CubicMode::kCubicC1Monotonic, S> {
    S t, t2, t3;
    explicit Uniform(S at) : t(at), t2(at * at), t3(at * at * at) {}
    S operator()(S f0, S f1, S f2, S f3) const
    {
        const S d = f2 - f1, m1 = limited((f2 - f0) / 2, d), m2 = limited((f3 - f1) / 2, d);
        return f1 + m1 * t + (3 * d - 2 * m1 - m2) * t2 + (m1 + m2 - 2 * d) * t3;
    }
};

/// Newton's forms of the two parabolas, and their mean.
template <class S> S averagedParabolas(std::array<S, 4> const& f, std::array<S, 4> const& p, S x)
{
    const S h0 = p[1] - p[0], h1 = p[2] - p[1], h2 = p[3] - p[2];
    const S d01 = (f[1] - f[0]) / h0, d12 = (f[2] - f[1]) / h1, d23 = (f[3] - f[2]) / h2;
    const S a = f[0] + (x - p[0]) * d01 + (d12 - d01) / (h1 + h0) * (x - p[0]) * (x - p[1]);
    const S b = f[1] + (x - p[1]) * d12 + (d23 - d12) / (h2 + h1) * (x - p[1]) * (x - p[2]);
    return S(0.5) * (a + b);
}

template <class S> S lagrange(std::array<S, 4> const& f, std::array<S, 4> const& p, S x)
{
    S sum = 0;
    for (int own = 0; own < 4; ++own) {
        S above = 1, below = 1;
        for (int other = 0; other < 4; ++other)
            if (other != own) {
                above *= x - p[other];
                below *= p[own] - p[other];
            }
        sum += above / below * f[own];
    }
    return sum;
}

/// Tangents of the parabolas through three points each.
template <bool Limited, class S> S hermite(std::array<S, 4> const& f, std::array<S, 4> const& p, S x)
{
    const S h0 = p[1] - p[0], h1 = p[2] - p[1], h2 = p[3] - p[2], d = f[2] - f[1];
    S m1 = (h1 / h0 * (f[1] - f[0]) + h0 / h1 * d) / (h0 + h1);
    S m2 = (h1 / h2 * (f[3] - f[2]) + h2 / h1 * d) / (h1 + h2);
    if constexpr (Limited) {
        m1 = limited(m1, d);
        m2 = limited(m2, d);
    }
    const S u = (x - p[1]) / h1, u2 = u * u, u3 = u2 * u;
    return (2 * u3 - 3 * u2 + 1) * f[1] + (3 * u2 - 2 * u3) * f[2] + (u3 - 2 * u2 + u) * h1 * m1 + (u3 - u2) * h1 * m2;
}

/// Calls `f.template operator()<M>()` with the mode as a constant; false, and no call, for a number without a mode.
template <class F> bool withMode(CubicMode mode, F const& f)
{
    switch (mode) {
    case CubicMode::kQuadraticC0Averaged: f.template operator()<CubicMode::kQuadraticC0Averaged>(); return true;
    case CubicMode::kCubicC0: f.template operator()<CubicMode::kCubicC0>(); return true;
    case CubicMode::kCubicC1: f.template operator()<CubicMode::kCubicC1>(); return true;
    case CubicMode::kCubicC1Monotonic: f.template operator()<CubicMode::kCubicC1Monotonic>(); return true;
    }
    return false;
}

/// One component, positions and all in its own precision.
template <class S> S nonUniform(CubicMode mode, std::array<S, 4> const& f, std::array<S, 4> const& p, S x)
{
    switch (mode) {
    case CubicMode::kQuadraticC0Averaged: return averagedParabolas(f, p, x);
    case CubicMode::kCubicC0: return lagrange(f, p, x);
    case CubicMode::kCubicC1: return hermite<false>(f, p, x);
    case CubicMode::kCubicC1Monotonic: return hermite<true>(f, p, x);
    }
    return 0;
}

}  // namespace cubic

/// Between `values[1]` (t = 0) and `values[2]` (t = 1), for evenly spaced samples. 0 for a number without a mode.
template <class T> T interpolateUniform(CubicMode mode, std::array<T, 4> const& values, float t)
{
    using Element = Ostara::Math::ElementTraits<T>;
    using S = typename Element::Scalar;
    T result{};
    cubic::withMode(mode, [&]<CubicMode M>() {
        const cubic::Uniform<M, S> kernel{S(t)};
        for (int c = 0; c < Element::components; ++c)
            Element::at(result, c) = kernel(Element::at(values[0], c), Element::at(values[1], c), Element::at(values[2], c),
                                            Element::at(values[3], c));
    });
    return result;
}

/// At `x` among samples at `positions`, which rise strictly; meant for `positions[1]` <= x <= `positions[2]`. 0 for a number
/// without a mode.
template <class T>
T interpolateNonUniform(CubicMode mode, std::array<T, 4> const& values, std::array<float, 4> const& positions, float x)
{
    using Element = Ostara::Math::ElementTraits<T>;
    using S = typename Element::Scalar;
    const std::array<S, 4> p = {S(positions[0]), S(positions[1]), S(positions[2]), S(positions[3])};
    T result{};
    for (int c = 0; c < Element::components; ++c)
        Element::at(result, c) = cubic::nonUniform<S>(
            mode, {Element::at(values[0], c), Element::at(values[1], c), Element::at(values[2], c), Element::at(values[3], c)}, p, S(x));
    return result;
}

/// `value` moved into the range between `a` and `b`, by component. NaN stays.
template <class T> T clampedBetween(T value, T const& a, T const& b)
{
    using Element = Ostara::Math::ElementTraits<T>;
    for (int c = 0; c < Element::components; ++c) {
        auto& v = Element::at(value, c);
        const auto low = std::min(Element::at(a, c), Element::at(b, c)), high = std::max(Element::at(a, c), Element::at(b, c));
        v = v < low ? low : high < v ? high : v;
    }
    return value;
}

}  // namespace OST::TileTree3D
