#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/error.h"
#include "io/mesh_distance.h"
#include "io/text.h"
#include "io/vdb_grids.h"
#include "io/volume_builder.h"

#include <algorithm>
#include <cmath>
#include <optional>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// Gathers tiles, and refuses more than the limit allows before any is made.
template <class Tr> class TileCollector {
public:
    TileCollector(double bytesPerTile, std::uint64_t maxBytes) : bytesPerTile_(bytesPerTile), maxBytes_(maxBytes) {}

    void add(int3 const& corner, int depth)
    {
        const VoxelCoord tile(corner, depth);
        if (!tiles_.empty() && tiles_.back() == tile) return;
        // Doublings keep what is waiting within twice what is known to be there.
        if (tiles_.size() >= waiting_) compact();
        tiles_.push_back(tile);
    }
    /// Low corner of the tile of a depth that holds a place.
    static int3 cornerAt(int3 const& place, int depth)
    {
        const OST::int64 width = Tr::tileVoxelWidth(depth);
        int3 corner;
        for (int axis = 0; axis < 3; ++axis)
            corner[axis] =
                static_cast<std::int32_t>(Tr::rangeMin + (OST::int64(place[axis]) - Tr::rangeMin) / width * width);
        return corner;
    }
    /// Adds the tiles for a box of one value: the largest that lie inside, and finest ones along its faces.
    void addBox(int3 const& low, int3 const& high) { cover(low, high, int3(Tr::rangeMin), 0); }

    std::vector<VoxelCoord> take()
    {
        compact();
        return std::move(tiles_);
    }

private:
    void cover(int3 const& low, int3 const& high, int3 const& corner, int depth)
    {
        const OST::int64 width = Tr::tileVoxelWidth(depth);
        bool inside = true;
        for (int axis = 0; axis < 3; ++axis) {
            const OST::int64 first = corner[axis], last = first + width - 1;
            if (last < low[axis] || first > high[axis]) return;
            inside = inside && first >= low[axis] && last <= high[axis];
        }
        if (inside || depth == Tr::maxDepth) return add(corner, depth);
        for (int cell = 0; cell < Tr::childCount; ++cell)
            cover(low, high, corner + Tr::tileVoxelWidth(depth + 1) * cubeIndex(Tr::branching, cell), depth + 1);
    }
    void compact()
    {
        std::sort(tiles_.begin(), tiles_.end());
        tiles_.erase(std::unique(tiles_.begin(), tiles_.end()), tiles_.end());
        waiting_ = std::max(waiting_, 2 * tiles_.size());
        const double bytes = static_cast<double>(tiles_.size()) * bytesPerTile_;
        if (maxBytes_ > 0 && bytes > double(maxBytes_))
            throw InputError("the grids would take more than " + byteText(bytes) + " as a volume, and the limit is "
                             + byteText(double(maxBytes_))
                             + ": raise the limit, or make the constant regions of the grids smaller");
    }

    std::vector<VoxelCoord> tiles_;
    std::size_t waiting_ = 1 << 16;
    double bytesPerTile_;
    std::uint64_t maxBytes_;
};

int3 tileSpace(openvdb::Coord const& index, GridPlacement const& placement)
{
    return {index.x() + placement.shift.x(), index.y() + placement.shift.y(), index.z() + placement.shift.z()};
}

template <class Tr> void checkRange(PlacedGrid const& placed)
{
    const openvdb::CoordBBox box = placed.grid->evalActiveVoxelBoundingBox();
    for (int axis = 0; axis < 3 && !box.empty(); ++axis) {
        const OST::int64 shift = placed.placement.shift[axis];
        if (box.min()[axis] + shift < Tr::rangeMin || box.max()[axis] + shift > Tr::rangeMax)
            throw InputError("grid '" + placed.grid->getName() + "' reaches beyond the tree: move it to the origin");
    }
}

/// Tiles that hold an active voxel. Constant active regions count for other grids than level sets: in those they hold
/// no distance.
template <class Tr, class G> void collectTiles(G const& grid, PlacedGrid const& placed, TileCollector<Tr>& tiles)
{
    for (auto leaf = grid.tree().cbeginLeaf(); leaf; ++leaf)
        for (auto voxel = leaf->cbeginValueOn(); voxel; ++voxel)
            tiles.add(TileCollector<Tr>::cornerAt(tileSpace(voxel.getCoord(), placed.placement), Tr::maxDepth),
                      Tr::maxDepth);
    if (placed.isLevelSet) return;
    auto region = grid.tree().cbeginValueOn();
    region.setMaxDepth(decltype(region)::LEAF_DEPTH - 1);
    for (; region; ++region) {
        openvdb::CoordBBox box;
        region.getBoundingBox(box);
        tiles.addBox(tileSpace(box.min(), placed.placement), tileSpace(box.max(), placed.placement));
    }
}

