#include "TilegridOps/algorithms/surface_points.h"

#include "TilegridOps/algorithms/surface_cube.h"
#include "TilegridOps/algorithms/surface_shape.h"
#include "TilegridOps/stencils/block.h"
#include "TilegridOps/substrate/parallel.h"

#include <algorithm>
#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;
using OST::int64;

namespace {

constexpr int64 kTilesAtOnce = 256;

/// Points of a run of tiles, in order.
struct Found {
    std::vector<WavePoint> points;
    std::vector<SurfaceShape> shapes;
    std::vector<std::uint16_t> edges;
    std::vector<std::int32_t> counts;  // of each tile
};

template <class Tr> class Finder {
public:
    using Tile = typename Container<Tr>::Tile;
    using Cube = SurfaceCube<Tr>;
    static constexpr int W = Tr::width;

    Finder(SurfaceInput<Tr> const& input, std::array<std::vector<std::uint8_t>, Tr::levels> const& hangs, Found& found)
        : input_(input), reader_(input.tree, input.levelSet, stencils::Reach::kFaces, input.offset), walk_(input.tree),
          cube_(input, hangs), offset_(voxelOffset(input.offset)), found_(found)
    {}

    void run(Tile const& tile)
    {
        const std::size_t before = found_.points.size();
        if (signChanges(tile)) findIn(tile);
        found_.counts.push_back(std::int32_t(found_.points.size() - before));
    }

private:
    bool isLeafVoxel(Tile const& tile, int i, int j, int k) const
    {
        return tile.depth() == input_.maxDepth || tile.isLeaf(Tile::voxelChildIJK(i, j, k));
    }

    /// Whether the values of the tile and of the layers beyond its high faces are not all of one sign.
    bool signChanges(Tile const& tile)
    {
        auto const& block = reader_.read(tile);
        float const* own = block.tiles[kNeighborSelf];
        int negative = 0;
        for (int v = 0; v < Tr::voxelCount; ++v) negative += own[v] < 0;
        if (negative != 0 && negative != Tr::voxelCount) return true;
        const bool inside = negative != 0;
        for (int b = 0; b < W; ++b)
            for (int a = 0; a < W; ++a)
                if ((block.row(1, a, b)[0] < 0) != inside || (block.row(0, W, b)[a] < 0) != inside || (block.row(0, b, W)[a] < 0) != inside)
                    return true;
        return false;
    }

    void findIn(Tile const& tile)
    {
        around_ = &walk_.around(tile);
        cube_.gather(tile, *around_);
        besideCoarser_ = std::any_of(around_->begin(), around_->end(), [&](TreeIndex const& beside) { return beside.depth < tile.depth(); });
        const float* values = cube_.values();
        for (int v = 0; v < Tr::voxelCount; ++v) {
            const int3 at = cubeIndex(W, v);
            if (!isLeafVoxel(tile, at.x, at.y, at.z)) continue;
            const int element = Cube::at(at.x, at.y, at.z);
            if (cube_.pending(element)) cube_.resolve(at.x, at.y, at.z);
            const float low = values[element];
            for (int axis = 0; axis < 3; ++axis) {
                const int next = element + Cube::kStride[std::size_t(axis)];
                if (cube_.pending(next) && !mayCrossIntoPending(at, axis, low)) continue;
                const float high = values[next];
                if ((low < 0) == (high < 0) || !std::isfinite(low) || !std::isfinite(high)) continue;
                addPoint(tile, at, axis);
            }
        }
    }
    static int3 neighbor(int3 at, int axis)
    {
        ++at[axis];
        return at;
    }
    /// Makes the value at the far end if the surface may pass before it: not where the coarse cell that holds it is of one sign,
    /// which over a jump of several depths means that nothing is known there but a background.
    bool mayCrossIntoPending(int3 const& at, int axis, float low)
    {
        const int3 to = neighbor(at, axis);
        if (to[axis] >= W) {
            int3 d;
            d[axis] = 1;
            const int here = (*around_)[kNeighborSelf].depth, coarse = (*around_)[std::size_t(neighborDirection(d.x, d.y, d.z))].depth;
            const int sign = cube_.signOfCell(to.x, to.y, to.z, coarse);
            if (sign != 0 && (coarse < here - 1 || (sign < 0) == (low < 0))) return false;
        }
        cube_.resolve(to.x, to.y, to.z);
        return true;
    }

    void resolveAround(int3 const& at, int axis)
    {
        int3 step;
        for (step.z = -1; step.z <= 1 + (axis == 2); ++step.z)
            for (step.y = -1; step.y <= 1 + (axis == 1); ++step.y)
                for (step.x = -1; step.x <= 1 + (axis == 0); ++step.x)
                    if (cube_.pending(Cube::at(at.x + step.x, at.y + step.y, at.z + step.z)))
                        cube_.resolve(at.x + step.x, at.y + step.y, at.z + step.z);
    }

    void addPoint(Tile const& tile, int3 const& at, int axis)
    {
        if (cube_.incomplete()) resolveAround(at, axis);
        const int step = Cube::kStride[std::size_t(axis)];
        float const* value = cube_.values() + Cube::at(at.x, at.y, at.z);
        const Derivatives at0 = derivativesAt(value, Cube::kStride), at1 = derivativesAt(value + step, Cube::kStride);
        const EdgeCurve curve(value[-step], value[0], value[step], value[2 * step], std::max(at0.steepness(), at1.steepness()));
        const double t = curve.root(), width = tile.voxelDataWidth();
        double3 p;
        for (int a = 0; a < 3; ++a) p[a] = tile.tijk()[a] + (at[a] + double(offset_[a]) + (a == axis ? t : 0.0)) * width;
        found_.points.push_back({p.x, p.y, p.z});
        found_.shapes.push_back(shapeAt(at0, at1, t, axis,
                                        value[step] >= 0, width));
        SurfaceShape& shape = found_.shapes.back();
        // Points of a coarser tile lie far apart: of places whose foot is over there this one may be the nearest.
        if (besideCoarser_) shape.reach = std::max(shape.reach, float(reachAcrossJump<Tr>(width, Tr::branching * width)));
        found_.edges.push_back(std::uint16_t(3 * flatIndex(W, at.x, at.y, at.z) + axis));
    }

    SurfaceInput<Tr> const& input_;
    stencils::BlockReader<Tr> reader_;
    NeighborWalk<Tr> walk_;
    Cube cube_;
    float3 offset_;
    Surroundings const* around_ = nullptr;
    bool besideCoarser_ = false;
    Found& found_;
};

/// For each tile, whether it has hanging voxels.
template <class Tr> std::array<std::vector<std::uint8_t>, Tr::levels> hangingTiles(SurfaceInput<Tr> const& input)
{
    std::array<std::vector<std::uint8_t>, Tr::levels> hangs;
    if (!input.dofs) return hangs;
    for (int depth = input.minDepth; depth <= input.maxDepth; ++depth) {
        auto& flags = hangs[std::size_t(depth)];
        flags.assign(std::size_t(input.tree.tileCount(depth)), 0);
        parallel::loop(0, input.tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                const auto dofs = input.dofs->tileData(n, depth);
                short any = 0;
                for (short flag : dofs) any = short(any | (flag & kDofHanging));
                flags[std::size_t(n)] = any != 0;
            }
        });
    }
    return hangs;
}

