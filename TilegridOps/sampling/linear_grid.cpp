#include "TilegridOps/sampling/linear_grid.h"

#include "TilegridOps/sampling/voxel_sampler.h"
#include "TilegridOps/substrate/element_values.h"
#include "TilegridOps/substrate/instances.h"

namespace OST::TileTree3D {

using namespace detail;

namespace {

// A grid meets up to eight tiles, and the next one most of them again.
constexpr int kHaloWays = 32;

/// The cells of one axis: places `0` to `middle` - 1 lie in the first one, the others in the second.
struct Split {
    int cells, middle;
};

/// False if there are more than two.
template <class Cells> bool splitAxis(Cells const& cells, int axis, int count, Split& split)
{
    split = {1, count};
    for (int n = 1; n < count; ++n)
        if (cells[n][axis] != cells[n - 1][axis]) {
            if (split.cells == 2) return false;
            split = {2, n};
        }
    return true;
}

}  // namespace

template <class Tr, class T>
LinearGrid<Tr, T>::LinearGrid(Container<Tr> const& container, Channel<Tr, T, Tr::width, 0> const& channel)
    : channel_(&channel), finder_(container), halos_(kHaloWays),
      invVoxelSize_(container.voxelSize() == 0 ? 0.0f : 1.0f / container.voxelSize()), depth_(std::min(channel.depth(), Tr::maxDepth))
{
}

template <class Tr, class T>
LinearGrid<Tr, T>::LinearGrid(LinearGrid const& other)
    : channel_(other.channel_), finder_(other.finder_), halos_(other.halos_), invVoxelSize_(other.invVoxelSize_), depth_(other.depth_)
{
}

template <class Tr, class T> void LinearGrid<Tr, T>::readBox(Found const& found, Box const& box, int count, T* out)
{
    using tilegrid::mixed;
    constexpr int Row = Tr::width + 1;
    T const* halo = halos_.last(found.tile);
    if (!halo) halo = halos_.fetch(found.tile, ++queries_, {*channel_, finder_.accessor().container(), kCorner});
    for (int n = 0; n < count; ++n) {
        const Lanes local = snapped(found.local(position_[n]) * found.inverseWidth);
        const IntLanes voxel = floored(local);
        local_[n].voxel = voxel < Tr::width ? voxel : lanes(Tr::width - 1);
        local_[n].fraction = local - toFloat(local_[n].voxel);
    }
    const int3 first(local_[box.begin.x].voxel[0], local_[box.begin.y].voxel[1], local_[box.begin.z].voxel[2]);
    const int rows = local_[box.end.y - 1].voxel[1] + 2 - first.y, planes = local_[box.end.z - 1].voxel[2] + 2 - first.z;
    T alongX[kMostPlaces * Row], alongY[kMostPlaces * kMostPlaces * Row];
    for (int k = 0; k < planes; ++k) {
        for (int j = 0; j < rows; ++j) {
            T const* row = halo + flatIndex(Row, 0, first.y + j, first.z + k);
            for (int i = box.begin.x; i < box.end.x; ++i) {
                T const* low = row + local_[i].voxel[0];
                alongX[i + kMostPlaces * j] = mixed<T>(low[0], low[1], local_[i].fraction[0]);
            }
        }
        for (int j = box.begin.y; j < box.end.y; ++j) {
            T const* low = alongX + kMostPlaces * (local_[j].voxel[1] - first.y);
            for (int i = box.begin.x; i < box.end.x; ++i)
                alongY[flatIndex(kMostPlaces, i, j, k)] = mixed<T>(low[i], low[i + kMostPlaces], local_[j].fraction[1]);
        }
    }
    constexpr int kPlane = kMostPlaces * kMostPlaces;
    for (int k = box.begin.z; k < box.end.z; ++k)
        for (int j = box.begin.y; j < box.end.y; ++j) {
            T const* low = alongY + flatIndex(kMostPlaces, 0, j, local_[k].voxel[2] - first.z);
            for (int i = box.begin.x; i < box.end.x; ++i)
                out[flatIndex(count, i, j, k)] = mixed<T>(low[i], low[i + kPlane], local_[k].fraction[2]);
        }
}

template <class Tr, class T> bool LinearGrid<Tr, T>::read(float3 const* along, int count, T* out)
{
    std::array<IntLanes, kMostPlaces> place;
    std::array<UnsignedLanes, kMostPlaces> cell;
    for (int n = 0; n < count; ++n) {
        position_[n] = lanes(along[n]) * invVoxelSize_;
        const Lanes inside = (position_[n] >= float(Tr::rangeMin)) & (position_[n] <= float(Tr::rangeMax)) ? lanes(1.0f) : Lanes{};
        if (inside[0] + inside[1] + inside[2] != 3.0f) return false;
        place[n] = floored(position_[n]);
        cell[n] = TileGeometry<Tr>::cell(place[n], depth_);
    }
    Split x, y, z;
    if (depth_ < 0 || !splitAxis(cell, 0, count, x) || !splitAxis(cell, 1, count, y) || !splitAxis(cell, 2, count, z)) return false;
    const auto run = [count](Split const& split, int n, int& begin, int& end) {
        begin = n ? split.middle : 0;
        end = n || split.cells == 1 ? count : split.middle;
    };
    for (int n = 0; n < 8; ++n) {
        const int3 number(n & 1, n >> 1 & 1, n >> 2);
        if (number.x >= x.cells || number.y >= y.cells || number.z >= z.cells) continue;
        Box box;
        run(x, number.x, box.begin.x, box.end.x);
        run(y, number.y, box.begin.y, box.end.y);
        run(z, number.z, box.begin.z, box.end.z);
        const IntLanes low{place[box.begin.x][0], place[box.begin.y][1], place[box.begin.z][2], 0};
        Found const& found = finder_.find(low, depth_);
        if (found.tile.valid() && channel_->tileData(found.tile)) {
            readBox(found, box, count, out);
            continue;
        }
        for (int k = box.begin.z; k < box.end.z; ++k)
            for (int j = box.begin.y; j < box.end.y; ++j)
                for (int i = box.begin.x; i < box.end.x; ++i) out[flatIndex(count, i, j, k)] = channel_->defaultValue();
    }
    return true;
}

#define TILEGRID_LINEAR_GRID(Tr, T) template class LinearGrid<Tr, T>;
TILEGRID_FOR_REAL_TYPES(TILEGRID_LINEAR_GRID)
#undef TILEGRID_LINEAR_GRID

}  // namespace OST::TileTree3D
