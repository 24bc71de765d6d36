#include "support/paths.h"

namespace tilegrid::test {

std::string sourceFolder()
{
    return TILEGRID_SOURCE_DIR;
}

std::string exampleFile(std::string const& name)
{
    return sourceFolder() + "/examples/data/" + name;
}

}  // namespace tilegrid::test
