#include "TilegridOps/sampling/field_sampler.h"

namespace Geometry::Volume {

namespace {

class FloatFieldSampler final : public Sampler<float> {
public:
    explicit FloatFieldSampler(Corvid::Ptr<Core::Fields::ScalarField> const& field) : field_(&field) {}
    float sample(Ostara::Math::float3 const& world) const override { return *field_ ? (*field_)->value(world, -1) : 0.0f; }

private:
    Corvid::Ptr<Core::Fields::ScalarField> const* field_;
};

}  // namespace

Sampler<float>::~Sampler() = default;

void withFieldSampler(Corvid::Ptr<Core::Fields::ScalarField> const& field, std::function<void(Sampler<float> const&)> const& use)
{
    use(FloatFieldSampler(field));
}

}  // namespace Geometry::Volume
