#include "TilegridOps/nodes/query.h"

#include "TilegridOps/nodes/frame.h"
#include "TilegridOps/substrate/topology.h"
#include "TilegridOps/substrate/traversal.h"

namespace Geometry::Volume {

namespace {

using namespace OST::TileTree3D;
using namespace tilegrid::nodes;
using CoreGL::CorvidLogger;
using Ostara::Geometry::sVoxelComp;
using Ostara::Geometry::sVoxelTileTree;

/// Calls `read(tree)` with the tree of the volume, whatever its structure; nothing if it has none.
template <class Read> void withTree(Ostara::Object const& volume, Read read)
{
    const auto view = Ostara::Geometry::shallow_copy_object_to_ost_volume(volume);
    if (!view) return;
    if (const auto tree = view->component<Container<BinaryTraits>>(sVoxelTileTree)) read(*tree);
    if (const auto tree = view->component<Container<QuinaryTraits>>(sVoxelTileTree)) read(*tree);
}

/// The outputs of `get_volume_tile_info`, held by this node alone while it works.
struct TileInfo {
    Corvid::Array<int> depths;
    Corvid::Array<int3> positions;
    Corvid::Array<int> voxelWidths;
    Corvid::Array<bool> leafVoxels;
};

template <class Tr> bool listTiles(OST::Object const& volume, TileInfo& info)
{
    using Tile = typename Container<Tr>::Tile;
    const auto tree = volume.component<Container<Tr>>(sVoxelTileTree);
    if (!tree || !volume.component<VoxelTopology<Tr>>(sVoxelComp)) return false;

    // Running numbers: depth 0 first, index order within a depth.
    std::array<int64, Tr::levels> firstId{};
    for (int depth = 1; depth < Tr::levels; ++depth) firstId[depth] = firstId[depth - 1] + tree->tileCount(depth - 1);
    const auto tiles = static_cast<std::size_t>(tree->tileCount(-1));
    info.depths.resize(tiles);
    info.positions.resize(tiles);
    info.voxelWidths.resize(tiles);
    info.leafVoxels.resize(static_cast<std::size_t>(tree->voxelDataCount(-1)));
    tree->traverse(
        detail::Nothing(), detail::Nothing(),
        [&info, &firstId](Tile const& tile) {
            const auto id = static_cast<std::size_t>(firstId[tile.depth()] + tile.index());
            info.depths[id] = tile.depth();
            info.positions[id] = tile.tijk();
            info.voxelWidths[id] = tile.voxelDataWidth();
            bool* leaf = info.leafVoxels.data() + id * Tr::voxelCount;
            for (int k = 0; k < Tr::width; ++k)
                for (int j = 0; j < Tr::width; ++j)
                    for (int i = 0; i < Tr::width; ++i) *leaf++ = tile.isLeaf(Tile::voxelChildIJK(i, j, k));
        },
        detail::Nothing(), detail::Nothing());
    return true;
}

}  // namespace

void get_voxel_size(Ostara::Object const& volume, float& voxel_size, Corvid::RuntimeServices const& services)
{
    const auto restore = [&] { voxel_size = 1.0f; };
    restore();
    queryVolume(
        nodeSpec("get_voxel_size"), volume, services,
        [&](CorvidLogger const&) { withTree(volume, [&](auto const& tree) { voxel_size = tree.voxelSize(); }); }, restore);
}

void get_voxel_count(Ostara::Object const& volume, int64& count, Corvid::RuntimeServices const& services)
{
    const auto restore = [&] { count = 0; };
    restore();
    queryVolume(
        nodeSpec("get_voxel_count"), volume, services,
        [&](CorvidLogger const&) { withTree(volume, [&](auto const& tree) { count = tree.voxelDataCount(-1); }); }, restore);
}

void volume_bounds(Ostara::Object const& volume, Ostara::Math::float3& min, Ostara::Math::float3& max, Corvid::RuntimeServices const& services)
{
    const auto restore = [&] { min = max = {}; };
    restore();
    queryVolume(
        nodeSpec("volume_bounds"), volume, services,
        [&](CorvidLogger const&) {
            Ostara::Math::bbox<float3, float> box;
            Ostara::GeometryAlgorithms::getVolumeBounds(volume, box);
            min = box.min;
            max = box.max;
        },
        restore);
}

void get_volume_tile_info(Ostara::Object const& volume, Corvid::Ptr<Corvid::Array<int>>& tile_depths,
                          Corvid::Ptr<Corvid::Array<int3>>& tile_positions, Corvid::Ptr<Corvid::Array<int>>& tile_voxel_widths,
                          Corvid::Ptr<Corvid::Array<bool>>& leaf_voxels, SubdivisionStructure& structure, int& max_depth, int& tile_width,
                          int3& range_min, int3& range_max, Corvid::RuntimeServices const& services)
{
    const auto publish = [&](TileInfo info) {
        leaf_voxels = Corvid::makeMutable<Corvid::Array<bool>>(std::move(info.leafVoxels));
        tile_depths = Corvid::makeMutable<Corvid::Array<int>>(std::move(info.depths));
        tile_positions = Corvid::makeMutable<Corvid::Array<int3>>(std::move(info.positions));
        tile_voxel_widths = Corvid::makeMutable<Corvid::Array<int>>(std::move(info.voxelWidths));
    };
    const auto describe = [&]<class Tr>(SubdivisionStructure kind, int rangeMin) {
        structure = kind;
        max_depth = Tr::maxDepth;
        tile_width = Tr::width;
        range_min = int3(rangeMin);
    };
    const auto restore = [&] {
        publish({});
        // The positive end of the range stands for "nothing was read".
        describe.template operator()<BinaryTraits>(SubdivisionStructure::kBinary, BinaryTraits::rangeMax);
    };
    restore();
    constexpr NodeSpec const& row = nodeSpec("get_volume_tile_info");
    queryVolume(
        row, volume, services,
        [&](CorvidLogger const& logger) {
            TileInfo info;
            const auto view = Ostara::Geometry::shallow_copy_object_to_ost_volume(volume);
            const auto attempt = [&]<class Tr>(SubdivisionStructure kind) {
                if (!view || !listTiles<Tr>(*view, info)) return false;
                publish(std::move(info));
                describe.template operator()<Tr>(kind, Tr::rangeMin);
                range_max = int3(Tr::rangeMax);
                return true;
            };
            if (!attempt.template operator()<BinaryTraits>(SubdivisionStructure::kBinary) &&
                !attempt.template operator()<QuinaryTraits>(SubdivisionStructure::kQuinary))
                logger.error(row.typeError);
        },
        restore);
}

}  // namespace Geometry::Volume
