#pragma once
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/attributes.h"

#include <cstdint>
#include <iosfwd>
#include <string_view>

/// The two forms of files in which points, and the vertices of meshes, are tables. All throw InputError without the name of the file.
namespace tilegrid::io {

Corvid::Ptr<Ostara::Object> pointsOf(AttributeTable const& table);
AttributeTable tableOf(Ostara::Object const& points, Corvid::RuntimeServices const& services);

/// \param maxBytes  0: no limit for what the table takes
AttributeTable tableFromCsv(std::string_view content, std::uint64_t maxBytes);
AttributeTable tableFromPly(std::string_view content, std::uint64_t maxBytes);

/// Floats in as few digits as lead back to them; a first row of names.
std::string csvOf(AttributeTable const& table);
/// Binary, little-endian: floats; colours, and the opacity beside them, as bytes.
std::string plyOf(AttributeTable const& table);
/// The same into a stream, with triangles unless null.
void writePly(std::ostream& out, AttributeTable const& vertices, std::vector<Ostara::Math::int3> const* triangles);

}  // namespace tilegrid::io
