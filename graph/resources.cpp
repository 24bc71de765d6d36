#include "graph/resources.h"

#include "io/info.h"

#include <fstream>
#include <string>

namespace tilegrid::graph {

namespace {

template <class T> std::uint64_t bytesOfArray(Ostara::Object const& object, Corvid::String const& name)
{
    auto const* array = object.get<Corvid::Array<T>>(name);
    return array ? sizeof(T) * std::uint64_t(array->size()) : 0;
}

}  // namespace

std::uint64_t bytesOf(Result const& result)
{
    std::uint64_t bytes = 0;
    for (io::NamedVolume const& volume : result) {
        bytes += io::contentBytes(*volume.volume);
        for (auto const& entry : volume.volume->entries())
            bytes += bytesOfArray<float>(*volume.volume, entry.first) + bytesOfArray<Ostara::Math::float3>(*volume.volume, entry.first);
    }
    return bytes;
}

// Both files are described in proc(5) of Linux.
void resetPeakMemory()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

std::uint64_t peakMemory()
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;)
        if (word == "VmHWM:") {
            std::uint64_t kibibytes = 0;
            status >> kibibytes;
            return kibibytes * 1024;
        }
    return 0;
}

}  // namespace tilegrid::graph
