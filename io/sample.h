#pragma once
#include "TilegridOps/host/object.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tilegrid::io {

/// How values between voxels are made: trilinear, or by one of four kernels of three and four samples along an axis.
enum class SampleMode { kLinear, kQuadratic, kCubic, kCubicC1, kCubicMonotonic };

/// Values at places of world space, `components` numbers for each.
struct Samples {
    int components = 0;
    std::vector<double> values;
};
/// Reads a property at positions of world space; its default value outside every tile.
/// \throws InputError for an object without a tile tree, a property that it has not, or one of a type without a fraction
Samples samplePlaces(Ostara::Object const& volume, std::string const& property, SampleMode mode,
                     std::vector<Ostara::Math::float3> const& places);

/// Reads places from CSV: three numbers in a row, separated by commas. A first row of names, empty rows and rows that begin
/// with # are passed over.
/// \throws InputError for a file that cannot be read or is larger than `maxBytes` (0: no limit), and for rows that are not
///         three finite numbers: names the lines
std::vector<Ostara::Math::float3> readPlaces(std::string const& path, std::uint64_t maxBytes);

/// x,y,z and the values, a row for each place, behind a row of names. Numbers in as few digits as lead back to the float, or
/// to the double where a value needs it.
std::string toCsv(std::vector<Ostara::Math::float3> const& places, std::string const& property, Samples const& samples);

}  // namespace tilegrid::io
