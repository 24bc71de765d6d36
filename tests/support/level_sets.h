#pragma once
#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/accessor.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/topology.h"
#include "io/level_set_from_mesh.h"

#include <cstring>
#include <string>

namespace tilegrid::test {

template <class Tr> constexpr io::Structure structureOf()
{
    return Tr::branching == 2 ? io::Structure::kBinary : io::Structure::kQuinary;
}

template <class Tr> Corvid::Ptr<OST::TileTree3D::Container<Tr>> treeOf(Ostara::Object const& volume)
{
    return volume.native()->template component<OST::TileTree3D::Container<Tr>>(Ostara::Geometry::sVoxelTileTree);
}
template <class Tr, class T = float>
Corvid::Ptr<OST::TileTree3D::Channel<Tr, T, Tr::width, 0>>
channelOf(Ostara::Object const& volume, Corvid::String const& name = Ostara::Geometry::sVoxelSignedDistance)
{
    return volume.native()->template component<OST::TileTree3D::Channel<Tr, T, Tr::width, 0>>(name);
}

template <class Tr>
Corvid::Ptr<Ostara::Object> levelSetOf(io::TriangleMesh const& mesh, float voxelSize, float band = 3.0f)
{
    io::LevelSetOptions options;
    options.voxelSize = voxelSize;
    options.bandVoxels = band;
    options.structure = structureOf<Tr>();
    return io::levelSetFromMesh(mesh, options, Corvid::RuntimeServices(nullptr, [](Severity, Corvid::StringView) {}));
}

/// Where two volumes differ in their tiles of a depth, or the bits of a property there; empty if nowhere.
template <class Tr, class T = float>
std::string differencesAt(int depth, Ostara::Object const& a, Ostara::Object const& b,
                          Corvid::String const& name = Ostara::Geometry::sVoxelSignedDistance)
{
    const auto treeA = treeOf<Tr>(a), treeB = treeOf<Tr>(b);
    const auto valuesA = channelOf<Tr, T>(a, name), valuesB = channelOf<Tr, T>(b, name);
    if (!treeA || !treeB || !valuesA || !valuesB) return "no tree, or no property " + name.str();
    const std::string at = "depth " + std::to_string(depth) + ": ";
    if (treeA->tileCount(depth) != treeB->tileCount(depth))
        return at + std::to_string(treeA->tileCount(depth)) + " and " + std::to_string(treeB->tileCount(depth))
            + " tiles";
    for (OST::int64 n = 0; n < treeA->tileCount(depth); ++n) {
        if (!(treeA->tile(n, depth).tijk() == treeB->tile(n, depth).tijk()))
            return at + "another tile " + std::to_string(n);
        if (std::memcmp(valuesA->tileData(n, depth).data(), valuesB->tileData(n, depth).data(),
                        Tr::voxelCount * sizeof(T))
            != 0)
            return at + "other values in tile " + std::to_string(n);
    }
    return {};
}

}  // namespace tilegrid::test
