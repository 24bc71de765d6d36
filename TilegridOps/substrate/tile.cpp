#include "TilegridOps/substrate/tile.h"

#include <algorithm>

namespace OST::TileTree3D {

constinit const std::array<int64, 8> NoChildren<8>::entries = {-1, -1, -1, -1, -1, -1, -1, -1};

constinit const std::array<int64, 125> NoChildren<125>::entries = [] {
    std::array<int64, 125> all{};
    all.fill(-1);
    return all;
}();

namespace {

/// Place of a tile corner counted from the low end of tile space, one digit per level.
template <class Tr> std::uint32_t shifted(std::int32_t v)
{
    return std::uint32_t(v) - std::uint32_t(Tr::rangeMin);
}

}  // namespace

template <class Tr> bool mortonLess(int3 const& a, int3 const& b)
{
    for (int depth = 1; depth <= Tr::maxDepth; ++depth) {
        const std::uint32_t width = std::uint32_t(Tr::tileVoxelWidth(depth));
        for (int axis = 2; axis >= 0; --axis) {
            // Digits above this one were equal, so whole quotients compare as their last digits do.
            const std::uint32_t p = shifted<Tr>(a[axis]) / width, q = shifted<Tr>(b[axis]) / width;
            if (p != q) return p < q;
        }
    }
    return false;
}

template bool mortonLess<BinaryTraits>(int3 const&, int3 const&);
template bool mortonLess<QuinaryTraits>(int3 const&, int3 const&);

}  // namespace OST::TileTree3D
