#include "io/attributes.h"

#include "TilegridOps/host/property_names.h"
#include "io/error.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace tilegrid::io {

namespace {

/// The attribute whose first column this could be; empty if it is none.
std::string vectorName(std::string const& column)
{
    if (column == "x") return Ostara::Geometry::sPointPosition.str();
    if (column == "nx") return "normal";
    return column.size() > 2 && column.ends_with("_x") ? column.substr(0, column.size() - 2) : std::string();
}

}  // namespace

float linearFromSrgb(double code)
{
    return static_cast<float>(code <= 0.04045 ? code / 12.92 : std::pow((code + 0.055) / 1.055, 2.4));
}

double srgbFromLinear(float linear)
{
    return linear <= 0.0031308f ? 12.92 * linear : 1.055 * std::pow(double(linear), 1.0 / 2.4) - 0.055;
}

unsigned char byteOf(float value)
{
    return value > 0.0f ? static_cast<unsigned char>(std::lround(255.0 * std::min(double(value), 1.0))) : 0;
}

unsigned char srgbByte(float linear) { return byteOf(static_cast<float>(srgbFromLinear(linear))); }

Attribute colorsFromCodes(std::vector<float> codes)
{
    const bool bytes = std::any_of(codes.begin(), codes.end(), [](float code) { return code > 1.0f; });
    for (float& code : codes) code = linearFromSrgb(bytes ? code / 255.0 : code);
    return {kColor, 3, std::move(codes)};
}

std::array<std::string, 3> vectorColumns(std::string const& name)
{
    if (name == Ostara::Geometry::sPointPosition.str()) return {"x", "y", "z"};
    if (name == "normal") return {"nx", "ny", "nz"};
    return {name + "_x", name + "_y", name + "_z"};
}

std::vector<Attribute> attributesOf(AttributeTable const& table)
{
    std::vector<Attribute> attributes;
    std::set<std::string> made;
    const auto add = [&](std::string const& name, int components) -> std::vector<float>& {
        if (!made.insert(name).second) throw InputError("columns give the attribute '" + name + "' twice");
        return attributes.emplace_back(Attribute{name, components, {}}).values;
    };
    const auto find = [&table](std::string const& name) {
        return std::size_t(std::find(table.names.begin(), table.names.end(), name) - table.names.begin());
    };
    std::vector<bool> used(table.names.size());
    for (std::string const& first : table.names) {
        const std::string name = vectorName(first);
        if (name.empty()) continue;
        const auto names = vectorColumns(name);
        const std::array<std::size_t, 3> at{find(names[0]), find(names[1]), find(names[2])};
        if (std::max({at[0], at[1], at[2]}) >= table.names.size()) continue;
        std::vector<float>& values = add(name, 3);
        values.reserve(3 * table.rows());
        for (std::size_t row = 0; row < table.rows(); ++row)
            for (const std::size_t column : at) values.push_back(table.columns[column][row]);
        for (const std::size_t column : at) used[column] = true;
    }
    for (std::size_t n = 0; n < table.names.size(); ++n)
        if (!used[n]) add(table.names[n], 1) = table.columns[n];
    return attributes;
}

void addColumns(AttributeTable& table, Attribute const& attribute)
{
    if (attribute.components == 1) {
        table.names.push_back(attribute.name);
        table.columns.push_back(attribute.values);
        return;
    }
    const auto columns = vectorColumns(attribute.name);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        table.names.push_back(columns[axis]);
        auto& column = table.columns.emplace_back();
        column.reserve(attribute.values.size() / 3);
        for (std::size_t n = axis; n < attribute.values.size(); n += 3) column.push_back(attribute.values[n]);
    }
}

}  // namespace tilegrid::io
