#pragma once
#include <cstdint>
#include <string>

namespace tilegrid::io {

/// All of a file.
/// \param kind      what it is for people, as in "mesh"
/// \param maxBytes  0: no limit
/// \throws InputError for a file that is missing, no regular file, empty, above the limit or not readable
std::string fileContent(std::string const& path, std::string const& kind, std::uint64_t maxBytes);

}  // namespace tilegrid::io
