#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/sampling/interpolation.h"

#include <cstring>

namespace OST::TileTree3D {

/// The 4 x 4 x 4 values around a position, x fastest, and their tensor product.
template <class T> class TILEGRID_API CubicBlock {
    using Element = Ostara::Math::ElementTraits<T>;
    using S = typename Element::Scalar;
    static constexpr int C = Element::components;
    static_assert(sizeof(T) == C * sizeof(S));

public:
    /// Takes the row (j, k), each 0 to 3, as the last `First` voxels of one run and the first 4 - `First` of another. The
    /// position lies between voxels 1 and 2 on every axis.
    template <int First> void setRow(int j, int k, T const* from, [[maybe_unused]] T const* next)
    {
        S* row = numbers_ + 4 * C * (j + 4 * k);
        std::memcpy(row, from, First * sizeof(T));
        if constexpr (First < 4) std::memcpy(row + First * C, next, (4 - First) * sizeof(T));
    }

    /// The uniform kernel of a mode along x on 16 rows, then along y on 4, then along z.
    /// \param clamp  moves the result into the range of the eight values in the middle, by component
    /// \return 0 for a number without a mode
    T interpolate(CubicMode mode, Ostara::Math::float3 const& fraction, bool clamp) const;

private:
    void clampToMiddle(S* value) const;
    alignas(16) S numbers_[64 * C];
};

extern template class CubicBlock<float>;
extern template class CubicBlock<double>;
extern template class CubicBlock<Ostara::Math::double3>;
extern template class CubicBlock<Ostara::Math::float2>;
extern template class CubicBlock<Ostara::Math::float3>;
extern template class CubicBlock<Ostara::Math::float3x3>;
extern template class CubicBlock<Ostara::Math::float4>;
extern template class CubicBlock<Ostara::Math::float4x2>;
extern template class CubicBlock<Ostara::Math::float4x4>;

}  // namespace OST::TileTree3D
