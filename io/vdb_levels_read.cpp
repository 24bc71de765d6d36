#include "io/error.h"
#include "io/text.h"
#include "io/vdb_lattice.h"
#include "io/vdb_levels.h"
#include "io/volume_builder.h"

#include <cmath>
#include <cstring>
#include <map>
#include <set>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

[[noreturn]] void refuse(openvdb::GridBase const& grid, std::string const& why)
{
    throw InputError("grid '" + grid.getName() + "' " + why);
}

template <class V> V required(openvdb::GridBase const& grid, char const* key)
{
    const auto found = grid.getMetadata<openvdb::TypedMetadata<V>>(key);
    if (!found)
        refuse(grid, "lacks '" + std::string(key) + "', or has it as another type: each level of a volume needs it");
    return found->value();
}

/// What the grids of a volume have in common.
struct Common {
    std::string structure;
    float voxelSize = 0.0f, error = 0.0f;
    int offset = 0;

    explicit Common(openvdb::GridBase const& grid)
        : structure(required<std::string>(grid, levels::kStructureKey)),
          voxelSize(required<float>(grid, levels::kVoxelSizeKey)),
          error(required<float>(grid, levels::kErrorKey)),
          offset(required<std::int32_t>(grid, levels::kOffsetKey))
    {
        if (const int version = required<std::int32_t>(grid, levels::kVersionKey); version != levels::kVersion)
            refuse(grid, "is of version " + std::to_string(version) + " of the level layout, and only version "
                       + std::to_string(levels::kVersion) + " is known: use the program that wrote it");
        if (structure != "binary" && structure != "quinary")
            refuse(grid, "has the structure '" + structure + "': there are binary and quinary");
        if (!(voxelSize > 0.0f) || !std::isfinite(voxelSize))
            refuse(grid, "has the voxel size " + number(voxelSize) + ": it must be positive and finite");
        if (offset < 0 || offset > 7)
            refuse(grid, "has the sample offset " + std::to_string(offset) + ": it must be 0 to 7");
    }
    bool operator==(Common const& other) const
    {
        return structure == other.structure && voxelSize == other.voxelSize && offset == other.offset
            && std::memcmp(&error, &other.error, sizeof error) == 0;
    }
};

/// One grid of the file, and what its metadata says.
struct Level {
    openvdb::GridBase::ConstPtr grid;
    int depth = 0;
    /// Empty: tiles alone.
    std::string property;
    int initializer = 0, minDepth = 0, maxDepth = -1;

    bool belongsTo(Level const& other) const
    {
        return grid->type() == other.grid->type() && initializer == other.initializer && minDepth == other.minDepth
            && maxDepth == other.maxDepth && *(*grid)[levels::kDefaultKey]
            == *(*other.grid)[levels::kDefaultKey];
    }
};

bool isReserved(std::string const& name)
{
    return name == Ostara::Geometry::sVoxelTileTree.str() || name == Ostara::Geometry::sVoxelComp.str()
        || name == Ostara::Geometry::sPointComp.str() || name == OST::Const::TileTreePointTopologyName.str();
}

template <class Tr> Level levelOf(openvdb::GridBase::ConstPtr const& grid)
{
    Level level;
    level.grid = grid;
    level.depth = required<std::int32_t>(*grid, levels::kDepthKey);
    if (level.depth < 0 || level.depth > Tr::maxDepth)
        refuse(*grid, "has the depth " + std::to_string(level.depth) + ": the structure has 0 to "
                   + std::to_string(Tr::maxDepth));
    if (!withGrid(*grid, [](auto const&) {})) refuse(*grid, "has the type " + grid->type() + ", which no property has");
    const auto property = (*grid)[levels::kPropertyKey];
    if (!property) {
        if (!grid->isType<openvdb::Int32Grid>() || (*grid)[levels::kDefaultKey])
            refuse(*grid, "lacks '" + std::string(levels::kPropertyKey) + "': each level with values needs it");
        return level;
    }
    level.property = required<std::string>(*grid, levels::kPropertyKey);
    if (level.property.empty() || isReserved(level.property))
        refuse(*grid, "names the property '" + level.property + "': no property can have that name");
    level.initializer = required<std::int32_t>(*grid, levels::kInitializerKey);
    level.minDepth = required<std::int32_t>(*grid, levels::kMinDepthKey);
    level.maxDepth = required<std::int32_t>(*grid, levels::kMaxDepthKey);
    if (level.initializer < kInitializeNone || level.initializer > kInitializeLinear)
        refuse(*grid, "has the initializer " + std::to_string(level.initializer) + ": it must be 0 to 2");
    if (level.minDepth < 0 || level.minDepth > Tr::levels || level.maxDepth < -1 || level.maxDepth > Tr::maxDepth)
        refuse(*grid, "has the depth range " + std::to_string(level.minDepth) + " to " + std::to_string(level.maxDepth)
                   + ": the structure has 0 to " + std::to_string(Tr::maxDepth));
    withGrid(*grid, [&](auto const& typed) {
        using V = typename std::decay_t<decltype(typed)>::ValueType;
        required<V>(*grid, levels::kDefaultKey);
    });
    return level;
}

