#include "io/points.h"

#include "TilegridOps/host/geometry.h"
#include "io/atomic_file.h"
#include "io/error.h"
#include "io/file_content.h"
#include "io/ply.h"
#include "io/points_table.h"
#include "io/text.h"
#include "io/vdb.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <set>

namespace tilegrid::io {

using Ostara::Geometry::sPointPosition;
using Ostara::Math::float3;

namespace {

constexpr char kRadius[] = "point_radius";

/// How the three columns of a vector are called.
std::array<std::string, 3> vectorColumns(std::string const& name)
{
    if (name == sPointPosition.str()) return {"x", "y", "z"};
    if (name == "normal") return {"nx", "ny", "nz"};
    return {name + "_x", name + "_y", name + "_z"};
}

/// The attribute whose first column this could be; empty if it is none.
std::string vectorName(std::string const& column)
{
    if (column == "x") return sPointPosition.str();
    if (column == "nx") return "normal";
    return column.size() > 2 && column.ends_with("_x") ? column.substr(0, column.size() - 2) : std::string();
}

template <class T> Corvid::Array<T> const* arrayOf(Corvid::Any const& entry, std::string const& name, std::size_t length)
{
    auto const* array = entry.get<Corvid::Array<T>>();
    if (array && array->size() != length)
        throw InputError("attribute '" + name + "' has " + std::to_string(array->size()) + " values for " + std::to_string(length) + " points");
    return array;
}

void addColumns(PointTable& table, std::string const& name, Corvid::Array<float3> const& values)
{
    const auto columns = vectorColumns(name);
    for (int axis = 0; axis < 3; ++axis) {
        table.names.push_back(columns[std::size_t(axis)]);
        auto& column = table.columns.emplace_back();
        for (float3 const& v : values) column.push_back(v[axis]);
    }
}

}  // namespace

bool isPointCloud(Ostara::Object const& object) { return Ostara::Object::isA(object, *Ostara::Geometry::getPointCloudPrototype()); }

Corvid::Ptr<Ostara::Object> pointsOf(PointTable const& table)
{
    auto points = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    const auto column = [&table](std::string const& name) -> std::vector<float> const* {
        const auto found = std::find(table.names.begin(), table.names.end(), name);
        return found == table.names.end() ? nullptr : &table.columns[std::size_t(found - table.names.begin())];
    };
    std::set<std::string> made;
    const auto put = [&](std::string const& name, auto&& values) {
        if (!made.insert(name).second) throw InputError("columns give the attribute '" + name + "' twice");
        points->set(Corvid::String(name), std::move(values));
    };
    std::vector<std::string> used;
    for (std::string const& first : table.names) {
        const std::string name = vectorName(first);
        if (name.empty()) continue;
        const auto names = vectorColumns(name);
        const auto *x = column(names[0]), *y = column(names[1]), *z = column(names[2]);
        if (!x || !y || !z) continue;
        Corvid::Array<float3> values(x->size());
        for (std::size_t n = 0; n < x->size(); ++n) values[n] = {(*x)[n], (*y)[n], (*z)[n]};
        put(name, std::move(values));
        used.insert(used.end(), names.begin(), names.end());
    }
    if (!points->get<Corvid::Array<float3>>(sPointPosition)) throw InputError("it has no columns x, y and z");
    for (std::size_t n = 0; n < table.names.size(); ++n) {
        std::string const& name = table.names[n];
        if (std::find(used.begin(), used.end(), name) != used.end()) continue;
        put(name == "radius" ? kRadius : name, Corvid::Array<float>(table.columns[n].begin(), table.columns[n].end()));
    }
    return points;
}

PointTable tableOf(Ostara::Object const& points, Corvid::RuntimeServices const& services)
{
    auto const* positions = points.get<Corvid::Array<float3>>(sPointPosition);
    if (!positions) throw InputError("the points have no positions");
    PointTable table;
    addColumns(table, sPointPosition.str(), *positions);
    for (auto const& [name, entry] : points.entries()) {
        if (name == sPointPosition) continue;
        if (auto const* scalars = arrayOf<float>(entry, name.str(), positions->size())) {
            table.names.push_back(name.str() == kRadius ? "radius" : name.str());
            table.columns.emplace_back(scalars->begin(), scalars->end());
        } else if (auto const* vectors = arrayOf<float3>(entry, name.str(), positions->size())) {
            addColumns(table, name.str(), *vectors);
        } else {
            services.message(Severity::kWarning, "attribute '" + name.str() + "' is left out: its values are neither float nor float3");
        }
    }
    return table;
}

bool holdsPoints(std::string const& path)
{
    const std::string ending = endingOf(path);
    if (ending == "csv") return true;
    if (ending != "ply") return false;
    try {
        const std::string content = fileContent(path, "points", 0);
        std::string_view rest = content;
        const PlyHeader header = takePlyHeader(rest);
        const auto isFace = [](PlyElement const& element) { return (element.name == "face" || element.name == "tristrips") && element.count > 0; };
        return std::none_of(header.elements.begin(), header.elements.end(), isFace);
    } catch (InputError const&) {
        return false;
    }
}

Corvid::Ptr<Ostara::Object> readPoints(std::string const& path, std::uint64_t maxBytes)
{
    const std::string content = fileContent(path, "points", maxBytes), ending = endingOf(path);
    try {
        if (ending == "csv") return pointsOf(tableFromCsv(content, maxBytes));
        if (ending == "ply") return pointsOf(tableFromPly(content, maxBytes));
        throw InputError("points are read from .csv, .ply and .vdb");
    } catch (InputError const& error) {
        throw InputError("cannot read the points '" + path + "': " + error.what());
    }
}

void writePoints(std::string const& path, Ostara::Object const& points, Corvid::RuntimeServices const& services)
{
    const std::string ending = endingOf(path);
    if (ending == "vdb") return writeVdb(path, points, services);
    try {
        const PointTable table = tableOf(points, services);
        if (ending != "csv" && ending != "ply") throw InputError("points are written as .csv, .ply or .vdb");
        const std::string text = ending == "csv" ? csvOf(table) : plyOf(table);
        writeAtomically(path, [&text](std::ostream& out) { out << text; });
    } catch (InputError const& error) {
        throw InputError("cannot write '" + path + "': " + error.what());
    }
}

}  // namespace tilegrid::io
