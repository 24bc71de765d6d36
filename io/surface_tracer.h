#pragma once
#include "TilegridOps/sampling/voxel_sampler_linear.h"
#include "io/camera.h"
#include "io/plain_channel.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tilegrid::io {

/// Follows rays to the surface of a level set, as the linear sampler reads it. Places are in tile space. One per thread; what
/// it finds does not depend on earlier rays.
///
/// \par Source  sphere tracing (Hart 1996): a ray may go as far as the distance to the surface without meeting it. Distances
/// change by no more than the way between two places, so the sample next to a place tells how far that is at least. What is
/// read between samples does not: beside a coarser tile it is made from far apart ones. It decides where the ray is inside.
/// Near the surface, and where distances end with the band, steps are a share of a voxel, and in a coarse tile no such step
/// leads past a place where a finer one may begin.
template <class Tr> class SurfaceTracer {
public:
    using double3 = Ostara::Math::double3;
    using float3 = Ostara::Math::float3;

    struct Hit {
        double t = 0.0;
        double3 place;
        /// Of the tile that was read there, and the width of its voxels.
        int depth = 0;
        double voxelWidth = 1.0;
    };

    SurfaceTracer(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                  PlainChannel<Tr, float> const& distance)
        : sampler_(tree, topology, &distance),
          distance_(&distance),
          deepest_(tree.deepestDepth()),
          perWorldUnit_(1.0 / tree.voxelSize())
    {}

    /// The signed distance, in finest voxels.
    double distanceAt(double3 const& place) const
    {
        return perWorldUnit_ * sampler_.sampleLinear(float3(place), Tr::maxDepth, OST::TileTree3D::kTileSpace);
    }

    /// The first place between `from` and `to` where the ray is inside. A ray that begins inside hits at once.
    bool trace(Ray const& ray, double from, double to, Hit& hit) const
    {
        double outside = from, inside = from;
        if (!findInside(ray, from, to, kLeast, outside, inside)) return false;
        hit.t = inside > from ? crossing(ray, outside, inside) : from;
        hit.place = ray.at(hit.t);
        OST::TileTree3D::LocatedVoxel at;
        sampler_.locateVoxel(float3(hit.place), OST::TileTree3D::kTileSpace, Tr::maxDepth, at);
        hit.depth = std::max(at.treeIndex.depth, 0);
        hit.voxelWidth = Tr::voxelDataWidth(hit.depth);
        return true;
    }
    /// Whether the ray is inside somewhere between `from` and `to`, and about where. Quicker than `trace`; near the surface it
    /// may pass a corner.
    bool meets(Ray const& ray, double from, double to, double& where) const
    {
        double outside = from;
        return findInside(ray, from, to, kLeastForShadows, outside, where);
    }

    /// The direction in which the distance grows, of length 1: differences over one voxel on each side, which are linear
    /// between samples. The derivative of the linear form itself jumps from cell to cell, and shows them.
    double3 normalAt(double3 const& place, double voxelWidth, double3 const& otherwise) const
    {
        double3 slope;
        for (int axis = 0; axis < 3; ++axis) {
            double3 low = place, high = place;
            low[axis] -= voxelWidth, high[axis] += voxelWidth;
            slope[axis] = distanceAt(high) - distanceAt(low);
        }
        const double size = length(slope);
        return size > 0.0 && size < std::numeric_limits<double>::infinity() ? (1.0 / size) * slope : otherwise;
    }

private:
    static constexpr int kMostSteps = 20000, kMostRefinements = 12;
    /// The least steps, in voxels.
    static constexpr double kLeast = 0.35, kLeastForShadows = 0.6;
    /// The error of a hit, in finest voxels.
    static constexpr double kExact = 1e-4;
    /// By how many finest voxels a step goes beyond the end of a tile.
    static constexpr double kBeyond = 1.0 / 64.0;

    /// Goes from outside to the first step that is inside, if there is one. `outside` is the last step before.
    bool findInside(Ray const& ray, double from, double to, double leastStep, double& outside, double& inside) const
    {
        double t = from;
        for (int step = 0; step < kMostSteps && t <= to; ++step) {
            const double3 place = ray.at(t);
            OST::TileTree3D::LocatedVoxel at;
            if (!sampler_.locateVoxel(float3(place), OST::TileTree3D::kTileSpace, Tr::maxDepth, at)) {
                t += 1.0;
                continue;
            }
            const double least = leastStep * Tr::voxelDataWidth(at.treeIndex.depth), sure = sureDistance(at);
            if (sure >= least) {
                outside = t;
                t += sure;
                continue;
            }
            const double distance = distanceAt(place);
            if (distance <= 0.0) {
                inside = t;
                return true;
            }
            // What is no number is neither inside nor outside.
            if (distance > 0.0) outside = t;
            const bool mayBeFinerSoon = at.treeIndex.depth < deepest_;
            t = mayBeFinerSoon ? std::min(t + least, ray.leavesCell(place, /*of a child*/ Tr::tileVoxelWidth(at.treeIndex.depth + 1), Tr::rangeMin) + kBeyond) : t + least;
        }
        return false;
    }

    /// How far the surface is at least, by the nearest sample of the tile itself: in finest voxels.
    double sureDistance(OST::TileTree3D::LocatedVoxel const& at) const
    {
        double3 way;
        OST::TileTree3D::int3 nearest;
        for (int axis = 0; axis < 3; ++axis) {
            const double local = double(at.lijk[axis]) + double(at.frac[axis]);
            nearest[axis] = std::clamp(static_cast<int>(std::floor(local + 0.5)), 0, Tr::width - 1);
            way[axis] = local - nearest[axis];
        }
        const auto values = distance_->tileData(at.treeIndex);
        const double value = perWorldUnit_ * (values ? values(nearest) : distance_->defaultValue());
        return value - length(way) * Tr::voxelDataWidth(at.treeIndex.depth);
    }

    /// Where the distance is zero between two places of which it is known outside and inside (false position, with halved
    /// values at an end that stays, so that both ends move).
    double crossing(Ray const& ray, double outside, double inside) const
    {
        double t = inside, value = distanceAt(ray.at(outside)), insideValue = distanceAt(ray.at(inside));
        int stays = 0;
        for (int n = 0; n < kMostRefinements; ++n) {
            t = outside + (inside - outside) * (value / (value - insideValue));
            if (!(t >= outside && t <= inside)) t = 0.5 * (outside + inside);
            const double here = distanceAt(ray.at(t));
            if (std::abs(here) < kExact || inside - outside < kExact) break;
            if (here > 0.0) {
                outside = t, value = here;
                if (stays == 1) insideValue *= 0.5;
                stays = 1;
            } else {
                inside = t, insideValue = here;
                if (stays == -1) value *= 0.5;
                stays = -1;
            }
        }
        return t;
    }

    /// Ways of the cache of tiles at jumps: a ray and its neighbours pass some tiles of one depth at a time.
    using Sampler = OST::TileTree3D::VoxelSamplerLinear<Tr, float, 10, float, float3, 0, 0, 1, 0>;
    Sampler sampler_;
    PlainChannel<Tr, float> const* distance_;
    int deepest_;
    double perWorldUnit_;
};

}  // namespace tilegrid::io
