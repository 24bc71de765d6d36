#include "io/points_table.h"

#include "io/error.h"
#include "io/ply.h"
#include "io/text.h"
#include "io/text_scan.h"

#include <algorithm>
#include <bit>

namespace tilegrid::io {

namespace {

void checkSize(std::uint64_t rows, std::size_t columns, std::uint64_t maxBytes)
{
    if (maxBytes > 0 && rows * columns * sizeof(float) > maxBytes)
        throw InputError("its " + std::to_string(rows) + " points take more than the limit of " + byteText(double(maxBytes)));
}

void nameColumns(PointTable& table, std::vector<std::string_view> const& cells, bool isHeader)
{
    static constexpr std::string_view kNames[] = {"x", "y", "z", "radius"};
    if (!isHeader && cells.size() != 3 && cells.size() != 4)
        throw InputError("its first row has " + std::to_string(cells.size()) + " numbers: begin with a row of names, as in x,y,z,radius,velocity_x");
    for (std::size_t n = 0; n < cells.size(); ++n) {
        std::string name(isHeader ? cells[n] : kNames[n]);
        if (name.empty()) throw InputError("column " + std::to_string(n + 1) + " has no name");
        if (std::find(table.names.begin(), table.names.end(), name) != table.names.end()) throw InputError("two columns have the name " + quoted(name));
        table.names.push_back(std::move(name));
    }
    table.columns.resize(cells.size());
}

bool anyIsName(std::vector<std::string_view> const& cells)
{
    return std::none_of(cells.begin(), cells.end(), [](std::string_view cell) { return realFrom(cell).has_value(); });
}

void appendFloat(std::string& text, float value)
{
    char buffer[32];
    text.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

}  // namespace

PointTable tableFromCsv(std::string_view content, std::uint64_t maxBytes)
{
    PointTable table;
    std::string_view rest = content;
    for (std::int64_t line = 1; !rest.empty(); ++line) {
        const std::string_view row = trimmed(takeLine(rest));
        if (row.empty() || row.front() == '#') continue;
        const auto cells = cellsOf(row);
        const std::string at = "line " + std::to_string(line) + ": ";
        if (table.names.empty()) {
            const bool header = anyIsName(cells);
            nameColumns(table, cells, header);
            if (header) continue;
        }
        if (cells.size() != table.names.size())
            throw InputError(at + "it has " + std::to_string(cells.size()) + " values for " + std::to_string(table.names.size()) + " columns");
        for (std::size_t n = 0; n < cells.size(); ++n) {
            const auto value = realFrom(cells[n]);
            if (!value || !isFiniteFloat(*value)) throw InputError(at + quoted(cells[n]) + " is not a finite number that a float can hold");
            table.columns[n].push_back(static_cast<float>(*value));
        }
    }
    checkSize(table.rows(), table.columns.size(), maxBytes);
    return table;
}

std::string csvOf(PointTable const& table)
{
    std::string text;
    for (std::string const& name : table.names) {
        if (name.find_first_of(",\n\r#") != std::string::npos || name != trimmed(name) || name.empty() || realFrom(name))
            throw InputError("an attribute has the name " + quoted(name) + ", which cannot stand in a .csv file");
        text += (text.empty() ? "" : ",") + name;
    }
    text += '\n';
    for (std::size_t row = 0; row < table.rows(); ++row)
        for (std::size_t column = 0; column < table.columns.size(); ++column) {
            appendFloat(text, table.columns[column][row]);
            text += column + 1 < table.columns.size() ? ',' : '\n';
        }
    return text;
}

PointTable tableFromPly(std::string_view content, std::uint64_t maxBytes)
{
    const PlyHeader header = takePlyHeader(content);
    PlyValues values(content, header.format);
    PointTable table;
    for (PlyElement const& element : header.elements) {
        const bool isVertex = element.name == "vertex";
        // Every value takes a byte at least: no count above the size of the file is believed.
        if (element.count * std::max<std::size_t>(element.properties.size(), 1) > content.size())
            throw InputError("the header counts " + std::to_string(element.count) + " elements '" + element.name + "', and only " +
                             std::to_string(content.size()) + " bytes follow");
        if (isVertex) {
            for (PlyProperty const& property : element.properties)
                if (!property.isList()) table.names.push_back(property.name);
            table.columns.resize(table.names.size());
            checkSize(element.count, table.columns.size(), maxBytes);
        }
        for (std::uint64_t n = 0; n < element.count; ++n) {
            std::size_t column = 0;
            for (PlyProperty const& property : element.properties) {
                double length = 1, value = 0;
                const auto take = [&](PlyType const& type, double& out) {
                    if (!values.take(type, out)) throw InputError("it ends in element '" + element.name + "' " + std::to_string(n + 1) + ": cut off, or a wrong count");
                };
                if (property.isList()) take(property.length, length);
                for (double item = 0; item < length; item += 1) take(property.value, value);
                if (!isVertex || property.isList()) continue;
                if (!isFiniteFloat(value)) throw InputError("point " + std::to_string(n + 1) + " has a '" + property.name + "' that is not a finite number");
                table.columns[column++].push_back(static_cast<float>(value));
            }
        }
        if (isVertex) return table;
    }
    throw InputError("it has no element 'vertex'");
}

std::string plyOf(PointTable const& table)
{
    std::string text = "ply\nformat binary_little_endian 1.0\nelement vertex " + std::to_string(table.rows()) + "\n";
    for (std::string const& name : table.names) {
        // A word of the header: what parts words there cannot stand within.
        if (name.empty() || std::any_of(name.begin(), name.end(), [](char c) { return isBlank(c) || c == '\n'; }))
            throw InputError("an attribute has the name " + quoted(name) + ", which cannot stand in a .ply file");
        text += "property float " + name + "\n";
    }
    text += "end_header\n";
    for (std::size_t row = 0; row < table.rows(); ++row)
        for (auto const& column : table.columns) {
            const auto bits = std::bit_cast<std::uint32_t>(column[row]);
            for (int shift = 0; shift < 32; shift += 8) text += static_cast<char>(bits >> shift & 255u);
        }
    return text;
}

}  // namespace tilegrid::io
