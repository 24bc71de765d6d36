#pragma once
#include "TilegridOps/host/object.h"
#include "io/sample.h"

#include <functional>
#include <memory>
#include <string>

namespace tilegrid::io {

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

}  // namespace tilegrid::io
