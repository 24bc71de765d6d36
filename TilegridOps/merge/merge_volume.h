#pragma once
#include "TilegridOps/merge/merge_pass.h"

#include <map>
#include <set>

namespace tilegrid {

/// How values are combined, as the node's parameters say.
struct MergeModes {
    Geometry::Volume::LevelSetMode levelSet = Geometry::Volume::LevelSetMode::kUnion;
    Geometry::Volume::FogDensityMode fogDensity = Geometry::Volume::FogDensityMode::kAdd;
    /// Weight of the later volume in `kBlend`.
    float alpha = 0.5f;
    Geometry::Volume::Properties::Mode properties = Geometry::Volume::Properties::Mode::kAutomatic;
    OST::TileTree3D::InterpolationMode interpolation = OST::TileTree3D::kLinear;
};

/// A result whose tree stands and whose channels hold their defaults, and the steps that will fill them.
template <class Tr> struct MergeTarget {
    struct Property {
        OST::TileTree3D::VoxelChannelCore* channel = nullptr;
        ElementKind kind;
    };
    OST::TileTree3D::Container<Tr> const& tree;
    OST::TileTree3D::VoxelTopology<Tr> const& topology;
    std::map<Corvid::String, Property> properties;

    MergePass<Tr> pass;
    /// Names that an earlier volume writes: the next one is combined with it.
    std::set<Corvid::String> mergedPropertyNames;
    /// Level sets note who wins, from the first one on that is merged while there are properties to go by it.
    bool winnerMask = false;
};

/// Adds the steps for one volume: its level set, then its fog density, then its other properties, each written if no earlier
/// volume wrote it and combined otherwise. A property of another type than that of the result's channel is left out.
///
/// \param volume  of structure In with plain channels; it outlives the pass
template <class In, class Out>
void mergeVolumeIntoOutput(OST::Object const& volume, MergeModes const& modes, MergeTarget<Out>& target);

}  // namespace tilegrid
