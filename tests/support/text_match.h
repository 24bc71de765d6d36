#pragma once
#include <regex.h>

#include <stdexcept>
#include <string>

namespace tilegrid::test {

/// Whether the whole text matches the extended regular expression.
inline bool matches(std::string const& text, std::string const& pattern)
{
    regex_t compiled;
    if (regcomp(&compiled, ("^(" + pattern + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
        throw std::invalid_argument(pattern);
    const bool result = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&compiled);
    return result;
}

}  // namespace tilegrid::test