/// How far the surface found in a grid may lie from that of its values, in voxels.
constexpr double kSurfaceSlack = 0.5;

/// Signed distances at places of tile space: the grid's own values at its active voxels, else the distance to its
/// surface with the sign that the grid has there.
class LevelSetSource {
public:
    LevelSetSource(openvdb::FloatGrid const& grid, GridPlacement const& placement) : grid_(grid), placement_(placement)
    {
        IndexSurface surface = surfaceInIndexSpace(grid);
        if (surface.triangles.empty()) return;
        const double half = placement.centre ? 0.5 : 0.0;
        for (double3& v : surface.vertices)
            v += double3(placement.shift.x() + half, placement.shift.y() + half, placement.shift.z() + half);
        tree_.emplace(surface.vertices, surface.triangles);
    }
    bool hasSurface() const { return tree_.has_value(); }

    /// Fills n^3 values of a tile's lattice, i fastest.
    void fill(double3 const& first, double spacing, int n, float* values) const
    {
        const auto accessor = grid_.getConstAccessor();
        std::int32_t guess = 0;
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j)
                for (int i = 0; i < n; ++i)
                    *values++ =
                        value(accessor, {first.x + i * spacing, first.y + j * spacing, first.z + k * spacing}, guess);
    }

private:
    using Accessor = openvdb::FloatGrid::ConstAccessor;

    float value(Accessor const& accessor, double3 const& place, std::int32_t& guess) const
    {
        const double half = placement_.centre ? 0.5 : 0.0;
        const openvdb::Vec3d index(place.x - half - placement_.shift.x(), place.y - half - placement_.shift.y(),
                                   place.z - half - placement_.shift.z());
        const openvdb::Coord sample = openvdb::Coord::floor(index);
        float own = 0.0f;
        const bool atSample = sample.asVec3d() == index;
        if (atSample && accessor.probeValue(sample, own)) return own;
        const bool inside = atSample ? own < 0.0f : insideBetween(accessor, sample, index);
        if (!tree_) return inside ? -grid_.background() : grid_.background();
        const auto nearest = tree_->nearest(place, guess);
        guess = nearest.triangle;
        double distance = std::sqrt(nearest.squaredDistance) * placement_.voxelSize;
        // An inactive sample lies outside of the band. Where the distance says otherwise by no more than the surface may be off,
        // the grid is right, so that writing the volume again gives the same band.
        const double band = std::abs(own);
        if (atSample && distance < band && distance > band - kSurfaceSlack * placement_.voxelSize) distance = band;
        return static_cast<float>(inside ? -distance : distance);
    }
    static bool insideBetween(Accessor const& accessor, openvdb::Coord const& low, openvdb::Vec3d const& index)
    {
        const openvdb::Vec3d part = index - low.asVec3d();
        double sum = 0.0;
        for (int corner = 0; corner < 8; ++corner) {
            const openvdb::Coord step(corner & 1, corner >> 1 & 1, corner >> 2);
            double weight = 1.0;
            for (int axis = 0; axis < 3; ++axis) weight *= step[axis] ? part[axis] : 1.0 - part[axis];
            if (weight > 0.0) sum += weight * accessor.getValue(low + step);
        }
        return sum < 0.0;
    }

    openvdb::FloatGrid const& grid_;
    GridPlacement placement_;
    std::optional<TriangleTree> tree_;
};

/// Runs `work(tile index)` over the tiles of a depth.
template <class Tr, class Work> void forTiles(Container<Tr> const& tree, int depth, Work const& work)
{
    parallel::loop(0, tree.tileCount(depth), 16, [&](OST::int64 begin, OST::int64 end) { work(begin, end); });
}

template <class Tr>
void addLevelSet(OST::Object& native, PlacedGrid const& placed, openvdb::FloatGrid const& grid,
                 Corvid::RuntimeServices const& services)
{
    const LevelSetSource source(grid, placed.placement);
    if (!source.hasSurface())
        services.message(Severity::kWarning,
                         "grid '" + grid.getName()
                             + "' has no surface: outside its active voxels it gets its background");
    const double half = placed.placement.centre ? 0.5 : 0.0;
    addChannel<Tr>(native, placed.property, std::abs(grid.background()), [&](Container<Tr> const& tree, auto& channel) {
        for (int depth = 0; depth <= Tr::maxDepth; ++depth)
            forTiles(tree, depth, [&](OST::int64 begin, OST::int64 end) {
                const double spacing = Tr::voxelDataWidth(depth), shift = half * spacing;
                for (OST::int64 n = begin; n < end; ++n) {
                    const double3 corner(tree.tile(n, depth).tijk());
                    source.fill(corner + double3(shift), spacing, Tr::width, channel.tileData(n, depth).data());
                }
            });
    });
}

