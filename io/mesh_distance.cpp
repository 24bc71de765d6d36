#include "io/mesh_distance.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace tilegrid::io {

namespace {

constexpr int kLargest = 5 * 5 * 5;
/// Covers the rounding of a sum of two distances.
constexpr double kSumSlack = 1.0 + 1e-9;
/// Up to so many triangles it is faster to try all of them at every sample than to search the tree for each (measured).
constexpr int kFewTriangles = 48;
/// Nodes that a search on its own may visit before it stops being exact (see `SearchEffort`).
constexpr std::int64_t kQuerySteps = 1 << 11;

using Ostara::Math::double3;
using Ostara::Math::int3;

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
        auto effort = TriangleTree::SearchEffort::ofTile(spacing_);
        auto nearest = tree.nearest(middle, 0, &effort);
        const double radius = (std::sqrt(nearest.squaredDistance) + 2.0 * std::numbers::sqrt3 * half) * kSumSlack;
        std::array<std::int32_t, kFewTriangles> list;
        const int count = tree.listNear(middle, radius, list.data(), kFewTriangles);
        for (int at = 0; at < n_ * n_ * n_; ++at) {
            double squared;
            if (count <= kFewTriangles) {
                squared = tree.squaredDistanceTo(placeOf(at), list.data(), count);
            } else {
                nearest = tree.nearest(placeOf(at), nearest.triangle, &effort);
                squared = nearest.squaredDistance;
            }
            distance_[at] = std::sqrt(squared);
        }
    }

    void findSides(TriangleTree const& tree, WindingRows const* rows)
    {
        if (rows) {
            for (int row = 0; row < n_ * n_; ++row) rows->findInside(int3(placeOf(row * n_)), static_cast<int>(spacing_), n_, &inside_[row * n_]);
            return;
        }
        TriangleTree::WindingEffort effort;
        for (int at = 0; at < n_ * n_ * n_; ++at) inside_[at] = tree.inside(placeOf(at), effort);
    }

    double unsignedAt(int n) const { return distance_[n]; }
    double at(int n) const { return inside_[n] ? -distance_[n] : distance_[n]; }

private:
    double3 placeOf(int at) const
    {
        return {first_.x + at % n_ * spacing_, first_.y + at / n_ % n_ * spacing_,
                first_.z + at / (n_ * n_) * spacing_};
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
    TriangleTree::SearchEffort effort{kQuerySteps};
    const auto found = tree_.nearest(place, guess, &effort);
    return {found.leastSquaredDistance(), found.triangle};
}

bool MeshDistance::anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const
{
    auto effort = TriangleTree::SearchEffort::ofTile(spacing);
    const auto within = [&](int i, int j, int k) {
        const auto found = tree_.nearest({first.x + i * spacing, first.y + j * spacing, first.z + k * spacing}, guess, &effort);
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
    lattice.findSides(tree_, rows_);
    for (int at = 0; at < n * n * n; ++at) values[at] = static_cast<float>(lattice.at(at) * unit);
}

DistanceSource::Nearest ShellDistance::nearest(double3 const& place, std::int32_t guess) const
{
    TriangleTree::SearchEffort effort{kQuerySteps};
    const auto found = tree_.nearest(place, guess, &effort);
    // The least distance of the two sides from all that the true distance may be.
    const double low = std::sqrt(found.leastSquaredDistance()) - half_, high = std::sqrt(found.squaredDistance) - half_;
    const double beyond = low > 0.0 ? low : high < 0.0 ? high : 0.0;
    return {beyond * beyond, found.triangle};
}

bool ShellDistance::anyWithin(double3 const& first, double spacing, int n, double reach, std::int32_t guess) const
{
    auto effort = TriangleTree::SearchEffort::ofTile(spacing);
    for (int k = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i) {
                const auto found = tree_.nearest({first.x + i * spacing, first.y + j * spacing, first.z + k * spacing}, guess, &effort);
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
