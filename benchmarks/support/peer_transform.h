#pragma once
#include <openvdb/openvdb.h>

/// The peer's transformer stands in a source of its own, since its header does not compile as C++20.
namespace bench {

/// Makes a copy of a level set turned by an angle around the z axis, trilinear or triquadratic. \return its first active value
float firstOfRotated(openvdb::FloatGrid const& grid, double angle, bool quadratic);

}  // namespace bench
