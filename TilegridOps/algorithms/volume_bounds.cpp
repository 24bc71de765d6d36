#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/topology.h"
#include "TilegridOps/substrate/traversal.h"

namespace {

using namespace OST::TileTree3D;
using namespace Ostara::Geometry;
using Box = Ostara::Math::bbox<double3, double>;

template <class Tr> using FloatChannel = Channel<Tr, float, Tr::width, 0>;

/// Box over leaf voxels: `visit(tile, values, accessor, box)` adds what it finds in one tile.
template <class Tr, class Visit> Box boxOverTiles(Container<Tr> const& tree, FloatChannel<Tr> const& channel, Visit visit)
{
    using Tile = typename Container<Tr>::Tile;
    struct Data {
        Box box;
        ConstTileAccessor<Tr> accessor;
    };
    Data data{Box(), tree.tileAccessor()};
    tree.reduce(
        detail::Nothing(), detail::Nothing(),
        [&](Tile const& tile, Data& d) {
            if (const auto values = channel.tileData(tile.treeIndex())) visit(tile, values, d.accessor, d.box);
        },
        detail::Nothing(), detail::Nothing(), [](Data& left, Data const& right) { left.box.add(right.box); }, data, kByLevel, TreeIndex(),
        channel.minDepth(), channel.depth());
    return data.box;
}

template <class Tile, class Visit> void forEachLeafVoxel(Tile const& tile, Visit visit)
{
    constexpr int W = Tile::width;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            for (int i = 0; i < W; ++i)
                if (tile.isLeaf(Tile::voxelChildIJK(i, j, k))) visit(int3(i, j, k));
}

/// The voxel next to (i,j,k) of a tile, if it lies at the same depth and is a leaf voxel as well.
template <class Tr>
bool leafNeighbour(Container<Tr> const& tree, FloatChannel<Tr> const& channel, ConstTileAccessor<Tr> const& accessor,
                   typename Container<Tr>::Tile const& tile, int3 ijk, int axis, int step, float& value)
{
    using Tile = typename Container<Tr>::Tile;
    ijk[axis] += step;
    Tile const* home = &tile;
    if (ijk[axis] < 0 || ijk[axis] >= Tr::width) {
        int3 offset;
        offset[axis] = step;
        const TreeIndex next = accessor.treeIndexNeighbor(tile, neighborDirection(offset.x, offset.y, offset.z));
        if (next.depth != tile.depth()) return false;
        home = &tree.tile(next);
        ijk[axis] -= step * Tr::width;
    }
    if (!home->isLeaf(Tile::voxelChildIJK(ijk.x, ijk.y, ijk.z))) return false;
    const auto values = channel.tileData(home->treeIndex());
    if (!values) return false;
    value = values(ijk);
    return true;
}

/// Negative voxels, and where the edges from them to others cross zero. An edge across a jump of resolution is left to the
/// finer side, which sees the surface better.
template <class Tr> Box surfaceBox(Container<Tr> const& tree, FloatChannel<Tr> const& channel, float3 const& offset)
{
    using Tile = typename Container<Tr>::Tile;
    const auto position = [&tree, offset](Tile const& tile, int3 const& ijk) {
        double3 p;
        for (int axis = 0; axis < 3; ++axis)
            p[axis] = ((ijk[axis] + double(offset[axis])) * tile.voxelDataWidth() + tile.tijk()[axis]) * tree.voxelSize();
        return p;
    };
    return boxOverTiles(tree, channel, [&](Tile const& tile, auto const& values, ConstTileAccessor<Tr> const& accessor, Box& box) {
        const double h = double(tile.voxelDataWidth()) * tree.voxelSize();
        forEachLeafVoxel(tile, [&](int3 const& ijk) {
            const float inside = values(ijk);
            if (!(inside < 0.0f)) return;
            const double3 p = position(tile, ijk);
            box.add(p);
            for (int axis = 0; axis < 3; ++axis)
                for (int step = -1; step <= 1; step += 2) {
                    float outside;
                    if (!leafNeighbour(tree, channel, accessor, tile, ijk, axis, step, outside) || !(outside >= 0.0f)) continue;
                    double3 root = p;
                    root[axis] += step * h * (double(inside) / (double(inside) - double(outside)));
                    box.add(root);
                }
        });
    });
}

template <class Tr> Box fogBox(Container<Tr> const& tree, FloatChannel<Tr> const& channel)
{
    using Tile = typename Container<Tr>::Tile;
    const float empty = channel.defaultValue();
    return boxOverTiles(tree, channel, [&tree, empty](Tile const& tile, auto const& values, ConstTileAccessor<Tr> const&, Box& box) {
        forEachLeafVoxel(tile, [&](int3 const& ijk) {
            if (values(ijk) == empty) return;
            for (int corner = 0; corner < 2; ++corner) {
                double3 p;
                for (int axis = 0; axis < 3; ++axis)
                    p[axis] = (double(ijk[axis] + corner) * tile.voxelDataWidth() + tile.tijk()[axis]) * tree.voxelSize();
                box.add(p);
            }
        });
    });
}

template <class Tr> bool volumeBox(OST::Object const& volume, Box& box)
{
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    const auto topology = volume.component<VoxelTopology<Tr>>(sVoxelComp);
    if (!tree) return false;
    if (const auto distance = volume.component<FloatChannel<Tr>>(sVoxelSignedDistance))
        box = surfaceBox(*tree, *distance, topology ? topology->offset() : float3());
    else if (const auto fog = volume.component<FloatChannel<Tr>>(sVoxelFogDensity))
        box = fogBox(*tree, *fog);
    else
        tree->worldSpaceBounds(box);
    return true;
}

}  // namespace

void Ostara::GeometryAlgorithms::getVolumeBounds(Object const& object, Math::bbox<Math::float3, float>& box)
{
    box.min = box.max = Math::float3();
    auto const& native = object.native();
    Box found;
    if (!native || !(volumeBox<BinaryTraits>(*native, found) || volumeBox<QuinaryTraits>(*native, found)) || found.empty()) return;
    box.min = Math::float3(found.min);
    box.max = Math::float3(found.max);
}
