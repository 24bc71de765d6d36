#pragma once
#include <string>
#include <vector>

namespace tilegrid::io {

/// Named values at the vertices of a mesh or the points of a cloud.
struct Attribute {
    std::string name;
    /// 1, or 3 for a vector or a colour.
    int components = 1;
    /// `components` numbers for each vertex, side by side.
    std::vector<float> values;
};

/// The attribute of colours: red, green and blue, linear, 0 to 1. Linear because voxels mix and lights add up; it is what .glb
/// holds. Colours of 8 bits (.ply), and those of .obj and .off, are sRGB codes, which is what scanners and editors store;
/// all 256 codes survive the way to linear and back.
inline constexpr char kColor[] = "color";
/// Beside it, the opacity, 0 to 1.
inline constexpr char kAlpha[] = "alpha";

}  // namespace tilegrid::io
