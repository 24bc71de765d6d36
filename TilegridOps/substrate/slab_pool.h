#pragma once
#include "TilegridOps/host/export.h"

#include <cstddef>

namespace tilegrid {

/// Keeps the pages of freed slabs for the next ones, so that large temporaries cost neither system calls nor page faults.
/// Off until it is switched on, then on for the process. Safe from any thread.
class TILEGRID_API SlabPool {
public:
    static void enable();
    static bool enabled();
    /// Bytes of freed slabs that it holds.
    static std::size_t heldBytes();

    /// A mapping of at least `bytes`, whose true size is written back; contents are arbitrary. Throws std::bad_alloc.
    static void* acquire(std::size_t& bytes);
    /// Grows a mapping, keeping its content.
    static void* grow(void* block, std::size_t bytes, std::size_t& grownBytes);
    /// Takes a mapping back, with the size that `acquire` or `grow` gave.
    static void release(void* block, std::size_t bytes);
};

}  // namespace tilegrid
