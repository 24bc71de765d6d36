#pragma once
#include "io/attribute.h"

#include <array>
#include <string>
#include <vector>

namespace tilegrid::io {

/// IEC 61966-2-1. NaN stays NaN.
float linearFromSrgb(double code);
double srgbFromLinear(float linear);
/// The code of 8 bits next to a linear value; below 0, and NaN: 0.
unsigned char srgbByte(float linear);
/// Next to 255 times the value, clamped.
unsigned char byteOf(float value);
/// The colours of a text format, three sRGB codes for each vertex: from 0 to 1, or to 255 where one is above 1.
Attribute colorsFromCodes(std::vector<float> codes);

/// Vectors as an attribute of three components.
template <class Vectors> Attribute vectorAttribute(std::string const& name, Vectors const& vectors)
{
    Attribute attribute{name, 3, {}};
    attribute.values.reserve(3 * vectors.size());
    for (auto const& v : vectors)
        for (int axis = 0; axis < 3; ++axis) attribute.values.push_back(v[axis]);
    return attribute;
}

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
