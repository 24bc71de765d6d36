#include "io/mesh_distance.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace tilegrid::io {

namespace {

constexpr int kLargest = 5 * 5 * 5;
/// Two places are on one side of a closed surface if their distances to it add up to more than the way between them.
/// The slack covers the rounding of a sum of two distances.
constexpr double kSameSideSlack = 1.0 + 1e-9;
/// Up to so many triangles it is faster to try all of them at every sample than to search the tree for each (measured).
constexpr int kFewTriangles = 48;

using Ostara::Math::double3;

/// The samples of one tile.
class Lattice {
public:
    Lattice(double3 const& first, double spacing, int n) : first_(first), spacing_(spacing), n_(n) {}

    void findDistances(TriangleTree const& tree)
    {
        // A triangle nearest to some sample is no further from the middle than the nearest one there and twice the way
        // to a sample.
        const double half = 0.5 * (n_ - 1) * spacing_;
        const double3 middle{first_.x + half, first_.y + half, first_.z + half};
        auto nearest = tree.nearest(middle);
        const double radius = (std::sqrt(nearest.squaredDistance) + 2.0 * std::numbers::sqrt3 * half) * kSameSideSlack;
        std::array<std::int32_t, kFewTriangles> list;
        const int count = tree.listNear(middle, radius, list.data(), kFewTriangles);
        for (int at = 0; at < n_ * n_ * n_; ++at) {
            double squared;
            if (count <= kFewTriangles) {
                squared = tree.squaredDistanceTo(placeOf(at), list.data(), count);
            } else {
                nearest = tree.nearest(placeOf(at), nearest.triangle);
                squared = nearest.squaredDistance;
            }
            distance_[at] = std::sqrt(squared);
        }
    }

    void findSides(TriangleTree const& tree, bool watertight)
    {
        std::array<bool, kLargest> known{};
        const int count = n_ * n_ * n_;
        while (true) {
            // The unknown sample furthest from the surface has the surest answer.
            int seed = -1;
            for (int at = 0; at < count; ++at)
                if (!known[at] && (seed < 0 || distance_[at] > distance_[seed])) seed = at;
            if (seed < 0) return;
            known[seed] = true;
            inside_[seed] = tree.inside(placeOf(seed));
            if (watertight) spread(seed, known);
        }
    }

    double unsignedAt(int n) const { return distance_[n]; }
    double at(int n) const { return inside_[n] ? -distance_[n] : distance_[n]; }

private:
    double3 placeOf(int at) const
    {
        return {first_.x + at % n_ * spacing_, first_.y + at / n_ % n_ * spacing_,
                first_.z + at / (n_ * n_) * spacing_};
    }
    /// Hands the side of a sample to all that are linked to it by neighbours whom the surface cannot part.
    void spread(int from, std::array<bool, kLargest>& known)
    {
        std::array<int, kLargest> waiting;
        int size = 0;
        waiting[size++] = from;
        while (size > 0) {
            const int at = waiting[--size];
            const int ijk[3] = {at % n_, at / n_ % n_, at / (n_ * n_)}, stride[3] = {1, n_, n_ * n_};
            for (int axis = 0; axis < 3; ++axis)
                for (int step = -1; step <= 1; step += 2) {
                    if (ijk[axis] + step < 0 || ijk[axis] + step >= n_) continue;
                    const int other = at + step * stride[axis];
                    if (known[other] || distance_[at] + distance_[other] <= spacing_ * kSameSideSlack) continue;
                    known[other] = true;
                    inside_[other] = inside_[at];
                    waiting[size++] = other;
                }
        }
    }

    double3 first_;
    double spacing_;
    int n_;
    std::array<double, kLargest> distance_;
    std::array<bool, kLargest> inside_;
};

}  // namespace

DistanceSource::Nearest MeshDistance::nearest(double3 const& place, std::int32_t guess) const
{
    const auto found = tree_.nearest(place, guess);
    return {found.squaredDistance, found.triangle};
}

bool MeshDistance::anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const
{
    const auto within = [&](int i, int j, int k) {
        const auto found = tree_.nearest({first.x + i * spacing, first.y + j * spacing, first.z + k * spacing}, guess);
        guess = found.triangle;
        return found.squaredDistance <= reach * reach;
    };
    // The sample next to the point of the surface that is nearest to the middle decides most tiles.
    const double half = 0.5 * (n - 1) * spacing;
    const double3 near = tree_.nearestPoint({first.x + half, first.y + half, first.z + half}, guess);
    const auto clamped = [spacing, n](double v) {
        return static_cast<int>(std::clamp(std::round(v / spacing), 0.0, n - 1.0));
    };
    if (within(clamped(near.x - first.x), clamped(near.y - first.y), clamped(near.z - first.z))) return true;
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i)
                if (within(i, j, k)) return true;
    return false;
}

void MeshDistance::fill(double3 const& first, double spacing, int n, double unit, float* values) const
{
    Lattice lattice(first, spacing, n);
    lattice.findDistances(tree_);
    lattice.findSides(tree_, watertight_);
    for (int at = 0; at < n * n * n; ++at) values[at] = static_cast<float>(lattice.at(at) * unit);
}

DistanceSource::Nearest ShellDistance::nearest(double3 const& place, std::int32_t guess) const
{
    const auto found = tree_.nearest(place, guess);
    const double beyond = std::sqrt(found.squaredDistance) - half_;
    return {beyond * beyond, found.triangle};
}

bool ShellDistance::anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const
{
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) {
                const auto found = tree_.nearest({first.x + i * spacing, first.y + j * spacing, first.z + k * spacing}, guess);
                guess = found.triangle;
                if (std::abs(std::sqrt(found.squaredDistance) - half_) <= reach) return true;
            }
    return false;
}

void ShellDistance::fill(double3 const& first, double spacing, int n, double unit, float* values) const
{
    Lattice lattice(first, spacing, n);
    lattice.findDistances(tree_);
    for (int at = 0; at < n * n * n; ++at) values[at] = static_cast<float>((lattice.unsignedAt(at) - half_) * unit);
}

}  // namespace tilegrid::io
