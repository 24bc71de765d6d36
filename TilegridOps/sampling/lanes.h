#pragma once
#include "TilegridOps/host/math.h"

#include <cstdint>
#include <cstring>

/// The three axes of a position worked on at once, each with the operations, and so the bits, of scalar code. The fourth lane is
/// 0 in and of no meaning out.
namespace OST::TileTree3D::detail {

using Lanes = float __attribute__((vector_size(16)));
using IntLanes = std::int32_t __attribute__((vector_size(16)));
using UnsignedLanes = std::uint32_t __attribute__((vector_size(16)));

inline Lanes lanes(Ostara::Math::float3 const& v) { return Lanes{v.x, v.y, v.z, 0.0f}; }
inline IntLanes lanes(Ostara::Math::int3 const& v) { return IntLanes{v.x, v.y, v.z, 0}; }
inline Lanes lanes(float v) { return Lanes{v, v, v, v}; }
inline IntLanes lanes(std::int32_t v) { return IntLanes{v, v, v, v}; }

inline Lanes toFloat(IntLanes v) { return __builtin_convertvector(v, Lanes); }
/// Of values within 32 bits.
inline IntLanes floored(Lanes v)
{
    const IntLanes whole = __builtin_convertvector(v, IntLanes);
    return whole + (toFloat(whole) > v);  // a comparison that holds gives -1
}
/// Whether a comparison holds in any of the four lanes.
inline bool any(IntLanes comparison)
{
    std::uint64_t halves[2];
    std::memcpy(halves, &comparison, sizeof halves);
    return (halves[0] | halves[1]) != 0;
}

}  // namespace OST::TileTree3D::detail
