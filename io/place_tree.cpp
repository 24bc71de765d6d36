#include "io/place_tree.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using Ostara::Math::double3;

PlaceTree::PlaceTree(std::vector<double3> places) : places_(std::move(places))
{
    sort(0, places_.size(), 0);
}

void PlaceTree::sort(std::size_t begin, std::size_t end, int axis)
{
    if (end - begin < 2) return;
    const std::size_t middle = begin + (end - begin) / 2;
    const auto at = [this](std::size_t n) { return places_.begin() + std::ptrdiff_t(n); };
    std::nth_element(at(begin), at(middle), at(end), [axis](double3 const& a, double3 const& b) { return a[axis] < b[axis]; });
    sort(begin, middle, (axis + 1) % 3);
    sort(middle + 1, end, (axis + 1) % 3);
}

double PlaceTree::distance(double3 const& from, double limit) const
{
    double squared = limit * limit;
    search(from, 0, places_.size(), 0, squared);
    return std::sqrt(squared);
}

void PlaceTree::search(double3 const& from, std::size_t begin, std::size_t end, int axis, double& squared) const
{
    if (begin >= end) return;
    const std::size_t middle = begin + (end - begin) / 2;
    double3 const& place = places_[middle];
    double sum = 0;
    for (int a = 0; a < 3; ++a) sum += (from[a] - place[a]) * (from[a] - place[a]);
    squared = std::min(squared, sum);
    const double beyond = from[axis] - place[axis];
    const int next = (axis + 1) % 3;
    // The side of the place itself first: what it finds often spares the other.
    if (beyond < 0)
        search(from, begin, middle, next, squared);
    else
        search(from, middle + 1, end, next, squared);
    if (beyond * beyond >= squared) return;
    if (beyond < 0)
        search(from, middle + 1, end, next, squared);
    else
        search(from, begin, middle, next, squared);
}

}  // namespace tilegrid::io
