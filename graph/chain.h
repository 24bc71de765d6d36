#pragma once
#include "graph/graph.h"

#include <functional>

namespace tilegrid::graph {

/// Words between steps of a chain.
inline constexpr char kStepEnd[] = "!";
inline constexpr char kStepEndWord[] = "then";
/// The word behind which none is a flag.
inline constexpr char kFlagsEnd[] = "--";

/// Makes a graph of the words of a command line.
///
///     NODE [INPUT...] [POSITIONAL...] [key=value...] [--flag...] [as=NAME]   separated by `!` or `then`
///
/// - Words without `=` go to the inputs first, then to the positional parameters. If there are just enough of them for the
///   positional parameters, the inputs are left to the last result.
/// - An input that names no earlier result, but a file (it exists, or has a dot or slash), puts a `read` step before this
///   one, which also gets those parameters that only `read` has.
/// - `--flag` is `flag=true`. After a word `--`, no word is a flag.
///
/// What needs no knowledge of words is left to the check of the graph: unknown nodes, results and parameters stay as written.
/// \param exists  whether there is a file of that name
/// \throws UsageError for words that cannot be placed, with every problem
Graph parseChain(std::vector<std::string> const& words, std::function<bool(std::string const&)> const& exists);

}  // namespace tilegrid::graph
