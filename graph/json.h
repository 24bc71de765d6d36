#pragma once
#include "graph/graph.h"

#include <cstdint>
#include <string>

namespace tilegrid::graph {

/// The version of the JSON form that is written, and the only one that is read.
inline constexpr int kGraphVersion = 1;

/// Longer texts are no graphs that anybody wrote.
inline constexpr std::uint64_t kMaxGraphBytes = std::uint64_t(16) << 20;

/// {"version": 1, "steps": [{"node": ..., "inputs": [...], "params": {...}, "as": ...}]}. Of a step only `node` must be there.
/// Numbers, lists of numbers and truth values of `params` may also be written as the text that the command line takes.
/// \throws io::InputError if the text is no JSON, and UsageError if it is JSON of another shape
Graph graphFromJson(std::string const& text);

/// The graph as JSON, indented, with a line end. Reading it gives the same graph.
/// \throws UsageError if a text in it is not UTF-8
std::string toJson(Graph const& graph);

}  // namespace tilegrid::graph