/// The grid must lie where its depth and the voxel size say: a moved or scaled one is no level any more.
template <class Tr> void checkTransform(Level const& level, Common const& common)
{
    auto const& transform = level.grid->constTransform();
    const auto expected = LevelLattice<Tr>(level.depth).transform(common.voxelSize, VoxelOffsetType(common.offset));
    const double width = double(common.voxelSize) * Tr::voxelDataWidth(level.depth);
    bool same = transform.isLinear();
    if (same) {
        const auto is = transform.baseMap()->getAffineMap()->getMat4(),
                   wanted = expected->baseMap()->getAffineMap()->getMat4();
        // A thousandth of a voxel is far above rounding and far below any change that is meant.
        for (int row = 0; row < 4; ++row)
            for (int column = 0; column < 4; ++column)
                same = same && std::abs(is(row, column) - wanted(row, column)) <= (row == 3 ? 1e-3 : 1e-6) * width;
    }
    if (!same)
        refuse(*level.grid, "does not lie where its depth and the voxel size put it: the transform of a level must not "
                            "be changed");
}

/// A leaf node of a grid of any type.
struct Leaf {
    openvdb::Coord origin;
    std::uint64_t const* active;  // 8 words, a bit for each voxel, z fastest
    std::byte const* values;
};
constexpr int kLeafWidth = 8;

std::size_t elementBytesOf(openvdb::GridBase const& grid)
{
    std::size_t bytes = 0;
    withGrid(grid, [&](auto const& typed) { bytes = sizeof(typename std::decay_t<decltype(typed)>::ValueType); });
    return bytes;
}

void forEachLeaf(openvdb::GridBase const& grid, parallel::FunctionRef<void(Leaf const&)> visit)
{
    withGrid(grid, [&](auto const& typed) {
        using LeafNode = typename std::decay_t<decltype(typed)>::TreeType::LeafNodeType;
        static_assert(LeafNode::DIM == kLeafWidth);
        for (auto leaf = typed.tree().cbeginLeaf(); leaf; ++leaf) {
            std::array<std::uint64_t, kLeafWidth> active;
            for (int n = 0; n < kLeafWidth; ++n)
                active[n] = leaf->getValueMask().template getWord<std::uint64_t>(openvdb::Index(n));
            visit({leaf->origin(), active.data(), reinterpret_cast<std::byte const*>(leaf->buffer().data())});
        }
    });
}

/// The part of a leaf that lies in one tile: voxels of the leaf from `low` to `high`, inclusive.
struct LeafPart {
    /// Number of the tile along each axis of tile space.
    int3 tile;
    int3 low, high;
    /// Voxel of the tile that the leaf's voxel 0 would be.
    int3 shift;
};

