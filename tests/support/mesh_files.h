#pragma once
#include "io/error.h"
#include "io/mesh.h"
#include "support/files.h"

#include <cstdint>
#include <string>

namespace tilegrid::test {

/// By the places of corners: the order of vertices is the reader's.
inline bool sameMesh(io::TriangleMesh const& a, io::TriangleMesh const& b)
{
    if (a.triangles.size() != b.triangles.size()) return false;
    for (std::size_t t = 0; t < a.triangles.size(); ++t)
        for (int c = 0; c < 3; ++c)
            if (!(a.vertices[a.triangles[t][c]] == b.vertices[b.triangles[t][c]])) return false;
    return true;
}

/// What reading a mesh from a file with that content says.
inline std::string complaintAbout(TestFolder const& folder, std::string const& name, std::string const& content, std::uint64_t maxBytes = 0)
{
    const std::string path = folder.write(name, content);
    const std::string text = errorOf<io::InputError>([&] { io::readMesh(path, maxBytes, {}); });
    EXPECT_TRUE(contains(text, path)) << "the message does not name the file: " << text;
    return text;
}

}  // namespace tilegrid::test
