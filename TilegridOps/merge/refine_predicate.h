#pragma once
#include "TilegridOps/merge/modes.h"
#include "TilegridOps/merge/output_topology.h"
#include "TilegridOps/sampling/voxel_sampler_linear.h"

#include <vector>

namespace tilegrid {

/// The level sets of several volumes as one function of world space. For one thread; others take a copy. Refers to trees and
/// channels.
class CombinedLevelSets {
public:
    template <class Tr> using Sampler = OST::TileTree3D::VoxelSamplerLinear<Tr, float, 10, float, OST::TileTree3D::float3, 0, 0, 1, 0>;
    template <class Tr> using LevelSet = OST::TileTree3D::Channel<Tr, float, Tr::width, 0>;

    explicit CombinedLevelSets(Geometry::Volume::LevelSetMode mode) : levelSetMode_(mode) {}

    /// The order of calls is that of the volumes.
    template <class Tr>
    void add(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::VoxelTopology<Tr> const& topology, LevelSet<Tr> const& channel);
    std::size_t count() const { return values_.size(); }

    /// The first level set as it is, combined with one after the other: the smaller value for a union, the larger one for an
    /// intersection, the larger one of it and the negated next for a difference.
    float combineLevelSets(OST::TileTree3D::float3 const& position);
    /// Where in world space every level set is read from its voxels alone, the same on all axes.
    struct Reach {
        /// Inside of it no sample is mixed with a default.
        double low = -std::numeric_limits<double>::infinity(), high = std::numeric_limits<double>::infinity();
        /// From the origin to the border of the smallest tile space.
        double radius = std::numeric_limits<double>::infinity();
    };
    Reach const& reach() const { return reach_; }

private:
    std::vector<float> values_;
    std::vector<Sampler<OST::TileTree3D::QuinaryTraits>> samplersQuinary_;
    std::vector<Sampler<OST::TileTree3D::BinaryTraits>> samplersBinary_;
    /// Where in `values_` the samplers put what they read, so that the order of volumes is kept.
    std::vector<std::size_t> placesQuinary_, placesBinary_;
    Geometry::Volume::LevelSetMode levelSetMode_;
    Reach reach_;
};

/// Those of the volumes that have a level set, in their order.
CombinedLevelSets combinedLevelSets(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode);

/// Whether a child cell of a tile should become a tile: if the surface may pass near it, and the trilinear function of the tile's
/// voxels misses the combined level set by more than the tolerance at one of the child's nodes, shared ones on its far faces
/// included.
///
/// A cell of depth 2 or deeper is never refined at the border of tile space, nor where some volume's coarsest voxels reach over
/// the border of its own, unless it is so large that the scene may lie in it (wider than half of the way to that border). Beyond
/// the border every sample is a default, and samples next to it are mixed with that: as small as the default of a narrow band is,
/// it looks like a surface along the whole rim.
template <class Tr> class LevelSetRefinePredicate {
public:
    using Tile = typename OST::TileTree3D::Container<Tr>::Tile;
    /// \param maxError  largest difference that is let be, in world units
    LevelSetRefinePredicate(CombinedLevelSets const& levelSets, OST::TileTree3D::Container<Tr> const& tree,
                            OST::TileTree3D::VoxelTopology<Tr> const& topology, float maxError);
    bool operator()(Tile const& tile, OST::TileTree3D::int3 const& child);

private:
    using int3 = OST::TileTree3D::int3;
    using float3 = OST::TileTree3D::float3;
    bool touchesBorder(Tile const& tile, int3 const& child) const;
    bool isNearSurface(Tile const& tile, int3 const& child);
    bool missesInBlock(Tile const& tile, int3 const& child, int3 const& block);

    static constexpr bool kBinary = Tr::branching == 2;
    static constexpr int blocksPerChild = kBinary ? 2 : 1;
    static constexpr float childCentre = kBinary ? 1.0f : 0.5f;
    static constexpr int lastBlock = kBinary ? 1 : 0;
    /// Samples per axis of a block; the last one ends on the far side, the others leave that to the next block.
    static constexpr int samplesInLastBlock = kBinary ? 3 : 6, samplesInBlock = kBinary ? 2 : 5;
    static constexpr float sampleStep = kBinary ? 0.5f : 0.2f;

    CombinedLevelSets levelSets_;
    float voxelSize_;
    float3 voxelOffset_;
    float maxErrorSquared_;
    /// `CombinedLevelSets::Reach` in tile space, and within the own one.
    CombinedLevelSets::Reach reach_;
};

extern template class LevelSetRefinePredicate<OST::TileTree3D::BinaryTraits>;
extern template class LevelSetRefinePredicate<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
