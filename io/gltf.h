#pragma once
#include "TilegridOps/host/runtime.h"
#include "io/mesh.h"
#include "io/polygon_mesh.h"

#include <iosfwd>
#include <string_view>

namespace tilegrid::io {

/// Reads glTF 2.0, text or binary: the triangles of the scene, each mesh placed by its nodes, joined into one. Axes and units stay
/// (y up, metres). COLOR_0 is the attribute `color` (and `alpha`, where one is not 1); attributes _NAME of one or three numbers
/// are NAME; vertices that lack what others have get 0, or white. Skins and morph targets stay in their base shape.
/// \param path  of the file; its buffers may lie in that folder and below, nowhere else
/// \throws InputError without the name of the file: for what is not there, loops of nodes, compression and other required
///         extensions, by name; above `maxBytes` (0: no limit)
PolygonMesh gltfMesh(std::string_view content, std::string const& path, std::uint64_t maxBytes, Corvid::RuntimeServices const& services);

/// Writes the binary form of glTF 2.0 (.glb): one mesh with its normals, colours as COLOR_0 (linear floats), other attributes as
/// _NAME.
/// \throws InputError for more than the 4 GiB that the form can count
void writeGlb(std::ostream& out, TriangleMesh const& mesh, std::vector<Attribute const*> const& attributes);

}  // namespace tilegrid::io