/// Mean of the child voxels inside a voxel of the parent.
template <class Tr, class T, class Data> T meanOfChildren(Data const& child, int3 const& low)
{
    constexpr int B = Tr::branching;
    using Traits = Ostara::Math::ElementTraits<T>;
    T mean{};
    for (int c = 0; c < Traits::components; ++c) {
        double sum = 0.0;
        for (int n = 0; n < B * B * B; ++n) sum += static_cast<double>(Traits::at(child(low + cubeIndex(B, n)), c));
        sum /= B * B * B;
        using Scalar = typename Traits::Scalar;
        Traits::at(mean, c) = static_cast<Scalar>(std::is_integral_v<Scalar> ? std::nearbyint(sum) : sum);
    }
    return mean;
}

/// Every voxel gets the grid's value at its place. Where samples lie at centres, a voxel with children gets their mean
/// instead.
template <class Tr, class G> void addProperty(OST::Object& native, PlacedGrid const& placed, G const& grid)
{
    using T = ElementOf<typename G::ValueType>;
    const bool centre = placed.placement.centre;
    const openvdb::Coord shift = placed.placement.shift;
    addChannel<Tr>(
        native, placed.property, toElement(grid.background()), [&](Container<Tr> const& tree, auto& channel) {
            for (int depth = Tr::maxDepth; depth >= 0; --depth)
                forTiles(tree, depth, [&](OST::int64 begin, OST::int64 end) {
                    const auto accessor = grid.getConstAccessor();
                    const int width = Tr::voxelDataWidth(depth), middle = centre ? width / 2 : 0;
                    for (OST::int64 n = begin; n < end; ++n) {
                        auto const& tile = tree.tile(n, depth);
                        const auto values = channel.tileData(n, depth);
                        for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                            const int3 ijk = cubeIndex(Tr::width, flat), cell = tile.voxelChildIJK(ijk.x, ijk.y, ijk.z);
                            const int3 at = tile.tijk() + width * ijk + int3(middle);
                            if (centre && !tile.isLeaf(cell))
                                values(flat) = meanOfChildren<Tr, T>(channel.tileData(tile.childTreeIndex(cell)),
                                                                     tile.childDataIJK(ijk.x, ijk.y, ijk.z));
                            else
                                values(flat) = toElement(accessor.getValue(openvdb::Coord(at.x, at.y, at.z) - shift));
                        }
                    }
                });
        });
}

template <class Tr>
Corvid::Ptr<Ostara::Object> volumeOf(std::vector<PlacedGrid> const& grids, VdbOptions const& options,
                                     Corvid::RuntimeServices const& services)
{
    // Tile record and child table; the ancestors of a layer of tiles add up to less than a half of it.
    double bytesPerTile = 48.0 + sizeof(OST::int64) * Tr::childCount / 4.0;
    for (PlacedGrid const& placed : grids)
        withGrid(*placed.grid, [&](auto const& grid) {
            bytesPerTile += Tr::voxelCount * sizeof(ElementOf<typename std::decay_t<decltype(grid)>::ValueType>);
        });
    TileCollector<Tr> tiles(bytesPerTile, options.maxBytes);
    for (PlacedGrid const& placed : grids) {
        checkRange<Tr>(placed);
        withGrid(*placed.grid, [&](auto const& grid) { collectTiles(grid, placed, tiles); });
    }
    GridPlacement const& placement = grids.front().placement;
    auto native = makeVolume<Tr>(tiles.take(), placement.voxelSize, placement.centre ? kCenter : kCorner);
    for (PlacedGrid const& placed : grids) {
        if (placed.isLevelSet)
            addLevelSet<Tr>(*native, placed, static_cast<openvdb::FloatGrid const&>(*placed.grid), services);
        else
            withGrid(*placed.grid, [&](auto const& grid) { addProperty<Tr>(*native, placed, grid); });
    }
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace

Corvid::Ptr<Ostara::Object> volumeFromGrids(std::vector<PlacedGrid> const& grids, VdbOptions const& options,
                                            Corvid::RuntimeServices const& services)
{
    return options.structure == Structure::kBinary ? volumeOf<BinaryTraits>(grids, options, services)
                                                   : volumeOf<QuinaryTraits>(grids, options, services);
}

}  // namespace tilegrid::io