/// Takes the points of all runs of a depth into one list.
template <class Tr> void append(SurfacePoints<Tr>& all, int depth, std::vector<Found> const& runs)
{
    std::vector<std::size_t> at(runs.size());
    std::size_t total = all.points.size();
    auto& first = all.first[std::size_t(depth)];
    first.clear();
    std::int32_t next = std::int32_t(total);
    for (std::size_t n = 0; n < runs.size(); ++n) {
        at[n] = total;
        total += runs[n].points.size();
        for (std::int32_t count : runs[n].counts) {
            first.push_back(next);
            next += count;
        }
    }
    first.push_back(next);
    all.points.resize(total);
    all.shapes.resize(total);
    all.edges.resize(total);
    parallel::forRanges(0, int64(runs.size()), 8, [&](int64 begin, int64 end) {
        for (std::size_t n = std::size_t(begin); n < std::size_t(end); ++n) {
            std::copy(runs[n].points.begin(), runs[n].points.end(), all.points.begin() + std::ptrdiff_t(at[n]));
            std::copy(runs[n].shapes.begin(), runs[n].shapes.end(), all.shapes.begin() + std::ptrdiff_t(at[n]));
            std::copy(runs[n].edges.begin(), runs[n].edges.end(), all.edges.begin() + std::ptrdiff_t(at[n]));
        }
    });
}

}  // namespace

