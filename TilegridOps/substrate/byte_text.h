#pragma once
#include "TilegridOps/host/export.h"

#include <string>

namespace tilegrid {

/// A number of bytes as people read it, such as "1.5 GiB".
TILEGRID_API std::string byteText(double bytes);

}  // namespace tilegrid
