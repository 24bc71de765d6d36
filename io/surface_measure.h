#pragma once
#include "TilegridOps/host/math.h"

#include <array>

namespace tilegrid::io {

/// What a piece of surface adds to the volume behind it (divergence theorem, about the origin of the corners) and to
/// the area.
struct SurfaceMeasure {
    double volume = 0.0, area = 0.0;
    SurfaceMeasure& operator+=(SurfaceMeasure const& other)
    {
        volume += other.volume;
        area += other.area;
        return *this;
    }
};

/// The zero surface in one cubic cell, as marching tetrahedra: six around the diagonal from corner 0 to corner 7, so
/// that cells side by side cut their common face the same way. Negative is inside.
/// \param low  corner 0; bits 0, 1, 2 of a corner's number are its x, y, z
SurfaceMeasure measureCell(Ostara::Math::double3 const& low, double width, std::array<double, 8> const& values);

}  // namespace tilegrid::io
