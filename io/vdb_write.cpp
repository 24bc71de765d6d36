#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/vdb_lattice.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// A constant coarse voxel wider than this, in voxels of the flattened grid, is left out: a grid has no nodes that are
/// wider.
constexpr int kWidestVoxel = 4096;

/// Writes the voxels of the deepest tiles, all active.
template <class Tr, class T>
void fillDeepest(Container<Tr> const& tree, FetchTile<T> fetch, LevelLattice<Tr> const& lattice, GridSink<T>& sink)
{
    std::array<T, Tr::voxelCount> values;
    for (OST::int64 n = 0; n < tree.tileCount(lattice.depth); ++n)
        if (fetch(TreeIndex{n, lattice.depth}, values.data()))
            sink.setCube(lattice.index(tree.tile(n, lattice.depth).tijk()), Tr::width, values.data());
}

/// Calls `visit(tile, ijk)` for every leaf voxel above the deepest depth.
template <class Tr, class Visit> void forEachCoarseLeafVoxel(Container<Tr> const& tree, int deepest, Visit const& visit)
{
    for (int depth = 0; depth < deepest; ++depth)
        for (OST::int64 n = 0; n < tree.tileCount(depth); ++n) {
            auto const& tile = tree.tile(n, depth);
            for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                const int3 ijk = cubeIndex(Tr::width, flat);
                if (tile.isLeaf(tile.voxelChildIJK(ijk.x, ijk.y, ijk.z))) visit(tile, ijk);
            }
        }
}

/// Coarser leaf voxels that differ from the default become active boxes of their value. \return how many were too wide
/// for that
template <class Tr, class T>
OST::int64 fillCoarse(Container<Tr> const& tree, FetchTile<T> fetch, T const& background,
                      LevelLattice<Tr> const& lattice, GridSink<T>& sink)
{
    OST::int64 tooWide = 0;
    std::array<T, Tr::voxelCount> values;
    TreeIndex fetched;
    bool known = false;
    forEachCoarseLeafVoxel(tree, lattice.depth, [&](auto const& tile, int3 const& ijk) {
        if (fetched != tile.treeIndex()) known = fetch(fetched = tile.treeIndex(), values.data());
        T const& value = values[flatIndex(Tr::width, ijk.x, ijk.y, ijk.z)];
        if (!known || value == background) return;
        const int width = tile.voxelDataWidth() / lattice.width;
        if (width <= kWidestVoxel)
            sink.fillCube(lattice.index(tile.tijk() + tile.voxelDataWidth() * ijk), width, value);
        else
            ++tooWide;
    });
    return tooWide;
}

/// A grid of the channel's element type, or null if none has it.
/// \param bandOnly  only the deepest tiles: beside a level set the coarse tiles reach through all of tile space, and a
///        reader would get that space back as tiles
template <class Tr, class C>
openvdb::GridBase::Ptr plainGrid(Container<Tr> const& tree, C const& channel, LevelLattice<Tr> const& lattice,
                                 std::string const& name, bool bandOnly, Corvid::RuntimeServices const& services)
{
    using T = typename C::Element;
    if constexpr (!hasGridType<T>) {
        return {};
    } else {
        const auto sink = makeGridSink<T>(channel.defaultValue());
        const auto fetch = fetchFrom<Tr>(channel);
        const OST::int64 tooWide =
            bandOnly ? 0 : fillCoarse<Tr, T>(tree, fetch, channel.defaultValue(), lattice, *sink);
        if (tooWide > 0)
            services.message(Severity::kWarning,
                             "property '" + name + "': " + std::to_string(tooWide)
                                 + " coarse voxels are left out, they are wider than " + std::to_string(kWidestVoxel)
                                 + " voxels of the file");
        fillDeepest<Tr, T>(tree, fetch, lattice, *sink);
        return sink->grid();
    }
}

/// The surface inside one coarse cell, resampled to the fine lattice between the values of its corners.
class CoarseCell {
public:
    /// \param low  index of the cell's corner 0
    CoarseCell(openvdb::Coord const& low, int width, std::array<double, 8> const& corners)
        : low_(low), width_(width), corners_(corners)
    {}

    /// Sets the samples of those fine cells that the surface passes through. A trilinear function lies between the
    /// values at the corners of any box, so boxes of one sign are passed over.
    void resample(GridSink<float>& sink) const { resample(sink, {0, 0, 0}, {width_, width_, width_}); }

private:
    double value(openvdb::Coord const& at) const
    {
        double sum = 0.0;
        for (int corner = 0; corner < 8; ++corner) {
            double weight = 1.0;
            for (int axis = 0; axis < 3; ++axis) {
                const double part = double(at[axis]) / width_;
                weight *= corner >> axis & 1 ? part : 1.0 - part;
            }
            sum += weight * corners_[corner];
        }
        return sum;
    }
    void resample(GridSink<float>& sink, openvdb::Coord const& from, openvdb::Coord const& to) const
    {
        bool below = false, above = false;
        for (int corner = 0; corner < 8; ++corner)
            (value({corner & 1 ? to.x() : from.x(), corner & 2 ? to.y() : from.y(), corner & 4 ? to.z() : from.z()})
                     < 0.0
                 ? below
                 : above) = true;
        if (!below || !above) return;
        const openvdb::Coord size = to - from;
        if (size == openvdb::Coord(1)) {
            for (int corner = 0; corner < 8; ++corner) {
                const openvdb::Coord at = from.offsetBy(corner & 1, corner >> 1 & 1, corner >> 2);
                const float sample = static_cast<float>(value(at));
                sink.setCube(low_ + at, 1, &sample);
            }
            return;
        }
        // Halves per axis; an axis of one cell is not divided.
        const openvdb::Coord middle(from.x() + (size.x() + 1) / 2, from.y() + (size.y() + 1) / 2,
                                    from.z() + (size.z() + 1) / 2);
        for (int part = 0; part < 8; ++part) {
            openvdb::Coord a = from, b = to;
            for (int axis = 0; axis < 3; ++axis) (part >> axis & 1 ? a : b)[axis] = middle[axis];
            if (a.x() < b.x() && a.y() < b.y() && a.z() < b.z()) resample(sink, a, b);
        }
    }

