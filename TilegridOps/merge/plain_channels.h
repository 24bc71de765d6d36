#pragma once
#include "TilegridOps/host/ost_object.h"

namespace tilegrid {

/// Replaces every channel of one of the merged types that is there in compressed-halo form only by a plain one with its
/// name, default, depths and inner voxels, so that all that follows meets one form. Other holders of the channel keep theirs.
void usePlainChannels(OST::Object& volume);

}  // namespace tilegrid