/// Calls `visit(part)` for each tile that a leaf meets; what lies beyond tile space is passed over.
template <class Tr, class Visit> void forEachPart(LevelLattice<Tr> const& lattice, Leaf const& leaf, Visit const& visit)
{
    const OST::int64 low = lattice.lowIndex();
    int3 first, last;
    for (int axis = 0; axis < 3; ++axis) {
        const OST::int64 from = leaf.origin[axis] - low, to = from + kLeafWidth - 1;
        const OST::int64 end = lattice.tilesAcross() * Tr::width - 1;
        if (to < 0 || from > end) return;
        first[axis] = static_cast<int>(std::max<OST::int64>(from, 0) / Tr::width);
        last[axis] = static_cast<int>(std::min(to, end) / Tr::width);
    }
    LeafPart part;
    for (part.tile.z = first.z; part.tile.z <= last.z; ++part.tile.z)
        for (part.tile.y = first.y; part.tile.y <= last.y; ++part.tile.y)
            for (part.tile.x = first.x; part.tile.x <= last.x; ++part.tile.x) {
                for (int axis = 0; axis < 3; ++axis) {
                    const OST::int64 corner = low + OST::int64(part.tile[axis]) * Tr::width - leaf.origin[axis];
                    part.shift[axis] = static_cast<int>(-corner);
                    part.low[axis] = static_cast<int>(std::max<OST::int64>(corner, 0));
                    part.high[axis] = static_cast<int>(std::min<OST::int64>(corner + Tr::width, kLeafWidth)) - 1;
                }
                visit(part);
            }
}

/// Calls `visit(voxel of the leaf)` over a part.
template <class Visit> void forEachVoxel(LeafPart const& part, Visit const& visit)
{
    for (int x = part.low.x; x <= part.high.x; ++x)
        for (int y = part.low.y; y <= part.high.y; ++y)
            for (int z = part.low.z; z <= part.high.z; ++z) visit(int3(x, y, z));
}
bool isActive(Leaf const& leaf, int3 const& voxel)
{
    return leaf.active[voxel.x] >> (voxel.y * kLeafWidth + voxel.z) & 1;
}

/// The low corners of the tiles of a level, ascending. \throws InputError if it holds anything but whole tiles
template <class Tr> std::vector<VoxelCoord> tilesOf(Level const& level)
{
    const LevelLattice<Tr> lattice(level.depth);
    struct Count {
        VoxelCoord tile;
        int voxels;
    };
    std::vector<Count> counts;
    std::uint64_t inside = 0;
    forEachLeaf(*level.grid, [&](Leaf const& leaf) {
        forEachPart(lattice, leaf, [&](LeafPart const& part) {
            int active = 0;
            forEachVoxel(part, [&](int3 const& voxel) { active += isActive(leaf, voxel); });
            if (active == 0) return;
            inside += static_cast<std::uint64_t>(active);
            counts.push_back({VoxelCoord(lattice.cornerOfTile(part.tile), level.depth), active});
        });
    });
    if (inside != level.grid->activeVoxelCount()) refuse(*level.grid, "reaches beyond the tree");
    std::sort(counts.begin(), counts.end(), [](Count const& a, Count const& b) { return a.tile < b.tile; });
    std::vector<VoxelCoord> tiles;
    for (std::size_t n = 0; n < counts.size();) {
        const VoxelCoord tile = counts[n].tile;
        int voxels = 0;
        for (; n < counts.size() && counts[n].tile == tile; ++n) voxels += counts[n].voxels;
        if (voxels != Tr::voxelCount) {
            const openvdb::Coord at = lattice.index({tile.i, tile.j, tile.k});
            refuse(*level.grid, "has " + std::to_string(voxels) + " of the " + std::to_string(Tr::voxelCount)
                       + " voxels of the tile at index (" + std::to_string(at.x()) + ", " + std::to_string(at.y())
                       + ", " + std::to_string(at.z()) + "): a tile is there as a whole or not at all");
        }
        tiles.push_back(tile);
    }
    const OST::int64 said = required<std::int64_t>(*level.grid, levels::kTilesKey);
    if (said != static_cast<OST::int64>(tiles.size()))
        refuse(*level.grid, "has " + std::to_string(tiles.size()) + " tiles, and its metadata says "
                   + std::to_string(said) + ": tiles were added or taken away");
    return tiles;
}

template <class Tr> using TilesByDepth = std::array<std::vector<VoxelCoord>, Tr::levels>;

