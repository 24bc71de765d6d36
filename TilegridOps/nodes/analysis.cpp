#include "TilegridOps/nodes/analysis.h"

#include "TilegridOps/algorithms/analyze.h"
#include "TilegridOps/nodes/frame.h"

namespace Geometry::Volume {

void analyze_volume(Corvid::Ptr<Ostara::Object> volume, Corvid::String const& property, AnalyzeMode mode, Corvid::String const& output_property,
                    AnalyzeOutputMode output_mode, Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services)
{
    using namespace tilegrid::nodes;
    using namespace VolumeGL::TileTree3D::Analyze;
    using VolumeGL::TileTree3D::analyze;
    const bool toOutputProperty = int(output_mode) == 0;
    modifyVolume(
        nodeSpec("analyze_volume"), std::move(volume), output, services, [](CoreGL::CorvidLogger const&) { return false; },
        [&](std::ostream& out) {
            out << "property = " << property << "\nmode = " << int(mode) << "\noutput_property = " << output_property
                << "\noutput_mode = " << int(output_mode) << std::endl;
        },
        [&](OST::Object& native, CoreGL::CorvidLogger const&) {
            const auto run = [&]<class Operator>() { analyze<Operator>(property, output_property, toOutputProperty, native); };
            switch (mode) {
                case AnalyzeMode::kGradient: return run.template operator()<GradientOperator>();
                case AnalyzeMode::kMeanCurvature: return run.template operator()<MeanCurvatureOperator>();
                case AnalyzeMode::kLaplacian: return run.template operator()<LaplacianOperator>();
                case AnalyzeMode::kClosestPoint: return run.template operator()<ClosestPointOperator>();
                case AnalyzeMode::kDivergence: return run.template operator()<DivergenceOperator>();
                case AnalyzeMode::kCurl: return run.template operator()<CurlOperator>();
                case AnalyzeMode::kMagnitude: return run.template operator()<MagnitudeOperator>();
                case AnalyzeMode::kNormalize: return run.template operator()<NormalizeOperator>();
            }
        });
}

}  // namespace Geometry::Volume
