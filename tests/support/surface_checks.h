#pragma once
#include "TilegridOps/surface/surface.h"
#include "support/trees.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

namespace tilegrid::test {

using Ostara::Math::double3;
using Ostara::Math::float3;
using surface::Surface;

/// What the edges of a mesh say, counted from scratch.
struct EdgeCensus {
    std::int64_t edges = 0;
    /// Run along more often one way than the other. Without any, the mesh is the border of what it encloses.
    std::int64_t open = 0;
    /// Of more than two triangles.
    std::int64_t shared = 0;
    std::int64_t degenerate = 0;
};

inline EdgeCensus censusOf(Surface const& mesh)
{
    struct Use {
        int low, high, way;
        auto operator<=>(Use const&) const = default;
    };
    std::vector<Use> uses;
    EdgeCensus census;
    for (int3 const& t : mesh.triangles) {
        census.degenerate += t.x == t.y || t.y == t.z || t.z == t.x;
        for (int n = 0; n < 3; ++n) {
            const int a = t[n], b = t[(n + 1) % 3];
            uses.push_back({std::min(a, b), std::max(a, b), a < b ? 1 : -1});
        }
    }
    std::sort(uses.begin(), uses.end());
    for (std::size_t first = 0, last; first < uses.size(); first = last) {
        int ways = 0;
        for (last = first; last < uses.size() && uses[last].low == uses[first].low && uses[last].high == uses[first].high; ++last)
            ways += uses[last].way;
        ++census.edges;
        census.open += ways != 0;
        census.shared += last - first > 2;
    }
    return census;
}

/// V - E + F.
inline std::int64_t eulerNumber(Surface const& mesh)
{
    return std::int64_t(mesh.vertices.size()) - censusOf(mesh).edges + std::int64_t(mesh.triangles.size());
}

inline double volumeOf(Surface const& mesh)
{
    double sum = 0;
    for (int3 const& t : mesh.triangles) {
        const double3 a(mesh.vertices[std::size_t(t.x)]), b(mesh.vertices[std::size_t(t.y)]), c(mesh.vertices[std::size_t(t.z)]);
        sum += a.x * (b.y * c.z - b.z * c.y) + a.y * (b.z * c.x - b.x * c.z) + a.z * (b.x * c.y - b.y * c.x);
    }
    return sum / 6;
}

inline bool sameBytes(Surface const& a, Surface const& b)
{
    const auto same = [](auto const& x, auto const& y) {
        return x.size() == y.size() && (x.empty() || std::memcmp(x.data(), y.data(), x.size() * sizeof x[0]) == 0);
    };
    return same(a.vertices, b.vertices) && same(a.normals, b.normals) && same(a.triangles, b.triangles);
}

/// A tree with a level set whose samples are `field(place, depth)`, place in units of the finest voxel.
template <class Tr> struct SurfaceVolume {
    using Field = std::function<float(double3 const&, int)>;
    using LevelSet = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;

    Tree<Tr> tree;
    OST::TileTree3D::VoxelTopology<Tr> topology;
    std::unique_ptr<LevelSet> levelSet;

    explicit SurfaceVolume(float voxelSize = 1.0f, OST::TileTree3D::VoxelOffsetType offset = OST::TileTree3D::kCorner) :
        tree("tree", voxelSize), topology("voxels", offset)
    {}
    void fill(Field const& field, float outside = 3.0f, int minDepth = 0, int maxDepth = Tr::maxDepth)
    {
        topology.update(tree);
        levelSet = std::make_unique<LevelSet>("distance", &outside, OST::TileTree3D::kInitializeNone, false, true, minDepth, maxDepth);
        levelSet->updateTilesAdded(topology);
        for (int d = levelSet->minDepth(); d <= levelSet->depth(); ++d)
            for (OST::int64 n = 0; n < tree.tileCount(d); ++n) {
                const auto values = levelSet->tileData(n, d);
                int3 const& low = tree.tile(n, d).tijk();
                const double w = Tr::voxelDataWidth(d);
                for (int flat = 0; flat < Tr::voxelCount; ++flat) {
                    const int3 at = OST::TileTree3D::cubeIndex(Tr::width, flat);
                    const float3 off = topology.offset();
                    values(flat) = field({low.x + (at.x + off.x) * w, low.y + (at.y + off.y) * w, low.z + (at.z + off.z) * w}, d);
                }
            }
    }
    Surface extract() const { return surface::extractSurface<Tr>(tree, topology, *levelSet); }
};

/// A random number for each place and depth, of both signs: coincident samples of two depths differ.
struct NoiseField {
    std::uint64_t seed;
    float operator()(double3 const& p, int depth) const
    {
        std::uint64_t key = seed + std::uint64_t(depth);
        for (int axis = 0; axis < 3; ++axis) key = Random::mixed(key ^ std::uint64_t(std::int64_t(2 * p[axis])));
        return float(double(key >> 11) / double(1ull << 52) - 1.0);
    }
};

}  // namespace tilegrid::test
