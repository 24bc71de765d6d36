#include "io/atomic_file.h"
#include "io/error.h"
#include "io/mesh.h"
#include "io/text.h"

#include <bit>
#include <charconv>
#include <ostream>

namespace tilegrid::io {

namespace {

/// The shortest text that reads back as the same float.
void appendFloat(std::string& text, float value)
{
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
    text.append(buffer, end);
}

void writeObj(std::ostream& out, TriangleMesh const& mesh)
{
    std::string line;
    for (auto const& v : mesh.vertices) {
        line.assign(1, 'v');
        for (int axis = 0; axis < 3; ++axis) appendFloat(line += ' ', v[axis]);
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

void appendBytes(std::string& bytes, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift & 255u);
}

void writePly(std::ostream& out, TriangleMesh const& mesh)
{
    const bool normals = mesh.hasNormals();
    out << "ply\nformat binary_little_endian 1.0\nelement vertex " << mesh.vertices.size()
        << "\nproperty float x\nproperty float y\nproperty float z\n"
        << (normals ? "property float nx\nproperty float ny\nproperty float nz\n" : "") << "element face " << mesh.triangles.size()
        << "\nproperty list uchar int vertex_indices\nend_header\n";
    std::string bytes;
    for (std::size_t n = 0; n < mesh.vertices.size(); ++n) {
        bytes.clear();
        for (int axis = 0; axis < 3; ++axis) appendBytes(bytes, std::bit_cast<std::uint32_t>(mesh.vertices[n][axis]));
        for (int axis = 0; normals && axis < 3; ++axis) appendBytes(bytes, std::bit_cast<std::uint32_t>(mesh.normals[n][axis]));
        out << bytes;
    }
    for (auto const& t : mesh.triangles) {
        bytes.assign(1, '\3');
        for (int corner = 0; corner < 3; ++corner) appendBytes(bytes, static_cast<std::uint32_t>(t[corner]));
        out << bytes;
    }
}

}  // namespace

void writeMesh(std::string const& path, TriangleMesh const& mesh)
{
    const std::string ending = endingOf(path);
    if (ending != "obj" && ending != "ply")
        throw InputError("cannot write '" + path + "': meshes are written as .ply or .obj");
    writeAtomically(path, [&](std::ostream& out) { ending == "obj" ? writeObj(out, mesh) : writePly(out, mesh); });
}

}  // namespace tilegrid::io
