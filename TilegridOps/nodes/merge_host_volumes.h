#pragma once
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/merge/merge_volumes.h"

namespace tilegrid::nodes {

/// `merge_volumes_internal` with its parameters as one record, which can say more: a tolerance in world units, and that inputs
/// that were refined to a tolerance shall not decide. Everything else is told there.
TILEGRID_API void mergeHostVolumes(Corvid::Array<Corvid::Ptr<Ostara::Object>> const& volumes, bool invertOrder, MergeParameters const& parameters,
                                   Corvid::Ptr<Ostara::Object>& output, Corvid::RuntimeServices const& services);

}  // namespace tilegrid::nodes
