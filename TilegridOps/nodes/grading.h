#pragma once
#include "TilegridOps/nodes/types.h"

/// Nodes that see to the structure of a volume.
namespace Geometry::Volume {

/// Adds the fewest tiles so that tiles that touch differ by at most one level of depth. Channels fill new tiles from coarser
/// ones by their own rule. A cancelled job gives an empty object; not a volume: an error, and the reference stays as it was.
TILEGRID_API void grade_volume(Corvid::Ptr<Ostara::Object>& volume, Corvid::RuntimeServices const& services);

/// Lets a volume through as it is, and replaces anything else by an empty object, without a word. So does a cancelled job.
TILEGRID_API void validate_volume(Corvid::Ptr<Ostara::Object> volume, Corvid::Ptr<Ostara::Object>& output,
                                  Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
