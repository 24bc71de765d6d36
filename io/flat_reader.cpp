#include "io/flat_reader.h"

#include "TilegridOps/sampling/voxel_sampler_linear.h"

#include <cstring>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

template <class T> bool sameBits(T const& a, T const& b) { return std::memcmp(&a, &b, sizeof(T)) == 0; }

constexpr int blockIndex(int3 const& block, int i, int j, int k)
{
    return flatIndex(kBlockWidth, i - block.x, j - block.y, k - block.z);
}

}  // namespace

template <class Tr, class T>
FlatReader<Tr, T>::FlatReader(Container<Tr> const& tree, PlainChannel<Tr, T> const& channel, VoxelOffsetType offset,
                              DepthLattice<Tr> const& lattice)
    : accessor_(tree),
      channel_(channel),
      lattice_(lattice),
      offset_(voxelOffset(offset)),
      samples_(tree, channel, offset)
{}

template <class Tr, class T> bool FlatReader<Tr, T>::isDefault(T const& value) const
{
    return sameBits(value, channel_.defaultValue());
}

template <class Tr, class T> void FlatReader<Tr, T>::read(int3 const& low, T* out)
{
    // Cuts of the block at the faces of the lattice's tiles, per axis.
    int cuts[3][kBlockWidth + 2], count[3];
    for (int axis = 0; axis < 3; ++axis) {
        const OST::int64 begin = low[axis], phase = (begin - lattice_.lowIndex()) % Tr::width;
        const int ahead = static_cast<int>((phase + Tr::width) % Tr::width);
        cuts[axis][0] = low[axis];
        count[axis] = 1;
        for (int at = low[axis] + Tr::width - ahead; at < low[axis] + kBlockWidth; at += Tr::width)
            cuts[axis][count[axis]++] = at;
        cuts[axis][count[axis]] = low[axis] + kBlockWidth;
    }
    for (int k = 0; k < count[2]; ++k)
        for (int j = 0; j < count[1]; ++j)
            for (int i = 0; i < count[0]; ++i)
                readPart(low, {{cuts[0][i], cuts[1][j], cuts[2][k]}, {cuts[0][i + 1], cuts[1][j + 1], cuts[2][k + 1]}},
                         out);
}

template <class Tr, class T> void FlatReader<Tr, T>::readPart(int3 const& block, Part const& part, T* out)
{
    bool inside = true;
    for (int axis = 0; axis < 3; ++axis)
        inside = inside && part.low[axis] >= lattice_.lowIndex() && part.low[axis] < lattice_.endIndex();
    TreeIndex tile;
    if (inside) {
        const int3 place = lattice_.placeOf(part.low);
        tile = accessor_.find(place.x, place.y, place.z, std::min(lattice_.depth, channel_.depth()));
    }
    const auto values = tile.valid() && tile.depth >= channel_.minDepth() ? channel_.tileData(tile)
                                                                          : decltype(channel_.tileData(tile))();
    if (values && tile.depth < lattice_.depth) return interpolate(tile, block, part, out);
    const int3 corner = values ? lattice_.indexOf(accessor_.container().tile(tile).tijk()) : int3(0);
    for (int k = part.low.z; k < part.high.z; ++k)
        for (int j = part.low.y; j < part.high.y; ++j)
            for (int i = part.low.x; i < part.high.x; ++i)
                out[blockIndex(block, i, j, k)] = values ? values(int3(i, j, k) - corner) : channel_.defaultValue();
}

