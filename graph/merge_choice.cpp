#include "graph/merge_choice.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/merge/estimate.h"
#include "TilegridOps/merge/input_error.h"
#include "graph/error.h"
#include "graph/node_families.h"
#include "io/error.h"
#include "io/info.h"
#include "io/text.h"

#include <algorithm>
#include <cfloat>

namespace tilegrid::graph {

namespace {

using Ostara::Geometry::sVoxelSignedDistance;

/// In finest voxels. Measured on the scenes of benchmarks/adaptive_table: the adaptive result is then off the plain one by 0.015 finest
/// voxels (root mean square), as far as the inputs are off themselves, and has the same largest error at creases.
constexpr double kDefaultTolerance = 0.1;
/// What grading does to the bytes of an adaptive tree at the least; measured on the same scenes: 1.05 to 1.45. Where it does more and
/// the plain result turns out smaller, that is made instead.
constexpr double kGrading = 1.05;

NativeVolumes nativesOf(StepContext const& step, HostVolumes const& volumes)
{
    NativeVolumes natives;
    for (auto const& volume : volumes)
        if (auto native = Ostara::Geometry::shallow_copy_object_to_ost_volume(*volume)) natives.push_back(native);
    return workingVolumes(natives, step.arguments.flag("reverse"), step.services);
}

/// The name of a property that adaptivity would not look at; a volume without a level set counts too. Empty: there is none.
std::string otherProperty(HostVolumes const& volumes)
{
    for (auto const& volume : volumes)
        for (std::string const& name : propertyNames(*volume))
            if (name != sVoxelSignedDistance.str()) return name;
    return {};
}

/// World length of the tolerance that the step is given; 0: none.
double givenTolerance(Arguments const& arguments, MergeDecisions const& decisions)
{
    const Length length = arguments.length("tolerance");
    const double relative = arguments.number("max_relative_error");
    if (length.value > 0 && relative > 0) throw UsageError("give tolerance or max_relative_error, not both.");
    if (length.value > 0) return length.unit == LengthUnit::kWorld ? length.value : length.value * decisions.outputVoxelSize;
    return relative * decisions.outputVoxelSize * decisions.referenceLength;
}

class Chooser {
public:
    Chooser(StepContext const& step, HostVolumes const& volumes, MergeParameters const& parameters)
        : step_(step), volumes_(volumes), natives_(nativesOf(step, volumes))
    {
        choice_.parameters = parameters;
        choice_.parameters.enableAdaptivity = true;
        choice_.parameters.graded = true;
        const MergeDecisions decisions = decideMerge(natives_, choice_.parameters);
        const double given = givenTolerance(step.arguments, decisions);
        choice_.tolerance = given > 0 ? given : toleranceOf(volumes, decisions.outputVoxelSize);
        choice_.parameters.maxError = float(std::min(choice_.tolerance, double(FLT_MAX)));
    }

    MergeChoice choose()
    {
        const auto wanted = Adaptivity(step_.arguments.choice("adaptive"));
        const double adaptive = wanted == Adaptivity::kNo ? 0 : kGrading * bytesOfAdaptiveMerge(natives_, choice_.parameters.modes.levelSet, decisions());
        if (adaptive == 0) return plain();
        if (wanted == Adaptivity::kYes || step_.arguments.number("scale") != 1) {
            refuseIfTooLarge(adaptive, "Give a larger tolerance, larger voxels (scale=), or adaptive=no");
            return choice_;
        }
        choice_.property = otherProperty(volumes_);
        if (!choice_.property.empty()) return plain();
        MergeChoice adaptiveChoice = choice_;
        choosePlain(choice_);
        if (!fits(roughBytesOfPlainMerge(natives_, decisions())) && fits(adaptive)) return adaptiveChoice;
        choice_ = plain();
        const MergeBytes bytes{adaptive, bytesOfPlainMerge(natives_, decisions(), step_.services)};
        choice_.bytes = adaptiveChoice.bytes = bytes;
        return bytes.adaptive < bytes.plain ? adaptiveChoice : choice_;
    }

private:
    MergeDecisions decisions() const { return decideMerge(natives_, choice_.parameters); }
    bool fits(double bytes) const { return step_.maxBytes == 0 || bytes <= double(step_.maxBytes); }
    void refuseIfTooLarge(double bytes, char const* remedy) const
    {
        if (!fits(bytes))
            throw io::InputError("the result may need " + io::byteText(bytes) + ", more than the " + io::byteText(double(step_.maxBytes)) +
                                 " allowed. " + remedy + ", or more memory (--max-memory).");
    }
    MergeChoice plain()
    {
        choosePlain(choice_);
        refuseIfTooLarge(roughBytesOfPlainMerge(natives_, decisions()), "Give larger voxels");
        return choice_;
    }

    StepContext const& step_;
    HostVolumes const& volumes_;
    NativeVolumes natives_;
    MergeChoice choice_;
};

}  // namespace

double toleranceOf(HostVolumes const& volumes, double finestVoxel)
{
    double smallest = FLT_MAX;
    for (auto const& volume : volumes) {
        if (!volume->native()) continue;
        float const* refined = volume->get<float>(io::kRefinementError);
        const double own = std::max(interpolationError(*volume->native()), refined ? double(*refined) : 0.0);
        if (own > 0) smallest = std::min(smallest, own);
    }
    const double least = kDefaultTolerance * finestVoxel;
    return smallest < FLT_MAX ? std::max(smallest, least) : least;
}

void choosePlain(MergeChoice& choice)
{
    choice.parameters.enableAdaptivity = false;
    choice.parameters.followRefinedInputs = false;
}

std::string reasonOf(MergeChoice const& choice)
{
    const bool adaptive = choice.parameters.enableAdaptivity;
    if (!choice.property.empty()) return "; plain, as a tolerance of distances says nothing of '" + choice.property + "'";
    if (!choice.bytes) return {};
    const std::string plainText = io::byteText(choice.bytes->plain) + " plain", tolerance = " within " + io::number(choice.tolerance) + " world units";
    const std::string adaptiveText = io::byteText(choice.bytes->adaptive) + " adaptive" + tolerance;
    return adaptive ? "; adaptive is smaller: " + adaptiveText + ", " + plainText : "; plain is smaller: " + plainText + ", about " + adaptiveText;
}

MergeChoice chooseMerge(StepContext const& step, HostVolumes const& volumes, MergeParameters const& parameters)
{
    return Chooser(step, volumes, parameters).choose();
}

}  // namespace tilegrid::graph
