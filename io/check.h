#pragma once
#include "TilegridOps/host/object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tilegrid::io {

/// How a kind of values that follow from others agrees with those.
struct DependentCheck {
    std::int64_t voxels = 0, wrong = 0;
    /// Largest difference of a component among the wrong ones; infinite where a NaN stands on one side only.
    double largest = 0;
};

struct PropertyCheck {
    std::string name;
    /// Voxels that have a child tile. They hold the value of the child's voxel at their place; on an axis with samples in
    /// the middle, the mean of the child's voxels inside them.
    DependentCheck aboveChildren;
    /// Voxels on a low face of their tile against a coarser neighbour. They hold what is interpolated from there, and so is
    /// what a sampler reads there from both sides. Only for corner samples and types with a fraction, and neither where samples
    /// beyond tile space would take part nor across more than one depth (`keepFarHanging`), as in a tree that is not graded.
    std::optional<DependentCheck> hanging;
};

/// Voxels of a depth whose slope is off by more than `GradientCheck::kSteep`, and where they lie. Distances in voxels of the depth,
/// infinite without any crease.
struct SteepVoxels {
    static constexpr double kNear = 2.0;
    std::int64_t voxels = 0;
    /// Those that have a kink within `kNear` voxels.
    std::int64_t nearKink = 0;
    double medianToCrease = 0, largestToCrease = 0;
};

/// | |gradient| - 1 | of a level set over the leaf voxels of a depth inside the band.
struct GradientCheck {
    static constexpr double kSteep = 0.05;
    /// A voxel is at a kink if the slopes on its two sides, taken over the three axes as a vector, differ by more than this: the
    /// normal turns there by 29 degrees or more (2 asin(1/4)). A sphere has none from a radius of three voxels on. A crease is a
    /// kink no further from the surface than a voxel: a fold of the zero set. Other kinks are ridges, where places are as far
    /// from one part of the surface as from another.
    static constexpr double kKink = 0.5;
    int depth = 0;
    std::int64_t voxels = 0;
    double mean = 0, median = 0, largest = 0;
    SteepVoxels steep;
};

/// Whether a volume must be graded to be good. Trees need not be: every reader goes on across larger jumps, and `grade_volume`
/// is for those who want none.
enum class GradingRule { kReported, kRequired };

/// What is wrong with a volume.
struct VolumeCheck {
    std::int64_t tiles = 0;
    /// One line per violation: links, places, sizes of topology and channels. What follows is only looked at without any.
    std::vector<std::string> tree;
    GradingRule rule = GradingRule::kReported;
    bool graded = true;
    /// Where it is not graded: the first two tiles, by depth and index of the finer one, that touch and differ too much.
    std::string gradingFault;
    std::vector<PropertyCheck> properties;
    /// By depth, where there is a voxel. A measure: where surfaces face each other and at creases it is off by design.
    std::vector<GradientCheck> gradient;

    bool good() const;
};

/// Checks a volume. Wrong are: a tree that breaks its invariants; values above children that are not the child's (for corner
/// samples bit by bit, else within rounding); hanging values further from their interpolation than rounding explains; and if
/// the rule asks for it, tiles that touch and differ by two levels or more.
///
/// Signed distances may keep true distances at hanging voxels. There the bound is what a function of slope 1 can differ from
/// its bilinear interpolation, the coarser voxel's width times the root of one half. That is too little where the samples
/// around are interpolated themselves, from tiles several levels coarser, as those in tiles that grading has added: a value
/// beyond it is still right if it differs from each voxel beside it in its tile that does not hang by no more than the way there.
///
/// The gradient is measured by central differences between neighbours of the same depth, at leaf voxels of
/// `voxel_signed_distance` with all six of them and a distance below the default value, which is the band's half width.
/// \throws InputError for an object without a tile tree
VolumeCheck checkVolume(Ostara::Object const& volume, GradingRule rule = GradingRule::kReported);

/// The part of it about values above children.
std::vector<PropertyCheck> checkValuesAboveChildren(Ostara::Object const& volume);

/// Keys: good, tiles, tree[], graded, grading_fault (null if graded), properties[{name, above_children{voxels,wrong,largest}, hanging{...} or null}],
/// gradient[{depth,voxels,mean,median,largest,steep{voxels,near_kink,median_to_crease,largest_to_crease}}]. One object.
std::string toJson(VolumeCheck const& check);
std::string toText(VolumeCheck const& check);
/// Only the part about gradients, of any level set, be it right otherwise or not: {gradient[...]} and the lines of the report.
struct SlopeReport {
    std::vector<GradientCheck> gradient;
};
/// \throws InputError without a signed distance
SlopeReport measureSlope(Ostara::Object const& volume);
std::string toJson(SlopeReport const& report);
std::string toText(SlopeReport const& report);
/// One line that names what is wrong, empty if nothing is.
std::string faultsOf(VolumeCheck const& check);

}  // namespace tilegrid::io
