#include "TilegridOps/TilegridOps.h"

// Where std::int64_t is `long`, it is no element type; everywhere OST::int64 is one. Both samplers come with the header.
#ifdef TILEGRID_MISTAKE
using Element = long;
static_assert(sizeof(long) == sizeof(OST::int64), "on this machine `long` is no 64-bit type, and there is nothing to test");
#else
using Element = OST::int64;
#endif

using Tr = OST::TileTree3D::BinaryTraits;
static_assert(sizeof(OST::TileTree3D::Channel<Tr, Element, Tr::width, 0>) > 0);
using Cubic = OST::TileTree3D::VoxelSamplerCubic<Tr, float, float, OST::TileTree3D::float3, 0, 0>;
static_assert(sizeof(Cubic) > 0);
