#include "TilegridOps/algorithms/nan_sides.h"

#include "TilegridOps/substrate/accessor.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 64;

template <class Tr> using FloatsOf = Channel<Tr, float, Tr::width, 0>;

struct VoxelPlace {
    int64 tile;
    int depth, voxel;
};

template <class Tr>
std::vector<VoxelPlace> nansOf(Container<Tr> const& tree, FloatsOf<Tr> const& levelSet, int minDepth, int maxDepth,
                               parallel::FunctionRef<bool(int64, int, int)> isFixed)
{
    std::vector<VoxelPlace> found;
    for (int depth = minDepth; depth <= maxDepth; ++depth) {
        const int64 tiles = std::min(tree.tileCount(depth), levelSet.tileCount(depth));
        std::vector<std::uint8_t> has(std::size_t(std::max<int64>(tiles, 0)));
        parallel::forRanges(0, tiles, kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                float const* values = levelSet.tileData(n, depth).data();
                has[std::size_t(n)] = std::any_of(values, values + Tr::voxelCount, [](float value) { return std::isnan(value); });
            }
        });
        for (int64 n = 0; n < tiles; ++n)
            for (int v = 0; has[std::size_t(n)] && v < Tr::voxelCount; ++v)
                if (std::isnan(levelSet.tileData(n, depth)(v)) && !isFixed(n, depth, v)) found.push_back({n, depth, v});
    }
    return found;
}

/// The value that a voxel gets from its neighbours; NaN if none is finite.
template <class Tr>
float valueFromNeighbors(Container<Tr> const& tree, ConstTileAccessor<Tr> const& accessor, FloatsOf<Tr> const& levelSet, VoxelPlace const& at)
{
    auto const& tile = tree.tile(at.tile, at.depth);
    const int3 voxel = cubeIndex(Tr::width, at.voxel);
    const int64 width = tile.voxelDataWidth();
    int inside = 0, outside = 0, between = 0;
    double insideSum = 0, outsideSum = 0, betweenSum = 0;
    // The value on the one side of an axis, once it is known.
    float first = NAN;
    for (int face = 0; face < 6; ++face) {
        if (face % 2 == 0) first = NAN;
        int3 place = tile.tijk() + int(width) * voxel;
        const int64 moved = int64(place[face / 2]) + (face % 2 ? width : -width);
        if (moved < Tr::rangeMin || moved > Tr::rangeMax) continue;
        place[face / 2] = int(moved);
        const TreeIndex there = accessor.find(place.x, place.y, place.z, at.depth);
        const auto values = there.valid() ? levelSet.tileData(there) : ConstTileData<float, Tr::width, 0>();
        if (!values) continue;
        auto const& other = tree.tile(there);
        const int w = other.voxelDataWidth();
        const float value = values((place.x - other.tijk().x) / w, (place.y - other.tijk().y) / w, (place.z - other.tijk().z) / w);
        if (!std::isfinite(value)) continue;
        (value < 0 ? inside : outside) += 1;
        (value < 0 ? insideSum : outsideSum) += double(value);
        if (face % 2 == 1 && !std::isnan(first)) betweenSum += 0.5 * (double(first) + double(value)), ++between;
        first = value;
    }
    if (inside + outside == 0) return NAN;
    // Where neighbours on both sides are known, what lies between them, if that has the side.
    const bool isInside = inside > outside;
    if (between > 0 && (betweenSum < 0) == isInside) return float(betweenSum / between);
    return float(isInside ? insideSum / inside : outsideSum / outside);
}

}  // namespace

template <class Tr>
void giveNansSides(Container<Tr> const& tree, FloatsOf<Tr>& levelSet, int minDepth, int maxDepth, parallel::FunctionRef<bool(int64, int, int)> isFixed)
{
    auto left = nansOf<Tr>(tree, levelSet, std::max(minDepth, 0), std::min(maxDepth, Tr::maxDepth), isFixed);
    std::vector<float> values;
    while (!left.empty()) {
        values.resize(left.size());
        parallel::forRanges(0, int64(left.size()), 1024, [&](int64 begin, int64 end) {
            const auto accessor = tree.tileAccessor();
            for (int64 n = begin; n < end; ++n) values[std::size_t(n)] = valueFromNeighbors<Tr>(tree, accessor, levelSet, left[std::size_t(n)]);
        });
        parallel::endStage();
        // All of a round before any of the next, so that no order matters.
        std::vector<VoxelPlace> next;
        for (std::size_t n = 0; n < left.size(); ++n) {
            if (std::isnan(values[n]))
                next.push_back(left[n]);
            else
                levelSet.tileData(left[n].tile, left[n].depth)(left[n].voxel) = values[n];
        }
        if (next.size() == left.size()) break;
        left = std::move(next);
    }
}

template TILEGRID_API void giveNansSides(Container<BinaryTraits> const&, FloatsOf<BinaryTraits>&, int, int,
                                         parallel::FunctionRef<bool(int64, int, int)>);
template TILEGRID_API void giveNansSides(Container<QuinaryTraits> const&, FloatsOf<QuinaryTraits>&, int, int,
                                         parallel::FunctionRef<bool(int64, int, int)>);

}  // namespace tilegrid
