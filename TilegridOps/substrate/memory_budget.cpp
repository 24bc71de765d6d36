#include "TilegridOps/substrate/memory_budget.h"

#include "TilegridOps/substrate/byte_text.h"

#include <unistd.h>

#include <limits>

namespace tilegrid {

namespace {

thread_local std::uint64_t currentLimit = 0;

}  // namespace

std::uint64_t defaultMemoryLimit()
{
    const long pages = sysconf(_SC_PHYS_PAGES), bytes = sysconf(_SC_PAGESIZE);
    return pages > 0 && bytes > 0 ? std::uint64_t(pages) * std::uint64_t(bytes) / 4 * 3 : std::numeric_limits<std::uint64_t>::max();
}

double memoryLimit()
{
    return double(currentLimit > 0 ? currentLimit : defaultMemoryLimit());
}

MemoryLimit::MemoryLimit(std::uint64_t bytes) : previous_(currentLimit)
{
    currentLimit = bytes;
}

MemoryLimit::~MemoryLimit()
{
    currentLimit = previous_;
}

MemoryExceeded::MemoryExceeded(double bytes) : std::runtime_error(kNeedsMoreMemory), bytes_(bytes) {}
MemoryExceeded::~MemoryExceeded() = default;

std::string memoryMessage(MemoryExceeded const& error)
{
    return std::string(error.what()) + " It takes " + byteText(error.bytes()) + " or more; allowed are " + byteText(memoryLimit()) + ".";
}

void checkMemory(double bytes)
{
    if (!(bytes <= memoryLimit())) throw MemoryExceeded(bytes);
}

}  // namespace tilegrid
