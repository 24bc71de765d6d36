#pragma once
#include "TilegridOps/nodes/types.h"

/// Nodes that make a property out of another one by a differential operator.
namespace Geometry::Volume {

/// What is computed; which element types each takes is told in algorithms/analyze.h.
enum class AnalyzeMode : int {
    kGradient = 0,
    kMeanCurvature = 1,
    kLaplacian = 2,
    kClosestPoint = 3,
    kDivergence = 4,
    kCurl = 5,
    kMagnitude = 6,
    kNormalize = 7
};
/// Where the result goes: to a property of its own, or in place of the one it was made of. Other values act as the second.
enum class AnalyzeOutputMode : int { kOutputProperty = 0, kReplace = 1 };

/// Applies an operator to a property. A property that is missing or of a type that the operator does not take leaves the volume
/// as it was, and so does a mode without a name. Not a volume: the input on the output and an error. A cancelled job gives an
/// empty object.
/// \param output_property  for `kOutputProperty`; empty means `property`
TILEGRID_API void analyze_volume(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, AnalyzeMode mode,
                                 Corvid::String const& output_property, AnalyzeOutputMode output_mode, Corvid::Ptr<Ostara::Object>& output,
                                 Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