    openvdb::Coord low_;
    int width_;
    std::array<double, 8> corners_;
};

/// All voxels of the deepest tiles are active, so that a reader finds the same tiles again. Coarser leaf cells count
/// where the surface passes through them; elsewhere inside and outside are told by the sign of the background.
template <class Tr, class C>
openvdb::FloatGrid::Ptr flattenedLevelSet(Container<Tr> const& tree, C const& channel, VoxelOffsetType offset,
                                          LevelLattice<Tr> const& lattice)
{
    const float band = std::abs(channel.defaultValue());
    const auto sink = makeGridSink<float>(band > 0.0f ? band : 3.0f * tree.voxelSize());
    const VolumeReader<Tr, C> reader(tree, channel, offset);
    forEachCoarseLeafVoxel(tree, lattice.depth, [&](auto const& tile, int3 const& ijk) {
        std::array<double, 8> corners;
        int inside = 0;
        for (int corner = 0; corner < 8; ++corner) {
            corners[corner] =
                reader.sample(tile, {ijk.x + (corner & 1), ijk.y + (corner >> 1 & 1), ijk.z + (corner >> 2)});
            inside += corners[corner] < 0.0;
        }
        if (inside == 0 || inside == 8) return;
        const int width = tile.voxelDataWidth() / lattice.width;
        // Samples at centres lie half a coarse voxel up, which for an even width is between two fine ones: rounded
        // down.
        const int shift = offset == kCorner ? 0 : (width - 1) / 2;
        const openvdb::Coord low = lattice.index(tile.tijk() + tile.voxelDataWidth() * ijk).offsetBy(shift);
        CoarseCell(low, width, corners).resample(*sink);
    });
    fillDeepest<Tr, float>(tree, fetchFrom<Tr>(channel), lattice, *sink);
    return sink->levelSet();
}

template <class Tr>
openvdb::FloatGrid::Ptr levelSetOf(OST::Object const& native, Container<Tr> const& tree,
                                   VoxelTopology<Tr> const& topology)
{
    openvdb::FloatGrid::Ptr grid;
    const LevelLattice<Tr> lattice(tree.deepestDepth());
    const auto flatten = [&]<class C>() {
        grid = flattenedLevelSet(tree, *native.component<C>(Ostara::Geometry::sVoxelSignedDistance),
                                 topology.offsetType(), lattice);
    };
    if (tree.deepestDepth() < 0 || !tryLayouts<Tr, float>(native, Ostara::Geometry::sVoxelSignedDistance, flatten))
        return {};
    grid->setTransform(lattice.transform(tree.voxelSize(), topology.offsetType()));
    grid->setName(Ostara::Geometry::sVoxelSignedDistance.str());
    return grid;
}

}  // namespace

std::vector<openvdb::GridBase::Ptr> gridsFromVolume(Ostara::Object const& volume,
                                                    Corvid::RuntimeServices const& services)
{
    return withTree(
        volume, [&]<class Tr>(OST::Object const& native, Container<Tr> const& tree, VoxelTopology<Tr> const& topology) {
            std::vector<openvdb::GridBase::Ptr> grids;
            if (tree.deepestDepth() < 0) return grids;
            const LevelLattice<Tr> lattice(tree.deepestDepth());
            if (auto levelSet = levelSetOf(native, tree, topology)) grids.push_back(levelSet);
            const bool bandOnly = !grids.empty();
            for (std::string const& name : propertyNames<Tr>(native)) {
                if (!grids.empty() && grids.front()->getName() == name) continue;
                openvdb::GridBase::Ptr grid;
                tryElements<Tr>(native, Corvid::String(name), [&]<class C>() {
                    grid = plainGrid<Tr>(tree, *native.component<C>(Corvid::String(name)), lattice, name, bandOnly,
                                         services);
                });
                if (!grid) {
                    services.message(Severity::kWarning, "property '" + name + "' is left out: its type has no grid");
                    continue;
                }
                grid->setName(name);
                grid->setTransform(lattice.transform(tree.voxelSize(), topology.offsetType()));
                grids.push_back(grid);
            }
            return grids;
        });
}

}  // namespace tilegrid::io
