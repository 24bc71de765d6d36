#pragma once
#include "io/error.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tilegrid::io {

inline bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

/// Without blanks at both ends.
inline std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

/// What stands between the commas of a row, trimmed.
inline std::vector<std::string_view> cellsOf(std::string_view row)
{
    std::vector<std::string_view> cells;
    while (true) {
        const std::size_t end = row.find(',');
        cells.push_back(trimmed(row.substr(0, end)));
        if (end == std::string_view::npos) return cells;
        row.remove_prefix(end + 1);
    }
}

/// Takes the first line off `text`, without its end.
inline std::string_view takeLine(std::string_view& text)
{
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

/// Takes the first word off `text`; empty at the end. Blanks part words, and line ends where `overLines` is set.
inline std::string_view takeWord(std::string_view& text, bool overLines = false)
{
    const auto parts = [overLines](char c) { return isBlank(c) || (overLines && c == '\n'); };
    std::size_t begin = 0;
    while (begin < text.size() && parts(text[begin])) ++begin;
    std::size_t end = begin;
    while (end < text.size() && !parts(text[end])) ++end;
    const std::string_view word = text.substr(begin, end - begin);
    text.remove_prefix(end);
    return word;
}

/// A word in quotes for a message, cut where it is long.
inline std::string quoted(std::string_view word)
{
    constexpr std::size_t kLongest = 40;
    std::string text(1, '\'');
    text.append(word.substr(0, kLongest));
    text += '\'';
    return text;
}

/// The number that the whole word spells, whatever the locale; nothing if it spells none.
inline std::optional<double> realFrom(std::string_view word)
{
    if (!word.empty() && word.front() == '+') word.remove_prefix(1);
    double value = 0.0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error == std::errc::result_out_of_range && end == word.data() + word.size())
        return word.find("e-") != word.npos || word.find("E-") != word.npos ? 0.0
                                                                            : std::numeric_limits<double>::infinity();
    if (error != std::errc() || end != word.data() + word.size() || word.empty()) return {};
    return value;
}

inline std::optional<std::int64_t> integerFrom(std::string_view word)
{
    if (!word.empty() && word.front() == '+') word.remove_prefix(1);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size() || word.empty()) return {};
    return value;
}

/// Whether a coordinate survives as a float.
inline bool isFiniteFloat(double value)
{
    return std::isfinite(value) && std::abs(value) <= double(std::numeric_limits<float>::max());
}

[[noreturn]] inline void failAt(std::uint64_t line, std::string const& what)
{
    throw InputError("line " + std::to_string(line) + ": " + what);
}

/// Takes three coordinates off the words of a line. \throws InputError for what is no finite float
inline void takeCoordinates(std::string_view& words, std::uint64_t line, double (&place)[3])
{
    for (double& coordinate : place) {
        const std::string_view word = takeWord(words);
        if (word.empty()) failAt(line, "a vertex with fewer than three coordinates; the file may be cut off");
        const auto value = realFrom(word);
        if (!value) failAt(line, quoted(word) + " is no number");
        if (!isFiniteFloat(*value))
            failAt(line, "the coordinate " + std::string(word.substr(0, 40)) + " is not a finite number");
        coordinate = *value;
    }
}

}  // namespace tilegrid::io
