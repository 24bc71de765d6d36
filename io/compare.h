#pragma once
#include "TilegridOps/host/object.h"
#include "io/sample.h"

#include <cstdint>
#include <optional>
#include <string>

namespace tilegrid::io {

/// How far one volume is from another, at the leaf voxels of the other.
struct Comparison {
    std::int64_t voxels = 0;
    /// Of the absolute differences, in the unit of the property; 0 if there is no voxel. A NaN on either side counts as infinite.
    double mean = 0, rootMeanSquare = 0, largest = 0;
    /// World place of the largest.
    Ostara::Math::double3 where{0.0};
};

struct CompareOptions {
    std::string property;
    SampleMode mode = SampleMode::kLinear;
    /// Only voxels of the reference whose value is smaller than this in size: near its surface, if the property is a distance.
    std::optional<double> within;
};

/// Reads `volume` at the leaf voxels of `reference`, which may differ in voxel size, structure and tiles. Same bits for any
/// number of threads.
/// \throws InputError for an object without a tile tree, or a property that either has not or that is not of type float
Comparison compareVolumes(Ostara::Object const& volume, Ostara::Object const& reference, CompareOptions const& options);

/// Keys: voxels, mean, root_mean_square, largest, where[3]. One object.
std::string toJson(Comparison const& comparison);
std::string toText(Comparison const& comparison);

}  // namespace tilegrid::io
