#include "TilegridOps/substrate/channel_services.h"

#include "TilegridOps/substrate/slab_pool.h"

#include <unistd.h>

namespace OST::TileTree3D {

void ChannelPool::enable()
{
    tilegrid::SlabPool::enable();
}

bool ChannelPool::enabled()
{
    return tilegrid::SlabPool::enabled();
}

std::size_t ChannelPool::availablePhysicalMemory()
{
    const long pages = sysconf(_SC_AVPHYS_PAGES), bytes = sysconf(_SC_PAGESIZE);
    return pages > 0 && bytes > 0 ? std::size_t(pages) * std::size_t(bytes) : 0;
}

std::size_t ChannelPool::availableMemory()
{
    return availablePhysicalMemory() + tilegrid::SlabPool::heldBytes();
}

void detail::reportPoolMemory(char const* when)
{
    constexpr float kMegabyte = 1.0f / (1 << 20);
    std::cout << "channelTemporary.availablePhysicalMemory." << when << " = "
              << float(ChannelPool::availablePhysicalMemory()) * kMegabyte << "MB" << std::endl;
    std::cout << "channelTemporary.availablePhysicalAndPoolMemory." << when << " = " << float(ChannelPool::availableMemory()) * kMegabyte
              << "MB" << std::endl;
}

}  // namespace OST::TileTree3D
