#include "graph/suggest.h"

#include <algorithm>
#include <cctype>

namespace tilegrid::graph {

namespace {

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return result;
}

/// Insertions, deletions, replacements and swaps of neighbours that lead from one word to the other.
std::size_t typingErrors(std::string const& a, std::string const& b)
{
    std::vector<std::size_t> twoBack, back(b.size() + 1), row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        twoBack = back;
        back = row;
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            row[j] = std::min({back[j] + 1, row[j - 1] + 1, back[j - 1] + (a[i - 1] != b[j - 1])});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) row[j] = std::min(row[j], twoBack[j - 2] + 1);
        }
    }
    return row[b.size()];
}

// Words longer than any name are not compared: the work is the product of the lengths.
constexpr std::size_t kLongestWord = 100;

}  // namespace

std::string nearestName(std::string_view word, std::vector<std::string> const& candidates)
{
    if (word.empty() || word.size() > kLongestWord) return {};
    const std::string wanted = lower(word);
    // A third of the letters may be wrong; in a short word one, so that a single letter is near to nothing but its swap of case.
    std::size_t best = std::max<std::size_t>(wanted.size() / 3, wanted.size() > 1 ? 1 : 0) + 1;
    std::string result;
    for (std::string const& candidate : candidates) {
        const std::size_t errors = typingErrors(wanted, lower(candidate));
        if (errors < best && errors < candidate.size()) {
            best = errors;
            result = candidate;
        }
    }
    if (!result.empty()) return result;

    const auto contains = [&](std::string const& candidate) { return lower(candidate).find(wanted) != std::string::npos; };
    if (wanted.size() >= 3 && std::count_if(candidates.begin(), candidates.end(), contains) == 1)
        return *std::find_if(candidates.begin(), candidates.end(), contains);
    return {};
}

std::string suggestion(std::string_view word, std::vector<std::string> const& candidates)
{
    const std::string name = nearestName(word, candidates);
    return name.empty() ? std::string() : " Did you mean '" + name + "'?";
}

std::string listed(std::vector<std::string> const& names)
{
    std::string text;
    for (std::string const& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

}  // namespace tilegrid::graph
