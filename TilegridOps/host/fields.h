#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"
#include "TilegridOps/host/string.h"

namespace Core::Fields {

/// A scalar function of world space. `value` is called from several threads at once, between `beginEvaluation` and
/// `endEvaluation` of whoever runs a job with the field.
class TILEGRID_API ScalarField {
public:
    virtual ~ScalarField();
    /// Empty for a field that stands for none.
    virtual Corvid::String name() const = 0;
    virtual void beginEvaluation() const {}
    virtual void endEvaluation() const {}
    /// \param index  number of the element that the position belongs to, -1 for a position alone
    virtual float value(Ostara::Math::float3 const& world, int index) const = 0;
};

}  // namespace Core::Fields
