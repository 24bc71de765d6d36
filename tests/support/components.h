#pragma once
#include "support/volumes.h"

#include <map>

namespace tilegrid::test {

/// The components of the native volume of an object, by name, with their addresses.
inline std::map<std::string, void const*> componentsOf(HostPtr const& host)
{
    std::map<std::string, void const*> all;
    if (host && host->native())
        for (Corvid::String const& name : host->native()->componentRange())
            all[name.str()] = host->native()->component<OST::Component>(name).get();
    return all;
}

}  // namespace tilegrid::test