template <class Tr, class T>
void FlatReader<Tr, T>::interpolate(TreeIndex const& index, int3 const& block, Part const& part, T* out)
{
    auto const& tile = accessor_.container().tile(index);
    const int3 corner = lattice_.indexOf(tile.tijk());
    const int ratio = tile.voxelDataWidth() / lattice_.width;
    if constexpr (canInterpolate<T>) {
        const auto placeAt = [&](int axis, int n) {
            return AxisPlace<Tr>((n - corner[axis] + double(offset_[axis])) * lattice_.width, index.depth,
                                 offset_[axis]);
        };
        T const* samples = samples_.of(index) + samples_.first() * flatIndex(samples_.row(), 1, 1, 1);
        const bool compressed = samples_.first() == 0;
        for (int k = part.low.z; k < part.high.z; ++k)
            for (int j = part.low.y; j < part.high.y; ++j) {
                const AxisPlace<Tr> z = placeAt(2, k), y = placeAt(1, j);
                for (int i = part.low.x; i < part.high.x; ++i) {
                    const AxisPlace<Tr> x = placeAt(0, i);
                    const float3 f(x.fraction, y.fraction, z.fraction);
                    T const* low = samples + flatIndex(samples_.row(), x.sample, y.sample, z.sample);
                    out[blockIndex(block, i, j, k)] = compressed
                        ? detail::Trilinear<T>(detail::CubeInArray<Tr::width + 1, T>{low}, f).value(f)
                        : detail::Trilinear<T>(detail::CubeInArray<Tr::width + 2, T>{low}, f).value(f);
                }
            }
    } else {
        const auto values = channel_.tileData(index);
        for (int k = part.low.z; k < part.high.z; ++k)
            for (int j = part.low.y; j < part.high.y; ++j)
                for (int i = part.low.x; i < part.high.x; ++i) {
                    const int3 local = int3(i, j, k) - corner;
                    out[blockIndex(block, i, j, k)] = values(int3(local.x / ratio, local.y / ratio, local.z / ratio));
                }
    }
}

template <class Tr, class T> void FlatReader<Tr, T>::read(TreeIndex const& tile, VoxelState* states)
{
    const auto values = channel_.tileData(tile);
    const bool known = values && tile.depth >= channel_.minDepth() && tile.depth <= channel_.depth();
    if (!known) {
        // Above the property's depths there is the default; below, the values of coarser tiles.
        std::fill_n(states, Tr::voxelCount,
                    tile.depth < channel_.minDepth() ? VoxelState::kDefault : VoxelState::kVaries);
        return;
    }
    if (!canInterpolate<T> || tile.depth == lattice_.depth) {
        for (int flat = 0; flat < Tr::voxelCount; ++flat)
            states[flat] = isDefault(values(flat)) ? VoxelState::kDefault : VoxelState::kConstant;
        return;
    }
    if constexpr (canInterpolate<T>) {
        T const* samples = samples_.of(tile);
        const int row = samples_.row();
        // Samples that a voxel reads, per axis: its own, the next one, and at centres the one before.
        int3 count(2);
        for (int axis = 0; axis < 3; ++axis) count[axis] += offset_[axis] != 0.0f;
        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
            const int3 ijk = cubeIndex(Tr::width, flat);
            int3 low;
            for (int axis = 0; axis < 3; ++axis) low[axis] = ijk[axis] + samples_.first() - (count[axis] - 2);
            T const& value = samples[flatIndex(row, low.x, low.y, low.z)];
            bool constant = true;
            for (int k = 0; k < count.z && constant; ++k)
                for (int j = 0; j < count.y && constant; ++j)
                    for (int i = 0; i < count.x && constant; ++i)
                        constant = sameBits(samples[flatIndex(row, low.x + i, low.y + j, low.z + k)], value);
            states[flat] = !constant ? VoxelState::kVaries
                : isDefault(value)   ? VoxelState::kDefault
                                     : VoxelState::kConstant;
        }
    }
}

#define TILEGRID_INSTANTIATE(T)                                                                                        \
    template class FlatReader<BinaryTraits, T>;                                                                        \
    template class FlatReader<QuinaryTraits, T>;
TILEGRID_INSTANTIATE(float)
TILEGRID_INSTANTIATE(double)
TILEGRID_INSTANTIATE(float3)
TILEGRID_INSTANTIATE(double3)
TILEGRID_INSTANTIATE(int)
TILEGRID_INSTANTIATE(OST::int64)

}  // namespace tilegrid::io