template <class Tr> void checkParents(TilesByDepth<Tr> const& tiles, std::vector<Level> const& levels)
{
    for (Level const& level : levels)
        for (VoxelCoord const& tile : tiles[level.depth]) {
            if (level.depth == 0) continue;
            const OST::int64 width = Tr::tileVoxelWidth(level.depth - 1);
            const auto along = [width](int v) {
                return static_cast<int>(Tr::rangeMin + (OST::int64(v) - Tr::rangeMin) / width * width);
            };
            auto const& above = tiles[level.depth - 1];
            if (!std::binary_search(above.begin(), above.end(),
                                    VoxelCoord(along(tile.i), along(tile.j), along(tile.k), level.depth - 1))) {
                const openvdb::Coord at = LevelLattice<Tr>(level.depth).index({tile.i, tile.j, tile.k});
                refuse(*level.grid, "has a tile at index (" + std::to_string(at.x()) + ", " + std::to_string(at.y())
                           + ", " + std::to_string(at.z()) + ") without a parent tile in the depth above it");
            }
        }
}

/// The tiles of all depths. \throws InputError where grids of a depth differ in them or a tile has no parent
template <class Tr> TilesByDepth<Tr> collectTiles(std::vector<Level> const& levels)
{
    TilesByDepth<Tr> tiles;
    std::array<Level const*, Tr::levels> first{};
    for (Level const& level : levels) {
        auto own = tilesOf<Tr>(level);
        if (!first[level.depth]) {
            first[level.depth] = &level;
            tiles[level.depth] = std::move(own);
        } else if (own != tiles[level.depth]) {
            refuse(*level.grid, "has other tiles than grid '" + first[level.depth]->grid->getName()
                       + "' of the same depth");
        }
    }
    checkParents<Tr>(tiles, levels);
    return tiles;
}

/// Every property has one grid for each depth of its range with tiles.
template <class Tr> void checkComplete(std::vector<Level> const& levels, TilesByDepth<Tr> const& tiles)
{
    std::map<std::string, std::vector<Level const*>> properties;
    for (Level const& level : levels) properties[level.property].push_back(&level);
    for (auto const& [name, own] : properties) {
        std::set<int> depths;
        for (Level const* level : own) {
            if (!depths.insert(level->depth).second)
                refuse(*level->grid, "is the second one of its property and depth");
            if (name.empty()) continue;
            if (!level->belongsTo(*own.front()))
                refuse(*level->grid, "differs from grid '" + own.front()->grid->getName()
                           + "' of the same property in type, default value, initializer or depth range");
            const bool inRange = level->depth >= level->minDepth && level->depth <= level->maxDepth;
            if (!inRange && !tiles[level->depth].empty())
                refuse(*level->grid, "has tiles outside the depth range of its property");
        }
        for (int depth = own.front()->minDepth; depth <= own.front()->maxDepth && !name.empty(); ++depth)
            if (!tiles[depth].empty() && !depths.contains(depth))
                throw InputError("the property '" + name + "' has no grid of depth " + std::to_string(depth)
                                 + ", where there are tiles");
    }
}

template <class Tr> void checkMemory(std::vector<Level> const& levels, std::uint64_t maxBytes)
{
    double bytes = 0.0;
    for (Level const& level : levels) {
        // Constant regions cost nothing in a file, so they could promise anything.
        if (level.grid->baseTree().activeTileCount() > 0)
            refuse(*level.grid, "has active constant regions: a level has voxels only, so do not prune it");
        const double voxels = static_cast<double>(level.grid->activeVoxelCount());
        bytes += voxels * (level.property.empty() ? 0.0 : static_cast<double>(elementBytesOf(*level.grid)));
        // Tile record and child table, shared by the properties of a depth; counted for each, which is on the safe side.
        bytes += voxels / Tr::voxelCount * (48.0 + sizeof(OST::int64) * Tr::childCount / 4.0);
    }
    if (maxBytes > 0 && bytes > double(maxBytes))
        throw InputError("the levels would take " + byteText(bytes) + " as a volume, and the limit is "
                         + byteText(double(maxBytes)) + ": raise the limit");
}

