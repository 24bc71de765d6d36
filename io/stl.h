#pragma once
#include "io/mesh.h"

#include <iosfwd>

namespace tilegrid::io {

/// Binary, with the normals of the triangles. \throws InputError for more triangles than 32 bits count
void writeStl(std::ostream& out, TriangleMesh const& mesh);

}  // namespace tilegrid::io
