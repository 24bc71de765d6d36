#pragma once
// OpenVDB is slow to compile: only the vdb_*.cpp sources include this.
#include "TilegridOps/algorithms/affine_map.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/vdb.h"

#include <openvdb/openvdb.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace tilegrid::io {

/// How the lattice of a grid lies in tile space: voxel `index + shift` of the finest depth, sampled at its corner or
/// its centre.
struct GridPlacement {
    float voxelSize = 0.0f;
    bool centre = false;
    openvdb::Coord shift;
    /// Of a lattice that is to be resampled: from the space in which it lies so, with corner samples, to the world.
    std::optional<AffineMap> toWorld;
};

/// \throws InputError with a hint for a frustum, and unless `options` ask to resample for a transform that is no uniform scale, or has
///         a translation by parts of a voxel
GridPlacement placementOf(openvdb::GridBase const& grid, VdbOptions const& options);

/// A grid of a file with where it goes.
struct PlacedGrid {
    openvdb::GridBase::ConstPtr grid;
    GridPlacement placement;
    /// The property that it becomes.
    std::string property;
    bool isLevelSet = false;
};

/// Element of a property for a value of a grid, and back.
template <class V> struct GridValue {
    using Element = V;
};
template <> struct GridValue<openvdb::Vec3s> {
    using Element = Ostara::Math::float3;
};
template <> struct GridValue<openvdb::Vec3d> {
    using Element = Ostara::Math::double3;
};
template <> struct GridValue<std::int64_t> {
    using Element = OST::int64;
};
template <class V> using ElementOf = typename GridValue<V>::Element;

template <class V> ElementOf<V> toElement(V const& value)
{
    if constexpr (std::is_arithmetic_v<V>)
        return value;
    else
        return {value[0], value[1], value[2]};
}
template <class V> V toGridValue(ElementOf<V> const& element)
{
    if constexpr (std::is_arithmetic_v<V>)
        return element;
    else
        return V(element.x, element.y, element.z);
}

/// The grid types that properties have, as a list for folds.
template <class... Grids> struct GridTypes {};
using PropertyGrids = GridTypes<openvdb::FloatGrid, openvdb::DoubleGrid, openvdb::Vec3SGrid, openvdb::Vec3DGrid,
                                openvdb::Int32Grid, openvdb::Int64Grid>;

/// Calls `op(grid)` with the grid as its own type; false if that is none of the list.
template <class Op> bool withGrid(openvdb::GridBase const& grid, Op const& op)
{
    const auto attempt = [&]<class G>(G const*) {
        if (!grid.isType<G>()) return false;
        op(static_cast<G const&>(grid));
        return true;
    };
    return [&]<class... Gs>(GridTypes<Gs...>) {
        return (attempt(static_cast<Gs const*>(nullptr)) || ...);
    }(PropertyGrids());
}

/// Fills the n-th of some blocks of 8^3 voxels, i fastest; every value, and whether it is active. Called from several threads.
template <class T> using FillBlock = parallel::FunctionRef<void(OST::int64 n, T* values, bool* active)>;

/// Of the components of all values that a grid was given.
struct ValueRange {
    double least = 0.0, largest = 0.0;
    bool finite = true;
    double farthest() const { return std::max(-least, largest); }
};

/// A grid that is being filled, behind plain calls: the code of grids is slow to compile, so there is one copy per
/// element type.
template <class T> class GridSink {
public:
    virtual ~GridSink() = default;
    /// Sets n^3 voxels, i fastest, and makes them active.
    virtual void setCube(openvdb::Coord const& low, int n, T const* values) = 0;
    /// Sets a box of one value, corners inclusive, as constant nodes where it fits them, and makes it active.
    virtual void fillBox(openvdb::CoordBBox const& box, T const& value) = 0;
    /// Sets whole leaf nodes. `lows` are multiples of 8, each there once.
    virtual void setBlocks(std::vector<Ostara::Math::int3> const& lows, FillBlock<T> fill) = 0;
    /// Of what boxes and blocks brought, and 0.
    virtual ValueRange range() const = 0;
    virtual openvdb::GridBase::Ptr grid() = 0;
    /// Makes nodes of one value and state constant.
    virtual void prune() = 0;
    /// Makes the grid a level set: nodes without an active voxel go, and what is inactive outside of blocks gets the background
    /// with the sign of the blocks around it. Nothing for other types than float.
    virtual void finishLevelSet() = 0;
};
template <class T, class... Grids> constexpr bool isElementOfOne(GridTypes<Grids...>)
{
    return (std::is_same_v<T, ElementOf<typename Grids::ValueType>> || ...);
}
template <class T> inline constexpr bool hasGridType = isElementOfOne<T>(PropertyGrids());
/// For those types.
template <class T> std::unique_ptr<GridSink<T>> makeGridSink(T const& background);

/// A surface in double, before it is put into world space or a tree of triangles.
struct IndexSurface {
    std::vector<Ostara::Math::double3> vertices;
    std::vector<Ostara::Math::int3> triangles;
};

/// The zero surface of a level set in index space (samples at integers), outward. Empty if it has none.
IndexSurface surfaceInIndexSpace(openvdb::FloatGrid const& grid);

/// The volume of one group of grids: same voxel size and offset, at most one level set, no property twice.
Corvid::Ptr<Ostara::Object> volumeFromGrids(std::vector<PlacedGrid> const& grids, VdbOptions const& options,
                                            Corvid::RuntimeServices const& services);

/// All properties that have a grid type, flattened: the level set first, the others in the order of their names.
std::vector<openvdb::GridBase::Ptr> gridsFromVolume(Ostara::Object const& volume, VdbWriteOptions const& options,
                                                    Corvid::RuntimeServices const& services);

/// String metadata of a grid that does not have the name of its property: that name, and the one that the grid was given.
/// A grid with another name than that was renamed since, and keeps it.
inline constexpr char kFlatPropertyKey[] = "tilegrid_flat_property", kFlatNameKey[] = "tilegrid_flat_name";

}  // namespace tilegrid::io
