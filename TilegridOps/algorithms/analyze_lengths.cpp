#include "TilegridOps/algorithms/analyze_formulas.h"
#include "TilegridOps/algorithms/analyze_pass.h"

/// What single voxels tell: their length and direction.
namespace tilegrid::analysis {

namespace {

using Ostara::Math::float2;
using Ostara::Math::float4;

/// In double, so that neither squares of large components overflow nor those of small ones vanish.
template <class T> double lengthOf(T const& value)
{
    double sum = 0;
    for (int c = 0; c < T::size; ++c) sum += double(value[c]) * double(value[c]);
    return std::sqrt(sum);
}

struct Magnitude {
    using Types = std::tuple<float, float2, float3, float4, double, double3>;
    template <class T> using Result = typename Ostara::Math::ElementTraits<T>::Scalar;
    static constexpr Needs needs = Needs::kVoxel;
    static constexpr bool hasRows = false;

    template <class T> static Result<T> atVoxel(T const& value)
    {
        if constexpr (Ostara::Math::Composite<T>)
            return Result<T>(lengthOf(value));
        else
            return std::fabs(value);
    }
};

struct Normalize {
    using Types = Magnitude::Types;
    template <class T> using Result = T;
    static constexpr Needs needs = Needs::kVoxel;
    static constexpr bool hasRows = false;

    template <class T> static T atVoxel(T const& value)
    {
        if constexpr (Ostara::Math::Composite<T>) {
            const double length = lengthOf(value);
            return length <= kNoLength ? T() : mapped(value, [length](auto c) { return decltype(c)(double(c) / length); });
        } else {
            // A NaN has no sign, and stays.
            return value > 0 ? T(1) : value < 0 ? T(-1) : value == 0 ? T(0) : value;
        }
    }
};

}  // namespace

}  // namespace tilegrid::analysis

TILEGRID_INSTANTIATE_ANALYZE(MagnitudeOperator, tilegrid::analysis::Magnitude)
TILEGRID_INSTANTIATE_ANALYZE(NormalizeOperator, tilegrid::analysis::Normalize)
