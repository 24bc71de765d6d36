#include "io/text.h"

#include <array>
#include <cstdio>

namespace tilegrid::io {

namespace {

/// Bytes of a character by its first one; 0 for a byte that begins none.
std::size_t lengthBy(unsigned char first)
{
    if (first < 0x80) return 1;
    if (first < 0xc2) return 0;  // inside a character, or the longer form of a shorter one
    if (first < 0xe0) return 2;
    if (first < 0xf0) return 3;
    return first < 0xf5 ? 4 : 0;
}

bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

struct Character {
    /// Bytes that it takes; 1 for a byte that is no UTF-8.
    std::size_t length = 1;
    char32_t code = 0;
    bool valid = false;
};

Character firstCharacter(std::string_view text)
{
    constexpr std::array<char32_t, 5> kLeast{0, 0, 0x80, 0x800, 0x10000};
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = lengthBy(first);
    if (length == 0 || length > text.size()) return {};
    char32_t code = length == 1 ? first : first & (0x7fu >> length);
    for (std::size_t n = 1; n < length; ++n) {
        if (!isContinuation(text[n])) return {};
        code = code << 6 | (static_cast<unsigned char>(text[n]) & 0x3fu);
    }
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    if (code < kLeast[length] || code > 0x10ffff || surrogate) return {};
    return {length, code, true};
}

bool commandsATerminal(char32_t code)
{
    const auto within = [code](char32_t low, char32_t high) { return code >= low && code <= high; };
    const bool control = code < 0x20 || within(0x7f, 0x9f);
    const bool direction = code == 0x61c || within(0x200e, 0x200f) || within(0x2028, 0x202e) || within(0x2066, 0x2069);
    return control || direction;
}

std::string escaped(std::string_view text, bool keepLines)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const Character c = firstCharacter(text);
        const bool layout = c.code == U'\n' || c.code == U'\t';
        if (!c.valid) {
            result += "\xef\xbf\xbd";
        } else if (commandsATerminal(c.code) && !(layout && keepLines)) {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned>(c.code));
            result += code.data();
        } else {
            result += text.substr(0, c.length);
        }
        text.remove_prefix(c.length);
    }
    return result;
}

}  // namespace

std::string number(double value)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.6g", value);
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

std::string printable(std::string_view text)
{
    return escaped(text, /*keepLines*/ true);
}

std::string printableName(std::string_view name)
{
    return escaped(name, /*keepLines*/ false);
}

std::size_t incompleteTail(std::string_view text)
{
    std::size_t tail = 1;
    while (tail < 4 && tail <= text.size() && isContinuation(text[text.size() - tail])) ++tail;
    if (tail > 3 || tail > text.size()) return 0;
    return lengthBy(static_cast<unsigned char>(text[text.size() - tail])) > tail ? tail : 0;
}

}  // namespace tilegrid::io
