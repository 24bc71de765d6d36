#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/math.h"

namespace Core::Fields {

/// A scalar function of world space. `value` is called from several threads at once.
class TILEGRID_API ScalarField {
public:
    virtual ~ScalarField();
    virtual float value(Ostara::Math::float3 const& world) const = 0;
};

}  // namespace Core::Fields
