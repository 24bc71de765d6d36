#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/sampling/interpolation.h"

#include <cstring>

namespace OST::TileTree3D {

/// The 4 x 4 x 4 values around a position, as numbers, in the order that the tensor product takes: x outermost, then y, then
/// z, then the component. So every pass works on whole rows of numbers.
template <class T> class TILEGRID_API CubicBlock {
    using Element = Ostara::Math::ElementTraits<T>;
    using S = typename Element::Scalar;
    static constexpr int C = Element::components;
    static_assert(sizeof(T) == C * sizeof(S));

public:
    /// Each coordinate 0 to 3; the position lies between 1 and 2.
    void set(int i, int j, int k, T const& value) { std::memcpy(numbers_ + C * (k + 4 * (j + 4 * i)), &value, sizeof(T)); }

    /// The uniform kernel of a mode along x on 16 rows, then along y on 4, then along z.
    /// \param clamp  moves the result into the range of the eight values in the middle, by component
    /// \return 0 for a number without a mode
    T interpolate(CubicMode mode, Ostara::Math::float3 const& fraction, bool clamp) const;

private:
    void clampToMiddle(S* value) const;
    alignas(16) S numbers_[64 * C];
};

extern template class TILEGRID_API CubicBlock<float>;
extern template class TILEGRID_API CubicBlock<double>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::double3>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float2>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float3>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float3x3>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float4>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float4x2>;
extern template class TILEGRID_API CubicBlock<Ostara::Math::float4x4>;

}  // namespace OST::TileTree3D
