#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <string>

namespace {

// What the build says of itself arrives as texts from CMake.
void writeVersionLine(std::ostream& out)
{
    const std::string revision = TILEGRID_REVISION;
    out << std::setw(16) << "TilegridOps" << ": " << "Ostara" << " version " << std::atoi(TILEGRID_VERSION_MAJOR) << '.'
        << std::atoi(TILEGRID_VERSION_MINOR) << '.' << std::atoi(TILEGRID_VERSION_PATCH) << '.' << std::atoi(TILEGRID_VERSION_FOURTH) << " ("
        << TILEGRID_BUILD_DATE << ", build " << TILEGRID_BUILD_NUMBER << ", commit " << std::setw(7) << revision.substr(0, 7)
        << ", branch " << TILEGRID_BRANCH << ")" << std::endl;
}

bool dumpVersionAtLoad()
{
    char const* wish = std::getenv("TESSERA_DUMP_VERSION_INFO");
    bool enabled = wish && std::atoi(wish) != 0;
    if (fileno(stderr) < 0) enabled = false;
    if (enabled) {
        const std::ios_base::Init streams;  // this may run before any other use of the streams
        writeVersionLine(std::cerr);
    }
    return enabled;
}

[[maybe_unused]] const bool versionDumped = dumpVersionAtLoad();

}  // namespace
