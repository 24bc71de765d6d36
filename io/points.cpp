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
#include <ostream>

namespace tilegrid::io {

using Ostara::Geometry::sPointPosition;
using Ostara::Math::float3;

namespace {

constexpr char kRadius[] = "point_radius";

template <class T> Corvid::Array<T> const* arrayOf(Corvid::Any const& entry, std::string const& name, std::size_t length)
{
    auto const* array = entry.get<Corvid::Array<T>>();
    if (array && array->size() != length)
        throw InputError("attribute '" + name + "' has " + std::to_string(array->size()) + " values for " + std::to_string(length) + " points");
    return array;
}

}  // namespace

bool isPointCloud(Ostara::Object const& object) { return Ostara::Object::isA(object, *Ostara::Geometry::getPointCloudPrototype()); }

Corvid::Ptr<Ostara::Object> pointsOf(AttributeTable const& table)
{
    std::vector<Attribute> attributes = attributesOf(table);
    auto points = Corvid::makeMutable<Ostara::Object>(Ostara::Geometry::getPointCloudPrototype());
    for (Attribute& attribute : attributes) {
        if (attribute.components == 1 && attribute.name == "radius") attribute.name = kRadius;
        const Corvid::String name(attribute.name);
        if (points->get<Corvid::Array<float>>(name) || points->get<Corvid::Array<float3>>(name))
            throw InputError("columns give the attribute '" + attribute.name + "' twice");
        if (attribute.components == 1) {
            points->set(name, Corvid::Array<float>(attribute.values.begin(), attribute.values.end()));
            continue;
        }
        Corvid::Array<float3> values(attribute.values.size() / 3);
        for (std::size_t n = 0; n < values.size(); ++n) values[n] = {attribute.values[3 * n], attribute.values[3 * n + 1], attribute.values[3 * n + 2]};
        points->set(name, std::move(values));
    }
    if (!points->get<Corvid::Array<float3>>(sPointPosition)) throw InputError("it has no columns x, y and z");
    return points;
}

AttributeTable tableOf(Ostara::Object const& points, Corvid::RuntimeServices const& services)
{
    auto const* positions = points.get<Corvid::Array<float3>>(sPointPosition);
    if (!positions) throw InputError("the points have no positions");
    AttributeTable table;
    addColumns(table, vectorAttribute(sPointPosition.str(), *positions));
    for (auto const& [name, entry] : points.entries()) {
        if (name == sPointPosition) continue;
        if (auto const* scalars = arrayOf<float>(entry, name.str(), positions->size())) {
            table.names.push_back(name.str() == kRadius ? "radius" : name.str());
            table.columns.emplace_back(scalars->begin(), scalars->end());
        } else if (auto const* vectors = arrayOf<float3>(entry, name.str(), positions->size())) {
            addColumns(table, vectorAttribute(name.str(), *vectors));
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
        // Headers are far shorter.
        const std::string head = fileHead(path, "points", std::size_t(1) << 20);
        std::string_view rest = head;
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
        const AttributeTable table = tableOf(points, services);
        if (ending != "csv" && ending != "ply") throw InputError("points are written as .csv, .ply or .vdb");
        const std::string text = ending == "csv" ? csvOf(table) : plyOf(table);
        writeAtomically(path, [&text](std::ostream& out) { out << text; });
    } catch (InputError const& error) {
        throw InputError("cannot write '" + path + "': " + error.what());
    }
}

}  // namespace tilegrid::io
