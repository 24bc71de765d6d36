#include "TilegridOps/algorithms/analyze_formulas.h"
#include "TilegridOps/algorithms/analyze_pass.h"
#include "TilegridOps/stencils/kernels.h"

/// Second derivatives: the Laplacian and the mean curvature.
namespace tilegrid::analysis {

namespace {

using stencils::RowVector;
using stencils::StencilBlock;

template <class Tr> TILEGRID_CLONES void laplacianTile(StencilBlock<Tr> const& block, float* out, float scale)
{
    stencils::sevenPoint<Tr>(block, out, [scale](auto& result, auto& c, auto& x0, auto& x1, auto& y0, auto& y1, auto& z0, auto& z1) {
        result = (((x0 + x1) + (y0 + y1)) + (z0 + z1) - c * 6.0f) * scale;
    });
}

/// Rows around row (j,k), for a stencil of faces and edges.
template <class Tr> [[gnu::always_inline]] inline void loadEighteen(Eighteen<RowVector<Tr::width>>& f, StencilBlock<Tr> const& block, int j, int k)
{
    constexpr int W = Tr::width;
    using namespace stencils;
    const auto lowAndHigh = [&](auto& low, auto& high, int y, int z) __attribute__((always_inline)) {
        loadLow<W>(low, block.row(0, y, z), block.row(-1, y, z));
        loadHigh<W>(high, block.row(0, y, z), block.row(1, y, z));
    };
    load<W>(f.centre, block.row(0, j, k));
    load<W>(f.y0, block.row(0, j - 1, k));
    load<W>(f.y1, block.row(0, j + 1, k));
    load<W>(f.z0, block.row(0, j, k - 1));
    load<W>(f.z1, block.row(0, j, k + 1));
    load<W>(f.z0y0, block.row(0, j - 1, k - 1));
    load<W>(f.z0y1, block.row(0, j + 1, k - 1));
    load<W>(f.z1y0, block.row(0, j - 1, k + 1));
    load<W>(f.z1y1, block.row(0, j + 1, k + 1));
    lowAndHigh(f.x0, f.x1, j, k);
    lowAndHigh(f.y0x0, f.y0x1, j - 1, k);
    lowAndHigh(f.y1x0, f.y1x1, j + 1, k);
    lowAndHigh(f.z0x0, f.z0x1, j, k - 1);
    lowAndHigh(f.z1x0, f.z1x1, j, k + 1);
}

template <class Tr> TILEGRID_CLONES void curvatureTile(StencilBlock<Tr> const& block, float* out, float inverse)
{
    constexpr int W = Tr::width;
    using V = RowVector<W>;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j) {
            Eighteen<V> f;
            loadEighteen<Tr>(f, block, j, k);
            const Derivatives<V> d(f);
            V square, length, curvature;
            d.gradientSquare(square);
            for (int i = 0; i < W; ++i) length[i] = std::sqrt(square[i]);
            d.curvature(length, curvature);
            // A NaN is not flat: it stays.
            for (int i = 0; i < W; ++i) out[W * (j + W * k) + i] = square[i] <= float(kFlatSquare) ? 0.0f : curvature[i] * inverse;
        }
}

struct Laplacian {
    using Types = std::tuple<float, Ostara::Math::float2, float3, Ostara::Math::float4, double, double3>;
    template <class T> using Result = T;
    static constexpr Needs needs = Needs::kFaces;
    static constexpr bool hasRows = true;

    template <class Tr> static void rows(StencilBlock<Tr> const& block, float* out, DepthScale const& scale, double3 const&)
    {
        laplacianTile<Tr>(block, out, float(scale.inverseSquare));
    }
    template <int N, class T> static T inBlock(T const* at, DepthScale const& scale, double3 const&)
    {
        using Scalar = typename Ostara::Math::ElementTraits<T>::Scalar;
        const T sum = ((at[-1] + at[1]) + (at[-N] + at[N])) + (at[-N * N] + at[N * N]);
        return Scalar(scale.inverseSquare) * (sum - Scalar(6) * *at);
    }
};

struct MeanCurvature {
    using Types = std::tuple<float, double>;
    template <class T> using Result = T;
    static constexpr Needs needs = Needs::kAll;
    static constexpr bool hasRows = true;

    template <class Tr> static void rows(StencilBlock<Tr> const& block, float* out, DepthScale const& scale, double3 const&)
    {
        curvatureTile<Tr>(block, out, float(scale.inverse));
    }
    template <int N, class T> static T inBlock(T const* at, DepthScale const& scale, double3 const&)
    {
        const Derivatives<T> d(eighteenAt<N>(at));
        T square, curvature;
        d.gradientSquare(square);
        d.curvature(std::sqrt(square), curvature);
        return square <= T(kFlatSquare) ? T(0) : curvature * T(scale.inverse);
    }
};

}  // namespace

}  // namespace tilegrid::analysis

TILEGRID_INSTANTIATE_ANALYZE(LaplacianOperator, tilegrid::analysis::Laplacian)
TILEGRID_INSTANTIATE_ANALYZE(MeanCurvatureOperator, tilegrid::analysis::MeanCurvature)
