#pragma once
#include "TilegridOps/algorithms/redistance.h"
#include "support/halo_world.h"
#include "support/jobs.h"

#include <cfloat>
#include <cmath>
#include <cstring>

namespace tilegrid::test {

using Point = std::array<double, 3>;
/// A function of a place in tile space.
using Field = std::function<double(Point const&)>;

/// A tree with a level set, and the flags of its voxels. Lengths are in voxels of the depth `fine`.
template <class Tr> struct Redistanced {
    using Floats = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;
    using Dofs = OST::TileTree3D::DofChannel<Tr>;
    static constexpr int W = Tr::width;

    Tree<Tr> tree;
    OST::TileTree3D::VoxelTopology<Tr> topology;
    std::optional<Floats> values;
    std::optional<Dofs> dofs;
    int fine;

    Redistanced(TileSet<Tr> const& tiles, int finest, float voxelSize = 1.0f,
                OST::TileTree3D::VoxelOffsetType offset = OST::TileTree3D::kCorner)
        : tree("tree", voxelSize), topology("topology", offset), fine(finest)
    {
        addAll(tiles, tree);
        topology.update(tree);
        const float background = 1e3f;
        values.emplace("level set", &background, OST::TileTree3D::kInitializeLinear, false, true, 0, Tr::maxDepth);
        values->updateTilesAdded(topology);
        dofs.emplace("dofs", nullptr, OST::TileTree3D::kInitializeNone, false, true, 0, Tr::maxDepth);
        dofs->updateTilesAdded(topology);
        OST::TileTree3D::computeDofs<Tr>(tree, *dofs);
    }

    double unit() const { return double(TileSet<Tr>::voxelWidth(fine)); }
    Point place(TreeIndex const& tile, int voxel) const
    {
        const TileKey key = keyOf(tree.tile(tile));
        const int3 at = OST::TileTree3D::cubeIndex(W, voxel);
        Point p;
        for (int a = 0; a < 3; ++a)
            p[std::size_t(a)] = (double(key.low[std::size_t(a)]) + (at[a] + double(topology.offset()[a])) * double(TileSet<Tr>::voxelWidth(key.depth))) / unit();
        return p;
    }
    /// Calls `visit(tile, voxel, place)` for all voxels.
    template <class Visit> void forVoxels(Visit const& visit) const
    {
        for (OST::int64 n = 0; n < tree.tileCount(-1); ++n)
            for (int v = 0; v < Tr::voxelCount; ++v) visit(tree.tile(n).treeIndex(), v, place(tree.tile(n).treeIndex(), v));
    }
    float& at(TreeIndex const& tile, int voxel) { return values->tileData(tile)(voxel); }
    float at(TreeIndex const& tile, int voxel) const { return values->tileData(tile)(voxel); }
    /// `field` takes and gives lengths in voxels of depth `fine`.
    void fill(Field const& field)
    {
        forVoxels([&](TreeIndex const& t, int v, Point const& p) { at(t, v) = float(field(p) * unit() * tree.voxelSize()); });
    }
    /// A value in voxels of depth `fine`.
    double length(float value) const { return double(value) / (unit() * tree.voxelSize()); }
    bool isLeafVoxel(TreeIndex const& tile, int voxel) const
    {
        const int3 at = OST::TileTree3D::cubeIndex(W, voxel);
        return tree.tile(tile).isLeaf(Tree<Tr>::Tile::voxelChildIJK(at.x, at.y, at.z));
    }

    bool isFree(TreeIndex const& tile, int voxel) const
    {
        return topology.offsetType() != OST::TileTree3D::kCorner || !(dofs->tileData(tile)(voxel) & OST::TileTree3D::kDofHanging);
    }
    /// The value at a voxel of depth `depth`, by its place in voxels of that depth; only if it is there and free.
    std::optional<double> freeValue(OST::TileTree3D::ConstTileAccessor<Tr> const& accessor, int3 const& voxel, int depth) const
    {
        const int w = int(TileSet<Tr>::voxelWidth(depth));
        const TreeIndex tile = accessor.find(voxel.x * w, voxel.y * w, voxel.z * w, depth);
        if (tile.depth != depth) return {};
        int3 in;
        for (int a = 0; a < 3; ++a) in[a] = (voxel[a] * w - tree.tile(tile).tijk()[a]) / w;
        const int v = OST::TileTree3D::flatIndex(W, in.x, in.y, in.z);
        return isFree(tile, v) ? std::optional<double>(at(tile, v)) : std::nullopt;
    }
    /// Length of the central difference gradient at a voxel, in world units; only if all it reads is there and free.
    std::optional<double> slope(OST::TileTree3D::ConstTileAccessor<Tr> const& accessor, TreeIndex const& tile, int v) const
    {
        const int w = int(TileSet<Tr>::voxelWidth(tile.depth));
        const int3 at = OST::TileTree3D::cubeIndex(W, v), corner = tree.tile(tile).tijk();
        double sum = 0;
        for (int a = 0; a < 3; ++a) {
            std::optional<double> end[2];
            for (int side = 0; side < 2; ++side) {
                int3 voxel;
                for (int b = 0; b < 3; ++b) voxel[b] = (corner[b] + at[b] * w) / w;
                voxel[a] += 2 * side - 1;
                end[side] = freeValue(accessor, voxel, tile.depth);
                if (!end[side]) return {};
            }
            const double d = (*end[1] - *end[0]) / (2.0 * w * tree.voxelSize());
            sum += d * d;
        }
        return std::sqrt(sum);
    }

    struct Call {
        bool resetFar = true, resetCrossing = true, keepSigns = true;
        int minDepth = 0, maxDepth = Tr::maxDepth;
        Floats const* blocked = nullptr;
        OST::TileTree3D::Channel<Tr, unsigned char, W, 0>* mask = nullptr;
        float band = 0.01f, maxOutside = FLT_MAX, maxInside = FLT_MAX;
        int pre = 10, post = 10;
        bool restore = true, magnitude = false, withDofs = true;
    };
    void redistance(Call const& c = {})
    {
        VolumeGL::TileTree3D::LevelSet::levelSetRedistance<Tr>(
            tree, topology, *values, c.resetFar, c.resetCrossing, c.keepSigns, c.minDepth, c.maxDepth, c.blocked, c.mask, c.band,
            c.maxOutside, c.maxInside, c.pre, c.post, c.restore, c.magnitude, c.withDofs ? &*dofs : nullptr, "test",
            VolumeGL::TileTree3D::LevelSet::RedistancingScheme::kClosestPoint);
    }
    /// The bytes of all values.
    std::string bytes() const
    {
        std::string all;
        for (OST::int64 n = 0; n < tree.tileCount(-1); ++n) {
            const auto data = values->tileData(tree.tile(n).treeIndex());
            all.append(reinterpret_cast<char const*>(data.data()), sizeof(float) * std::size_t(data.size()));
        }
        return all;
    }
};

/// A cube of tiles of one depth around the origin of tile space, from `low` to `high` voxels on each axis, with its ancestors.
template <class Tr> TileSet<Tr> cubeOfTiles(int depth, int low, int high)
{
    TileSet<Tr> set;
    const std::int64_t w = TileSet<Tr>::voxelWidth(depth);
    set.addBox({low * w, low * w, low * w}, {high * w - 1, high * w - 1, high * w - 1}, depth);
    return set;
}

struct Errors {
    double mean = 0, largest = 0;
    std::int64_t count = 0;
    void add(double error)
    {
        mean += (std::abs(error) - mean) / double(++count);
        largest = std::max(largest, std::isfinite(error) ? std::abs(error) : 1e30);
    }
};

/// Errors of the free leaf voxels within `band` of the surface, in voxels of depth `fine`, where `where` says yes.
template <class Tr>
Errors errorsOf(Redistanced<Tr> const& world, Field const& exact, double band, std::function<bool(Point const&)> const& where = {})
{
    Errors e;
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (std::abs(exact(p)) > band || !world.isLeafVoxel(t, v) || !world.isFree(t, v) || (where && !where(p))) return;
        e.add(world.length(world.at(t, v)) - exact(p));
    });
    EXPECT_GT(e.count, 0);
    return e;
}

