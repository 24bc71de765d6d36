#include "benchmarks/support/bench.h"
#include "benchmarks/support/loads.h"

#include <fstream>
#include <unistd.h>

/// Bytes in use per active voxel of the peer's band: tiles, child tables, lookup and the values of one float channel, of the
/// finest depth alone or of all depths, against the peer's own count for its grid. The growth of the resident set beside it.

namespace {

using namespace bench;

double residentBytes()
{
    std::ifstream status("/proc/self/statm");
    double pages = 0, resident = 0;
    status >> pages >> resident;
    return resident * double(sysconf(_SC_PAGESIZE));
}

template <class Tr> void addAll(std::string const& structure, Load const& load)
{
    const double active = double(load.peer->activeCount());
    for (int minDepth : {0, Tr::maxDepth}) {
        const double before = residentBytes();
        const auto tree = treeOf<Tr>(load);
        tree->lookup();
        const auto values = sphereChannel(*tree, SphereField{100.0f}, minDepth);
        std::size_t used = 0, reserved = 0;
        tree->memUse(used, reserved, /*withLookup*/ true);
        values->memUse(used, reserved, /*withLookup*/ true);
        const std::string name = std::string("bytes_per_active_voxel/") + structure + "/" + load.name + (minDepth ? "/finest" : "/all depths");
        figure(name, "ours", double(used) / active, "bytes");
        figure(name, "resident growth", (residentBytes() - before) / active, "bytes");
        figure(name, "peer", double(load.peer->memoryBytes()) / active, "bytes");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    for (Load const& load : loads(/*withBunny*/ true)) {
        addAll<BinaryTraits>("binary", load);
        addAll<QuinaryTraits>("quinary", load);
    }
    return runAll(argc, argv, "memory");
}
