#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace tilegrid::io {

/// Whether a file may be empty.
enum class Emptiness { kRefused, kAllowed };

/// All of a file, or of standard input (io/standard_stream.h), which can be taken once.
/// \param kind      what it is for people, as in "mesh"
/// \param maxBytes  0: no limit
/// \throws InputError for a file that is missing, no regular file, empty (but see `emptiness`), above the limit or not readable
std::string fileContent(std::string const& path, std::string const& kind, std::uint64_t maxBytes, Emptiness emptiness = Emptiness::kRefused);

/// The first `count` bytes, or all if there are fewer. What is taken from standard input comes again in `fileContent`.
/// \throws InputError as `fileContent` does
std::string fileHead(std::string const& path, std::string const& kind, std::size_t count);

/// All of a text that may also come through a pipe; `-` is standard input.
/// \throws InputError for what is missing, a folder or a device, above the limit or not readable
std::string textContent(std::string const& path, std::uint64_t maxBytes);

}  // namespace tilegrid::io
