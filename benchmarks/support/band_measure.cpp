#include "benchmarks/support/band_measure.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>

namespace bench {

using Ostara::Math::int3;

namespace {

constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
/// Of the three axes one at least has this share of a normal.
const double kSteep = 1 / std::sqrt(3.0);

std::uint64_t key(int3 const& p)
{
    const auto bits = [](int n) { return std::uint64_t(n + (1 << 20)); };
    return bits(p.x) << 42 | bits(p.y) << 21 | bits(p.z);
}

}  // namespace

BandMeasure::BandMeasure(std::vector<int3> const& places, std::vector<float> const& exact) : places_(places), exact_(exact)
{
    std::unordered_map<std::uint64_t, int> at;
    at.reserve(places.size());
    for (std::size_t n = 0; n < places.size(); ++n) at[key(places[n])] = int(n);
    for (int axis = 0; axis < 3; ++axis) {
        auto &low = low_[std::size_t(axis)], &high = high_[std::size_t(axis)];
        low.assign(places.size(), -1);
        high.assign(places.size(), -1);
        for (std::size_t n = 0; n < places.size(); ++n) {
            int3 next = places[n];
            ++next[axis];
            const auto found = at.find(key(next));
            if (found == at.end()) continue;
            high[n] = found->second;
            low[std::size_t(found->second)] = int(n);
        }
    }
    inside_ = volume(exact);
}

BandErrors BandMeasure::of(std::vector<float> const& values, std::vector<bool> const& hanging) const
{
    BandErrors errors;
    addDistances(values, hanging, errors);
    addDrift(values, errors);
    errors.volume = volume(values) / inside_ - 1;
    return errors;
}

double BandMeasure::crossing(std::vector<float> const& values, int n, int axis) const
{
    const int next = high_[std::size_t(axis)][std::size_t(n)];
    if (next < 0) return kNone;
    const double first = values[std::size_t(n)], last = values[std::size_t(next)];
    if (std::isnan(first) || std::isnan(last) || (first < 0) == (last < 0)) return kNone;
    return first / (first - last);
}

double BandMeasure::volume(std::vector<float> const& values) const
{
    double sum = 0;
    for (int axis = 0; axis < 3; ++axis)
        for (std::size_t n = 0; n < places_.size(); ++n) {
            const double root = crossing(values, int(n), axis);
            if (std::isnan(root)) continue;
            // Lines leave the inside where they come from negative values.
            sum += (values[n] < 0 ? 1 : -1) * (places_[n][axis] + root);
        }
    return sum / 3;
}

void BandMeasure::addDistances(std::vector<float> const& values, std::vector<bool> const& hanging, BandErrors& errors) const
{
    std::int64_t count = 0, near = 0, off = 0;
    for (std::size_t n = 0; n < values.size(); ++n) {
        if (std::isnan(values[n])) {
            ++errors.missing;
            continue;
        }
        const double error = std::fabs(double(values[n]) - exact_[n]);
        if (!hanging.empty() && hanging[n]) {
            errors.hanging += 1 / double(values.size());
            errors.hangingLargest = std::max(errors.hangingLargest, error);
            continue;
        }
        errors.mean += error;
        errors.largest = std::max(errors.largest, error);
        ++count;
        off += error > 0.1;
        if (std::fabs(exact_[n]) >= 1) continue;
        errors.nearMean += error;
        errors.nearLargest = std::max(errors.nearLargest, error);
        ++near;
    }
    errors.mean /= double(count);
    errors.nearMean /= double(near);
    errors.off = double(off) / double(count);
}

double BandMeasure::moved(std::vector<float> const& values, int n, int axis, double root) const
{
    constexpr int kFarthest = 2;
    const auto a = std::size_t(axis);
    const bool outward = exact_[std::size_t(n)] < 0;
    double nearest = kNone;
    int at = n, first = 0;
    while (first > -kFarthest && low_[a][std::size_t(at)] >= 0) at = low_[a][std::size_t(at)], --first;
    for (int step = first; step <= kFarthest && at >= 0; at = high_[a][std::size_t(at)], ++step) {
        const double now = crossing(values, at, axis);
        if (std::isnan(now) || (values[std::size_t(at)] < 0) != outward) continue;
        const double by = step + now - root;
        if (!(std::fabs(by) >= std::fabs(nearest))) nearest = by;
    }
    return nearest;
}

void BandMeasure::addDrift(std::vector<float> const& values, BandErrors& errors) const
{
    std::int64_t count = 0;
    for (int axis = 0; axis < 3; ++axis)
        for (std::size_t n = 0; n < places_.size(); ++n) {
            const double root = crossing(exact_, int(n), axis);
            if (std::isnan(root)) continue;
            const double slope = std::fabs(double(exact_[std::size_t(high_[std::size_t(axis)][n])]) - exact_[n]);
            if (slope < kSteep) continue;
            const double by = std::fabs(moved(values, int(n), axis, root)) * slope;
            if (std::isnan(by)) {
                ++errors.lost;
                continue;
            }
            ++count;
            errors.driftMean += by;
            errors.driftLargest = std::max(errors.driftLargest, by);
        }
    errors.driftMean /= double(count);
}

}  // namespace bench
