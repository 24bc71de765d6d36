#pragma once
#include <array>
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

/// IEC 61966-2-1. NaN stays NaN.
float linearFromSrgb(double code);
double srgbFromLinear(float linear);
/// The code of 8 bits next to a linear value; below 0, and NaN: 0.
unsigned char srgbByte(float linear);
/// Next to 255 times the value, clamped.
unsigned char byteOf(float value);

/// Numbers by column, the form that text and binary tables share.
struct AttributeTable {
    std::vector<std::string> names;
    /// By column, all of one length.
    std::vector<std::vector<float>> columns;
    std::size_t rows() const { return columns.empty() ? 0 : columns.front().size(); }
};

/// How the three columns of a vector are called: x, y, z for `point_position`; nx, ny, nz for `normal`; NAME_x, NAME_y, NAME_z.
std::array<std::string, 3> vectorColumns(std::string const& name);

/// Columns as attributes: three that belong together are one, the others stay single.
/// \throws InputError if two have one name
std::vector<Attribute> attributesOf(AttributeTable const& table);
void addColumns(AttributeTable& table, Attribute const& attribute);

}  // namespace tilegrid::io
