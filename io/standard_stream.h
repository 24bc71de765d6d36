#pragma once
#include <string>

namespace tilegrid::io {

/// Whether a path names standard input or output instead of a file: `-` and an ending that tells the format, as in `-.ply`.
/// A file of that name is written `./-.ply`.
inline bool isStandardStream(std::string const& path)
{
    return path.starts_with("-.") && path.find('/') == std::string::npos && path.find('.', 2) == std::string::npos;
}

}  // namespace tilegrid::io
