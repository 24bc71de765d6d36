#pragma once
#include "TilegridOps/algorithms/redistance.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/property_names.h"
#include "TilegridOps/substrate/memory_budget.h"

#include <cfloat>

namespace tilegrid {

/// The flags of a tree as it is now; a temporary, which never enters an object.
template <class Tr>
OST::TileTree3D::DofChannel<Tr> dofsOf(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology)
{
    OST::TileTree3D::DofChannel<Tr> flags("dofs", nullptr, OST::TileTree3D::kInitializeNone, false, true, 0, Tr::maxDepth);
    flags.updateTilesAdded(topology);
    OST::TileTree3D::computeDofs<Tr>(tree, flags);
    return flags;
}

/// Distances again, whatever the values are now; the surface stays where it is.
template <class Tr>
void redistanceAll(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology,
                   OST::TileTree3D::Channel<Tr, float, Tr::width, 0>& levelSet, OST::TileTree3D::DofChannel<Tr> const& flags,
                   Corvid::String const& timer)
{
    using namespace VolumeGL::TileTree3D::LevelSet;
    levelSetRedistance<Tr>(tree, topology, levelSet, /*resetFar*/ true, /*resetCrossing*/ true, /*keepSigns*/ true, 0, Tr::maxDepth, nullptr,
                           nullptr, 1.0f, FLT_MAX, FLT_MAX, 10, 10, /*restoreDependents*/ true, /*unsignedResult*/ false, &flags, timer,
                           RedistancingScheme::kClosestPoint);
}

/// The parts of a volume that an operation on a level set takes out of it, put back in the end or when it fails.
template <class Tr> class LevelSetParts {
public:
    using Container = OST::TileTree3D::Container<Tr>;
    using Topology = OST::TileTree3D::VoxelTopology<Tr>;
    using Floats = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;
    using Dofs = OST::TileTree3D::DofChannel<Tr>;

    LevelSetParts(OST::Object& object, Corvid::String const& treeName, Corvid::String const& topologyName, Corvid::String const& property)
        : object_(object), property_(property)
    {
        if (!object.component<Container>(treeName) || !object.component<Topology>(topologyName) || !object.component<Floats>(property)) return;
        tree = object.extractComponent<Container>(treeName);
        topology = object.extractComponent<Topology>(topologyName);
        takeLevelSet();
    }
    LevelSetParts(LevelSetParts const&) = delete;
    LevelSetParts& operator=(LevelSetParts const&) = delete;

    explicit operator bool() const { return bool(tree); }
    void takeLevelSet() { levelSet = object_.extractComponent<Floats>(property_); }
    void putLevelSet() { object_.putComponent(std::move(levelSet)); }
    /// Everything goes back. Not in a destructor: after a failure the volume is lost in any case.
    void putAll()
    {
        putLevelSet();
        object_.putComponent(std::move(topology));
        object_.putComponent(std::move(tree));
    }
    /// What the object holds for a tile, with the parts that are taken out of it.
    double bytesPerTile() const { return tileBytes<Tr>(object_) + double(Tr::voxelCount * sizeof(float)); }
    Dofs dofs() const { return dofsOf<Tr>(*tree, *topology); }
    void redistance(Dofs const& flags, Corvid::String const& timer) { redistanceAll<Tr>(*tree, *topology, *levelSet, flags, timer); }

    Corvid::MutablePtr<Container> tree;
    Corvid::MutablePtr<Topology> topology;
    Corvid::MutablePtr<Floats> levelSet;

private:
    OST::Object& object_;
    Corvid::String property_;
};

}  // namespace tilegrid
