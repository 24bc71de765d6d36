#pragma once
#include "io/polygon_mesh.h"

#include <string_view>

/// The formats of meshes, read from the bytes of a file. Everything that the numbers of a file promise must be there; memory grows
/// with what was read, never by a number that only stands in the file. All throw InputError with what is wrong and where,
/// without the name of the file, and for more than `maxBytes` (0: no limit) would hold.
namespace tilegrid::io {

/// Polygons; colours that stand behind the coordinates of every vertex. Groups, materials, lines and points are passed over.
PolygonMesh objMesh(std::string_view content, std::uint64_t maxBytes);
/// Text or binary. Every triangle has its own vertices.
PolygonMesh stlMesh(std::string_view content, std::uint64_t maxBytes);
/// Text: OFF, and with colours, normals or texture coordinates COFF, NOFF, STOFF and their mixes. Colours of faces are passed over.
PolygonMesh offMesh(std::string_view content, std::uint64_t maxBytes);
/// Faces and triangle strips; colours and real values at the vertices. Normals, texture coordinates and values of faces are passed over.
PolygonMesh plyMesh(std::string_view content, std::uint64_t maxBytes);

}  // namespace tilegrid::io
