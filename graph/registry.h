#pragma once
#include "graph/node.h"

namespace tilegrid::graph {

/// Every node, in the order in which help shows them.
std::vector<NodeInfo> const& nodes();
/// Null if there is none of that name.
NodeInfo const* findNode(std::string_view name);
std::vector<std::string> nodeNames();
/// The groups of nodes, in the order in which help shows them.
std::vector<std::string> const& nodeGroups();

}  // namespace tilegrid::graph
