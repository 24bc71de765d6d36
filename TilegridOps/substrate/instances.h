#pragma once

/// Explicit instances of an operation over element types: `M(Tr, T)` expands to one of them. For sources only, inside namespace
/// OST::TileTree3D.
#define TILEGRID_FOR_BOTH_STRUCTURES(M, T) M(BinaryTraits, T) M(QuinaryTraits, T)

/// Types that are mixed by weights.
#define TILEGRID_FOR_REAL_TYPES(M) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, float) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float2) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float3) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float4) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float3x3) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float4x2) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::float4x4) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, double) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::double3)

/// Every type that a channel may hold.
#define TILEGRID_FOR_ALL_TYPES(M) \
    TILEGRID_FOR_REAL_TYPES(M) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, signed char) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, short) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, int) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, Ostara::Math::int3) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, int64) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, unsigned char) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, unsigned short) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, unsigned int) \
    TILEGRID_FOR_BOTH_STRUCTURES(M, uint64)
