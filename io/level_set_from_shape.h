#pragma once
#include "io/level_set_from_mesh.h"

#include <variant>

namespace tilegrid::io {

/// All in world units.
struct Sphere {
    Ostara::Math::double3 centre;
    double radius = 1.0;
};
struct Box {
    Ostara::Math::double3 low, high;
};
/// A ball of radius `tube` led along a circle. Where the tube is wider than the circle, the solid is what it passes: its
/// middle is closed, and the two dents in it reach down to the axis.
struct Torus {
    Ostara::Math::double3 centre;
    double radius = 1.0, tube = 0.25;
    /// 0, 1, 2: the circle lies around x, y, z.
    int axis = 1;
};
using Shape = std::variant<Sphere, Box, Torus>;

/// Signed distance to the surface of a shape, negative inside: exact up to the rounding of double.
double signedDistance(Shape const& shape, Ostara::Math::double3 const& place);

/// Of its box. \throws InputError for a shape that is empty or not finite
double longestSide(Shape const& shape);

/// A level set of a shape, as `levelSetFromMesh` makes it: the same tiles, distances at all depths, default value, finer box
/// and limits.
/// \throws InputError for a shape that is empty or not finite, and for options as there
Corvid::Ptr<Ostara::Object> levelSetFromShape(Shape const& shape, LevelSetOptions const& options);

}  // namespace tilegrid::io
