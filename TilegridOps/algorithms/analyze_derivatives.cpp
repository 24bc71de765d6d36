#include "TilegridOps/algorithms/analyze_formulas.h"
#include "TilegridOps/algorithms/analyze_pass.h"
#include "TilegridOps/stencils/kernels.h"

/// First derivatives: the gradient of a scalar or vector, the way to the surface, divergence and curl.
namespace tilegrid::analysis {

namespace {

using Ostara::Math::float3x3;
using stencils::RowVector;
using stencils::StencilBlock;

/// The gradient of a float, row by row: `write(first voxel of the row, x, y, z)` with W derivatives each.
template <class Tr, class Write> [[gnu::always_inline]] inline void gradientRows(StencilBlock<Tr> const& block, float halfInverse, Write const& write)
{
    constexpr int W = Tr::width;
    using V = RowVector<W>;
#pragma GCC unroll 5
    for (int k = 0; k < W; ++k)
#pragma GCC unroll 5
        for (int j = 0; j < W; ++j) {
            float const* at = block.row(0, j, k);
            V low, high, x, y, z;
            stencils::loadLow<W>(low, at, block.row(-1, j, k));
            stencils::loadHigh<W>(high, at, block.row(1, j, k));
            x = (high - low) * halfInverse;
            stencils::load<W>(low, block.row(0, j - 1, k));
            stencils::load<W>(high, block.row(0, j + 1, k));
            y = (high - low) * halfInverse;
            stencils::load<W>(low, block.row(0, j, k - 1));
            stencils::load<W>(high, block.row(0, j, k + 1));
            z = (high - low) * halfInverse;
            write(W * (j + W * k), x, y, z);
        }
}

/// Writes the vectors that have those components.
template <int W> [[gnu::always_inline]] inline void storeVectors(float3* to, RowVector<W> const& x, RowVector<W> const& y, RowVector<W> const& z)
{
    if constexpr (W == 4) {
        const RowVector<4> xy = __builtin_shufflevector(x, y, 0, 4, 1, 5), xyHigh = __builtin_shufflevector(x, y, 2, 6, 3, 7);
        const RowVector<4> rows[3] = {__builtin_shufflevector(xy, __builtin_shufflevector(z, x, 0, 5, 0, 5), 0, 1, 4, 5),
                                      __builtin_shufflevector(__builtin_shufflevector(y, z, 1, 5, 1, 5), xyHigh, 0, 1, 4, 5),
                                      __builtin_shufflevector(__builtin_shufflevector(z, z, 2, 3, 2, 3), xyHigh, 0, 6, 7, 1)};
        std::memcpy(static_cast<void*>(to), rows, sizeof rows);
    } else {
        for (int i = 0; i < W; ++i) to[i] = {x[i], y[i], z[i]};
    }
}

template <class Tr> TILEGRID_CLONES void gradientTile(StencilBlock<Tr> const& block, float3* out, float halfInverse)
{
    using V = RowVector<Tr::width>;
    gradientRows<Tr>(block, halfInverse, [out](int first, V const& x, V const& y, V const& z) __attribute__((always_inline)) {
        storeVectors<Tr::width>(out + first, x, y, z);
    });
}

/// From a position along the gradient to where its function is zero.
template <class S> Vector3<S> closestPoint(S value, Vector3<S> const& gradient, double3 const& position)
{
    const double length = std::sqrt(double(gradient.x) * gradient.x + double(gradient.y) * gradient.y + double(gradient.z) * gradient.z);
    if (length < kShortestGradient) return Vector3<S>(position);
    return Vector3<S>(position - (double(value) / length) * double3(gradient));
}

struct Gradient {
    using Types = std::tuple<float, double, float3>;
    template <class T> using Result = std::conditional_t<std::is_same_v<T, float3>, float3x3, Vector3<T>>;
    static constexpr Needs needs = Needs::kFaces;
    static constexpr bool hasRows = true;

    template <class Tr> static void rows(StencilBlock<Tr> const& block, float3* out, DepthScale const& scale, double3 const&)
    {
        gradientTile<Tr>(block, out, float(scale.halfInverse));
    }
    template <int N, class T> static Result<T> inBlock(T const* at, DepthScale const& scale, double3 const&)
    {
        using Scalar = typename Ostara::Math::ElementTraits<T>::Scalar;
        const auto along = differencesAt<N>(at, Scalar(scale.halfInverse));
        if constexpr (std::is_same_v<T, float3>) {
            float3x3 rows;
            for (int component = 0; component < 3; ++component)
                for (int axis = 0; axis < 3; ++axis) rows(component, axis) = along[std::size_t(axis)][component];
            return rows;
        } else {
            return {along[0], along[1], along[2]};
        }
    }
};

struct ClosestPoint {
    using Types = std::tuple<float, double>;
    template <class T> using Result = Vector3<T>;
    static constexpr Needs needs = Needs::kFaces;
    static constexpr bool hasRows = true;

    template <class Tr> static void rows(StencilBlock<Tr> const& block, float3* out, DepthScale const& scale, double3 const& first)
    {
        constexpr int W = Tr::width;
        float3 gradients[Tr::voxelCount];
        gradientTile<Tr>(block, gradients, float(scale.halfInverse));
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(W, v);
            out[v] = closestPoint(block.row(0, at.y, at.z)[at.x], gradients[v], first + scale.size * double3(at));
        }
    }
    template <int N, class T> static Result<T> inBlock(T const* at, DepthScale const& scale, double3 const& position)
    {
        const auto along = differencesAt<N>(at, T(scale.halfInverse));
        return closestPoint(*at, Vector3<T>(along[0], along[1], along[2]), position);
    }
};

struct Divergence {
    using Types = std::tuple<float3, double3>;
    template <class T> using Result = typename T::Scalar;
    static constexpr Needs needs = Needs::kFaces;
    static constexpr bool hasRows = false;

    template <int N, class T> static Result<T> inBlock(T const* at, DepthScale const& scale, double3 const&)
    {
        const auto along = differencesAt<N>(at, Result<T>(scale.halfInverse));
        return along[0].x + along[1].y + along[2].z;
    }
};

struct Curl {
    using Types = std::tuple<float3, double3>;
    template <class T> using Result = T;
    static constexpr Needs needs = Needs::kFaces;
    static constexpr bool hasRows = false;

    template <int N, class T> static T inBlock(T const* at, DepthScale const& scale, double3 const&)
    {
        const auto along = differencesAt<N>(at, typename T::Scalar(scale.halfInverse));
        return {along[1].z - along[2].y, along[2].x - along[0].z, along[0].y - along[1].x};
    }
};

}  // namespace

}  // namespace tilegrid::analysis

TILEGRID_INSTANTIATE_ANALYZE(GradientOperator, tilegrid::analysis::Gradient)
TILEGRID_INSTANTIATE_ANALYZE(ClosestPointOperator, tilegrid::analysis::ClosestPoint)
TILEGRID_INSTANTIATE_ANALYZE(DivergenceOperator, tilegrid::analysis::Divergence)
TILEGRID_INSTANTIATE_ANALYZE(CurlOperator, tilegrid::analysis::Curl)
