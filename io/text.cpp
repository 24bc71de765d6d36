#include "io/text.h"

#include <array>
#include <cstdio>

namespace tilegrid::io {

std::string number(double value)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.6g", value);
    return text.data();
}

std::string byteText(double bytes)
{
    constexpr std::array<char const*, 7> kUnits{"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    for (; bytes >= 1024.0 && unit + 1 < kUnits.size(); ++unit) bytes /= 1024.0;
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.*f %s", unit == 0 || bytes >= 100.0 ? 0 : 1, bytes, kUnits[unit]);
    return text.data();
}

std::string endingOf(std::string const& path)
{
    const std::size_t slash = path.find_last_of('/'), dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ending = path.substr(dot + 1);
    for (char& c : ending)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return ending;
}

}  // namespace tilegrid::io