template <class Tr> SurfacePoints<Tr> findSurfacePoints(SurfaceInput<Tr> const& input)
{
    SurfacePoints<Tr> all;
    const auto hangs = hangingTiles(input);
    for (int depth = input.minDepth; depth <= input.maxDepth; ++depth) {
        const int64 tiles = input.tree.tileCount(depth);
        // Runs of a fixed length, so that the order of the points does not depend on who finds them.
        std::vector<Found> runs(std::size_t((tiles + kTilesAtOnce - 1) / kTilesAtOnce));
        parallel::loop(0, int64(runs.size()), 1, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                Finder<Tr> finder(input, hangs, runs[std::size_t(n)]);
                for (int64 t = n * kTilesAtOnce; t < std::min(tiles, (n + 1) * kTilesAtOnce); ++t) finder.run(input.tree.tile(t, depth));
            }
        });
        append(all, depth, runs);
    }
    return all;
}

template <class Tr>
void startWave(Container<Tr> const& tree, float3 const& offset, SurfacePoints<Tr> const& surface, Wave<Tr>& wave)
{
    constexpr int W = Tr::width;
    for (int depth = 0; depth < Tr::levels; ++depth) {
        if (!surface.inDepth(depth)) continue;
        auto const& first = surface.first[std::size_t(depth)];
        const std::vector<std::int32_t> neighbors = sameDepthNeighbors(tree, depth);
        const auto offer = [&](std::int32_t* own, typename Container<Tr>::Tile const& tile, int3 const& at, std::int32_t point) {
            const double w = tile.voxelDataWidth();
            const auto distance = [&](std::int32_t p) {
                WavePoint const& q = surface.points[std::size_t(p)];
                const double x = q.x - tile.tijk().x - (at.x + offset.x) * w, y = q.y - tile.tijk().y - (at.y + offset.y) * w,
                             z = q.z - tile.tijk().z - (at.z + offset.z) * w;
                return x * x + y * y + z * z;
            };
            std::int32_t& mine = own[flatIndex(W, at.x, at.y, at.z)];
            if (mine == Wave<Tr>::kNone || distance(point) < distance(mine) || (distance(point) == distance(mine) && point < mine))
                mine = point;
        };
        parallel::loop(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n) {
                auto const& tile = tree.tile(n, depth);
                std::int32_t* own = wave.payloads(n, depth);
                for (std::int32_t p = first[std::size_t(n)]; p < first[std::size_t(n) + 1]; ++p) {
                    int3 at = cubeIndex(W, surface.edges[std::size_t(p)] / 3);
                    offer(own, tile, at, p);
                    if (++at[surface.edges[std::size_t(p)] % 3] < W) offer(own, tile, at, p);
                }
                // The far ends of edges that begin in the tiles before this one.
                for (int axis = 0; axis < 3; ++axis) {
                    const std::int32_t from = neighbors[std::size_t(n) * 27 + std::size_t(axis == 0 ? 4 : axis == 1 ? 10 : 12)];
                    if (from < 0) continue;
                    for (std::int32_t p = first[std::size_t(from)]; p < first[std::size_t(from) + 1]; ++p) {
                        int3 at = cubeIndex(W, surface.edges[std::size_t(p)] / 3);
                        if (surface.edges[std::size_t(p)] % 3 != axis || at[axis] != W - 1) continue;
                        at[axis] = 0;
                        offer(own, tile, at, p);
                    }
                }
            }
        });
    }
}

#define TILEGRID_SURFACE_POINTS(Tr)                                                                               \
    template TILEGRID_API SurfacePoints<Tr> findSurfacePoints(SurfaceInput<Tr> const&);                                        \
    template TILEGRID_API void startWave(Container<Tr> const&, float3 const&, SurfacePoints<Tr> const&, Wave<Tr>&);
TILEGRID_SURFACE_POINTS(BinaryTraits)
TILEGRID_SURFACE_POINTS(QuinaryTraits)

}  // namespace tilegrid
