#include "io/error.h"
#include "io/file_content.h"
#include "io/sample.h"
#include "io/text_scan.h"

namespace tilegrid::io {

using Ostara::Math::float3;

namespace {

/// What is wrong with a row; empty, and the place written, if nothing is.
std::string problemOf(std::string_view row, float3& place)
{
    const auto cells = cellsOf(row);
    if (cells.size() != 3) return "it has " + std::to_string(cells.size()) + " values instead of 3";
    for (int axis = 0; axis < 3; ++axis) {
        const auto value = realFrom(cells[std::size_t(axis)]);
        if (!value) return quoted(cells[std::size_t(axis)]) + " is no number";
        place[axis] = static_cast<float>(*value);
        if (!std::isfinite(place[axis])) return quoted(cells[std::size_t(axis)]) + " is not finite, or too large for a float";
    }
    return {};
}

/// A first row of names: no cell of it is a number.
bool isHeader(std::string_view row)
{
    for (std::string_view cell : cellsOf(row))
        if (cell.empty() || realFrom(cell)) return false;
    return true;
}

template <class T> void append(std::string& text, T value)
{
    char buffer[64];
    text.append(buffer, std::to_chars(buffer, buffer + sizeof buffer, value).ptr);
}

}  // namespace

std::vector<float3> readPlaces(std::string const& path, std::uint64_t maxBytes)
{
    constexpr int kMostNamed = 5;
    const std::string content = fileContent(path, "points", maxBytes, Emptiness::kAllowed);
    std::string_view rest = content;
    std::vector<float3> places;
    std::string problems;
    int bad = 0;
    bool first = true;
    for (std::int64_t line = 1; !rest.empty(); ++line) {
        const std::string_view row = trimmed(takeLine(rest));
        if (row.empty() || row.front() == '#') continue;
        if (std::exchange(first, false) && isHeader(row)) continue;
        float3 place;
        const std::string problem = problemOf(row, place);
        if (problem.empty())
            places.push_back(place);
        else if (++bad <= kMostNamed)
            problems += "\n  line " + std::to_string(line) + ": " + problem;
    }
    if (bad > 0)
        throw InputError("'" + path + "' has " + std::to_string(bad) + (bad == 1 ? " row" : " rows")
                         + " that are not three numbers, as in 0.5,1,-2:" + problems
                         + (bad > kMostNamed ? "\n  and " + std::to_string(bad - kMostNamed) + " more" : ""));
    return places;
}

std::string toCsv(std::vector<float3> const& places, std::string const& property, Samples const& samples)
{
    std::string text = "x,y,z";
    for (int c = 0; c < samples.components; ++c)
        text += "," + property + (samples.components == 1 ? "" : "." + std::to_string(c));
    text += "\n";
    for (std::size_t n = 0; n < places.size(); ++n) {
        for (int axis = 0; axis < 3; ++axis) {
            if (axis > 0) text += ',';
            append(text, places[n][axis]);
        }
        for (int c = 0; c < samples.components; ++c) {
            const double value = samples.values[n * std::size_t(samples.components) + std::size_t(c)];
            text += ',';
            if (double(float(value)) == value)
                append(text, float(value));
            else
                append(text, value);
        }
        text += '\n';
    }
    return text;
}

}  // namespace tilegrid::io
