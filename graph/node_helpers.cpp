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

void makeNamesDistinct(Result& volumes)
{
    // Names that a file gives are never changed to make room for one made here.
    std::vector<std::string> given, used;
    for (io::NamedVolume const& volume : volumes) given.push_back(volume.name);
    for (io::NamedVolume& volume : volumes) {
        std::string name = volume.name;
        for (int n = 2; contains(used, name) || (n > 2 && contains(given, name)); ++n) name = volume.name + "." + std::to_string(n);
        used.push_back(name);
        volume.name = std::move(name);
    }
}

ParameterInfo jsonParameter()
{
    return {.name = "json", .type = ParameterType::kBool, .help = "one JSON document in one line instead of text", .defaultText = "false"};
}

}  // namespace tilegrid::graph
