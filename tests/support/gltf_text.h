#pragma once
#include "io/mesh.h"
#include "support/files.h"

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

namespace tilegrid::test {

/// A glTF document in parts, so that tests can spoil each of them. The elements of arrays are JSON without the brackets.
struct GltfText {
    std::string version = "2.0", uri, views, accessors, meshes, nodes, scenes, extras, bytes;
    /// Of the buffer, as the text says it; 0: as it is.
    std::uint64_t byteLength = 0;

    template <class T> void append(std::initializer_list<T> values)
    {
        for (T value : values) bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
    }
    /// Positions as accessor 0, indices as accessor 1, mesh 0. The first that is added.
    void addMesh(io::TriangleMesh const& mesh)
    {
        const std::size_t positions = 12 * mesh.vertices.size(), indices = 12 * mesh.triangles.size();
        bytes.append(reinterpret_cast<char const*>(mesh.vertices.data()), positions);
        bytes.append(reinterpret_cast<char const*>(mesh.triangles.data()), indices);
        const auto number = [](std::size_t value) { return std::to_string(value); };
        views = R"({"buffer":0,"byteLength":)" + number(positions) + R"(},{"buffer":0,"byteOffset":)" + number(positions) + R"(,"byteLength":)" + number(indices) + "}";
        accessors = R"({"bufferView":0,"componentType":5126,"count":)" + number(mesh.vertices.size())
                    + R"(,"type":"VEC3"},{"bufferView":1,"componentType":5125,"count":)" + number(3 * mesh.triangles.size()) + R"(,"type":"SCALAR"})";
        meshes = R"({"primitives":[{"attributes":{"POSITION":0},"indices":1}]})";
    }
    /// NAME.gltf, and NAME.bin unless the buffer is in the text.
    void write(TestFolder const& folder, std::string const& name, bool embedded = false) const
    {
        if (!embedded) folder.write(name + ".bin", bytes);
        const std::string place = embedded ? "data:application/octet-stream;base64," + base64() : uri.empty() ? name + ".bin" : uri;
        folder.write(name + ".gltf", R"({"asset":{"version":")" + version + R"("},"buffers":[{"uri":")" + place + R"(","byteLength":)"
                                         + std::to_string(byteLength ? byteLength : bytes.size()) + R"(}],"bufferViews":[)" + views + R"(],"accessors":[)" + accessors
                                         + R"(],"meshes":[)" + meshes + R"(],"nodes":[)" + nodes + R"(],"scenes":[)" + scenes + "]" + extras + "}");
    }

private:
    std::string base64() const
    {
        constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string text;
        for (std::size_t n = 0; n < bytes.size(); n += 3) {
            std::uint32_t bits = 0;
            for (std::size_t k = 0; k < 3; ++k) bits = bits << 8 | (n + k < bytes.size() ? static_cast<unsigned char>(bytes[n + k]) : 0u);
            for (std::size_t k = 0; k < 4; ++k) text += n + k <= bytes.size() ? kDigits[bits >> (18 - 6 * k) & 63u] : '=';
        }
        return text;
    }
};

}  // namespace tilegrid::test
