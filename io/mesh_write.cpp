#include "TilegridOps/host/property_names.h"
#include "io/atomic_file.h"
#include "io/error.h"
#include "io/formats.h"
#include "io/gltf.h"
#include "io/mesh.h"
#include "io/mesh_properties.h"
#include "io/points_table.h"
#include "io/stl.h"
#include "io/text.h"
#include "io/text_scan.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ostream>
#include <set>

namespace tilegrid::io {

using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

using Attributes = std::vector<Attribute const*>;

/// The shortest text that reads back as the same float.
void appendFloat(std::string& text, float value)
{
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    text.append(buffer, end);
}

/// \param colors  null, or three linear values for each vertex
void writeObj(std::ostream& out, TriangleMesh const& mesh, Attribute const* colors)
{
    std::string line;
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) {
        line.assign(1, 'v');
        for (int axis = 0; axis < 3; ++axis) appendFloat(line += ' ', mesh.vertices[n][axis]);
        for (std::size_t c = 0; colors && c < 3; ++c)
            appendFloat(line += ' ', static_cast<float>(srgbFromLinear(colors->values[3 * n + c])));
        out << line << '\n';
    }
    const bool normals = mesh.hasNormals();
    if (normals)
        for (auto const& n : mesh.normals) {
            line.assign("vn");
            for (int axis = 0; axis < 3; ++axis) appendFloat(line += ' ', n[axis]);
            out << line << '\n';
        }
    for (auto const& t : mesh.triangles) {
        line.assign(1, 'f');
        for (int corner = 0; corner < 3; ++corner) {
            const std::string number = std::to_string(t[corner] + 1);
            line.append(1, ' ').append(number);
            if (normals) line.append("//").append(number);
        }
        out << line << '\n';
    }
}

AttributeTable tableOf(TriangleMesh const& mesh, Attributes const& attributes)
{
    AttributeTable table;
    addColumns(table, vectorAttribute(Ostara::Geometry::sPointPosition.str(), mesh.vertices));
    if (mesh.hasNormals()) addColumns(table, vectorAttribute("normal", mesh.normals));
    for (Attribute const* attribute : attributes) addColumns(table, *attribute);
    return table;
}

/// Joined vertices that have several values, parted again: one vertex for each set of values that a triangle uses.
TriangleMesh parted(TriangleMesh const& mesh)
{
    const std::size_t rows = mesh.attributes.front().values.size() / std::size_t(mesh.attributes.front().components);
    std::vector<std::int32_t> vertexOf(rows, -1), newIndex(rows);
    for (std::size_t t = 0; t < mesh.triangles.size(); ++t)
        for (int corner = 0; corner < 3; ++corner)
            vertexOf[std::size_t(mesh.attributeCorners[t][corner])] = mesh.triangles[t][corner];
    TriangleMesh result;
    for (Attribute const& attribute : mesh.attributes) result.attributes.push_back({attribute.name, attribute.components, {}});
    for (std::size_t row = 0; row < rows; ++row) {
        if (vertexOf[row] < 0) continue;
        newIndex[row] = static_cast<std::int32_t>(result.vertices.size());
        result.vertices.push_back(mesh.vertices[std::size_t(vertexOf[row])]);
        if (mesh.hasNormals()) result.normals.push_back(mesh.normals[std::size_t(vertexOf[row])]);
        for (std::size_t n = 0; n < mesh.attributes.size(); ++n) {
            const auto size = std::ptrdiff_t(mesh.attributes[n].components);
            const auto from = mesh.attributes[n].values.begin() + std::ptrdiff_t(row) * size;
            result.attributes[n].values.insert(result.attributes[n].values.end(), from, from + size);
        }
    }
    for (int3 const& corners : mesh.attributeCorners)
        result.triangles.push_back({newIndex[std::size_t(corners.x)], newIndex[std::size_t(corners.y)], newIndex[std::size_t(corners.z)]});
    return result;
}

/// Names in the header of a .ply file, each of which may stand there once.
class PlyNames {
public:
    /// Whether the columns of an attribute may stand there too; then they are taken.
    bool take(Attribute const& attribute)
    {
        const auto vector = vectorColumns(attribute.name);
        const auto count = attribute.components == 1 ? 1 : vector.size();
        for (std::size_t n = 0; n < count; ++n) {
            std::string const& name = attribute.components == 1 ? attribute.name : vector[n];
            const bool parts = std::any_of(name.begin(), name.end(), [](char c) { return isBlank(c) || c == '\n'; });
            if (name.empty() || parts || !taken_.insert(name).second) return false;
        }
        return true;
    }

private:
    std::set<std::string> taken_{"x", "y", "z", "nx", "ny", "nz", "red", "green", "blue"};
};

bool isColor(Attribute const& attribute) { return attribute.name == kColor && attribute.components == 3; }

/// The attributes that the format can hold. Warns about others.
Attributes attributesFor(std::string const& ending, TriangleMesh const& mesh, Corvid::RuntimeServices const& services)
{
    Attributes kept;
    PlyNames names;
    for (Attribute const& attribute : mesh.attributes) {
        std::string why;
        if (ending == "stl")
            why = "an .stl file holds triangles only";
        else if (ending == "obj" && !isColor(attribute))
            why = "an .obj file holds no values but colours";
        else if (ending == "ply" && !names.take(attribute))
            why = "its name cannot stand in a .ply file, or stands there already";
        else if (ending == "glb" && !std::all_of(attribute.values.begin(), attribute.values.end(), [](float v) { return std::isfinite(v); }))
            why = "it has values that are not finite, which a .glb file must not hold";
        else
            kept.push_back(&attribute);
        if (!why.empty()) services.message(Severity::kWarning, "attribute '" + attribute.name + "' is left out: " + why);
    }
    return kept;
}

void checkTriangles(TriangleMesh const& mesh)
{
    for (int3 const& t : mesh.triangles)
        for (int corner = 0; corner < 3; ++corner)
            if (t[corner] < 0 || std::size_t(t[corner]) >= mesh.vertices.size())
                throw InputError("the mesh has a triangle with a vertex that is not there");
}

}  // namespace

void writeMesh(std::string const& path, TriangleMesh const& mesh, Corvid::RuntimeServices const& services)
{
    const std::string ending = endingOf(path);
    try {
        const std::vector<std::string> endings = endingsThat(&FileFormat::writesMeshes);
        if (std::find(endings.begin(), endings.end(), "." + ending) == endings.end())
            throw InputError("meshes are written as " + endingsText(&FileFormat::writesMeshes));
        if (ending == "stl" || ending == "glb" || !mesh.attributeCorners.empty()) checkTriangles(mesh);
        checkAttributes(mesh);
    } catch (InputError const& error) {
        throw InputError("cannot write '" + path + "': " + error.what());
    }
    const bool part = ending != "stl" && !mesh.attributes.empty() && !mesh.attributeCorners.empty();
    TriangleMesh separate;
    if (part) separate = parted(mesh);
    TriangleMesh const& whole = part ? separate : mesh;
    const Attributes attributes = attributesFor(ending, whole, services);
    writeAtomically(path, [&](std::ostream& out) {
        if (ending == "obj") writeObj(out, whole, attributes.empty() ? nullptr : attributes.front());
        if (ending == "ply") writePly(out, tableOf(whole, attributes), &whole.triangles);
        if (ending == "stl") writeStl(out, whole);
        if (ending == "glb") writeGlb(out, whole, attributes);
    });
}

}  // namespace tilegrid::io
