#include "TilegridOps/substrate/byte_text.h"

#include <array>
#include <cstdio>

namespace tilegrid {

std::string byteText(double bytes)
{
    constexpr std::array<char const*, 7> kUnits{"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    for (; bytes >= 1024.0 && unit + 1 < kUnits.size(); ++unit) bytes /= 1024.0;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.*f %s", unit == 0 || bytes >= 100.0 ? 0 : 1, bytes, kUnits[unit]);
    return text.data();
}

}  // namespace tilegrid
