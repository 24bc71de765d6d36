#pragma once
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/element_types.h"
#include "TilegridOps/substrate/topology.h"
#include "io/error.h"

#include <cmath>
#include <string>
#include <vector>

namespace tilegrid::io {

/// Calls `op.template operator()<Tr>(native, tree, topology)` for the structure of the volume, and returns what it
/// returns.
/// \throws InputError for an object without a tile tree
template <class Op> auto withTree(Ostara::Object const& volume, Op&& op)
{
    using namespace OST::TileTree3D;
    using Ostara::Geometry::sVoxelComp, Ostara::Geometry::sVoxelTileTree;
    if (!volume.native()) throw InputError("the object holds no volume");
    OST::Object const& native = *volume.native();
    const auto binary = native.component<Container<BinaryTraits>>(sVoxelTileTree);
    const auto binaryTopology = native.component<VoxelTopology<BinaryTraits>>(sVoxelComp);
    if (binary && binaryTopology) return op.template operator()<BinaryTraits>(native, *binary, *binaryTopology);
    const auto quinary = native.component<Container<QuinaryTraits>>(sVoxelTileTree);
    const auto quinaryTopology = native.component<VoxelTopology<QuinaryTraits>>(sVoxelComp);
    if (quinary && quinaryTopology) return op.template operator()<QuinaryTraits>(native, *quinary, *quinaryTopology);
    throw InputError("the object holds no tile tree");
}

/// Names of the voxel properties, in the order of their texts.
template <class Tr> std::vector<std::string> propertyNames(OST::Object const& native)
{
    std::vector<std::string> names;
    for (Corvid::String const& name : native.componentRange())
        if (tryElements<Tr>(native, name, []<class C>() {})) names.push_back(name.str());
    return names;
}

/// One number for an element: itself, or the length of a vector or matrix.
template <class T> double magnitude(T const& value)
{
    using Traits = Ostara::Math::ElementTraits<T>;
    if constexpr (Traits::components == 1) return static_cast<double>(value);
    double sum = 0.0;
    for (int i = 0; i < Traits::components; ++i) sum += double(Traits::at(value, i)) * double(Traits::at(value, i));
    return std::sqrt(sum);
}

/// The finest voxel's cell that holds a place of tile space. False, and nothing written, for NaN and places outside
/// tile space.
template <class Tr> bool cellOf(Ostara::Math::double3 const& place, Ostara::Math::int3& cell)
{
    Ostara::Math::int3 result;
    for (int axis = 0; axis < 3; ++axis) {
        const double floor = std::floor(place[axis]);
        if (!(floor >= Tr::rangeMin && floor <= Tr::rangeMax)) return false;
        result[axis] = static_cast<std::int32_t>(floor);
    }
    cell = result;
    return true;
}

/// Reads a channel at places of tile space, as one number. One per thread.
template <class Tr, class C> class VolumeReader {
public:
    using double3 = Ostara::Math::double3;
    using int3 = Ostara::Math::int3;

    VolumeReader(OST::TileTree3D::Container<Tr> const& tree, C const& channel, OST::TileTree3D::VoxelOffsetType offset)
        : accessor_(tree),
          channel_(&channel),
          offset_(OST::TileTree3D::voxelOffset(offset)),
          outside_(magnitude(channel.defaultValue()))
    {}

    /// Trilinear between the samples of the finest tile not deeper than `depth` that contains the place. A sample
    /// outside that tile is read from its neighbour, or between the samples of a coarser one where there is no
    /// neighbour of that depth. At a sample it is the sample's value. Outside every tile it is the default value.
    double at(double3 const& place, int depth) const
    {
        int3 cell;
        if (!cellOf<Tr>(place, cell)) return outside_;
        const auto found = accessor_.find(cell.x, cell.y, cell.z, depth);
        if (!found.valid()) return outside_;
        auto const& tile = accessor_.container().tile(found);
        const double width = tile.voxelDataWidth();
        int3 base;
        double3 part;
        for (int axis = 0; axis < 3; ++axis) {
            const double q = (place[axis] - tile.tijk()[axis]) / width - offset_[axis];
            const double floor = std::floor(q);
            base[axis] = static_cast<int>(floor);
            part[axis] = q - floor;
        }
        double sum = 0.0;
        for (int corner = 0; corner < 8; ++corner) {
            const int3 ijk{base.x + (corner & 1), base.y + (corner >> 1 & 1), base.z + (corner >> 2)};
            const double weight = (corner & 1 ? part.x : 1.0 - part.x) * (corner & 2 ? part.y : 1.0 - part.y)
                * (corner & 4 ? part.z : 1.0 - part.z);
            if (weight > 0.0) sum += weight * sample(tile, ijk);
        }
        return sum;
    }

    /// The sample (i,j,k) of the tile's lattice, which may lie outside the tile.
    template <class Tile> double sample(Tile const& tile, int3 const& ijk) const
    {
        const auto within = [](int i) { return i >= 0 && i < Tr::width; };
        if (within(ijk.x) && within(ijk.y) && within(ijk.z)) {
            const auto values = channel_->tileData(tile.treeIndex());
            return values ? magnitude(values(ijk)) : outside_;
        }
        const double width = tile.voxelDataWidth();
        // The sample's own place. It lies on the lattice of this depth, so the search ends there or goes on in coarser
        // tiles only.
        double3 place;
        for (int axis = 0; axis < 3; ++axis) place[axis] = tile.tijk()[axis] + (ijk[axis] + offset_[axis]) * width;
        return at(place, tile.depth());
    }

private:
    OST::TileTree3D::ConstTileAccessor<Tr> accessor_;
    C const* channel_;
    Ostara::Math::float3 offset_;
    double outside_;
};

}  // namespace tilegrid::io
