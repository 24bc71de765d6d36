#pragma once
#include "TilegridOps/substrate/byte_text.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace tilegrid::io {

/// A number as people read it: six digits at most.
std::string number(double value);
using tilegrid::byteText;
/// The ending of a file name, in small letters and without the dot; empty if there is none.
std::string endingOf(std::string const& path);

/// Text that no terminal takes for a command, as UTF-8. Control characters, but not line ends and tabs, and characters that turn the
/// direction of writing become \uXXXX with four hexadecimal digits, as in JSON, so that JSON stays JSON and means the same; a byte
/// that is no UTF-8 becomes U+FFFD, the replacement character.
/// \par Source  Unicode Standard, chapter 3.9 (well-formed UTF-8) and 23.2 (layout controls); ECMA-48 for C0 and C1
std::string printable(std::string_view text);
/// The same in one line: line ends and tabs are escaped too. For a name within a line.
std::string printableName(std::string_view name);
/// How many bytes at the end begin a character without ending it: 0 to 3.
std::size_t incompleteTail(std::string_view text);

}  // namespace tilegrid::io
