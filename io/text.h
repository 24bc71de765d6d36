#pragma once
#include <string>

namespace tilegrid::io {

/// A number as people read it: six digits at most.
std::string number(double value);
/// "3.5 MiB" and the like.
std::string byteText(double bytes);
/// The ending of a file name, in small letters and without the dot; empty if there is none.
std::string endingOf(std::string const& path);

}  // namespace tilegrid::io
