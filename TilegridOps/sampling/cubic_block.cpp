#include "TilegridOps/sampling/cubic_block.h"

#include "TilegridOps/sampling/cubic_kernels.h"

namespace OST::TileTree3D {

namespace {

/// One axis, the fastest one of those left: `Rows` times four elements of C numbers to one.
template <CubicMode M, int Rows, int C, class S> void pass(S const* from, float t, S* to)
{
    const cubic::Uniform<M, S> kernel{S(t)};
    for (int n = 0; n < Rows; ++n)
        for (int c = 0; c < C; ++c) {
            S const* row = from + 4 * C * n + c;
            to[C * n + c] = kernel(row[0], row[C], row[2 * C], row[3 * C]);
        }
}

}  // namespace

template <class T> T CubicBlock<T>::interpolate(CubicMode mode, Ostara::Math::float3 const& fraction, bool clamp) const
{
    S result[C] = {};
    cubic::withMode(mode, [&]<CubicMode M>() {
        S rows[16 * C], columns[4 * C];
        pass<M, 16, C>(numbers_, fraction.x, rows);
        pass<M, 4, C>(rows, fraction.y, columns);
        pass<M, 1, C>(columns, fraction.z, result);
        if (clamp) clampToMiddle(result);
    });
    T value;
    std::memcpy(&value, result, sizeof(T));
    return value;
}

template <class T> void CubicBlock<T>::clampToMiddle(S* value) const
{
    for (int c = 0; c < C; ++c) {
        const auto middle = [&](int i, int j, int k) { return numbers_[C * (i + 4 * (j + 4 * k)) + c]; };
        S low = middle(1, 1, 1), high = low;
        for (int n = 1; n < 8; ++n) {
            const S v = middle(1 + (n & 1), 1 + (n >> 1 & 1), 1 + (n >> 2));
            low = v < low ? v : low;
            high = high < v ? v : high;
        }
        value[c] = value[c] < low ? low : high < value[c] ? high : value[c];
    }
}

template class CubicBlock<float>;
template class CubicBlock<double>;
template class CubicBlock<Ostara::Math::double3>;
template class CubicBlock<Ostara::Math::float2>;
template class CubicBlock<Ostara::Math::float3>;
template class CubicBlock<Ostara::Math::float3x3>;
template class CubicBlock<Ostara::Math::float4>;
template class CubicBlock<Ostara::Math::float4x2>;
template class CubicBlock<Ostara::Math::float4x4>;

}  // namespace OST::TileTree3D
