#include "TilegridOps/algorithms/surface_cube.h"

#include "TilegridOps/algorithms/surface_shape.h"

#include <cmath>
#include <limits>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr float kNothing = std::numeric_limits<float>::quiet_NaN();

/// Positions along an axis that lie in the tile on that side: from `first`, `count` of them.
template <int W> struct SideRange {
    int first, count;
    explicit SideRange(int side) : first(side < 0 ? -2 : side == 0 ? 0 : W), count(side == 0 ? W : 2) {}
};

/// Mixes four samples, of which the outer two may be missing: the cubic of `EdgeCurve`.
double mixedCubic(double const* samples, int stride, double t)
{
    return EdgeCurve(samples[0], samples[stride], samples[2 * stride], samples[3 * stride])(t);
}

}  // namespace

template <class Tr>
SurfaceCube<Tr>::SurfaceCube(SurfaceInput<Tr> const& input, std::array<std::vector<std::uint8_t>, Tr::levels> const& hangs)
    : input_(input), hangs_(hangs), accessor_(input.tree.tileAccessor()),
      sites_(VoxelView<float>(input.levelSet), accessor_, input.offset, kNothing, JumpRule::kStepwise)
{}

template <class Tr> void SurfaceCube<Tr>::copyTile(int direction, TreeIndex const& from)
{
    const int3 d = neighborOffset(NeighborDirection(direction));
    const SideRange<W> x(d.x), y(d.y), z(d.z);
    float const* values = input_.levelSet.tileData(from).data();
    const auto block = input_.blocked ? input_.blocked->tileData(from) : ConstTileData<float, W, 0>();
    auto const& hangs = hangs_[std::size_t(from.depth)];
    const bool flagged = !hangs.empty() && hangs[std::size_t(from.index)];
    const auto flags = flagged ? input_.dofs->tileData(from) : ConstTileData<short, W, 0>();
    for (int k = z.first; k < z.first + z.count; ++k)
        for (int j = y.first; j < y.first + y.count; ++j) {
            const int row = (x.first - d.x * W) + W * ((j - d.y * W) + W * (k - d.z * W)), to = at(x.first, j, k);
            for (int i = 0; i < x.count; ++i) values_[std::size_t(to + i)] = !block || block(row + i) < 0 ? values[row + i] : kNothing;
            if (!flagged) continue;
            for (int i = 0; i < x.count; ++i)
                if ((flags(row + i) & (kDofHanging | kDofKeep)) == kDofHanging) {
                    pending_.set(std::size_t(to + i));
                    incomplete_ = true;
                }
        }
}

template <class Tr> void SurfaceCube<Tr>::gather(Tile const& tile, Surroundings const& around)
{
    tile_ = &tile;
    if (incomplete_) pending_.reset();
    incomplete_ = false;
    for (int n = 0; n < 27; ++n) {
        const TreeIndex from = around[std::size_t(n)];
        if (from.valid() && from.depth == tile.depth()) {
            copyTile(n, from);
            continue;
        }
        const int3 d = neighborOffset(NeighborDirection(n));
        const SideRange<W> x(d.x), y(d.y), z(d.z);
        const bool coarser = from.valid() && from.depth >= input_.levelSet.minDepth();
        incomplete_ |= coarser;
        for (int k = z.first; k < z.first + z.count; ++k)
            for (int j = y.first; j < y.first + y.count; ++j)
                for (int i = x.first; i < x.first + x.count; ++i) {
                    values_[std::size_t(at(i, j, k))] = kNothing;
                    if (coarser) pending_.set(std::size_t(at(i, j, k)));
                }
    }
}

template <class Tr> SiteTap SurfaceCube<Tr>::tap(int voxel, int axis, int depth) const
{
    const int64 fromLow = int64(tile_->tijk()[axis]) - Tr::rangeMin + int64(voxel) * tile_->voxelDataWidth();
    return siteTap(fromLow, tile_->voxelDataWidth(), Tr::voxelDataWidth(depth), sites_.centred(axis));
}

namespace {

template <class Tr> int sitePlace(int site, int depth) { return int(Tr::rangeMin + int64(site) * Tr::voxelDataWidth(depth)); }

}  // namespace

template <class Tr> int SurfaceCube<Tr>::signOfCell(int i, int j, int k, int depth) const
{
    const SiteTap x = tap(i, 0, depth), y = tap(j, 1, depth), z = tap(k, 2, depth);
    float sites[8];
    // The cell as a whole, also for a position on its side.
    sites_.gatherStepwise(depth, int3(sitePlace<Tr>(x.base, depth), sitePlace<Tr>(y.base, depth), sitePlace<Tr>(z.base, depth)), int3(2), sites);
    int negative = 0;
    for (float site : sites) negative += site < 0;
    return negative == 0 ? 1 : negative == 8 ? -1 : 0;
}

/// By the voxel of the deepest tile, down to `depth`, that holds the place.
template <class Tr> bool SurfaceCube<Tr>::isBlocked(int3 const& place, int depth) const
{
    const TreeIndex holder = accessor_.find(place.x, place.y, place.z, depth);
    const auto values = holder.valid() ? input_.blocked->tileData(holder) : ConstTileData<float, W, 0>();
    if (!values) return input_.blocked->defaultValue() >= 0;
    const int3 in = place - input_.tree.tile(holder).tijk();
    const int step = Tr::voxelDataWidth(holder.depth);
    return values(in.x / step, in.y / step, in.z / step) >= 0;
}

template <class Tr> void SurfaceCube<Tr>::resolve(int i, int j, int k)
{
    const std::size_t element = std::size_t(at(i, j, k));
    if (!pending_[element]) return;
    pending_.reset(element);
    const int depth = tile_->depth() - 1;
    const SiteTap taps[3] = {tap(i, 0, depth), tap(j, 1, depth), tap(k, 2, depth)};
    int3 place, count;
    for (int a = 0; a < 3; ++a) {
        const bool between = taps[a].fraction != 0;
        place[a] = sitePlace<Tr>(taps[a].base - between, depth);
        count[a] = between ? 4 : 1;
    }
    float sites[64];
    sites_.gatherStepwise(depth, place, count, sites);
    double plane[4], row[4], line[4];
    for (int c = 0; c < count.z; ++c) {
        for (int b = 0; b < count.y; ++b) {
            for (int a = 0; a < count.x; ++a) line[a] = sites[a + count.x * (b + count.y * c)];
            row[b] = count.x == 1 ? line[0] : mixedCubic(line, 1, taps[0].fraction);
        }
        plane[c] = count.y == 1 ? row[0] : mixedCubic(row, 1, taps[1].fraction);
    }
    values_[element] = float(count.z == 1 ? plane[0] : mixedCubic(plane, 1, taps[2].fraction));
    if (input_.blocked && isBlocked(tile_->tijk() + tile_->voxelDataWidth() * int3(i, j, k), tile_->depth())) values_[element] = kNothing;
}

template class SurfaceCube<BinaryTraits>;
template class SurfaceCube<QuinaryTraits>;

}  // namespace tilegrid
