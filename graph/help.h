#pragma once
#include "graph/node.h"

/// What the registry says, for people and for programs.
namespace tilegrid::graph {

/// How an input is shown where its place among the words is shown: "[volume]", "[volume...]" if it is repeated.
std::string inputWord(InputInfo const& input);
/// The nodes by groups, a line or more for each. \param group  only this one; empty: all
std::string nodeList(std::string const& group = "");
/// How a node is written: name, inputs, parameters.
std::string useLine(NodeInfo const& node);
/// What a value may be: type or choices, unit, range, default.
std::string detailOf(ParameterInfo const& parameter);
/// Use, inputs and parameters of a node.
std::string nodeHelp(NodeInfo const& node);
/// [{"name", "group", "help", "inputs": [{"name", "help", "several", "repeated"}], "parameters": [{"name", "type", "help", ...}], "has_result"}]
/// of these nodes, with a line end.
std::string nodesToJson(std::vector<NodeInfo> const& nodes);

/// The text with blanks behind it up to the width.
std::string padded(std::string text, std::size_t width);
/// Broken into lines of at most `columns` characters, as far as its words allow; all but the first begin with `indent` blanks.
std::string wrapped(std::string const& text, std::size_t indent, std::size_t columns);

/// The formats of files: what is read from and written to each, and what it holds. One line each.
std::string formatList();

}  // namespace tilegrid::graph
