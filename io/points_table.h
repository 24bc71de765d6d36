#pragma once
#include "io/points.h"

#include <string_view>

/// The two forms of files in which points are tables. All throw InputError without the name of the file.
namespace tilegrid::io {

/// \param maxBytes  0: no limit for what the table takes
PointTable tableFromCsv(std::string_view content, std::uint64_t maxBytes);
PointTable tableFromPly(std::string_view content, std::uint64_t maxBytes);

/// Floats in as few digits as lead back to them; a first row of names.
std::string csvOf(PointTable const& table);
/// Little-endian floats.
std::string plyOf(PointTable const& table);

}  // namespace tilegrid::io
