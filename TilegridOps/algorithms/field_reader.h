#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/sampling/interpolation.h"
#include "TilegridOps/substrate/traits.h"

#include <memory>

namespace tilegrid {

/// Reads a property at places, whatever structure and interpolation stand behind it. One per thread: `copy` makes another, which
/// shares what was made for reading. What it reads outlives it.
template <class T> class FieldReader {
public:
    virtual ~FieldReader() = default;
    virtual std::unique_ptr<FieldReader> copy() const = 0;
    /// \param places  in tile space (voxels of the finest depth)
    /// \param depth   the deepest one that is read
    virtual void read(Ostara::Math::float3 const* places, int count, int depth, T* values) = 0;
    virtual T defaultValue() const = 0;
};

/// A reader of the plain property of that type. Linear reading of corner samples makes their halos first, which is a parallel pass.
/// \return null if the volume has no such property, tree or topology
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
template <class Tr, class T>
std::unique_ptr<FieldReader<T>> makeFieldReader(OST::Object const& volume, Corvid::String const& property,
                                                OST::TileTree3D::InterpolationMode interpolation);

}  // namespace tilegrid
