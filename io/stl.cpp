#include "io/error.h"
#include "io/mesh_readers.h"
#include "io/stl.h"
#include "io/text_scan.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <ostream>

namespace tilegrid::io {

using Ostara::Math::double3;
using Ostara::Math::float3;
using Ostara::Math::int3;

namespace {

static_assert(std::endian::native == std::endian::little, "numbers are copied as they lie in the file");

/// A binary file: 80 bytes for people, the number of triangles, and for each its normal, three corners and two unused bytes.
constexpr std::size_t kRemark = 80, kHeader = 84, kTriangle = 50, kNormal = 12;

PolygonMesh binaryMesh(std::string_view content, std::uint32_t triangles, std::uint64_t maxBytes)
{
    PolygonBuilder builder(maxBytes);
    for (std::uint32_t n = 0; n < triangles; ++n) {
        float v[9];
        std::memcpy(v, content.data() + kHeader + n * kTriangle + kNormal, sizeof v);
        const auto first = static_cast<std::int64_t>(builder.vertexCount());
        for (int corner = 0; corner < 9; corner += 3)
            if (!builder.addVertex(v[corner], v[corner + 1], v[corner + 2]))
                throw InputError("triangle " + std::to_string(n + 1) + " has a coordinate that is not a finite number");
        builder.addTriangle(first, first + 1, first + 2);
    }
    return builder.take();
}

PolygonMesh textMesh(std::string_view content, std::uint64_t maxBytes)
{
    PolygonBuilder builder(maxBytes);
    bool ended = false;
    for (std::uint64_t line = 1; !content.empty(); ++line) {
        std::string_view words = takeLine(content);
        const std::string_view key = takeWord(words);
        if (key == "vertex") {
            double place[3];
            takeCoordinates(words, line, place);
            builder.addVertex(place[0], place[1], place[2]);
            const auto count = static_cast<std::int64_t>(builder.vertexCount());
            if (count % 3 == 0) builder.addTriangle(count - 3, count - 2, count - 1);
        }
        if (!key.empty()) ended = key == "endsolid";
    }
    if (!ended) throw InputError("the text ends before 'endsolid'; the file is cut off");
    if (builder.vertexCount() % 3 != 0) throw InputError("a facet with fewer than three vertices");
    return builder.take();
}

void append(std::string& bytes, float3 const& v)
{
    for (int axis = 0; axis < 3; ++axis) {
        char raw[sizeof(float)];
        const float value = v[axis];
        std::memcpy(raw, &value, sizeof value);
        bytes.append(raw, sizeof value);
    }
}

/// Zero for a triangle without area.
float3 normalOf(float3 const& a, float3 const& b, float3 const& c)
{
    const double3 n = cross(double3(b) - double3(a), double3(c) - double3(a));
    const double size = length(n);
    return size > 0.0 ? float3((1.0 / size) * n) : float3();
}

}  // namespace

PolygonMesh stlMesh(std::string_view content, std::uint64_t maxBytes)
{
    // Programs also write binary files that begin with "solid", so the count that fits the size decides first.
    const bool solid = content.substr(0, 5) == "solid";
    if (content.size() >= kHeader) {
        std::uint32_t triangles = 0;
        std::memcpy(&triangles, content.data() + kRemark, sizeof triangles);
        const std::uint64_t needed = kHeader + std::uint64_t(triangles) * kTriangle;
        if (needed == content.size() || (!solid && needed < content.size()))
            return binaryMesh(content, triangles, maxBytes);
        if (!solid)
            throw InputError("its header counts " + std::to_string(triangles) + " triangles, which take "
                             + std::to_string(needed) + " bytes; the file has " + std::to_string(content.size())
                             + ": cut off, or no STL file");
    }
    if (!solid) throw InputError("neither the text form (it begins with 'solid') nor the binary form of STL");
    return textMesh(content, maxBytes);
}

void writeStl(std::ostream& out, TriangleMesh const& mesh)
{
    if (mesh.triangles.size() > UINT32_MAX) throw InputError("more triangles than an .stl file can count");
    std::string bytes = "TilegridOps, binary STL";  // not "solid": readers would look for text
    bytes.resize(kRemark, ' ');
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(mesh.triangles.size() >> shift & 255u);
    out << bytes;
    for (int3 const& t : mesh.triangles) {
        float3 const &a = mesh.vertices[t.x], &b = mesh.vertices[t.y], &c = mesh.vertices[t.z];
        bytes.clear();
        for (float3 const& v : {normalOf(a, b, c), a, b, c}) append(bytes, v);
        out << bytes.append(2, '\0');
    }
}

}  // namespace tilegrid::io
