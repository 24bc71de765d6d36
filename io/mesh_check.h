#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace tilegrid::io {

/// What a mesh file says it holds, after a look that allocates nothing by its numbers.
struct MeshCounts {
    std::uint64_t vertices = 0;
    /// Faces of three and more corners.
    std::uint64_t faces = 0;
    /// Triangles that they make.
    std::uint64_t triangles = 0;
};

/// Walks the content of a file: everything that its numbers promise must be there. OBJ and text forms: coordinates must
/// be finite and indices in range as well; binary forms: the reader of the result looks at those.
/// \param ending  "obj", "ply" or "stl"
/// \throws InputError with what is wrong and where, without the name of the file
MeshCounts checkMeshContent(std::string_view content, std::string const& ending);

MeshCounts checkObj(std::string_view content);
MeshCounts checkPly(std::string_view content);
MeshCounts checkStl(std::string_view content);

}  // namespace tilegrid::io
