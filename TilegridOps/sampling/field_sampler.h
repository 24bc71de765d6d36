#pragma once
#include "TilegridOps/host/fields.h"
#include "TilegridOps/host/ptr.h"

#include <functional>

namespace Geometry::Volume {

/// How a value of a mask is read as a weight. Any value but 1 acts as `kSignForm`.
enum class SamplerInterpretation : int {
    /// 1 where the mask is 0 or less, as inside a level set, else 0.
    kSignForm = 0,
    /// The mask's value, cut to 0 to 1.
    kRampForm = 1
};

/// The weight, 0 to 1, of a mask's value; that of a NaN is 0.
constexpr float maskWeight(SamplerInterpretation interpretation, float value)
{
    if (interpretation != SamplerInterpretation::kRampForm) return value <= 0 ? 1.0f : 0.0f;
    return value > 0 ? (value < 1 ? value : 1.0f) : 0.0f;
}

/// A function of world space as algorithms take it: they do not know whether a field or a volume stands behind it.
template <class T> class Sampler;

template <> class TILEGRID_API Sampler<float> {
public:
    virtual ~Sampler();
    /// Called from several threads at once.
    virtual float sample(Ostara::Math::float3 const& world) const = 0;
};

/// Calls `use` with a sampler of the field. The sampler lives as long as the call and refers to `field` itself. What the field
/// does at the start and end of an evaluation is the caller's to ask for.
/// \param field  its value is taken for a position alone (index -1); a null field has the value 0
TILEGRID_API void withFieldSampler(Corvid::Ptr<Core::Fields::ScalarField> const& field, std::function<void(Sampler<float> const&)> const& use);

}  // namespace Geometry::Volume
