#pragma once
#include "graph/node.h"

/// The families of nodes that the registry joins; each stands in a source of its own.
namespace tilegrid::graph {

std::vector<NodeInfo> fileNodes();
std::vector<NodeInfo> reportNodes();
std::vector<NodeInfo> queryNodes();
std::vector<NodeInfo> constructionNodes();
std::vector<NodeInfo> propertyNodes();
std::vector<NodeInfo> gradingNodes();
std::vector<NodeInfo> mergeNodes();

/// Names of the properties of a volume, in the order of their texts.
std::vector<std::string> propertyNames(Ostara::Object const& volume);
/// \throws io::InputError if the volume has no property of that name; says which it has
void requireProperty(io::NamedVolume const& volume, std::string const& property);

/// Gives volumes whose name an earlier one has the ends .2, .3, ..., so that each can be named.
void makeNamesDistinct(Result& volumes);

/// The parameter by which nodes that report choose their form.
ParameterInfo jsonParameter();

}  // namespace tilegrid::graph
