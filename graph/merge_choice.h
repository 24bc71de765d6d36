#pragma once
#include "TilegridOps/merge/merge_volumes.h"
#include "graph/node.h"

#include <optional>
#include <string>

/// What the step `merge` decides before it merges: how exact the result shall be, and whether it is adaptive.
namespace tilegrid::graph {

enum class Adaptivity { kAuto, kYes, kNo };

using HostVolumes = Corvid::Array<Corvid::Ptr<Ostara::Object>>;

/// The bytes of both results.
struct MergeBytes {
    /// An estimate before it is made.
    double adaptive = 0;
    double plain = 0;
};

/// The parameters to merge with, and what is told and kept of the choice.
struct MergeChoice {
    MergeParameters parameters = {};
    /// Of an adaptive result, in world units.
    double tolerance = 0;
    /// What was weighed, if anything was.
    std::optional<MergeBytes> bytes = {};
    /// A property, no level set, for whose sake nothing was; empty: none.
    std::string property = {};
};

/// The tolerance of an adaptive result that is not given one, in world units: a tenth of the finest voxel, or the error of the most
/// exact input where that is larger: either that of interpolation between its voxels (root mean square at its surface) or the
/// tolerance that it was refined to.
double toleranceOf(HostVolumes const& volumes, double finestVoxel);

/// \param parameters  of the step `merge`, as merging takes them; the tolerance and the choice are made here
/// \throws io::InputError if the result would need more than the step allows
/// \throws UsageError for two tolerances at once
MergeChoice chooseMerge(StepContext const& step, HostVolumes const& volumes, MergeParameters const& parameters);
/// Makes it the plain result.
void choosePlain(MergeChoice& choice);
/// Both figures, or the property, for people: begins with "; ". Empty if nothing was weighed.
std::string reasonOf(MergeChoice const& choice);

}  // namespace tilegrid::graph
