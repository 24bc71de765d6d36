#pragma once
#include "TilegridOps/host/math.h"

#include <array>
#include <cstdint>
#include <vector>

namespace bench {

/// How far values are from distances, lengths in voxels. Near: within a voxel of the surface.
struct BandErrors {
    double mean = 0, largest = 0, nearMean = 0, nearLargest = 0;
    /// Share of the voxels that are off by more than 0.1.
    double off = 0;
    /// Voxels that hang between coarser ones and so are no distances but mixed from them: their share of the band, and how far they
    /// are off. The figures above are without them.
    double hanging = 0, hangingLargest = 0;
    /// How far the surface moved along its normal.
    double driftMean = 0, driftLargest = 0;
    /// Change of the volume inside, as a part of it.
    double volume = 0;
    /// Voxels without a value, and crossings of the surface that are gone.
    std::int64_t missing = 0, lost = 0;
};

/// Compares values on the voxels of a band with exact distances there.
///
/// The surface is where values are zero along the edges of the lattice, linear between their ends, for both. Its drift is that of
/// each crossing along its edge, times the slope of the exact distance there, on edges that meet the surface steeply; every place
/// of a smooth surface has one. The volume is what lies between crossings along the lines of the lattice, the mean of the axes.
class BandMeasure {
public:
    BandMeasure(std::vector<Ostara::Math::int3> const& places, std::vector<float> const& exact);

    /// \param values   one for each place; NaN where there is none
    /// \param hanging  which voxels hang; none, if it is empty
    BandErrors of(std::vector<float> const& values, std::vector<bool> const& hanging = {}) const;

private:
    /// Place of the crossing on the edge from voxel `n` along an axis, 0 to 1; NaN without one.
    double crossing(std::vector<float> const& values, int n, int axis) const;
    double volume(std::vector<float> const& values) const;
    void addDistances(std::vector<float> const& values, std::vector<bool> const& hanging, BandErrors& errors) const;
    void addDrift(std::vector<float> const& values, BandErrors& errors) const;
    /// By how much the crossing that was at `root` on an edge is farther along it; NaN if there is none near.
    double moved(std::vector<float> const& values, int n, int axis, double root) const;

    std::vector<Ostara::Math::int3> places_;
    std::vector<float> exact_;
    /// For each axis and voxel the next one to low and to high in the band, or -1.
    std::array<std::vector<int>, 3> low_, high_;
    double inside_;
};

}  // namespace bench
