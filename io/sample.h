#pragma once
#include "TilegridOps/host/object.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tilegrid::io {

/// How values between voxels are made (TilegridOps/sampling).
enum class SampleMode { kLinear, kQuadratic, kCubic, kCubicC1, kCubicMonotonic };

/// Reads one property at places of tile space. One per thread.
class PlaceReader {
public:
    virtual ~PlaceReader() = default;
    /// Writes as many numbers as the property has components; its default value outside every tile.
    virtual void read(Ostara::Math::float3 const& place, double* components) const = 0;
};

/// Makes readers of one property. Refers to the volume.
struct PropertyReaders {
    int components = 0;
    /// Callable from many threads at once.
    std::function<std::unique_ptr<PlaceReader>()> make;
};
/// No components for types without a fraction, which no sampler reads.
/// \throws InputError for an object without a tile tree, or a property that it has not
PropertyReaders readersOf(Ostara::Object const& volume, std::string const& property, SampleMode mode);

/// Values at places of world space, `components` numbers for each.
struct Samples {
    int components = 0;
    std::vector<double> values;
};
/// \throws InputError as above, and for a type without a fraction
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
