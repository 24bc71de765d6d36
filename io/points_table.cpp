#include "io/points_table.h"

#include "io/error.h"
#include "io/text.h"
#include "io/text_scan.h"

#include <algorithm>

namespace tilegrid::io {

namespace {

void checkSize(std::uint64_t rows, std::size_t columns, std::uint64_t maxBytes)
{
    if (maxBytes > 0 && rows * columns * sizeof(float) > maxBytes)
        throw InputError("its " + std::to_string(rows) + " points take more than the limit of " + byteText(double(maxBytes)));
}

void nameColumns(AttributeTable& table, std::vector<std::string_view> const& cells, bool isHeader)
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

AttributeTable tableFromCsv(std::string_view content, std::uint64_t maxBytes)
{
    AttributeTable table;
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

std::string csvOf(AttributeTable const& table)
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

}  // namespace tilegrid::io
