#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/substrate/channel_core.h"
#include "TilegridOps/substrate/container.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

/// How much memory the result of a node may take. The frame of a node says how much; a pass that grows a tree gives the tree a
/// budget of tiles, which growth counts down, and refuses before it begins where it can tell.
namespace tilegrid {

/// Three quarters of the machine's memory, in bytes.
TILEGRID_API std::uint64_t defaultMemoryLimit();

/// The bytes that a result may take which the calling thread makes: the innermost `MemoryLimit`'s, or `defaultMemoryLimit()`.
TILEGRID_API double memoryLimit();

/// While it lives, the calling thread makes a result under this limit. Threads that help it do not ask.
class TILEGRID_API MemoryLimit {
public:
    /// \param bytes  0: `defaultMemoryLimit()`
    explicit MemoryLimit(std::uint64_t bytes);
    MemoryLimit(MemoryLimit const&) = delete;
    MemoryLimit& operator=(MemoryLimit const&) = delete;
    ~MemoryLimit();

private:
    std::uint64_t previous_;
};

/// A result would take more memory than it may. The text does not depend on the threads.
class TILEGRID_API MemoryExceeded : public std::runtime_error {
public:
    /// \param bytes  what it would take, or at least takes
    explicit MemoryExceeded(double bytes);
    ~MemoryExceeded() override;
    double bytes() const { return bytes_; }

private:
    double bytes_;
};

/// The error that a user sees: `kNeedsMoreMemory`, what it would take, and `memoryLimit()`.
TILEGRID_API std::string memoryMessage(MemoryExceeded const& error);

/// Throws `MemoryExceeded` if a result of that many bytes is above `memoryLimit()`.
TILEGRID_API void checkMemory(double bytes);

/// Bytes of a tile of the structure with its share of a child table, without values.
template <class Tr> constexpr double tileRecordBytes()
{
    // Along a surface a tile has children in one layer of its cells, so that each has a layer's width of entries for itself.
    return double(sizeof(typename OST::TileTree3D::Container<Tr>::Tile)) + double(Tr::branching * sizeof(OST::int64));
}

/// The same with a value in each voxel of every channel of the object.
template <class Tr> double tileBytes(OST::Object const& object)
{
    double bytes = tileRecordBytes<Tr>();
    for (Corvid::String const& name : object.componentRange())
        if (const auto channel = object.component<OST::TileTree3D::VoxelChannelCore>(name)) {
            const double tiles = double(channel->tileCount(-1));
            bytes += double(channel->elementBytes()) * (tiles > 0 ? double(channel->elementCount(-1)) / tiles : double(Tr::voxelCount));
        }
    return bytes;
}

/// While it lives, a tree has as many tiles as `memoryLimit()` holds at the most: growth beyond throws `MemoryExceeded`, before
/// the tile is made. Each worker's own container counts for itself, so that whether it throws does not depend on the threads.
template <class Tr> class TileBudget {
public:
    using Container = OST::TileTree3D::Container<Tr>;

    /// \param bytesPerTile  of a tile with all that the pass and its result hold for it
    TileBudget(Container& tree, double bytesPerTile) : tree_(tree)
    {
        tree.limitTiles(OST::int64(std::min(memoryLimit() / bytesPerTile, kMostTiles)), bytesPerTile);
    }
    TileBudget(TileBudget const&) = delete;
    TileBudget& operator=(TileBudget const&) = delete;
    ~TileBudget() { tree_.limitTiles(std::numeric_limits<OST::int64>::max(), 0); }

private:
    static constexpr double kMostTiles = 1e18;
    Container& tree_;
};

}  // namespace tilegrid
