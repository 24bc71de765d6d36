#include "TilegridOps/algorithms/surface_distance.h"

#include <cmath>

namespace tilegrid {

using namespace OST::TileTree3D;

namespace {

/// The paraboloid over a place of its tangent plane, relative to the point.
double3 onShape(SurfaceShape const& shape, double t1, double t2)
{
    const double3 n(shape.normal), e1(shape.e1);
    return t1 * e1 + t2 * cross(n, e1) - (0.5 * (shape.k1 * t1 * t1 + shape.k2 * t2 * t2)) * n;
}

/// Makes a vector no longer than `most`. \return whether it was
bool shorten(double& t1, double& t2, double most)
{
    const double length = std::sqrt(t1 * t1 + t2 * t2);
    if (!(length > most)) return false;
    t1 *= most / length;
    t2 *= most / length;
    return true;
}

}  // namespace

SurfaceFoot surfaceFoot(SurfaceShape const& shape, double3 const& place, double reach)
{
    // Nearer to the centre of a curvature than these parts of its radius the step says little of the distance, and then not even
    // the way.
    constexpr double kLeastForDistance = 0.25, kLeastForWay = 0.01;
    const double3 n(shape.normal), e1(shape.e1);
    const double u = dot(n, place), p1 = dot(e1, place), p2 = dot(cross(n, e1), place);
    const double d1 = 1 + u * shape.k1, d2 = 1 + u * shape.k2, furthest = std::max(double(shape.reach), reach);
    double t1 = p1 / std::max(d1, kLeastForDistance), t2 = p2 / std::max(d2, kLeastForDistance);
    SurfaceFoot foot;
    foot.beyond = shorten(t1, t2, furthest);
    foot.t1 = t1;
    foot.t2 = t2;
    if (!foot.beyond && std::min(d1, d2) < kLeastForDistance) {
        foot.t1 = p1 / std::max(d1, kLeastForWay);
        foot.t2 = p2 / std::max(d2, kLeastForWay);
        foot.beyond = shorten(foot.t1, foot.t2, furthest);
    }
    const double3 away = place - onShape(shape, t1, t2);
    foot.side = dot(n, away) > 0 ? 1 : -1;
    foot.distance = std::sqrt(std::min(dot(away, away), dot(place, place)));
    return foot;
}

/// What the voxel nearest to a place knows, of the deepest ones there.
template <class Tr> std::int32_t SurfaceDistances<Tr>::pointKnownAt(double3 const& place) const
{
    int3 cell;
    for (int a = 0; a < 3; ++a) {
        if (!(place[a] >= Tr::rangeMin && place[a] <= Tr::rangeMax)) return Wave<Tr>::kNone;
        cell[a] = int(std::floor(place[a]));
    }
    const TreeIndex found = accessor_.find(cell.x, cell.y, cell.z, wave_.maxDepth());
    if (!found.valid() || found.index >= wave_.tileCount(found.depth)) return Wave<Tr>::kNone;
    auto const& tile = accessor_.container().tile(found);
    int3 at;
    for (int a = 0; a < 3; ++a)
        at[a] = std::clamp(int(std::floor((place[a] - tile.tijk()[a]) / tile.voxelDataWidth() - offset_[a] + 0.5)), 0, Tr::width - 1);
    return wave_.payloads(found.index, found.depth)[flatIndex(Tr::width, at.x, at.y, at.z)];
}

/// A point known on the way to the foot that lies nearer to the place; the same point if none does.
template <class Tr>
std::int32_t SurfaceDistances<Tr>::nearerPoint(std::int32_t point, SurfaceFoot const& foot, double3 const& place) const
{
    SurfaceShape const& shape = surface_.shapes[std::size_t(point)];
    const double3 away = relative(point, place);
    // A voxel may know no point but this one, since points do not lie everywhere: then the next one further on may.
    for (double steps : {1, 2}) {
        const std::int32_t other = pointKnownAt(place - away + onShape(shape, steps * foot.t1, steps * foot.t2));
        if (other == Wave<Tr>::kNone) continue;
        const double3 otherAway = relative(other, place);
        if (dot(otherAway, otherAway) < dot(away, away)) return other;
    }
    return point;
}

template <class Tr>
SurfaceFoot SurfaceDistances<Tr>::operator()(typename Container::Tile const& tile, int voxel, std::int32_t point, bool along) const
{
    const int3 at = cubeIndex(Tr::width, voxel);
    const double width = tile.voxelDataWidth();
    const double3 place(tile.tijk().x + (at.x + double(offset_.x)) * width, tile.tijk().y + (at.y + double(offset_.y)) * width,
                        tile.tijk().z + (at.z + double(offset_.z)) * width);
    SurfaceFoot foot = from(point, place, width);
    // Every turn finds a nearer point, so it ends; this bounds it on long ways.
    constexpr int kMostTurns = 64;
    for (int turn = 0; along && foot.beyond && turn < kMostTurns; ++turn) {
        const std::int32_t other = nearerPoint(point, foot, place);
        if (other == point) break;
        point = other;
        foot = from(point, place, width);
    }
    return foot;
}

template class SurfaceDistances<BinaryTraits>;
template class SurfaceDistances<QuinaryTraits>;

}  // namespace tilegrid