/// How far the length of the gradient is from 1, for voxels within `band`.
template <class Tr>
Errors slopeErrors(Redistanced<Tr> const& world, Field const& exact, double band, std::function<bool(Point const&)> const& where = {})
{
    Errors e;
    const auto accessor = world.tree.tileAccessor();
    world.forVoxels([&](TreeIndex const& t, int v, Point const& p) {
        if (std::abs(exact(p)) > band || !world.isLeafVoxel(t, v) || (where && !where(p))) return;
        if (const auto slope = world.slope(accessor, t, v)) e.add(*slope - 1);
    });
    EXPECT_GT(e.count, 0);
    return e;
}

/// The volume inside, with the surface smeared over a voxel.
template <class Tr> double volumeOf(Redistanced<Tr> const& world)
{
    double sum = 0;
    world.forVoxels([&](TreeIndex const& t, int v, Point const&) {
        if (t.depth == world.fine) sum += std::clamp(0.5 - world.length(world.at(t, v)), 0.0, 1.0);
    });
    return sum;
}

inline Field sphere(Point const& centre, double radius)
{
    return [centre, radius](Point const& p) {
        return std::sqrt((p[0] - centre[0]) * (p[0] - centre[0]) + (p[1] - centre[1]) * (p[1] - centre[1]) + (p[2] - centre[2]) * (p[2] - centre[2])) - radius;
    };
}

}  // namespace tilegrid::test
