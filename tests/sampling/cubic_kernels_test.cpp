#include "TilegridOps/sampling/cubic_block.h"
#include "TilegridOps/sampling/cubic_kernels.h"
#include "support/cubic_oracle.h"

namespace tilegrid::test {
namespace {

using namespace OST::TileTree3D;
using Ostara::Math::float4;
using Ostara::Math::float4x2;

constexpr float kEpsilon = std::numeric_limits<float>::epsilon();

float unit(Random& random) { return static_cast<float>(random.between(-1 << 20, 1 << 20)) / (1 << 20); }
float fraction(Random& random) { return static_cast<float>(random.between(0, 1 << 20)) / (1 << 20); }

std::array<float, 4> fourValues(Random& random) { return {unit(random), unit(random), unit(random), unit(random)}; }
template <class A> std::array<double, 4> inDouble(A const& a) { return {a[0], a[1], a[2], a[3]}; }

/// Four positions from -5 to 20 with gaps of 1, 2, 4 or 5.
std::array<float, 4> fourPositions(Random& random)
{
    constexpr float gaps[] = {1, 2, 4, 5};
    std::array<float, 4> p = {static_cast<float>(random.between(-5, 5)), 0, 0, 0};
    for (int n = 1; n < 4; ++n) p[n] = p[n - 1] + gaps[random.below(4)];
    return p;
}

TEST(CubicKernels, in_uniform_form_agree_with_their_definition)
{
    Random random(1);
    for (CubicMode mode : kCubicModes)
        for (int n = 0; n < 2000; ++n) {
            const auto f = fourValues(random);
            const float t = fraction(random);
            // Some 15 roundings of intermediate values up to 12 (six differences of values up to 1), half an epsilon each.
            EXPECT_NEAR(interpolateUniform(mode, f, t), cubicOracle(mode, {-1, 0, 1, 2}, inDouble(f), t), 90 * kEpsilon)
                << interpolationName(mode) << ", t " << t;
        }
}

TEST(CubicKernels, in_non_uniform_form_agree_with_their_definition)
{
    Random random(2);
    for (CubicMode mode : kCubicModes)
        for (int n = 0; n < 2000; ++n) {
            const auto f = fourValues(random);
            const auto p = fourPositions(random);
            const float x = p[1] + fraction(random) * (p[2] - p[1]);
            // As above, with values times the square of the ratio of gaps (25) in the extrapolated parts, and the rounding
            // of x, which is exact in neither.
            EXPECT_NEAR(interpolateNonUniform(mode, f, p, x), cubicOracle(mode, inDouble(p), inDouble(f), x), 25 * 15 * kEpsilon)
                << interpolationName(mode) << ", x " << x;
        }
}

TEST(CubicKernels, of_both_forms_agree_on_even_positions)
{
    Random random(3);
    for (CubicMode mode : kCubicModes)
        for (int n = 0; n < 500; ++n) {
            const auto f = fourValues(random);
            const float t = fraction(random);
            EXPECT_NEAR(interpolateNonUniform(mode, f, {3, 5, 7, 9}, 5 + 2 * t), interpolateUniform(mode, f, t), 120 * kEpsilon);
        }
}

TEST(CubicKernels, take_the_middle_values_at_their_ends)
{
    Random random(4);
    for (CubicMode mode : kCubicModes)
        for (int n = 0; n < 200; ++n) {
            const auto f = fourValues(random);
            const auto p = fourPositions(random);
            EXPECT_EQ(interpolateUniform(mode, f, 0.0f), f[1]) << interpolationName(mode);
            // At the end the sums of the last two modes round: up to 12, as above.
            const bool exact = mode == CubicMode::kQuadraticC0Averaged;
            EXPECT_NEAR(interpolateUniform(mode, f, 1.0f), f[2], exact ? 0 : 24 * kEpsilon) << interpolationName(mode);
            EXPECT_NEAR(interpolateNonUniform(mode, f, p, p[1]), f[1], 4 * kEpsilon) << interpolationName(mode);
            EXPECT_NEAR(interpolateNonUniform(mode, f, p, p[2]), f[2], 100 * kEpsilon) << interpolationName(mode);
        }
}

/// The largest error of a mode on x^degree, over even and uneven positions within 2 of the origin.
double errorOnPower(CubicMode mode, int degree)
{
    Random random(5);
    double worst = 0;
    for (int n = 0; n < 500; ++n) {
        std::array<float, 4> p = fourPositions(random);
        for (float& v : p) v /= 16;
        const float x = p[1] + fraction(random) * (p[2] - p[1]), t = fraction(random);
        std::array<float, 4> uneven, even;
        for (int m = 0; m < 4; ++m) {
            uneven[m] = static_cast<float>(std::pow(p[m], degree));
            even[m] = static_cast<float>(std::pow((m - 1) / 4.0, degree));
        }
        worst = std::max(worst, std::fabs(interpolateNonUniform(mode, uneven, p, x) - std::pow(double(x), degree)));
        worst = std::max(worst, std::fabs(interpolateUniform(mode, even, t) - std::pow(t / 4.0, degree)));
    }
    return worst;
}

TEST(CubicKernels, reproduce_polynomials_up_to_their_degree_and_no_further)
{
    const std::pair<CubicMode, int> degrees[] = {{CubicMode::kQuadraticC0Averaged, 2},
                                                 {CubicMode::kCubicC0, 3},
                                                 {CubicMode::kCubicC1, 2},
                                                 {CubicMode::kCubicC1Monotonic, 1}};
    for (auto const& [mode, degree] : degrees) {
        // Values below 2; the bound is that of the comparison of the non-uniform forms.
        for (int n = 0; n <= degree; ++n) EXPECT_LE(errorOnPower(mode, n), 2 * 25 * 15 * kEpsilon) << interpolationName(mode) << " " << n;
        EXPECT_GE(errorOnPower(mode, degree + 1), 1e-3) << interpolationName(mode);
    }
}

TEST(CubicKernels, of_the_monotonic_mode_stay_on_a_plateau)
{
    Random random(6);
    for (int n = 0; n < 500; ++n) {
        auto f = fourValues(random);
        f[2] = f[1];
        const auto p = fourPositions(random);
        const float t = fraction(random);
        EXPECT_EQ(interpolateUniform(CubicMode::kCubicC1Monotonic, f, t), f[1]);
        EXPECT_NEAR(interpolateNonUniform(CubicMode::kCubicC1Monotonic, f, p, p[1] + t * (p[2] - p[1])), f[1], 4 * kEpsilon);
    }
}

TEST(CubicKernels, of_the_monotonic_mode_keep_the_length_of_tangents)
{
    // Both tangents are 2 and agree with the rise of 0.1: a bound on their length would forbid the overshoot.
    const std::array<float, 4> f = {-4, 0, 0.1f, 4.1f};
    const float quarter = interpolateUniform(CubicMode::kCubicC1Monotonic, f, 0.25f);
    EXPECT_NEAR(quarter, cubicOracle(CubicMode::kCubicC1, {-1, 0, 1, 2}, inDouble(f), 0.25), 20 * kEpsilon);
    EXPECT_GT(quarter, 0.15f);
}

TEST(CubicKernels, give_zero_for_a_number_without_a_mode)
{
    EXPECT_EQ(interpolateUniform<float>(kNoCubicMode, {1, 2, 3, 4}, 0.5f), 0);
    EXPECT_EQ(interpolateNonUniform<float>(kNoCubicMode, {1, 2, 3, 4}, {1, 2, 3, 4}, 2.5f), 0);
}

TEST(CubicKernels, treat_vectors_and_matrices_by_component)
{
    Random random(7);
    for (CubicMode mode : kCubicModes) {
        std::array<float4x2, 4> f;
        for (auto& v : f)
            for (float& m : v.m) m = unit(random);
        const auto p = fourPositions(random);
        const float t = fraction(random), x = p[1] + t * (p[2] - p[1]);
        const float4x2 uniform = interpolateUniform(mode, f, t), uneven = interpolateNonUniform(mode, f, p, x);
        const float4x2 clamped = clampedBetween(uneven, f[1], f[2]);
        for (int c = 0; c < 8; ++c) {
            const std::array<float, 4> g = {f[0].m[c], f[1].m[c], f[2].m[c], f[3].m[c]};
            EXPECT_EQ(uniform.m[c], interpolateUniform(mode, g, t));
            EXPECT_EQ(uneven.m[c], interpolateNonUniform(mode, g, p, x));
            EXPECT_EQ(clamped.m[c], std::clamp(uneven.m[c], std::min(g[1], g[2]), std::max(g[1], g[2])));
        }
    }
}

TEST(CubicBlocks, are_sums_over_64_values)
{
    Random random(8);
    for (CubicMode mode : kCubicModes)
        for (int n = 0; n < 200; ++n) {
            CubicBlock<float4> block;
            float4 values[4][4][4];
            for (int k = 0; k < 4; ++k)
                for (int j = 0; j < 4; ++j) {
                    for (float4& v : values[k][j]) v = {unit(random), unit(random), unit(random), unit(random)};
                    float4 const* row = values[k][j];
                    switch (random.below(4)) {
                    case 0: block.setRow<1>(j, k, row, row + 1); break;
                    case 1: block.setRow<2>(j, k, row, row + 2); break;
                    case 2: block.setRow<3>(j, k, row, row + 3); break;
                    default: block.setRow<4>(j, k, row, nullptr);
                    }
                }
            const Ostara::Math::float3 at(fraction(random), fraction(random), fraction(random));
            const float4 result = block.interpolate(mode, at, false);
            for (int c = 0; c < 4; ++c) {
                const double expected =
                    cubicOracle3D(mode, {at.x, at.y, at.z}, [&](int i, int j, int k) { return values[k][j][i][c]; });
                // The bound of one kernel, for three in a row; each passes errors on with weights that add up to 1.25.
                EXPECT_NEAR(result[c], expected, 90 * (1 + 1.25 + 1.5625) * kEpsilon) << interpolationName(mode);
            }
        }
}

TEST(CubicBlocks, clamp_to_the_eight_values_in_the_middle)
{
    Random random(9);
    int moved = 0;
    for (int n = 0; n < 500; ++n) {
        CubicBlock<float> block;
        float low = 2, high = -2;
        for (int k = 0; k < 4; ++k)
            for (int j = 0; j < 4; ++j) {
                float row[4];
                for (int i = 0; i < 4; ++i) {
                    const bool middle = i % 3 != 0 && j % 3 != 0 && k % 3 != 0;
                    row[i] = middle ? 0.1f * unit(random) : unit(random);
                    if (middle) low = std::min(low, row[i]), high = std::max(high, row[i]);
                }
                block.setRow<4>(j, k, row, nullptr);
            }
        const Ostara::Math::float3 at(fraction(random), fraction(random), fraction(random));
        const float free = block.interpolate(CubicMode::kCubicC0, at, false);
        EXPECT_EQ(block.interpolate(CubicMode::kCubicC0, at, true), std::clamp(free, low, high));
        moved += free < low || free > high;
    }
    EXPECT_GT(moved, 50);
}

}  // namespace
}  // namespace tilegrid::test
