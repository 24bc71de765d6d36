#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/channel_core.h"
#include "graph/node_families.h"
#include "graph/suggest.h"
#include "io/error.h"

namespace tilegrid::graph {

std::vector<std::string> propertyNames(Ostara::Object const& volume)
{
    std::vector<std::string> names;
    if (!volume.native()) return names;
    for (Corvid::String const& name : volume.native()->componentRange())
        if (volume.native()->hasComponentFromName<OST::TileTree3D::ChannelBase>(name)) names.push_back(name.str());
    return names;
}

void requireProperty(io::NamedVolume const& volume, std::string const& property)
{
    const std::vector<std::string> names = propertyNames(*volume.volume);
    if (contains(names, property)) return;
    throw io::InputError("the volume has no property '" + property + "'." + suggestion(property, names) +
                         (names.empty() ? " It has none." : " It has " + listed(names) + "."));
}

ParameterInfo jsonParameter()
{
    return {.name = "json", .type = ParameterType::kBool, .help = "one JSON document in one line instead of text", .defaultText = "false"};
}

}  // namespace tilegrid::graph
