#include "io/error.h"
#include "io/points_table.h"
#include "io/text_scan.h"

#include <algorithm>
#include <bit>
#include <ostream>
#include <set>
#include <sstream>

namespace tilegrid::io {

namespace {

/// How a column of the table stands in the file.
struct Column {
    enum class Code { kFloat, kSrgbByte, kByte } code = Code::kFloat;
    std::string name;
    std::vector<float> const* values = nullptr;
};

/// Colours become bytes, as programs expect them.
std::vector<Column> columnsOf(AttributeTable const& table)
{
    static constexpr char const* kColorNames[] = {"red", "green", "blue"};
    const auto colors = vectorColumns(kColor);
    const auto has = [&table](std::string const& name) { return std::find(table.names.begin(), table.names.end(), name) != table.names.end(); };
    const bool hasColors = std::all_of(colors.begin(), colors.end(), has);
    std::vector<Column> columns;
    std::set<std::string> seen;
    for (std::size_t n = 0; n < table.names.size(); ++n) {
        Column column{Column::Code::kFloat, table.names[n], &table.columns[n]};
        const auto color = std::size_t(std::find(colors.begin(), colors.end(), column.name) - colors.begin());
        if (hasColors && color < colors.size()) column.name = kColorNames[color], column.code = Column::Code::kSrgbByte;
        if (hasColors && column.name == kAlpha) column.code = Column::Code::kByte;
        // A word of the header: what parts words there cannot stand within.
        if (column.name.empty() || std::any_of(column.name.begin(), column.name.end(), [](char c) { return isBlank(c) || c == '\n'; }))
            throw InputError("an attribute has the name " + quoted(column.name) + ", which cannot stand in a .ply file");
        if (!seen.insert(column.name).second) throw InputError("two attributes would have the name " + quoted(column.name) + " in a .ply file");
        columns.push_back(std::move(column));
    }
    return columns;
}

void append(std::string& bytes, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift & 255u);
}

void append(std::string& bytes, Column const& column, std::size_t row)
{
    const float value = (*column.values)[row];
    switch (column.code) {
        case Column::Code::kFloat: return append(bytes, std::bit_cast<std::uint32_t>(value));
        case Column::Code::kSrgbByte: bytes += static_cast<char>(srgbByte(value)); return;
        case Column::Code::kByte: bytes += static_cast<char>(byteOf(value)); return;
    }
}

}  // namespace

void writePly(std::ostream& out, AttributeTable const& vertices, std::vector<Ostara::Math::int3> const* triangles)
{
    const std::vector<Column> columns = columnsOf(vertices);
    out << "ply\nformat binary_little_endian 1.0\nelement vertex " << vertices.rows() << "\n";
    for (Column const& column : columns) out << "property " << (column.code == Column::Code::kFloat ? "float " : "uchar ") << column.name << "\n";
    if (triangles) out << "element face " << triangles->size() << "\nproperty list uchar int vertex_indices\n";
    out << "end_header\n";
    std::string bytes;
    for (std::size_t row = 0; row < vertices.rows(); ++row) {
        bytes.clear();
        for (Column const& column : columns) append(bytes, column, row);
        out << bytes;
    }
    for (std::size_t n = 0; triangles && n < triangles->size(); ++n) {
        bytes.assign(1, '\3');
        for (int corner = 0; corner < 3; ++corner) append(bytes, static_cast<std::uint32_t>((*triangles)[n][corner]));
        out << bytes;
    }
}

std::string plyOf(AttributeTable const& table)
{
    std::ostringstream out;
    writePly(out, table, nullptr);
    return std::move(out).str();
}

}  // namespace tilegrid::io
