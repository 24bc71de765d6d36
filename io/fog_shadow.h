#pragma once
#include "TilegridOps/substrate/parallel.h"
#include "io/render_light.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace tilegrid::io {

/// How much fog lies between a place and a far lamp, as a lattice along the light: columns of nodes, each holding the sum from the
/// column's lit end. Read between nodes. Lengths are in tile space.
class FogShadow {
public:
    using double3 = Ostara::Math::double3;

    /// \param low, high  of a box outside of which there is no fog
    /// \param toLamp     a unit vector
    FogShadow(double3 const& low, double3 const& high, double3 const& toLamp) : axes_{across(toLamp)[0], across(toLamp)[1], -1.0 * toLamp}
    {
        double longest = 0.0;
        for (int a = 0; a < 3; ++a) {
            first_[a] = std::numeric_limits<double>::infinity();
            double last = -first_[a];
            for (int corner = 0; corner < 8; ++corner) {
                const double at = dot(axes_[a], double3(corner & 1 ? high.x : low.x, corner & 2 ? high.y : low.y, corner & 4 ? high.z : low.z));
                first_[a] = std::min(first_[a], at), last = std::max(last, at);
            }
            extent_[a] = last - first_[a];
            longest = std::max(longest, extent_[a]);
        }
        step_ = longest / kNodes;
        for (int a = 0; a < 3; ++a) count_[a] = std::min(kNodes, int(extent_[a] / step_)) + 2;
        folds_.resize(std::size_t(count_[0]) * count_[1] * count_[2]);
    }

    /// Fills the lattice. \param makeReader  gives each worker a function from a place to the extinction there
    template <class MakeReader> void fill(MakeReader const& makeReader)
    {
        parallel::loop(0, std::int64_t(count_[0]) * count_[1], 16, [&](std::int64_t begin, std::int64_t end) {
            const auto extinctionAt = makeReader();
            for (std::int64_t column = begin; column < end; ++column) {
                const double3 top = double3(0.0) + (first_[0] + step_ * double(column % count_[0])) * axes_[0]
                    + (first_[1] + step_ * double(column / count_[0])) * axes_[1] + first_[2] * axes_[2];
                double sum = 0.0;
                for (int n = 0; n < count_[2]; ++n) {
                    const double here = step_ * extinctionAt(top + (n * step_) * axes_[2]);
                    // Half of a node's share lies above it.
                    folds_[std::size_t(column) * count_[2] + n] = float(sum + 0.5 * here);
                    sum += here;
                }
            }
        });
    }

    /// E-folds that light loses on its way to the place.
    double at(double3 const& place) const
    {
        int base[3];
        double part[3];
        for (int a = 0; a < 3; ++a) {
            const double local = std::clamp((dot(axes_[a], place) - first_[a]) / step_, 0.0, count_[a] - 1.000001);
            base[a] = int(local), part[a] = local - base[a];
        }
        double sum = 0.0;
        for (int corner = 0; corner < 4; ++corner) {
            const std::size_t column = std::size_t(base[1] + (corner >> 1)) * count_[0] + std::size_t(base[0] + (corner & 1));
            float const* nodes = folds_.data() + column * std::size_t(count_[2]) + base[2];
            sum += (corner & 1 ? part[0] : 1.0 - part[0]) * (corner & 2 ? part[1] : 1.0 - part[1]) * std::lerp(double(nodes[0]), double(nodes[1]), part[2]);
        }
        return sum;
    }

private:
    /// Along the longest side; 128^3 nodes take 8 MiB.
    static constexpr int kNodes = 128;
    double3 axes_[3];
    double first_[3], extent_[3];
    double step_ = 1.0;
    int count_[3];
    std::vector<float> folds_;
};

}  // namespace tilegrid::io