/// Copies the values of a level into the channel of its property.
template <class Tr, std::size_t Bytes>
void copyValues(Container<Tr> const& tree, Level const& level, VoxelChannelCore& channel)
{
    const LevelLattice<Tr> lattice(level.depth);
    const ConstTileAccessor<Tr> accessor(tree);
    forEachLeaf(*level.grid, [&](Leaf const& leaf) {
        forEachPart(lattice, leaf, [&](LeafPart const& part) {
            // Tiles are whole, so one voxel speaks for all.
            if (!isActive(leaf, part.low)) return;
            const int3 corner = lattice.cornerOfTile(part.tile);
            const TreeIndex tile = accessor.find(corner.x, corner.y, corner.z, level.depth);
            std::byte* to = tile.depth == level.depth ? channel.tileBytes(tile.index, tile.depth) : nullptr;
            if (!to) return;
            forEachVoxel(part, [&](int3 const& voxel) {
                const int3 at = voxel + part.shift;
                std::memcpy(to + flatIndex(Tr::width, at.x, at.y, at.z) * Bytes,
                            leaf.values + ((voxel.x * kLeafWidth + voxel.y) * kLeafWidth + voxel.z) * Bytes, Bytes);
            });
        });
    });
}

template <class Tr, class T>
void addLevels(OST::Object& native, std::vector<Level const*> const& own, T const& defaultValue)
{
    const auto tree = native.component<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    const auto topology = native.component<VoxelTopology<Tr>>(Ostara::Geometry::sVoxelComp);
    constexpr int B = Tr::branching, W = Tr::width;
    Level const& first = *own.front();
    const Corvid::String name(first.property);
    Command::createChannel<T, B, W, W, 0>(name, *topology, native, defaultValue,
                                          DataElementInitializerType(first.initializer), first.minDepth, first.maxDepth);
    auto channel = native.extractComponent<Channel<Tr, T, W, 0>>(name);
    for (Level const* level : own) copyValues<Tr, sizeof(T)>(*tree, *level, *channel);
    native.putComponent(std::move(channel));
}

template <class Tr>
NamedVolume volumeOf(std::vector<openvdb::GridBase::ConstPtr> const& grids, Common const& common,
                     VdbOptions const& options)
{
    std::vector<Level> levels;
    for (auto const& grid : grids) {
        if (!(Common(*grid) == common))
            refuse(*grid, "differs from grid '" + grids.front()->getName()
                       + "' in structure, voxel size, sample offset or refinement error");
        levels.push_back(levelOf<Tr>(grid));
        checkTransform<Tr>(levels.back(), common);
    }
    checkMemory<Tr>(levels, options.maxBytes);
    const TilesByDepth<Tr> tiles = collectTiles<Tr>(levels);
    checkComplete<Tr>(levels, tiles);

    std::vector<VoxelCoord> all;
    for (auto const& ofDepth : tiles) all.insert(all.end(), ofDepth.begin(), ofDepth.end());
    auto native = makeVolume<Tr>(all, common.voxelSize, VoxelOffsetType(common.offset));
    auto tree = native->template extractComponent<Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
    tree->setMaxRelativeRefinementError(common.error);
    native->putComponent(std::move(tree));

    std::map<std::string, std::vector<Level const*>> properties;
    for (Level const& level : levels)
        if (!level.property.empty()) properties[level.property].push_back(&level);
    for (auto const& [name, own] : properties)
        withGrid(*own.front()->grid, [&](auto const& typed) {
            using V = typename std::decay_t<decltype(typed)>::ValueType;
            const V value = required<V>(typed, levels::kDefaultKey);
            addLevels<Tr, ElementOf<V>>(*native, own, toElement(value));
        });
    const std::string name = properties.empty() ? "tiles" : properties.begin()->first;
    return {name, Ostara::Geometry::move_ost_volume_to_object(*native)};
}

}  // namespace

bool isLevelGrid(openvdb::GridBase const& grid) { return bool(grid[levels::kVersionKey]); }

NamedVolume volumeFromLevelGrids(std::vector<openvdb::GridBase::ConstPtr> const& grids, VdbOptions const& options)
{
    for (auto const& grid : grids)
        if (!isLevelGrid(*grid))
            refuse(*grid, "is no level of a volume, and other grids of the file are ('" + std::string(levels::kVersionKey)
                       + "' is missing): put it into a file of its own");
    const Common common(*grids.front());
    return common.structure == "binary" ? volumeOf<BinaryTraits>(grids, common, options)
                                        : volumeOf<QuinaryTraits>(grids, common, options);
}

}  // namespace tilegrid::io
