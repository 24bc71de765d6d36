#pragma once
#include "graph/graph.h"

namespace tilegrid::graph {

/// Changes parameters of a graph that is there already.
///
/// `assignment` is `name=value` for every step whose node has a parameter of that name, where it applies, or
/// `STEP.name=value` for one step: STEP is the name of its result, or its number, from 1.
/// \throws UsageError if the assignment is none, or names no step or parameter; says what is near
void applySetting(Graph& graph, std::string const& assignment);

}  // namespace tilegrid::graph
