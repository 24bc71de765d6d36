#include "TilegridOps/surface/surface.h"

#include "TilegridOps/substrate/halo.h"
#include "TilegridOps/substrate/parallel.h"
#include "TilegridOps/surface/tile_scan.h"
#include "TilegridOps/surface/triangles.h"

#include <limits>
#include <stdexcept>

namespace tilegrid::surface {

using namespace OST::TileTree3D;

namespace {

constexpr int64 kTilesAtOnce = 256;

template <class Tr> struct Extraction {
    Container<Tr> const& tree;
    LevelSet<Tr> const& levelSet;
    TileSigns<Tr> signs{tree, levelSet};
    std::vector<CellChunk<Tr>> chunks{};
    CellIndex<Tr> index{};

    void scanAll();
    void scanDepth(int depth);
    void countAll(Surface& surface);
    void collectVertices(Surface& surface);
};

/// Finds all cells and vertices, depth by depth, since a tile asks for the signs of coarser cells.
template <class Tr> void Extraction<Tr>::scanAll()
{
    for (int depth = std::max(0, levelSet.minDepth()); depth <= signs.deepest(); ++depth)
        if (tree.tileCount(depth) > 0) scanDepth(depth);
}

template <class Tr> void Extraction<Tr>::scanDepth(int depth)
{
    const int64 tiles = tree.tileCount(depth), parts = (tiles + kTilesAtOnce - 1) / kTilesAtOnce;
    std::vector<CellChunk<Tr>> found{std::size_t(parts)};
    parallel::PerThread<TileScan<Tr>> scans;
    parallel::forRanges(0, parts, 1, [&](int64 begin, int64 end) {
        TileScan<Tr>& scan = scans.local([&] { return std::make_unique<TileScan<Tr>>(tree, levelSet, signs); });
        for (int64 part = begin; part < end; ++part)
            for (int64 n = part * kTilesAtOnce; n < std::min(tiles, (part + 1) * kTilesAtOnce); ++n)
                scan.scan(tree.tile(n, depth), found[std::size_t(part)]);
    });
    parallel::endStage();
    for (CellChunk<Tr>& chunk : found)
        if (!chunk.tiles.empty()) chunks.push_back(std::move(chunk));
}

/// Numbers vertices and triangles through.
template <class Tr> void Extraction<Tr>::countAll(Surface& surface)
{
    std::int64_t vertices = 0, triangles = 0;
    for (CellChunk<Tr>& chunk : chunks) {
        chunk.firstVertex = vertices;
        chunk.firstTriangle = triangles;
        vertices += std::int64_t(chunk.vertices.size());
        triangles += chunk.triangles;
    }
    if (vertices > std::numeric_limits<std::int32_t>::max())
        throw std::length_error("the surface has more vertices than 32 bits can number");
    // Touching new memory takes a tenth of all the time on one thread.
    parallel::forRanges(0, 3, 1, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) {
            if (n == 0) surface.triangles.resize(std::size_t(triangles));
            if (n == 1) surface.vertices.resize(std::size_t(vertices));
            if (n == 2) surface.normals.resize(std::size_t(vertices));
        }
    });
    for (CellChunk<Tr> const& chunk : chunks) {
        auto& tiles = index[std::size_t(chunk.tiles.front().tile.depth)];
        if (tiles.empty()) tiles.assign(std::size_t(tree.tileCount(chunk.tiles.front().tile.depth)), nullptr);
    }
}

template <class Tr> void Extraction<Tr>::collectVertices(Surface& surface)
{
    parallel::forRanges(0, int64(chunks.size()), 1, [&](int64 begin, int64 end) {
        for (auto n = std::size_t(begin); n < std::size_t(end); ++n) {
            CellChunk<Tr>& chunk = chunks[n];
            for (TileCells<Tr>& cells : chunk.tiles) {
                cells.chunk = &chunk;
                cells.firstVertex += chunk.firstVertex;
                index[std::size_t(cells.tile.depth)][std::size_t(cells.tile.index)] = &cells;
            }
            std::copy(chunk.vertices.begin(), chunk.vertices.end(), surface.vertices.begin() + chunk.firstVertex);
            std::copy(chunk.normals.begin(), chunk.normals.end(), surface.normals.begin() + chunk.firstVertex);
        }
    });
    parallel::endStage();
}

template <class Tr> Surface extracted(Container<Tr> const& tree, LevelSet<Tr> const& levelSet)
{
    Surface surface;
    Extraction<Tr> extraction{tree, levelSet};
    extraction.scanAll();
    extraction.countAll(surface);
    extraction.collectVertices(surface);
    parallel::forRanges(0, int64(extraction.chunks.size()), 1, [&](int64 begin, int64 end) {
        for (int64 n = begin; n < end; ++n) writeTriangles(extraction.chunks[std::size_t(n)], tree, extraction.index, surface);
    });
    parallel::endStage();
    return surface;
}

/// The values at the low corners of the voxels, of samples that lie elsewhere: means over the axes on which samples are centred.
template <class Tr> LevelSet<Tr> atCorners(Container<Tr> const& tree, LevelSet<Tr> const& levelSet, VoxelOffsetType offset)
{
    constexpr int W = Tr::width;
    LevelSet<Tr> corners(levelSet);
    const int3 step((offset & kFaceX) ? 0 : 1, (offset & kFaceY) ? 0 : 1, (offset & kFaceZ) ? 0 : 1);
    for (int depth = std::max(0, levelSet.minDepth()); depth <= std::min(tree.deepestDepth(), levelSet.depth()); ++depth)
        parallel::forRanges(0, tree.tileCount(depth), kTilesAtOnce, [&](int64 begin, int64 end) {
            const auto accessor = tree.tileAccessor();
            TileData<float, W, 1> halo((W + 2) * (W + 2) * (W + 2));
            for (int64 n = begin; n < end; ++n) {
                setHaloTile<Tr, float, 0, 1, 0, 0>(TreeIndex{n, depth}, levelSet, kHaloLinear, kHaloAll, accessor, halo, levelSet.defaultValue(), 1.0f,
                                                   offset);
                const auto out = corners.tileData(n, depth);
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 at = cubeIndex(W, flat);
                    float sum = 0;
                    for (int c = 0; c < 8; ++c)
                        sum += halo(at.x - (c & 1) * step.x, at.y - (c >> 1 & 1) * step.y, at.z - (c >> 2) * step.z);
                    out(flat) = sum / 8;
                }
            }
        });
    parallel::endStage();
    return corners;
}

}  // namespace

template <class Tr>
Surface extractSurface(Container<Tr> const& tree, VoxelTopology<Tr> const& topology, Channel<Tr, float, Tr::width, 0> const& levelSet)
{
    const int deepest = std::min(tree.deepestDepth(), levelSet.depth());
    for (int depth = std::max(0, levelSet.minDepth()); depth <= deepest; ++depth)
        if (levelSet.tileCount(depth) != tree.tileCount(depth))
            throw std::invalid_argument("the level set does not have the tiles of the tree");
    if (deepest < 0) return {};
    if (topology.offsetType() == kCorner) return extracted(tree, levelSet);
    return extracted(tree, atCorners(tree, levelSet, topology.offsetType()));
}

TILEGRID_EXTRACT_SURFACE(, BinaryTraits)
TILEGRID_EXTRACT_SURFACE(, QuinaryTraits)

}  // namespace tilegrid::surface
