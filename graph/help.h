#pragma once
#include "graph/node.h"

/// What the registry says, for people and for programs.
namespace tilegrid::graph {

/// How an input is shown where its place among the words is shown: "[volume]", "[volume...]" if it is repeated.
std::string inputWord(InputInfo const& input);
/// One line for each node.
std::string nodeList();
/// Use, inputs and parameters of a node.
std::string nodeHelp(NodeInfo const& node);
/// [{"name", "help", "inputs": [{"name", "help", "several", "repeated"}], "parameters": [{"name", "type", "help", ...}], "has_result"}]
/// of these nodes, with a line end.
std::string nodesToJson(std::vector<NodeInfo> const& nodes);

}  // namespace tilegrid::graph
