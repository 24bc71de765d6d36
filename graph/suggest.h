#pragma once
#include <string>
#include <string_view>
#include <vector>

namespace tilegrid::graph {

/// The candidate that `word` most probably means: the one with the fewest typing errors, else the only one that contains
/// it. Empty if none is near. Ties go to the earlier candidate.
std::string nearestName(std::string_view word, std::vector<std::string> const& candidates);

/// " Did you mean 'NAME'?", or nothing if no candidate is near.
std::string suggestion(std::string_view word, std::vector<std::string> const& candidates);

/// "a, b, c".
std::string listed(std::vector<std::string> const& names);

}  // namespace tilegrid::graph
