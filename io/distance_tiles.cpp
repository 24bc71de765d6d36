#include "io/distance_tiles.h"

#include <array>
#include <cmath>

namespace tilegrid::io {

namespace {

/// Two places are on one side of a closed surface if their distances to it add up to more than the way between them. The slack
/// covers the rounding of a sum of two distances.
constexpr double kSameSideSlack = 1.0 + 1e-9;

}  // namespace

void DistanceTiles::fill(double3 const& first, double spacing, int n, double unit, float* values) const
{
    constexpr int kLargest = 5 * 5 * 5;
    std::array<double, kLargest> distance;
    std::array<bool, kLargest> inside;
    const int stride[3] = {1, n, n * n};
    std::int32_t guess = 0, rowGuess = 0;
    for (int k = 0, at = 0; k < n; ++k)
        for (int j = 0; j < n; ++j)
            for (int i = 0; i < n; ++i, ++at) {
                const double3 place{first.x + i * spacing, first.y + j * spacing, first.z + k * spacing};
                const auto nearest = tree_.nearest(place, i == 0 ? rowGuess : guess);
                guess = nearest.triangle;
                if (i == 0) rowGuess = guess;
                distance[at] = std::sqrt(nearest.squaredDistance);

                const int ijk[3] = {i, j, k};
                int sameSide = -1;
                for (int axis = 0; axis < 3 && watertight_ && sameSide < 0; ++axis)
                    if (ijk[axis] > 0 && distance[at] + distance[at - stride[axis]] > spacing * kSameSideSlack)
                        sameSide = at - stride[axis];
                inside[at] = sameSide >= 0 ? inside[sameSide] : tree_.inside(place);
                values[at] = static_cast<float>((inside[at] ? -distance[at] : distance[at]) * unit);
            }
}

}  // namespace tilegrid::io
