#pragma once
#include "graph/node.h"
#include "io/level_set_from_mesh.h"
#include "io/view.h"

#include <optional>

/// The families of nodes that the registry joins; each stands in a source of its own.
namespace tilegrid::graph {

std::vector<NodeInfo> fileNodes();
std::vector<NodeInfo> shapeNodes();
std::vector<NodeInfo> reportNodes();
std::vector<NodeInfo> renderNodes();
std::vector<NodeInfo> queryNodes();
std::vector<NodeInfo> constructionNodes();
std::vector<NodeInfo> propertyNodes();
std::vector<NodeInfo> fogNodes();
std::vector<NodeInfo> gradingNodes();
std::vector<NodeInfo> levelSetNodes();
std::vector<NodeInfo> mergeNodes();
std::vector<NodeInfo> algorithmNodes();

/// Names of the properties of a volume, in the order of their texts.
std::vector<std::string> propertyNames(Ostara::Object const& volume);
/// \throws io::InputError if the volume has no property of that name; says which it has
void requireProperty(io::NamedVolume const& volume, std::string const& property);

/// Gives volumes whose name an earlier one has the ends .2, .3, ..., so that each can be named.
void makeNamesDistinct(Result& volumes);

/// Three numbers. None if the parameter is one without text.
/// \param oneForAll  one number may stand for three alike
/// \throws UsageError if there are as many as do not fit
std::optional<Ostara::Math::double3> vectorOfThree(Arguments const& arguments, std::string const& parameter, bool oneForAll = false);

/// The parameters by which nodes that make a level set say how: voxel or voxels, band, inside, levels.
/// \param onlyFor  as in `ParameterInfo`
std::vector<ParameterInfo> levelSetParameters(std::vector<std::string> const& onlyFor = {});
ParameterInfo structureParameter();
io::Structure structureOf(Arguments const& arguments);
/// What those parameters say. \param longestSide  of what the level set is of, in world units
io::LevelSetOptions levelSetOptions(StepContext const& step, double longestSide);

/// The parameters that pictures share.
ParameterInfo upAxisParameter();
io::UpAxis upAxisOf(Arguments const& arguments);
ParameterInfo legendParameter();

/// The parameter by which nodes that report choose their form.
ParameterInfo jsonParameter();

}  // namespace tilegrid::graph
