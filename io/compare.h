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
    /// `CompareOptions::within`.
    std::optional<double> within = std::nullopt;
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

/// How far from the surface both level sets hold distances that can be compared: the half width of the narrower band (the default
/// value of the property), less a voxel, as values in the last one are read together with the default outside. None if no band says so.
/// \throws InputError for an object without a tile tree
std::optional<double> comparableDistance(Ostara::Object const& volume, Ostara::Object const& reference, std::string const& property);

/// Keys: voxels, mean, root_mean_square, largest, where[3], and within, unless voxels were compared everywhere. One object.
std::string toJson(Comparison const& comparison);
std::string toText(Comparison const& comparison);

}  // namespace tilegrid::io
