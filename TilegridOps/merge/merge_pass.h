#pragma once
#include "TilegridOps/merge/element_kinds.h"
#include "TilegridOps/merge/modes.h"
#include "TilegridOps/merge/tile_reader.h"

#include <vector>

namespace tilegrid {

/// What is done to the voxels of every tile of a tree, step after step: samples of a volume are read at them and written to
/// a channel, or combined with what is there. A tile goes through all steps before the next one, so that values of
/// several volumes and who won them stay at hand. A step touches the tile's own voxels only, leaf or not. Where all volumes give
/// a voxel and that of a child at its place the same samples, tiles are done after their children and take the child's results.
template <class Tr> class MergePass {
public:
    using Channel = OST::TileTree3D::VoxelChannelCore;

    /// Writes the samples.
    void resampleProperty(Channel& target, TileReader<Tr> reader);
    /// Writes signed distances (float), the first ones of their channel.
    void resampleLevelSet(Channel& target, TileReader<Tr> reader);
    /// Combines signed distances (float). \param notesWinners  later steps with `kAutomatic` go by this one
    void mergeLevelSet(Channel& target, TileReader<Tr> reader, Geometry::Volume::LevelSetMode mode, bool notesWinners);
    /// Combines values of any merged type; `kAutomatic` needs an earlier step that notes winners.
    void mergeProperty(Channel& target, TileReader<Tr> reader, ElementKind const& kind, Geometry::Volume::Properties::Mode mode, float alpha);

    bool empty() const { return steps_.empty(); }
    /// Does it to all tiles in parallel. Targets have the tiles of the tree.
    /// \throws std::runtime_error (OST::exceptionMessage) after the pass if the job was cancelled
    void run(OST::TileTree3D::Container<Tr> const& tree) const;

private:
    enum class Work { kResample, kFirstLevelSet, kLevelSet, kLevelSetWithWinners, kProperty };
    struct Step {
        Work work;
        Channel* target;
        TileReader<Tr> reader;
        ElementKind kind;
        Geometry::Volume::LevelSetMode levelSetMode;
        Geometry::Volume::Properties::Mode mode;
        float alpha;
    };
    class Worker;
    std::vector<Step> steps_;
};

extern template class MergePass<OST::TileTree3D::BinaryTraits>;
extern template class MergePass<OST::TileTree3D::QuinaryTraits>;

}  // namespace tilegrid
