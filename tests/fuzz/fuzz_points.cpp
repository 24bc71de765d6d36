#include "fuzz_file.h"

#include "TilegridOps/host/geometry.h"
#include "io/error.h"
#include "io/points.h"
#include "io/points_table.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

using namespace tilegrid::io;

Corvid::RuntimeServices silent()
{
    return Corvid::RuntimeServices(nullptr, [](tilegrid::Severity, Corvid::StringView) {});
}

bool sameBits(AttributeTable const& a, AttributeTable const& b)
{
    bool same = a.names == b.names && a.columns.size() == b.columns.size();
    for (std::size_t n = 0; same && n < a.columns.size(); ++n)
        same = a.columns[n].size() == b.columns[n].size() &&
               (a.columns[n].empty() || std::memcmp(a.columns[n].data(), b.columns[n].data(), a.columns[n].size() * sizeof(float)) == 0);
    return same;
}

/// What is written as text or bytes must read as the same points; names that a form cannot hold are refused when writing.
template <class Write, class Read> void survives(AttributeTable const& table, Write const& write, Read const& read)
{
    std::string text;
    try {
        text = write(table);
    } catch (InputError const&) {
        return;
    }
    if (!sameBits(tableOf(*pointsOf(read(text, 0)), silent()), table)) std::abort();
}

/// As a .ply keeps it: colours, and the opacity beside them, have 8 bits there.
AttributeTable inBytes(AttributeTable table)
{
    const auto colors = vectorColumns(kColor);
    const auto has = [&table](std::string const& name) { return std::find(table.names.begin(), table.names.end(), name) != table.names.end(); };
    if (!std::all_of(colors.begin(), colors.end(), has)) return table;
    for (std::size_t n = 0; n < table.names.size(); ++n)
        for (float& value : table.columns[n]) {
            if (std::find(colors.begin(), colors.end(), table.names[n]) != colors.end()) value = linearFromSrgb(srgbByte(value) / 255.0);
            if (table.names[n] == kAlpha) value = static_cast<float>(byteOf(value) / 255.0);
        }
    return table;
}

}  // namespace

/// The first byte chooses the format, the rest is the file. Whatever is accepted must be points, and survive being written.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    if (size == 0) return 0;
    const FuzzFile file(data + 1, size - 1, data[0] % 2 ? ".ply" : ".csv");
    holdsPoints(file.path());
    Corvid::Ptr<Ostara::Object> points;
    try {
        points = readPoints(file.path(), kFuzzBytes);
    } catch (InputError const&) {
        return 0;  // the documented answer to a bad file
    }
    if (!isPointCloud(*points)) std::abort();
    const AttributeTable table = tableOf(*points, silent());
    for (auto const& column : table.columns) {
        if (column.size() != table.rows()) std::abort();
        for (float value : column)
            if (!std::isfinite(value)) std::abort();
    }
    survives(table, csvOf, tableFromCsv);
    survives(inBytes(table), plyOf, tableFromPly);
    return 0;
}
